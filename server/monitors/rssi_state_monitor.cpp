#define LOG_TAG "SLM-Vekt-RssiStateMonitor"

#include "monitors/rssi_state_monitor.h"

#include <log/log.h>
#include <string.h>

#include <string>
#include <vector>

#include "config/interface_info.h"
#include "monitors/monitor_slot.h"
#include "monitors/wifi_link_sources.h"
#include "netlink/kill_sockets.h"

namespace {

constexpr const char kWifiPrefix[] = "wlan";

}  // namespace

RssiStateMonitor* RssiStateMonitor::instance() {
    return monitorSlot<RssiStateMonitor>().getOrCreate([] { return new RssiStateMonitor(); });
}

void RssiStateMonitor::finalize() { delete monitorSlot<RssiStateMonitor>().take(); }

int32_t RssiStateMonitor::rssiPenaltyMs(int rssi) {
    // A failed query counts as a moderately weak link: guessing a good one would keep the
    // games on a link that may be fading.
    if (rssi == 0) return 60;
    if (rssi >= -64) return 0;
    if (rssi >= -75) return 60;
    if (rssi >= -85) return 120;
    return 300;
}

RssiStateMonitor::RssiStateMonitor() {
    // The settings object comes before every monitor in the lock order; it exists before
    // the monitor's mutex is held.
    Parameters::instance();
    vekt::MutexLock lock(monitorMutex);
    // A failed start leaves every query failing, and a failed query is a reading too.
    (void)vekt::stationSourceSeam().get().start();
    running = true;
    pollThread.start([this](vekt::Worker& worker) { threadLoop(worker); });
}

RssiStateMonitor::~RssiStateMonitor() {
    {
        vekt::MutexLock lock(monitorMutex);
        running = false;
        // Held across the destruction, so a round in progress finishes first.
        const std::vector<std::string> uids = Parameters::instance()->m_gamingUidList.get();
        for (const std::string& uid : uids) {
            ALOGI("RssiStateMonitor UID destroying sockets = %s", uid.c_str());
            killSocketsForUID(uid.c_str());
        }
    }
    // Wakes the thread out of its sleep and joins it.
    pollThread.stop();
}

void RssiStateMonitor::threadLoop(vekt::Worker& worker) {
    for (;;) {
        {
            // The flag is tested under the same hold as the round, so no round starts after
            // the destructor has destroyed the gaming sockets.
            vekt::MutexLock lock(monitorMutex);
            if (!running) return;
            pollLocked();
        }
        if (!worker.waitFor(kPollIntervalMs)) return;
    }
}

void RssiStateMonitor::poll() {
    vekt::MutexLock lock(monitorMutex);
    pollLocked();
}

void RssiStateMonitor::pollLocked() {
    Parameters* params = Parameters::instance();
    vekt::StationSource& station = vekt::stationSourceSeam().get();
    vekt::MutexLock registry(interfaceMutex);
    for (const auto& entry : params->m_interfaceInfoMap) {
        const InterfaceInfo_t* info = entry.second;
        // Only Wi-Fi links with a known access point have a station to ask about.
        if (info == nullptr || strncmp(info->name, kWifiPrefix, strlen(kWifiPrefix)) != 0 ||
            strncmp(info->bssid, vekt::kUnknownBssid, vekt::kBssidLength) == 0) {
            continue;
        }
        const int rssi = station.stationRssi(info->bssid, info->name);
        if (rssi >= 1) {
            // No signal is stronger than 0 dBm: the reading is wrong, the penalty stays.
            ALOGE("%s interface = %s currentrssi > 0", "poll", info->name);
            continue;
        }
        ALOGI("%s interface = %s, rssi = %d", "poll", info->name, rssi);
        if (!SmartLinkSelection::isInstance()) continue;
        SmartLinkSelection* selection = SmartLinkSelection::instance();
        vekt::MutexLock selectionLock(slsMutex);
        // Like the map's subscript: a link selection does not know yet gets an empty slot.
        InterfaceRtt* tracker = selection->m_slsInterfaceMap[info->name];
        if (tracker != nullptr) tracker->rttOffsetMs = rssiPenaltyMs(rssi);
    }
}
