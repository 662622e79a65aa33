// IptablesManager owns the daemon's footprint in the packet filter and policy routing:
// the fixed chain tree, each interface's mark chains with their routing and masquerading
// rules, the whitelist that decides which traffic enters the tree, and the ratio rules.
// Every command goes through execnetd.
#pragma once

#include "aggregation/link_stats.h"
#include "aggregation/sla_stats_impl.h"
#include "base/mutex.h"
#include "config/interface_info.h"
#include "config/parameters.h"

// Serialises the manager's command sequences. Comes after interfaceMutex and
// slaStatsMutex in the daemon's lock order (see base/mutex.h); never held while calling an
// operation that takes it again.
extern vekt::Mutex iptablesMutex ACQUIRED_AFTER(interfaceMutex, slaStatsMutex);

class IptablesManager {
public:
    // Creates the singleton on first use (building the chain skeleton), whatever thread
    // asks first.
    static IptablesManager* instance();
    // Tears the rule tree down and frees the singleton; the daemon calls it once, at the end.
    static void clean_SLM_iptables();

    int create_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface) EXCLUDES(iptablesMutex);
    int remove_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface) EXCLUDES(iptablesMutex);
    int cleanup_SLM_iptables_FWMARK_chains() EXCLUDES(interfaceMutex, iptablesMutex);
    int setup_slm_whitelist();
    // Works on a copy of the interface's record, taken under interfaceMutex.
    int updateInterfaceIptables(const char* ifname, bool add)
        EXCLUDES(interfaceMutex, iptablesMutex);

    // ---- selection chains: the gaming UIDs' traffic goes to the selected link ----
    // Points tarn_SLS at the interface's selection UID chain. Takes no lock.
    int set_SLS_interface(const char* ifname);
    int create_SLS_iptables_UID_for_interface(InterfaceInfo_t* iface) EXCLUDES(iptablesMutex);
    int remove_SLS_iptables_UID_for_interface(InterfaceInfo_t* iface) EXCLUDES(iptablesMutex);
    // The two above for every registered interface, under interfaceMutex.
    int setup_SLS_iptables_UID_chains() EXCLUDES(interfaceMutex, iptablesMutex);
    int cleanup_SLS_iptables_UID_chains() EXCLUDES(interfaceMutex, iptablesMutex);

    // ---- per-interface UID whitelists: who may use a restricted link ----
    // Cellular or metered links that are not slaves.
    int setup_sla_uid_whitelist() EXCLUDES(interfaceMutex);
    // Slave Wi-Fi links.
    int setup_double_wlan_uid_whitelist() EXCLUDES(interfaceMutex);
    // Slave cellular or metered links.
    int setup_double_data_uid_whitelist() EXCLUDES(interfaceMutex);

    // Rewrites tarn_SLA from the ratios of the map. The caller holds interfaceMutex and then
    // slaStatsMutex (the one lock order of the daemon); this takes iptablesMutex.
    int set_SLA_ratio_iptables(SlaInterfaceMap& map) REQUIRES(interfaceMutex, slaStatsMutex)
        EXCLUDES(iptablesMutex);

private:
    IptablesManager() EXCLUDES(iptablesMutex);
    ~IptablesManager() EXCLUDES(iptablesMutex);
    IptablesManager(const IptablesManager&) = delete;
    IptablesManager& operator=(const IptablesManager&) = delete;
};
