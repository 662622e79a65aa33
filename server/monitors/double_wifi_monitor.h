// DoubleWifiMonitor: with two Wi-Fi links associated at once (the master and the slave),
// decides which of them carries the selected traffic. It samples each link's signal; only
// while a link is weak does it also probe each link's TCP-connect RTT, weight it by the
// signal, and publish its choice as the dual Wi-Fi select status in Parameters:
// 0 = selection off, 1 = the master link, 2 = the slave link.
//
// Both averages are damped on purpose: the previous average is summed with the window, so
// one round's outlier moves the figure less, and the choice does not flap between links
// whose RTTs are close (a switch needs 66 ms, and under 40 ms selection is given up).
#pragma once

#include <stdint.h>

#include <atomic>
#include <deque>
#include <memory>
#include <vector>

#include "base/mutex.h"
#include "base/worker.h"
#include "config/parameters.h"

// One Wi-Fi link as the monitor found it when it was created.
struct wifiInfo_t {
    char name[128];   // at most 127 characters, terminated
    char bssid[13];   // 12 hex digits, terminated
    bool slave;       // the registry's slave flag
    int32_t avgRssi;  // damped RSSI magnitude (|dBm|); 0 until the history first fills
    int32_t avgRtt;   // damped weighted RTT, ms
    int32_t rttFailCount;
    std::deque<int32_t> rssiHistory;  // |dBm|, oldest first
    std::deque<int32_t> rttHistory;   // weighted ms, oldest first
};

class DoubleWifiMonitor {
  public:
    // Created once (see monitor_slot.h). With two usable Wi-Fi links the polling thread
    // starts; otherwise the monitor stays idle.
    static DoubleWifiMonitor* instance();
    // Destroys the monitor if there is one: select status 0, thread woken and joined.
    static void finalize();

    DoubleWifiMonitor(const DoubleWifiMonitor&) = delete;
    DoubleWifiMonitor& operator=(const DoubleWifiMonitor&) = delete;

    // One round.
    void poll() EXCLUDES(monitorMutex);
    // RSSI sampling; whether RTT probing is wanted.
    bool rssiCollectMonitor() REQUIRES(monitorMutex);
    // RTT sampling; true when selection is to be switched off for this round.
    bool rttCollectMonitor() REQUIRES(monitorMutex);
    // Averages, difference and choice; true when selection is to be switched off.
    bool rttCaclAndInterfaceSelect() REQUIRES(monitorMutex);

    // RTT probing is wanted because a link is weak. Kept across rounds and across monitors:
    // a link that was weak when the monitor went is still probed when it comes back.
    static std::atomic<bool> isCollectRtt;

    static constexpr size_t kHistoryLength = 7;
    static constexpr int32_t kMaxRssiMagnitude = 126;
    static constexpr int32_t kWeakRssi = 76;    // weak above this magnitude
    static constexpr int32_t kStrongRssi = 69;  // strong below it
    static constexpr int32_t kFailedRttMs = 500;
    static constexpr int32_t kBestRttBoundMs = 500;
    static constexpr int32_t kSwitchDiffMs = 66;
    static constexpr int32_t kGiveUpDiffMs = 40;
    static constexpr uint32_t kFastPollSleepUs = 5000000;
    static constexpr uint32_t kSlowPollSleepUs = 10000000;
    static constexpr uint16_t kProbePort = 443;
    // The polling thread's name, as `ps -T` shows it.
    static constexpr const char* kThreadName = "DWifiMonitor";

  private:
    DoubleWifiMonitor();
    ~DoubleWifiMonitor();

    void threadLoop(vekt::Worker& worker) EXCLUDES(monitorMutex);
    void pollLocked() REQUIRES(monitorMutex);

    uint32_t pollSleepUs GUARDED_BY(monitorMutex) = kFastPollSleepUs;
    // Cleared by a round in which any history is still filling: those rounds come faster.
    bool slowPoll GUARDED_BY(monitorMutex) = false;
    // First in the lock order; the constructor takes interfaceMutex under it.
    vekt::Mutex monitorMutex{vekt::LockLevel::kMonitor, "DoubleWifiMonitor"};
    std::unique_ptr<vekt::Worker> pollThread;
    // Fixed for the monitor's life: links that appear later need a new monitor.
    std::vector<std::unique_ptr<wifiInfo_t>> wifiInfoList GUARDED_BY(monitorMutex);
    uint32_t running GUARDED_BY(monitorMutex) = 0;
};
