#include "status_table.h"

#include <stdio.h>

#include <algorithm>
#include <vector>

namespace vektctl {
namespace {

using Row = std::vector<std::string>;

const JsonValue kAbsent;

// A text from the document as the terminal gets it: names and lists came through the
// control socket, so no control byte reaches the terminal.
std::string shown(const JsonValue& value, std::string_view fallback = "-") {
    const std::string text = value.asString(fallback);
    std::string printable;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool c1 = byte == 0xC2 && i + 1 < text.size() &&
                        static_cast<unsigned char>(text[i + 1]) < 0xA0;  // U+0080 to U+009F
        if (c1) ++i;
        printable += byte < 0x20 || byte == 0x7f || c1 ? '?' : text[i];
    }
    return printable;
}

const JsonValue& member(const JsonValue& object, std::string_view key) {
    const JsonValue* found = object.find(key);
    return found != nullptr ? *found : kAbsent;
}

std::string integerText(const JsonValue& value) {
    return value.kind == JsonValue::Kind::Number ? std::to_string(value.asInteger()) : "-";
}

std::string fixedText(const JsonValue& value, const char* format) {
    if (value.kind != JsonValue::Kind::Number) return "-";
    char text[32];
    snprintf(text, sizeof(text), format, value.asNumber());
    return text;
}

std::string onOff(const JsonValue& value) {
    if (value.kind == JsonValue::Kind::Bool) return value.asBool() ? "on" : "off";
    if (value.kind == JsonValue::Kind::Number) return value.asInteger() != 0 ? "on" : "off";
    return "-";
}

std::string joined(const JsonValue& list) {
    std::string text;
    for (const JsonValue& item : list.items) {
        if (!text.empty()) text += ",";
        text += shown(item, "?");
    }
    return text.empty() ? "-" : text;
}

std::string duration(int64_t ms) {
    const int64_t seconds = ms / 1000;
    char text[48];
    if (seconds >= 3600) {
        snprintf(text, sizeof(text), "%lldh%02lldm", static_cast<long long>(seconds / 3600),
                 static_cast<long long>(seconds / 60 % 60));
    } else {
        snprintf(text, sizeof(text), "%lldm%02llds", static_cast<long long>(seconds / 60),
                 static_cast<long long>(seconds % 60));
    }
    return text;
}

std::string kind(const JsonValue& link) {
    std::string text = member(link, "metered").asBool() ? "metered" : "unmetered";
    if (member(link, "default").asBool()) text += ",default";
    if (member(link, "slave").asBool()) text += ",slave";
    return text;
}

const JsonValue* probeOf(const JsonValue& probes, const std::string& name) {
    for (const JsonValue& probe : probes.items) {
        if (shown(member(probe, "name")) == name) return &probe;
    }
    return nullptr;
}

std::string probeState(const JsonValue* probe) {
    if (probe == nullptr) return "-";
    if (!member(*probe, "thread_running").asBool()) return "no thread";
    return member(*probe, "measuring").asBool() ? "probing" : "paused";
}

Row interfaceRow(const JsonValue& link, const JsonValue& probes, const std::string& selected) {
    const std::string name = shown(member(link, "name"), "?");
    const bool aggregated = member(link, "aggregated").asBool();
    const JsonValue* probe = probeOf(probes, name);
    const JsonValue& tracker = probe != nullptr ? *probe : kAbsent;  // its fields, or none
    return {(name == selected ? "*" : " ") + name,
            shown(member(link, "fwmark")),
            shown(member(link, "route_table")),
            kind(link),
            shown(member(link, "bssid")),
            aggregated ? (member(link, "stats_mapped").asBool() ? "mapped" : "unmapped") : "-",
            aggregated ? integerText(member(link, "last_rate")) : "-",
            aggregated ? integerText(member(link, "history_max")) : "-",
            aggregated ? fixedText(member(link, "ratio"), "%.3f") : "-",
            fixedText(member(link, "installed_probability"), "%.3f"),
            integerText(member(tracker, "speed_ms")),
            integerText(member(tracker, "level")),
            integerText(member(tracker, "miss_count")),
            integerText(member(tracker, "rtt_offset_ms")),
            probeState(probe)};
}

std::string alignedRows(const std::vector<Row>& rows) {
    std::vector<size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    }
    std::string text;
    for (const Row& row : rows) {
        std::string line;
        for (size_t column = 0; column < row.size(); ++column) {
            line += row[column];
            if (column + 1 < row.size()) line += std::string(widths[column] - row[column].size() + 2, ' ');
        }
        text += line + "\n";
    }
    return text;
}

std::string summaryLine(const JsonValue& status) {
    const JsonValue& selection = member(status, "selection");
    const JsonValue& selected = member(selection, "selected");
    return "vekt " + shown(member(status, "version"), "?") + ", up " +
           duration(member(status, "uptime_ms").asInteger()) + " | selected " +
           (selected.isNull() ? "-" : shown(selected, "?")) + " (" +
           integerText(member(selection, "switch_count")) + " switches in window) | rtt server " +
           shown(member(selection, "rtt_server")) + ":" +
           integerText(member(selection, "rtt_server_port")) + "\n";
}

std::string modesLine(const JsonValue& status) {
    const JsonValue& flags = member(status, "flags");
    return "modes: gaming " + integerText(member(flags, "gaming_state")) + ", voip " +
           onOff(member(flags, "voip")) + ", ai-mode rtt check " +
           onOff(member(flags, "ai_mode_check_rtt")) + ", service high rtt " +
           onOff(member(flags, "service_high_rtt")) + ", dual wifi monitor " +
           onOff(member(flags, "dual_wifi_monitor")) + " (select " +
           integerText(member(flags, "dual_wifi_select")) + ")\n";
}

std::string countersLine(const JsonValue& status) {
    const JsonValue& counters = member(status, "counters");
    return "commands " + integerText(member(counters, "commands_run")) + " run, " +
           integerText(member(counters, "commands_not_started")) + " not started | rule rewrites " +
           integerText(member(counters, "rule_rewrites")) + " | switches " +
           integerText(member(counters, "selection_switches")) + " | sockets destroyed " +
           integerText(member(counters, "sockets_destroyed")) + " | main loop passes " +
           integerText(member(counters, "main_loop_passes")) + "\n";
}

std::string listsLine(const JsonValue& status) {
    const JsonValue& lists = member(status, "lists");
    return "uids: sla " + joined(member(lists, "sla_uids")) + " | dual wifi " +
           joined(member(lists, "dual_wifi_uids")) + " | dual data " +
           joined(member(lists, "dual_data_uids")) + " | gaming " +
           joined(member(lists, "gaming_uids")) + " | wifi gateways " +
           joined(member(lists, "wifi_gateways")) + "\n";
}

}  // namespace

std::string formatStatusTable(const JsonValue& status) {
    const JsonValue& selection = member(status, "selection");
    const JsonValue& selected = member(selection, "selected");
    const std::string selectedName = selected.isNull() ? "" : shown(selected);
    std::vector<Row> rows = {{" interface", "fwmark", "table", "kind", "bssid", "stats", "rate",
                              "max", "ratio", "prob", "rtt", "level", "miss", "offset",
                              "probe"}};
    for (const JsonValue& link : member(status, "interfaces").items)
        rows.push_back(interfaceRow(link, member(selection, "probes"), selectedName));
    return summaryLine(status) + modesLine(status) + countersLine(status) + listsLine(status) +
           "\n" + alignedRows(rows);
}

}  // namespace vektctl
