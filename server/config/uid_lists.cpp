// Parameters: the UID whitelists and the gaming UID list.
#define LOG_TAG "SLM-Vekt-SlaParameters"

#include <log/log.h>

#include "config/parameters.h"
#include "base/text.h"
#include "config/input_validation.h"

namespace {

// Whitelist entries are app UIDs of the primary user (five digits); UIDs of other users
// have more digits and are refused.
constexpr size_t kMaxWhitelistUidLength = 5;

}  // namespace

void Parameters::setuidwhitelist(const char* text) {
    if (text != nullptr) m_slaUidWhitelist.set(text);
}

void Parameters::setDWUidWhitelist(const char* text) {
    if (text != nullptr) m_dwUidWhitelist.set(text);
}

void Parameters::setDDUidWhitelist(const char* text) {
    if (text != nullptr) m_ddUidWhitelist.set(text);
}

void Parameters::setGamingUids(const char* text) {
    if (text != nullptr) m_gamingUids.set(text);
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

void Parameters::populateUidList(const vekt::SharedValue<std::string>& text,
                                 vekt::SharedValue<StringList>& list, const char* variant,
                                 const char* entryText, bool limitLength) {
    StringList uids;
    for (const std::string& uid : vekt::splitList(text.get())) {
        if (limitLength && uid.size() > kMaxWhitelistUidLength) {
            ALOGE("%s token length error is %lu", variant, static_cast<unsigned long>(uid.size()));
            continue;
        }
        // Each UID becomes one tool argument: digits only. An empty piece stays an entry.
        if (!uid.empty() && !vekt::isValidUid(uid)) {
            vekt::logRefused(LOG_TAG, variant, "UID", uid);
            continue;
        }
        uids.push_back(uid);
    }
    list.set(uids);
    for (const std::string& uid : uids) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        __android_log_print(ANDROID_LOG_INFO, LOG_TAG, entryText, uid.c_str());
#pragma GCC diagnostic pop
    }
}
