#define LOG_TAG "SLM-Vekt-DoubleWifiMonitor"

#include "monitors/double_wifi_monitor.h"

#include <log/log.h>
#include <stdlib.h>
#include <string.h>

#include "base/text.h"
#include "config/interface_info.h"
#include "monitors/monitor_slot.h"
#include "monitors/wifi_link_sources.h"
#include "selection/tcping.h"

std::atomic<bool> DoubleWifiMonitor::isCollectRtt{false};

namespace {

constexpr const char kWifiPrefix[] = "wlan";

}  // namespace

DoubleWifiMonitor* DoubleWifiMonitor::instance() {
    return monitorSlot<DoubleWifiMonitor>().getOrCreate([] { return new DoubleWifiMonitor(); });
}

void DoubleWifiMonitor::finalize() { delete monitorSlot<DoubleWifiMonitor>().take(); }

DoubleWifiMonitor::DoubleWifiMonitor() {
    ALOGI("DoubleWifiMonitor enter ");
    // The settings object comes before every monitor in the lock order; it exists before
    // the monitor's mutex is held.
    Parameters* params = Parameters::instance();
    vekt::MutexLock lock(monitorMutex);
    // A failed start leaves every query failing, and failed readings are skipped.
    (void)vekt::stationSourceSeam().get().start();
    params->setDoubleWifiSelectStatus(0);
    {
        vekt::MutexLock registry(interfaceMutex);
        if (params->m_interfaceInfoMap.size() < 2) {
            ALOGE("%s m_interfaceInfoMap size < 2 is error!, interfaceMapSize =",
                  "DoubleWifiMonitor");
            return;
        }
        for (const auto& entry : params->m_interfaceInfoMap) {
            const InterfaceInfo_t* info = entry.second;
            if (info == nullptr || strncmp(info->name, kWifiPrefix, strlen(kWifiPrefix)) != 0 ||
                strncmp(info->bssid, vekt::kUnknownBssid, vekt::kBssidLength) == 0) {
                continue;
            }
            auto wifiInfo = std::make_unique<wifiInfo_t>();
            vekt::copyBounded(wifiInfo->name, sizeof(wifiInfo->name), info->name);
            vekt::copyBounded(wifiInfo->bssid, sizeof(wifiInfo->bssid), info->bssid);
            wifiInfo->slave = info->slave;
            wifiInfo->avgRssi = 0;
            wifiInfo->avgRtt = 0;
            wifiInfo->rttFailCount = 0;
            ALOGI("%s wifiInfo->name is %s, wifiInfo->bssid is %s!", "DoubleWifiMonitor",
                  wifiInfo->name, wifiInfo->bssid);
            wifiInfoList.push_back(std::move(wifiInfo));
        }
    }
    if (wifiInfoList.size() < 2) return;
    running = 1;
    params->setDWMonitorStatus(1);
    pollThread = std::make_unique<vekt::Worker>(kThreadName);
    pollThread->start([this](vekt::Worker& worker) { threadLoop(worker); });
}

DoubleWifiMonitor::~DoubleWifiMonitor() {
    ALOGI("DoubleWifiMonitor exit ");
    if (pollThread != nullptr) {
        {
            // Waits for a round in progress, so the status it may set is overwritten here.
            vekt::MutexLock lock(monitorMutex);
            Parameters* params = Parameters::instance();
            params->setDoubleWifiSelectStatus(0);
            running = 0;
            params->setDWMonitorStatus(0);
        }
        // Wakes the thread out of its sleep and joins it.
        pollThread->stop();
        pollThread.reset();
    }
    vekt::MutexLock lock(monitorMutex);
    wifiInfoList.clear();
}

void DoubleWifiMonitor::threadLoop(vekt::Worker& worker) {
    for (;;) {
        uint32_t sleepUs = 0;
        bool slow = false;
        {
            // The flag is tested under the same hold as the round, so no round can set a
            // select status after the destructor has reset it.
            vekt::MutexLock lock(monitorMutex);
            if (running == 0) return;
            pollLocked();
            slow = slowPoll;
            pollSleepUs = slow ? kSlowPollSleepUs : kFastPollSleepUs;
            sleepUs = pollSleepUs;
        }
        ALOGI(slow ? "waitForNextPoll SLOW_POLL_SLEEP_TIME "
                   : "waitForNextPoll FAST_POLL_SLEEP_TIME ");
        if (!worker.waitFor(sleepUs / 1000)) return;
    }
}

void DoubleWifiMonitor::poll() {
    vekt::MutexLock lock(monitorMutex);
    pollLocked();
}

void DoubleWifiMonitor::pollLocked() {
    ALOGI("%s ++++enter++++", "poll");
    slowPoll = true;
    const bool collect = rssiCollectMonitor();
    ALOGI("%s isCollectRtt is %d", "poll", collect ? 1 : 0);
    if (collect && !rttCollectMonitor()) {
        // The choice of this round (or of an earlier one) stands.
        ALOGI("%s ----exit----", "poll");
        return;
    }
    ALOGI("%s double wifi Select disable", "poll");
    Parameters::instance()->setDoubleWifiSelectStatus(0);
    ALOGI("%s ----exit----", "poll");
}

bool DoubleWifiMonitor::rssiCollectMonitor() {
    if (wifiInfoList.empty()) {
        isCollectRtt = false;
        return false;
    }
    vekt::StationSource& station = vekt::stationSourceSeam().get();
    size_t strong = 0;
    for (const auto& wifiInfo : wifiInfoList) {
        const int rssi = station.stationRssi(wifiInfo->bssid, wifiInfo->name);
        const int32_t magnitude = abs(rssi);
        if (rssi == 0 || magnitude > kMaxRssiMagnitude) {
            ALOGE("Interface = %s current rssi = %d error!", wifiInfo->name, magnitude);
            continue;
        }
        std::deque<int32_t>& history = wifiInfo->rssiHistory;
        history.push_back(magnitude);
        if (history.size() < kHistoryLength) {
            slowPoll = false;
            continue;
        }
        int32_t sum = wifiInfo->avgRssi;
        for (const int32_t sample : history) sum += sample;
        wifiInfo->avgRssi = sum / static_cast<int32_t>(kHistoryLength);
        history.pop_front();
        ALOGI("Average Rssi is %d, interface is %s", wifiInfo->avgRssi, wifiInfo->name);
        if (wifiInfo->avgRssi > kWeakRssi) {
            isCollectRtt = true;
        } else if (wifiInfo->avgRssi < kStrongRssi) {
            ++strong;
        }
    }
    // Probing stops only when every link is strong with a full history; between the two
    // thresholds the last state holds.
    if (strong == wifiInfoList.size()) {
        isCollectRtt = false;
        return false;
    }
    return isCollectRtt;
}

bool DoubleWifiMonitor::rttCollectMonitor() {
    bool complete = true;
    if (wifiInfoList.empty()) {
        ALOGI("%s isCaclRtt is %d!", "rttCollectMonitor", 1);
        return rttCaclAndInterfaceSelect();
    }
    vekt::RttProbe& prober = vekt::rttProbeSeam().get();
    for (const auto& wifiInfo : wifiInfoList) {
        tcping_info info;
        memset(&info, 0, sizeof(info));
        info.sockfd = 0;
        info.device = wifiInfo->name;
        info.server = VEKT_DEFAULT_RTT_SERVER;
        info.probeCount = 1;
        info.minCapMs = 1;
        info.rtt = 0;
        info.port = kProbePort;
        const int rtt = prober.probe(&info, 0);

        std::deque<int32_t>& history = wifiInfo->rttHistory;
        int64_t sample = 0;
        if (rtt <= 0) {
            // Every round trims the history to one short of full, so in a steady state a
            // failed probe is a 500 ms sample; the skip is kept for a history that is full.
            if (history.size() >= kHistoryLength && wifiInfo->rttFailCount <= 6) {
                ALOGE("Current Rtt <= 0, interface is %s", wifiInfo->name);
                ++wifiInfo->rttFailCount;
                continue;
            }
            sample = kFailedRttMs;
        } else {
            sample = rtt;
            if (rtt != kFailedRttMs) wifiInfo->rttFailCount = 0;
        }
        // A weak link's RTT counts for more: at -60 dBm it weighs 1.6.
        if (wifiInfo->avgRssi >= 1) sample = (wifiInfo->avgRssi + 100) * sample / 100;
        history.push_back(static_cast<int32_t>(sample));
        if (history.size() < kHistoryLength) {
            slowPoll = false;
            complete = false;
        } else {
            history.pop_front();
        }
    }
    ALOGI("%s isCaclRtt is %d!", "rttCollectMonitor", complete ? 1 : 0);
    if (!complete) return true;
    return rttCaclAndInterfaceSelect();
}

bool DoubleWifiMonitor::rttCaclAndInterfaceSelect() {
    int32_t diff = 0;
    int32_t bound = kBestRttBoundMs;
    const wifiInfo_t* best = nullptr;
    for (const auto& wifiInfo : wifiInfoList) {
        const std::deque<int32_t>& history = wifiInfo->rttHistory;
        if (history.empty()) {
            wifiInfo->avgRtt = 0;
        } else {
            int64_t sum = wifiInfo->avgRtt;
            for (const int32_t sample : history) sum += sample;
            wifiInfo->avgRtt = static_cast<int32_t>(sum / static_cast<int64_t>(history.size()));
        }
        ALOGI("Average Rtt is %d, interface %s", wifiInfo->avgRtt, wifiInfo->name);
        diff = abs(diff - wifiInfo->avgRtt);
        // Ties keep the earlier link.
        if (wifiInfo->avgRtt < bound) {
            best = wifiInfo.get();
            bound = wifiInfo->avgRtt;
        }
    }
    ALOGI("Rtt Difference is %d", diff);
    if (diff >= kSwitchDiffMs && best != nullptr) {
        if (best->slave) {
            ALOGI("%s double wifi Select slave wifi", "rttCaclAndInterfaceSelect");
        } else {
            ALOGI("%s double wifi Select master wifi", "rttCaclAndInterfaceSelect");
        }
        Parameters::instance()->setDoubleWifiSelectStatus(best->slave ? 2 : 1);
    }
    // Between the two limits the last choice is kept.
    return diff < kGiveUpDiffMs || best == nullptr;
}
