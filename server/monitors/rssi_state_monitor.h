// RssiStateMonitor: turns the signal strength of each associated Wi-Fi link into an RTT
// penalty on that link's selection tracker, so that a weak Wi-Fi link loses against a
// cellular one although the RTT it measures is still good. Once a second it asks nl80211 for
// the signal of every Wi-Fi interface with a known access point and writes the penalty into
// the tracker's rttOffsetMs, which the probe adds to every RTT it measures on that link.
//
// Tearing the monitor down destroys every gaming UID's sockets, so that the games reconnect
// over whatever link selection chooses without the penalties.
#pragma once

#include <stdint.h>

#include "base/mutex.h"
#include "base/worker.h"
#include "config/parameters.h"
#include "selection/smart_link_selection.h"

class RssiStateMonitor {
  public:
    // Created once (see monitor_slot.h); creating the monitor starts its thread.
    static RssiStateMonitor* instance();
    // Destroys the monitor if there is one: gaming sockets destroyed, thread joined.
    static void finalize();

    RssiStateMonitor(const RssiStateMonitor&) = delete;
    RssiStateMonitor& operator=(const RssiStateMonitor&) = delete;

    // One round of measurement over the registry.
    void poll() EXCLUDES(monitorMutex, interfaceMutex, slsMutex);

    // The RTT penalty, in ms, for a station reading in dBm (0: the query failed).
    static int32_t rssiPenaltyMs(int rssi);

    static constexpr int64_t kPollIntervalMs = 1000;
    // The polling thread's name, as `ps -T` shows it.
    static constexpr const char* kThreadName = "RssiMonitor";

  private:
    RssiStateMonitor();
    ~RssiStateMonitor();

    void threadLoop(vekt::Worker& worker) EXCLUDES(monitorMutex);
    void pollLocked() REQUIRES(monitorMutex) EXCLUDES(interfaceMutex, slsMutex);

    // First in the lock order: a round holds it, then interfaceMutex, then slsMutex.
    vekt::Mutex monitorMutex{vekt::LockLevel::kMonitor, "RssiStateMonitor"};
    vekt::Worker pollThread{kThreadName};
    bool running GUARDED_BY(monitorMutex) = false;
};
