// IptablesManager: the selection chains that steer the gaming UIDs to the chosen link, and
// the per-interface UID whitelists that decide who may use a restricted link at all.
#define LOG_TAG "SLM-Vekt-iptablesManager"

#include <log/log.h>
#include <string.h>

#include "config/parameters.h"
#include "steering/iptables_manager.h"
#include "steering/rule_commands.h"

using vekt::ChainName;
using vekt::runCommand;
using vekt::runCommandUncounted;

namespace {

bool restrictedByCost(const InterfaceInfo_t& iface) {
    return iface.metered || vekt::isCellularName(iface.name);
}

// Which interfaces a whitelist serves, and from which list.
struct WhitelistScope {
    bool (*serves)(const InterfaceInfo_t&);
    Parameters::StringList (*uids)(const Parameters&);
};

const WhitelistScope kSlaScope = {
    [](const InterfaceInfo_t& iface) { return restrictedByCost(iface) && !iface.slave; },
    [](const Parameters& params) { return params.m_slaUidList.get(); }};
const WhitelistScope kDoubleWlanScope = {
    [](const InterfaceInfo_t& iface) { return strncmp(iface.name, "wlan", 4) == 0 && iface.slave; },
    [](const Parameters& params) { return params.m_dwUidList.get(); }};
const WhitelistScope kDoubleDataScope = {
    [](const InterfaceInfo_t& iface) { return restrictedByCost(iface) && iface.slave; },
    [](const Parameters& params) { return params.m_ddUidList.get(); }};

// Refills the wrapper chain of every interface the scope serves: each whitelisted UID
// passes on to the mark chain, everything else returns from the wrapper unmarked.
int setupUidWhitelist(const WhitelistScope& scope) EXCLUDES(interfaceMutex) {
    Parameters* params = Parameters::instance();
    const Parameters::StringList uids = scope.uids(*params);
    int status = 0;
    vekt::MutexLock lock(interfaceMutex);
    for (const auto& entry : params->m_interfaceInfoMap) {
        const InterfaceInfo_t* iface = entry.second;
        if (iface == nullptr || !scope.serves(*iface)) continue;
        const ChainName wrapper =
            vekt::joinBounded(vekt::markChain(iface->name).c_str(), "_wrapper");
        status += runCommand(IPTABLES " -w -t mangle -F %s ", wrapper.c_str());
        for (const std::string& uid : uids) {
            status +=
                runCommand(IPTABLES " -w -t mangle -A %s -m owner --uid-owner %s -j tarn_fw_%s",
                           wrapper.c_str(), uid.c_str(), iface->name);
        }
    }
    return status;
}

// Runs operation on every registered interface, in name order, with interfaceMutex held;
// each failure is logged with failedText and counted, and the sum with summaryText.
// The manager is passed in, not looked up: the destructor runs this after the singleton has
// left its slot, and a lookup would build a new one.
int forEachInterface(IptablesManager* manager, int (IptablesManager::*operation)(InterfaceInfo_t*),
                     const char* function, const char* failedText, const char* summaryText)
    EXCLUDES(interfaceMutex) {
    Parameters* params = Parameters::instance();
    int failures = 0;
    {
        vekt::MutexLock lock(interfaceMutex);
        for (auto& entry : params->m_interfaceInfoMap) {
            InterfaceInfo_t* iface = entry.second;
            if (iface == nullptr) continue;
            if ((manager->*operation)(iface) == -1) {
                __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, failedText, function, iface->name);
                ++failures;
            }
        }
    }
    if (failures == 0) return 0;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, summaryText, function);
    return -1;
}

}  // namespace

int IptablesManager::set_SLS_interface(const char* ifname) {
    // No lock: the switch is two commands, each atomic in the kernel; in between, selected
    // traffic falls through to the ratio rules.
    const ChainName uidChain = vekt::selectionUidChain(ifname);
    int status = runCommand(IPTABLES "  -w -t mangle -F tarn_SLS");
    status += runCommand(IPTABLES "  -w -t mangle -A tarn_SLS -j %s", uidChain.c_str());
    return vekt::sequenceResult(status, "%s Failue during SLS interface switch  %s %s ",
                                "set_SLS_interface", ifname, uidChain.c_str());
}

int IptablesManager::create_SLS_iptables_UID_for_interface(InterfaceInfo_t* iface) {
    static constexpr const char* kFn = "create_SLS_iptables_UID_for_interface";
    if (iface == nullptr) {
        ALOGE("%s, Creating UID Chain for a NULL iface", kFn);
        return -1;
    }
    const ChainName mark = vekt::markChain(iface->name);
    const ChainName selection = vekt::selectionChain(iface->name);
    const ChainName uidChain = vekt::selectionUidChain(iface->name);
    const Parameters::StringList gamingUids = Parameters::instance()->m_gamingUidList.get();
    int status = 0;
    {
        vekt::MutexLock lock(iptablesMutex);
        runCommandUncounted(IPTABLES " -w -t mangle -N %s", selection.c_str());
        status += runCommand(IPTABLES " -w -t mangle -F %s", selection.c_str());
        // DNS is left to the platform's own routing.
        status += runCommand(IPTABLES " -w -t mangle -A %s -p udp ! --dport 53 -j %s",
                             selection.c_str(), mark.c_str());
        status += runCommand(IPTABLES " -w -t mangle -A %s -p tcp -j %s", selection.c_str(),
                             mark.c_str());
        status += runCommand(IPTABLES " -w -t mangle -A %s -j ACCEPT", selection.c_str());
        runCommandUncounted(IPTABLES " -w -t mangle -N %s", uidChain.c_str());
        status += runCommand(IPTABLES " -w -t mangle -F %s", uidChain.c_str());
        for (const std::string& uid : gamingUids) {
            status += runCommand(IPTABLES " -w -t mangle -A %s -m owner --uid-owner %s -j %s",
                                 uidChain.c_str(), uid.c_str(), selection.c_str());
        }
    }
    return vekt::sequenceResult(status, "%s Failue when creating UID tables for interface %s ", kFn,
                                iface->name);
}

int IptablesManager::remove_SLS_iptables_UID_for_interface(InterfaceInfo_t* iface) {
    static constexpr const char* kFn = "remove_SLS_iptables_UID_for_interface";
    if (iface == nullptr) {
        ALOGE("%s, Creating UID Chain for a NULL iface", kFn);
        return -1;
    }
    const ChainName selection = vekt::selectionChain(iface->name);
    const ChainName uidChain = vekt::selectionUidChain(iface->name);
    int status = 0;
    {
        vekt::MutexLock lock(iptablesMutex);
        status += runCommand(IPTABLES "  -w -t mangle -D tarn_SLS -j %s", uidChain.c_str());
        status += runCommand(IPTABLES " -w -t mangle -F %s", selection.c_str());
        status += runCommand(IPTABLES " -w -t mangle -F %s", uidChain.c_str());
        status += runCommand(IPTABLES " -w -t mangle -X %s", selection.c_str());
        status += runCommand(IPTABLES " -w -t mangle -X %s", uidChain.c_str());
    }
    return vekt::sequenceResult(status, "%s Failue when creating UID tables for interface %s ", kFn,
                                iface->name);
}

int IptablesManager::setup_SLS_iptables_UID_chains() {
    return forEachInterface(this, &IptablesManager::create_SLS_iptables_UID_for_interface,
                            "setup_SLS_iptables_UID_chains",
                            "%s Creating UID chain for interface %s failed",
                            "%s Failure when creating SLS UID tables for all interfaces ");
}

int IptablesManager::cleanup_SLS_iptables_UID_chains() {
    return forEachInterface(this, &IptablesManager::remove_SLS_iptables_UID_for_interface,
                            "cleanup_SLS_iptables_UID_chains",
                            "%s Remove UID chain for interface %s failed",
                            "%s Failure when removing SLS UID tables for all interfaces ");
}

int IptablesManager::setup_sla_uid_whitelist() { return setupUidWhitelist(kSlaScope); }

int IptablesManager::setup_double_wlan_uid_whitelist() {
    return setupUidWhitelist(kDoubleWlanScope);
}

int IptablesManager::setup_double_data_uid_whitelist() {
    return setupUidWhitelist(kDoubleDataScope);
}
