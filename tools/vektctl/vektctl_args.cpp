#include "vektctl_args.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <climits>
#include <iterator>

namespace vektctl {
namespace {

// The daemon ends itself on a gateway or whitelist text longer than its buffers
// (kGatewayTextSize, kWhitelistTextSize); a record's text holds at most 1023 bytes anyway.
constexpr int32_t kFirstId = MSG_UPDATE_INTERFACES;
constexpr int32_t kLastId = MSG_GAME_AI_FAST_CHOOSE;

const CommandInfo kCommands[] = {
    {"interfaces", MSG_UPDATE_INTERFACES, "NAME[,NAME...]", true,
     "managed interfaces, e.g. wlan0,rmnet_data0 (\"\" removes all)"},
    {"sla-uids", MSG_SLA_UID_WHITELIST, "UID[,UID...]|NULL", true,
     "UID whitelist of link aggregation (NULL empties it)"},
    {"interface-mode", MSG_INTERFACE_MODE, "0|1", true, "metered flag of every cellular link"},
    {"wifi-gateway", MSG_WIFI_GATEWAY, "ADDRESS", true, "Wi-Fi gateway address (< 64 chars)"},
    {"dual-wifi-uids", MSG_DW_UID_WHITELIST, "UID[,UID...]|NULL", true,
     "UID whitelist of dual Wi-Fi"},
    {"dual-wifi-monitor", MSG_DW_MONITOR, "0|1", true,
     "stop (0) or start (1) the dual Wi-Fi monitor"},
    {"dual-data-uids", MSG_DD_UID_WHITELIST, "UID[,UID...]|NULL", true,
     "UID whitelist of dual data"},
    {"bssid", MSG_BSSID, "WLAN0_BSSID,WLAN1_BSSID", true,
     "access points of wlan0 and wlan1 (colons allowed)"},
    {"game-start", MSG_START_SLS, "UID[,UID...]", true, "start gaming link selection"},
    {"game-stop", MSG_STOP_SLS, "", false, "stop gaming link selection"},
    {"voip", MSG_VOIP, "0|UID[,UID...]", true, "VoIP mode off (0) or on for these UIDs"},
    {"rtt", MSG_SERVICE_RTT, "MS", true, "the service's RTT in ms, a decimal number"},
    {"game-ai-mode", MSG_GAME_AI_MODE, "0|UID[,UID...]", true,
     "gaming AI mode off (0) or on for these UIDs"},
    {"game-ai-check-rtt", MSG_GAME_AI_CHECK_RTT, "0|1", true, "RTT probing in AI mode"},
    {"game-ai-fast-choose", MSG_GAME_AI_FAST_CHOOSE, "0|1", true, "fast link choice in AI mode"},
};

const CommandInfo* findByName(const std::string& name) {
    for (const CommandInfo& command : kCommands) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

// A decimal int32 with an optional sign and nothing else.
bool parseInt32(const std::string& text, int32_t& value) {
    size_t start = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
    if (start == text.size()) return false;
    for (size_t i = start; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
    }
    errno = 0;
    long long parsed = strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE || parsed < INT32_MIN || parsed > INT32_MAX) return false;
    value = static_cast<int32_t>(parsed);
    return true;
}

bool isWhitelist(int32_t id) {
    return id == MSG_SLA_UID_WHITELIST || id == MSG_DW_UID_WHITELIST || id == MSG_DD_UID_WHITELIST;
}

}  // namespace

const std::vector<CommandInfo>& commands() {
    static const std::vector<CommandInfo> list(std::begin(kCommands), std::end(kCommands));
    return list;
}

bool checkText(int32_t id, const std::string& text, std::string& error) {
    if (text.size() >= kMsgTextSize) {
        error = "text of " + std::to_string(text.size()) +
                " bytes does not fit a record (at most " + std::to_string(kMsgTextSize - 1) + ")";
        return false;
    }
    // Kept although the record limit is tighter today: the daemon aborts on these.
    if (isWhitelist(id) && text.size() >= kWhitelistTextSize) {
        error = "whitelist text of " + std::to_string(text.size()) +
                " bytes is too long (at most " + std::to_string(kWhitelistTextSize - 1) + ")";
        return false;
    }
    if (id == MSG_WIFI_GATEWAY && text.size() >= kGatewayTextSize) {
        error = "gateway text of " + std::to_string(text.size()) +
                " characters is too long (at most " + std::to_string(kGatewayTextSize - 1) + ")";
        return false;
    }
    int32_t rtt = 0;
    if (id == MSG_SERVICE_RTT && !parseInt32(text, rtt)) {
        error = "rtt needs a decimal number of milliseconds, not \"" + text + "\"";
        return false;
    }
    return true;
}

namespace {

// The options after "status": --json, --watch N (whole seconds, 1 to 3600).
bool parseStatusOptions(const std::vector<std::string>& args, size_t next, Request& request,
                        std::string& error) {
    request.status = true;
    for (; next < args.size(); ++next) {
        if (args[next] == "--json") {
            request.json = true;
        } else if (args[next] == "--watch") {
            int32_t seconds = 0;
            if (next + 1 >= args.size() || !parseInt32(args[next + 1], seconds) || seconds < 1 ||
                seconds > 3600) {
                error = "--watch needs a number of seconds from 1 to 3600";
                return false;
            }
            request.watchSeconds = seconds;
            ++next;
        } else {
            error = "status takes --json and --watch N, not \"" + args[next] + "\"";
            return false;
        }
    }
    return true;
}

}  // namespace

bool parseCommandLine(const std::vector<std::string>& args, Request& request, std::string& error) {
    request = Request();
    size_t next = 0;
    for (; next < args.size(); ++next) {
        const std::string& arg = args[next];
        if (arg == "--help" || arg == "-h") {
            request.help = true;
            return true;
        } else if (arg == "--raw") {
            request.raw = true;
        } else if (arg == "--stay") {
            request.stay = true;
        } else if (arg == "--root") {
            if (next + 1 >= args.size()) {
                error = "--root needs a directory";
                return false;
            }
            request.root = args[++next];
        } else if (arg.size() > 1 && arg[0] == '-' && arg != "--" &&
                   !(arg[1] >= '0' && arg[1] <= '9')) {
            error = "unknown option " + arg;
            return false;
        } else {
            if (arg == "--") ++next;
            break;
        }
    }
    if (next >= args.size()) {
        error = "no command given";
        return false;
    }

    const std::string& word = args[next++];
    if (word == "status") return parseStatusOptions(args, next, request, error);
    const CommandInfo* named = findByName(word);
    if (named != nullptr) {
        request.id = named->id;
    } else if (!parseInt32(word, request.id)) {
        bool numeric = word.find_first_not_of("+-0123456789") == std::string::npos;
        error =
            numeric ? "id " + word + " is not a 32-bit number" : "unknown command \"" + word + "\"";
        return false;
    } else if (!request.raw && (request.id < kFirstId || request.id > kLastId)) {
        error = "id " + word + " is outside " + std::to_string(kFirstId) + ".." +
                std::to_string(kLastId) + " (--raw sends it anyway)";
        return false;
    }

    if (next < args.size()) {
        request.text = args[next++];
    } else if (named != nullptr && named->needsArgument) {
        error = std::string(named->name) + " needs its argument: " + named->argument;
        return false;
    }
    if (next < args.size()) {
        error = "unexpected argument \"" + args[next] + "\" (quote a text with blanks)";
        return false;
    }
    return checkText(request.id, request.text, error);
}

msg_t makeRecord(int32_t id, const std::string& text) {
    msg_t record;
    memset(&record, 0, sizeof(record));
    record.id = id;
    size_t length = strnlen(text.c_str(), kMsgTextSize - 1);
    record.length = static_cast<int32_t>(length);
    memcpy(record.message, text.c_str(), length);
    return record;
}

std::string usage() {
    std::string text =
        "usage: vektctl [--root DIR] [--raw] [--stay] COMMAND [TEXT]\n"
        "       vektctl [--root DIR] [--raw] [--stay] ID [TEXT]\n"
        "       vektctl [--root DIR] status [--json] [--watch N]\n"
        "       vektctl --help\n"
        "\n"
        "Sends one control record to the daemon's socket /dev/socket/vekt and waits until\n"
        "the daemon has read it. `status` instead reads what the daemon is doing now from\n"
        "/dev/socket/vekt-status: a table (--json: the document as it came; --watch N:\n"
        "again every N seconds until interrupted).\n"
        "\n"
        "commands:\n";
    for (const CommandInfo& command : kCommands) {
        char line[160];
        snprintf(line, sizeof(line), "  %2d %-20s %-24s %s\n", command.id, command.name,
                 command.argument, command.summary);
        text += line;
    }
    text +=
        "\n"
        "options:\n"
        "  --root DIR  the daemon's device root: the socket is DIR/dev/socket/vekt\n"
        "  --raw       allow any numeric ID, also outside 1..15 (unknown-id handling)\n"
        "  --stay      stay connected after the record until the daemon hangs up, as the\n"
        "              platform service does; the daemon stops (vendor.sla.enabled = 2)\n"
        "              only while a client is connected\n"
        "  --help      print this text\n"
        "\n"
        "A numeric ID (1..15) sends TEXT as it is, empty when left out. A text holds at\n"
        "most 1023 bytes, a wifi-gateway text at most 63; rtt takes a decimal number.\n"
        "Exit status: 0 when the daemon read the record, 1 otherwise.\n";
    return text;
}

}  // namespace vektctl
