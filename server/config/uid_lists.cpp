// Parameters: the UID whitelists and the gaming UID list.
#define LOG_TAG "SLM-Vekt-SlaParameters"

#include <log/log.h>

#include "config/parameters.h"
#include "config/text_split.h"

namespace {

// Whitelist entries are app UIDs of the primary user (five digits); UIDs of other users
// have more digits and are refused.
constexpr size_t kMaxWhitelistUidLength = 5;

}  // namespace

void Parameters::setuidwhitelist(const char* text) {
    if (text != nullptr) m_slaUidWhitelist = text;
}

void Parameters::setDWUidWhitelist(const char* text) {
    if (text != nullptr) m_dwUidWhitelist = text;
}

void Parameters::setDDUidWhitelist(const char* text) {
    if (text != nullptr) m_ddUidWhitelist = text;
}

void Parameters::setGamingUids(const char* text) {
    if (text != nullptr) m_gamingUids = text;
}

void Parameters::populateSlaUidWhitelist() {
    populateUidList(m_slaUidWhitelist, m_slaUidList, "populateSlaUidWhitelist",
                    "SLA UID whitelist = %s", true);
}

void Parameters::populateDWUidWhitelist() {
    populateUidList(m_dwUidWhitelist, m_dwUidList, "populateDWUidWhitelist",
                    "SLA Double Wlan UID whitelist = %s", true);
}

void Parameters::populateDDUidWhitelist() {
    populateUidList(m_ddUidWhitelist, m_ddUidList, "populateDDUidWhitelist",
                    "SLA Double Data UID whitelist = %s", true);
}

void Parameters::populateGamingUids() {
    populateUidList(m_gamingUids, m_gamingUidList, "populateGamingUids",
                    "SLS GAMING Demo UID = %s", false);
}

void Parameters::populateUidList(const std::string& text, std::vector<std::string>& list,
                                 const char* variant, const char* entryText,
                                 bool limitLength) {
    list.clear();
    for (const std::string& uid : vekt::splitList(text)) {
        if (limitLength && uid.size() > kMaxWhitelistUidLength) {
            ALOGE("%s token length error is %lu", variant, static_cast<unsigned long>(uid.size()));
            continue;
        }
        list.push_back(uid);
    }
    for (const std::string& uid : list) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        __android_log_print(ANDROID_LOG_INFO, LOG_TAG, entryText, uid.c_str());
#pragma GCC diagnostic pop
    }
}
