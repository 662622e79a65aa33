#include "status/status_snapshot.h"

#include <map>

#include "aggregation/sla_stats_data.h"
#include "aggregation/sla_stats_impl.h"
#include "base/clock.h"
#include "selection/smart_link_selection.h"

namespace vekt {
namespace {

void copyFlagsAndLists(const Parameters& params, StatusSnapshot& status) {
    status.settings = params.keyedSettings();
    status.gamingState = params.isGamingRunning();
    status.voip = params.isVoipRunning();
    status.serviceHighRtt = params.isServiceHighRtt();
    status.aiModeCheckRtt = params.isGamingAiModeCheckRtt();
    status.dualWifiMonitor = params.isDWMonitorStatus();
    status.dualWifiSelect = params.getDoubleWifiSelectStatus();
    status.interfaceMode = params.m_interfaceMode.get();
    status.slaUids = params.m_slaUidList.get();
    status.dualWifiUids = params.m_dwUidList.get();
    status.dualDataUids = params.m_ddUidList.get();
    status.gamingUids = params.m_gamingUidList.get();
    status.wifiGateways = params.m_wifiGatewayList.get();
    const RttServerTarget target = params.rttServerAndPort();
    status.rttServer = target.server;
    status.rttServerPort = target.port;
}

void copyRegistry(Parameters& params, StatusSnapshot& status) EXCLUDES(interfaceMutex) {
    MutexLock lock(interfaceMutex);
    for (const auto& [name, info] : params.m_interfaceInfoMap) {
        if (info == nullptr) continue;
        InterfaceStatus link;
        link.name = info->name;
        link.fwmark = info->fwmark;
        link.routeTable = info->routeTable;
        link.metered = info->metered;
        link.isDefault = info->isDefault;
        link.slave = info->slave;
        link.bssid = info->bssid;
        status.interfaces.push_back(std::move(link));
    }
}

void copyAggregation(StatusSnapshot& status) EXCLUDES(slaStatsMutex) {
    SlaStatsImpl* stats = SlaStatsImpl::instance();
    MutexLock lock(slaStatsMutex);
    for (InterfaceStatus& link : status.interfaces) {
        auto found = stats->m_slaInterfaceMap.find(link.name);
        if (found == stats->m_slaInterfaceMap.end() || found->second == nullptr) continue;
        const linkStatsWrapper_t& record = *found->second;
        link.aggregated = true;
        link.statsMapped = record.stats != nullptr;
        link.lastRate = record.rate;
        link.historyMax = record.history.maxRate;
        link.ratio = record.ratio;
        link.installedProbability = record.installedProbability;
    }
}

void copySelection(StatusSnapshot& status) EXCLUDES(slsMutex) {
    if (!SmartLinkSelection::isInstance()) return;
    SmartLinkSelection* selection = SmartLinkSelection::instance();
    MutexLock lock(slsMutex);
    status.selectionActive = true;
    for (const auto& [name, tracker] : selection->m_slsInterfaceMap) {
        if (tracker == nullptr) continue;
        ProbeStatus probe;
        probe.name = name;
        probe.speed = tracker->speed;
        probe.level = tracker->networkLevel;
        probe.missCount = tracker->missCount;
        probe.rttOffsetMs = tracker->rttOffsetMs;
        probe.threadRunning = tracker->thread != InterfaceRtt::kNoThread && tracker->alive;
        probe.measuring = probe.threadRunning && tracker->running;
        status.probes.push_back(std::move(probe));
    }
    if (selection->currentInterface != nullptr)
        status.selectedInterface = selection->currentInterface->interfaceName;
    status.hysteresisWindowStartMs = static_cast<int64_t>(toMs(selection->hystWindowStart));
    status.switchCount = selection->switchCount;
}

CounterValues readCounters(const StatusCounters& counters) {
    CounterValues values;
    values.commandsRun = counters.commandsRun.load(std::memory_order_relaxed);
    values.commandsNotStarted = counters.commandsNotStarted.load(std::memory_order_relaxed);
    values.ruleRewrites = counters.ruleRewrites.load(std::memory_order_relaxed);
    values.selectionSwitches = counters.selectionSwitches.load(std::memory_order_relaxed);
    values.socketsDestroyed = counters.socketsDestroyed.load(std::memory_order_relaxed);
    values.mainLoopPasses = counters.mainLoopPasses.load(std::memory_order_relaxed);
    return values;
}

}  // namespace

StatusSnapshot takeStatusSnapshot() {
    StatusSnapshot status;
    StatusCounters& counters = statusCounters();
    status.version = kVektVersion;
    status.uptimeMs = (monotonicNs() - counters.startedAtNs.load()) / 1000000;
    Parameters* params = Parameters::instance();
    copyFlagsAndLists(*params, status);
    copyRegistry(*params, status);
    copyAggregation(status);
    copySelection(status);
    status.counters = readCounters(counters);
    return status;
}

}  // namespace vekt
