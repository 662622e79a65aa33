// A copy of what the daemon is doing now, for the status socket. Taking it copies each
// guarded part under its own lock, one lock at a time and in the daemon's lock order, so a
// status client holds up the main loop and the control thread no longer than that copy;
// turning it into a document and sending it happen with no lock held.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "config/parameters.h"
#include "status/status_counters.h"

namespace vekt {

struct InterfaceStatus {
    // From the registry.
    std::string name;
    std::string fwmark;
    std::string routeTable;
    bool metered = false;
    bool isDefault = false;
    bool slave = false;
    std::string bssid;
    // From aggregation; aggregated is false for a registered link it does not count.
    bool aggregated = false;
    bool statsMapped = false;
    uint32_t lastRate = 0;    // 1024 bit/s
    uint32_t historyMax = 0;  // 1024 bit/s
    float ratio = 0.0f;
    float installedProbability = -1.0f;  // -1: no ratio rule written for it yet
};

struct ProbeStatus {
    std::string name;
    int32_t speed = 0;  // smoothed RTT, ms; -1 once the link has failed
    int32_t level = 0;
    uint32_t missCount = 0;
    int32_t rttOffsetMs = 0;
    bool threadRunning = false;  // it has a probe thread
    bool measuring = false;      // and that thread measures
};

struct CounterValues {
    uint64_t commandsRun = 0;
    uint64_t commandsNotStarted = 0;
    uint64_t ruleRewrites = 0;
    uint64_t selectionSwitches = 0;
    uint64_t socketsDestroyed = 0;
    uint64_t mainLoopPasses = 0;
};

struct StatusSnapshot {
    std::string version;
    int64_t uptimeMs = 0;
    std::vector<Parameters::KeyedSetting> settings;
    // Runtime flags.
    int32_t gamingState = 0;
    bool voip = false;
    bool serviceHighRtt = false;
    bool aiModeCheckRtt = false;
    bool dualWifiMonitor = false;
    int32_t dualWifiSelect = 0;
    std::string interfaceMode;
    // Lists.
    std::vector<std::string> slaUids;
    std::vector<std::string> dualWifiUids;
    std::vector<std::string> dualDataUids;
    std::vector<std::string> gamingUids;
    std::vector<std::string> wifiGateways;
    // Links.
    std::vector<InterfaceStatus> interfaces;
    std::vector<ProbeStatus> probes;
    bool selectionActive = false;
    std::string selectedInterface;  // empty when none is selected
    int64_t hysteresisWindowStartMs = 0;  // wall clock, ms since the epoch; 0 never started
    int32_t switchCount = 0;  // switches in the current hysteresis window
    std::string rttServer;
    int32_t rttServerPort = 0;
    CounterValues counters;
};

// Takes the snapshot. interfaceMutex, slaStatsMutex and slsMutex are each taken alone;
// the caller holds none of the daemon's locks.
StatusSnapshot takeStatusSnapshot();

}  // namespace vekt
