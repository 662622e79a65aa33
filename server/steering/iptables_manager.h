// IptablesManager owns the daemon's footprint in the packet filter and policy routing:
// the fixed chain tree, each interface's mark chains with their routing and masquerading
// rules, the whitelist that decides which traffic enters the tree, and the ratio rules.
// Every command goes through execnetd.
#pragma once

#include <mutex>

#include "aggregation/link_stats.h"
#include "config/interface_info.h"

// Serialises the manager's command sequences. Comes after interfaceMutex and
// slaStatsMutex in the daemon's lock order (see config/parameters.h); never held while
// calling an operation that takes it again.
extern std::mutex iptablesMutex;

class IptablesManager {
public:
    // Creates the singleton on first use (building the chain skeleton). Called first from
    // main, before other threads exist.
    static IptablesManager* instance();
    // Tears the rule tree down and frees the singleton; the daemon calls it once, at the end.
    static void clean_SLM_iptables();

    int create_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface);
    int remove_SLM_FWMARK_chain_for_iface(InterfaceInfo_t* iface);
    int cleanup_SLM_iptables_FWMARK_chains();
    int setup_slm_whitelist();
    int updateInterfaceIptables(const char* ifname, bool add);

    // Rewrites tarn_SLA from the ratios of the map. The caller holds interfaceMutex and then
    // slaStatsMutex (the one lock order of the daemon); this takes iptablesMutex.
    int set_SLA_ratio_iptables(SlaInterfaceMap& map);

private:
    IptablesManager();
    ~IptablesManager();
    IptablesManager(const IptablesManager&) = delete;
    IptablesManager& operator=(const IptablesManager&) = delete;

    static IptablesManager* sInstance;
};
