#include "config/input_validation.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <log/log.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace vekt {
namespace {

constexpr size_t kMaxInterfaceNameLength = 15;  // IFNAMSIZ - 1
constexpr size_t kMaxShownLength = 64;

// Ranges of the settings whose other values cannot work. Kept in step with the comments of
// etc/vekt.conf.
constexpr SettingRange kSettingRanges[] = {
    // Periods and time-outs: 0 or less spins or never waits; over a minute, a stop is no
    // longer honoured in reasonable time.
    {"mini_est_interval", 1, 60000},
    {"ping_interval_ms", 1, 60000},
    {"rtt_noresponse_timeout_ms", 1, 60000},
    // The hysteresis window is counted in milliseconds in 32 bits.
    {"t_hyst_s", 0, 2147483},
    // One rate kept per pass and link: beyond this the history outgrows the daemon.
    {"best_est_cache_size", 0, 65536},
    // Every link at this floor must still fit in the whole: two links at 50 % each.
    {"min_link_share", 0, 50},
    {"credit_best_rate", 0, 1},
    // The registry has four interface slots.
    {"num_interfaces", 0, 4},
};

bool allDigits(const std::string& text, size_t from, size_t to) {
    if (from >= to) return false;
    for (size_t i = from; i < to; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
    }
    return true;
}

}  // namespace

bool isValidInterfaceName(const std::string& name) {
    if (name.empty() || name.size() > kMaxInterfaceNameLength) return false;
    if (name == "." || name == "..") return false;
    for (unsigned char c : name) {
        if (c == '/' || c == ':' || c == '\0' || isspace(c)) return false;
    }
    return true;
}

bool isValidUid(const std::string& uid) { return allDigits(uid, 0, uid.size()); }

bool isValidGatewayAddress(const std::string& text) {
    const size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    unsigned char buffer[sizeof(struct in6_addr)];
    int maxPrefix = 0;
    if (inet_pton(AF_INET, address.c_str(), buffer) == 1) {
        maxPrefix = 32;
    } else if (inet_pton(AF_INET6, address.c_str(), buffer) == 1) {
        maxPrefix = 128;
    } else {
        return false;
    }
    if (slash == std::string::npos) return true;
    if (!allDigits(text, slash + 1, text.size()) || text.size() - slash - 1 > 3) return false;
    return atoi(text.c_str() + slash + 1) <= maxPrefix;
}

bool isValidFwmark(const std::string& text) {
    if (text.size() < 3 || text.size() > 10 || text.compare(0, 2, "0x") != 0) return false;
    for (size_t i = 2; i < text.size(); ++i) {
        if (!isxdigit(static_cast<unsigned char>(text[i]))) return false;
    }
    return true;
}

std::string printableText(const std::string& text) {
    std::string shown;
    for (size_t i = 0; i < text.size() && i < kMaxShownLength; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            shown.push_back(static_cast<char>(c));
        } else {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\x%02x", c);
            shown += escaped;
        }
    }
    if (text.size() > kMaxShownLength) shown += "...";
    return shown;
}

void logRefused(const char* tag, const char* handler, const char* kind, const std::string& piece) {
    __android_log_print(ANDROID_LOG_ERROR, tag, "%s refused %s \"%s\"", handler, kind,
                        printableText(piece).c_str());
}

const SettingRange* findSettingRange(const char* key) {
    for (const SettingRange& range : kSettingRanges) {
        if (strcmp(range.key, key) == 0) return &range;
    }
    return nullptr;
}

}  // namespace vekt
