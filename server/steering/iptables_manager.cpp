// IptablesManager: the fixed chain tree, each interface's mark chains with its routing and
// masquerading rules, the whitelist in front of the tree, and the aggregation ratio rules.
#define LOG_TAG "SLM-Vekt-iptablesManager"

#include "steering/iptables_manager.h"

#include <log/log.h>

#include <algorithm>
#include <string>

#include "base/singleton_slot.h"
#include "config/parameters.h"
#include "steering/execnetd.h"
#include "steering/rule_commands.h"
#include "status/status_counters.h"

vekt::Mutex iptablesMutex(vekt::LockLevel::kIptables, "iptablesMutex");

#define SLA_RATIO_RULE                                                           \
    IPTABLES                                                                     \
    " -w -t mangle -A tarn_SLA -p tcp -m state --state NEW -m statistic --mode " \
    "random --probability %f -j %s"

namespace {

using vekt::ChainName;
using vekt::markChain;
using vekt::runCommand;
using vekt::runCommandUncounted;
using vekt::wrapperChain;

// Interface marks live in these three bits; the routing rule matches under a wider mask so
// that a packet also carrying one of the two extra bits does not follow the interface table.
constexpr const char* kMarkMask = "0x00E00000";
constexpr const char* kRouteMask = "0x0CE00000";

vekt::SingletonSlot<IptablesManager>& slot() {
    static vekt::SingletonSlot<IptablesManager> instance(vekt::LockLevel::kSingleton,
                                                         "IptablesManager singleton");
    return instance;
}

}  // namespace

IptablesManager* IptablesManager::instance() {
    return slot().getOrCreate([] { return new IptablesManager(); });
}

void IptablesManager::clean_SLM_iptables() {
    // Taken out first: nothing may reach the manager being torn down, and a later
    // instance() builds a fresh skeleton.
    delete slot().take();
}

IptablesManager::IptablesManager() {
    // Chains left by an earlier run are emptied and reused; each hook is deleted before it
    // is added, so there is exactly one. The mangle hook goes at the end of OUTPUT, the nat
    // hook at the head of POSTROUTING. tarn_SLM itself is reached only from the per-UID
    // rules of tarn_SLM_wapper. No result is looked at.
    vekt::MutexLock lock(iptablesMutex);
    runCommandUncounted(IPTABLES " -w -t mangle -N tarn_SLM");
    runCommandUncounted(IPTABLES " -w -t mangle -F tarn_SLM");
    runCommandUncounted(IPTABLES " -w -t mangle -N tarn_SLA");
    runCommandUncounted(IPTABLES " -w -t mangle -F tarn_SLA");
    runCommandUncounted(IPTABLES " -w -t mangle -N tarn_SLS");
    runCommandUncounted(IPTABLES " -w -t mangle -F tarn_SLS");
    runCommandUncounted(IPTABLES " -w -t mangle -N tarn_SLM_wapper");
    runCommandUncounted(IPTABLES " -w -t mangle -F tarn_SLM_wapper");
    runCommandUncounted(IPTABLES " -w -t mangle -I tarn_SLM 1 -j tarn_SLS");
    runCommandUncounted(
        IPTABLES
        " -w -t mangle -I tarn_SLM 2 -m state --state ESTABLISHED,RELATED -j CONNMARK "
        "--restore-mark");
    runCommandUncounted(IPTABLES " -w -t mangle -I tarn_SLM 3 -j tarn_SLA");
    runCommandUncounted(IPTABLES " -w -t mangle -D OUTPUT -j tarn_SLM_wapper");
    runCommandUncounted(IPTABLES " -w -t mangle -A OUTPUT -j tarn_SLM_wapper");
    runCommandUncounted(IPTABLES " -w -t nat -F tarn_nat_POSTROUTING_SLM");
    runCommandUncounted(IPTABLES " -w -t nat -N tarn_nat_POSTROUTING_SLM");
    runCommandUncounted(IPTABLES " -w -t nat -D POSTROUTING -j tarn_nat_POSTROUTING_SLM");
    runCommandUncounted(IPTABLES " -w -t nat -I POSTROUTING -j tarn_nat_POSTROUTING_SLM");
}

IptablesManager::~IptablesManager() {
    {
        // Hooks first, so that no packet enters a chain while it is being emptied.
        vekt::MutexLock lock(iptablesMutex);
        runCommandUncounted(IPTABLES " -w -t mangle -D OUTPUT -j tarn_SLM_wapper");
        runCommandUncounted(IPTABLES " -w -t nat -D POSTROUTING -j tarn_nat_POSTROUTING_SLM");
        runCommandUncounted(IPTABLES " -w -t nat -F tarn_nat_POSTROUTING_SLM");
        runCommandUncounted(IPTABLES " -w -t nat -X tarn_nat_POSTROUTING_SLM");
        runCommandUncounted(IPTABLES " -w -t mangle -F tarn_SLM_wapper");
        runCommandUncounted(IPTABLES " -w -t mangle -X tarn_SLM_wapper");
        runCommandUncounted(IPTABLES " -w -t mangle -F tarn_SLM");
        runCommandUncounted(IPTABLES " -w -t mangle -X tarn_SLM");
        runCommandUncounted(IPTABLES " -w -t mangle -F tarn_SLA");
        runCommandUncounted(IPTABLES " -w -t mangle -X tarn_SLA");
        runCommandUncounted(IPTABLES " -w -t mangle -F tarn_SLS");
        runCommandUncounted(IPTABLES " -w -t mangle -X tarn_SLS");
    }
    // The per-interface removals take iptablesMutex themselves, so the lock is released
    // first. With the fixed chains already emptied nothing refers to the per-interface chains
    // any more when they are deleted; their own steps on the fixed chains (the tarn_SLS
    // delete, the tarn_SLA flush, the nat delete) fail harmlessly now. Selection chains go
    // before the mark chains they jump to.
    (void)cleanup_SLS_iptables_UID_chains();
    (void)cleanup_SLM_iptables_FWMARK_chains();
}

int IptablesManager::create_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface) {
    static constexpr const char* kFn = "create_SLM_FWMARK_chain_for_iface";
    if (iface == nullptr) {
        ALOGE("%s, Creating FWMARK Chain for a NULL iface", kFn);
        return -1;
    }
    ChainName mark = markChain(iface->name);
    int status = 0;
    {
        vekt::MutexLock lock(iptablesMutex);
        runCommandUncounted(IPTABLES " -w -t mangle -N %s", mark.c_str());
        status += runCommand(IPTABLES " -w -t mangle -F %s", mark.c_str());
        // Links whose use is restricted to whitelisted UIDs get an (empty) gate chain; the
        // whitelists fill it.
        if (iface->metered || iface->slave || vekt::isCellularName(iface->name)) {
            ChainName wrapper = wrapperChain(mark);
            runCommandUncounted(IPTABLES " -w -t mangle -N %s", wrapper.c_str());
            status += runCommand(IPTABLES " -w -t mangle -F %s", wrapper.c_str());
        }
        // Appending without a flush of its own is safe: the chain was flushed just above.
        status += runCommand(IPTABLES " -w -t mangle -A %s -j MARK --set-mark %s/%s", mark.c_str(),
                             iface->fwmark, kMarkMask);
        status += runCommand(IPTABLES " -w -t mangle -A %s -j CONNMARK --save-mark --ctmask %s",
                             mark.c_str(), kMarkMask);
        status += runCommand(IPTABLES " -w -t mangle -A %s -j ACCEPT", mark.c_str());
        // Drops a rule left by an earlier run; its failure is harmless but still counted.
        status +=
            runCommand(IP_TOOL " -4 rule del fwmark %s/%s prio 14999", iface->fwmark, kRouteMask);
        status += runCommand(IP_TOOL " -4 rule add fwmark %s/%s table %s prio 14999", iface->fwmark,
                             kRouteMask, iface->routeTable);
        status += runCommand(IPTABLES " -w -t nat -A tarn_nat_POSTROUTING_SLM -o %s -j MASQUERADE",
                             iface->name);
    }
    return vekt::sequenceResult(status, "%s Failue when creating FWMARK tables for interface %s ",
                                kFn, iface->name);
}

int IptablesManager::remove_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface) {
    static constexpr const char* kFn = "remove_SLM_FWMARK_chain_for_iface";
    if (iface == nullptr) {
        ALOGE("%s, Remove FWMARK Chain for a NULL iface", kFn);
        return -1;
    }
    ChainName mark = markChain(iface->name);
    ChainName wrapper = wrapperChain(mark);
    int status = 0;
    {
        vekt::MutexLock lock(iptablesMutex);
        // The ratio rules may jump into the chains about to go; all of them are dropped and
        // come back with the next ratio update.
        runCommandUncounted(IPTABLES " -w -t mangle -F tarn_SLA");
        // Every interface is treated as if it had a gate chain; where it has none the two
        // commands fail harmlessly.
        runCommandUncounted(IPTABLES " -w -t mangle -F %s", wrapper.c_str());
        status += runCommand(IPTABLES " -w -t mangle -X %s", wrapper.c_str());
        runCommandUncounted(IPTABLES " -w -t mangle -F %s", mark.c_str());
        status += runCommand(IPTABLES " -w -t mangle -X %s", mark.c_str());
        status +=
            runCommand(IP_TOOL " -4 rule del fwmark %s/%s prio 14999", iface->fwmark, kRouteMask);
        status += runCommand(IPTABLES " -w -t nat -D tarn_nat_POSTROUTING_SLM -o %s -j MASQUERADE",
                             iface->name);
    }
    return vekt::sequenceResult(status, "%s Failure when creating FWMARK tables for interface %s ",
                                kFn, iface->name);
}

int IptablesManager::cleanup_SLM_iptables_FWMARK_chains() {
    static constexpr const char* kFn = "cleanup_SLM_iptables_FWMARK_chains";
    Parameters* params = Parameters::instance();
    int failures = 0;
    {
        // Held across the walk: removal of a record elsewhere would free it under us. Each
        // removal takes iptablesMutex inside, which is the daemon's lock order.
        vekt::MutexLock lock(interfaceMutex);
        if (params->m_interfaceInfoMap.empty()) return 0;
        for (auto& entry : params->m_interfaceInfoMap) {
            InterfaceInfo_t* iface = entry.second;
            if (iface == nullptr) continue;
            if (remove_SLM_FWMARK_chain_for_iface(iface) == -1) {
                ALOGE("%s Cleanup FWMARK for interface %s failed", kFn, iface->name);
                ++failures;
            }
        }
    }
    if (failures != 0) {
        ALOGE("%s Failure when cleaning FWMARK tables for all interfaces ", kFn);
        return -1;
    }
    return 0;
}

int IptablesManager::setup_slm_whitelist() {
    Parameters* params = Parameters::instance();
    int status = runCommand(IPTABLES " -w -t mangle -F tarn_SLM_wapper");
    // Traffic to a Wi-Fi gateway never enters the steering tree.
    for (const std::string& gateway : *params->m_wifiGatewayList.snapshot()) {
        status += runCommand(IPTABLES " -w -t mangle -A tarn_SLM_wapper -d %s -j RETURN",
                             gateway.c_str());
    }
    // A UID found in several lists gets one rule for each; they are not merged.
    for (const auto* list : {&params->m_gamingUidList, &params->m_dwUidList, &params->m_ddUidList,
                             &params->m_slaUidList}) {
        for (const std::string& uid : *list->snapshot()) {
            status += runCommand(
                IPTABLES " -w -t mangle -A tarn_SLM_wapper -m owner --uid-owner %s -j tarn_SLM",
                uid.c_str());
        }
    }
    return status;
}

int IptablesManager::updateInterfaceIptables(const char* ifname, bool add) {
    Parameters* params = Parameters::instance();
    // The rules are built from a copy: the record may be freed as soon as the lock is gone,
    // and the operations below take iptablesMutex on their own.
    InterfaceInfo_t record;
    InterfaceInfo_t* iface = &record;
    {
        // The subscript inserts: an unknown name leaves a record-less entry, which every
        // walker skips.
        vekt::MutexLock lock(interfaceMutex);
        const InterfaceInfo_t* registered = params->m_interfaceInfoMap[ifname];
        if (registered == nullptr) return 0;
        record = *registered;
    }

    const bool selecting = params->isVoipRunning() || params->isGamingRunning() != 0;
    if (add) {
        (void)create_SLM_FWMARK_chain_for_iface(iface);
        (void)setup_slm_whitelist();
        (void)setup_double_wlan_uid_whitelist();
        (void)setup_sla_uid_whitelist();
        (void)setup_double_data_uid_whitelist();
        if (selecting) (void)create_SLS_iptables_UID_for_interface(iface);
    } else {
        if (selecting) (void)remove_SLS_iptables_UID_for_interface(iface);
        (void)remove_SLM_FWMARK_chain_for_iface(iface);
    }
    return 0;
}

int IptablesManager::set_SLA_ratio_iptables(SlaInterfaceMap& map) {
    static constexpr const char* kFn = "set_SLA_ratio_iptables";
    // interfaceMutex is held by the caller: the registry records looked up here stay valid.
    Parameters* params = Parameters::instance();
    auto& registry = params->m_interfaceInfoMap;
    const int dualWifi = params->getDoubleWifiSelectStatus();

    vekt::MutexLock lock(iptablesMutex);
    vekt::countEvent(vekt::statusCounters().ruleRewrites);
    int status = runCommand(IPTABLES " -w -t mangle -F tarn_SLA");

    // Each random rule only sees the connections that the rules before it let through, so
    // the probability of a rule is its share of what is left: ratio / (1 - given).
    float given = 0.0f;

    // Unmetered links first, whatever their names.
    for (auto& entry : map) {
        linkStatsWrapper_t* link = entry.second;
        if (link == nullptr) continue;
        InterfaceInfo_t* iface = registry[link->name];
        if (iface == nullptr || iface->metered) continue;

        float probability = 1.0f;
        if (1.0 - given > 0) probability = link->ratio / (1.0 - given);
        probability = std::min(probability, 1.0f);
        ALOGI("Updated Ratio: %f", probability);
        // With two Wi-Fi links in use, every new connection goes to the selected side.
        if (dualWifi == 1) probability = iface->slave ? 0.0f : 1.0f;
        if (dualWifi == 2) probability = iface->slave ? 1.0f : 0.0f;
        link->installedProbability = probability;

        ChainName mark = markChain(link->name);
        ChainName target = mark;
        if (iface->slave || vekt::isCellularName(link->name)) target = wrapperChain(mark);
        status += runCommand(SLA_RATIO_RULE, probability, target.c_str());
        given += probability;
    }

    // Then the metered links, each behind its UID gate. What they are given counts by ratio,
    // not by the probability used.
    for (auto& entry : map) {
        linkStatsWrapper_t* link = entry.second;
        if (link == nullptr) continue;
        InterfaceInfo_t* iface = registry[link->name];
        if (iface == nullptr || !iface->metered) continue;

        float probability = 0.0f;
        if (1.0 - given > 0) probability = link->ratio / (1.0 - given);
        probability = std::min(probability, 1.0f);
        ALOGI("Updated Ratio: %f", probability);
        link->installedProbability = probability;

        ChainName target = wrapperChain(markChain(link->name));
        status += runCommand(SLA_RATIO_RULE, probability, target.c_str());
        given += link->ratio;
    }

    return vekt::sequenceResult(status, "%s Failure when setting SLA Ratios ", kFn);
}
