// SmartLinkSelection: the link-selection singleton. Probe threads (one per interface) feed
// each link's InterfaceRtt tracker; once per main-loop cycle the chooser compares the
// trackers' network levels, picks the best link and, within a hysteresis limit on the
// number of switches per time window, steers the gaming applications' traffic to it and
// resets their sockets so that they reconnect over the new link.
//
// Locking:
// - slsMutex guards the tracker map, every tracker in it, the current interface, the
//   hysteresis window and the switch count. The probe threads hold it across a probe.
// - The chooser takes interfaceMutex before slsMutex (the daemon's lock order allows it):
//   the tie rule asks the registry whether an interface is a slave, and that answer has to
//   come from the same instant as the levels it breaks a tie between. interfaceMutex is let
//   go again as soon as the scan is done.
// - Creation of the singleton runs under its own slot mutex (kSelectionSingleton, before
//   interfaceMutex); a call of instance() made by creation itself, on the creating thread,
//   gets the object being built instead of waiting on itself.
#pragma once

#include <stdint.h>
#include <sys/time.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/worker.h"
#include "config/parameters.h"
#include "selection/interface_rtt.h"

// The SLS mutex. Its place in the daemon's lock order is in base/mutex.h.
extern vekt::Mutex slsMutex ACQUIRED_AFTER(interfaceMutex);

class SmartLinkSelection {
  public:
    // Both mutexes are constant-initialised objects, ready before any code runs; Init()
    // stays as the daemon's start-up step for selection and prepares nothing else.
    static void Init();
    // The singleton, created on first use with trackers for every registered interface
    // (no probe thread is started).
    static SmartLinkSelection* instance();
    static bool isInstance();
    // Idles and joins every probe thread, then destroys the singleton.
    static void finalize();
    static void cleanup();
    // The per-cycle entry of the main loop: one selection step while gaming or VoIP runs.
    static void slsChooseInterface();

    // One selection step: choose, check the hysteresis, switch if the choice changed.
    void calcInterface() EXCLUDES(interfaceMutex, slsMutex);
    // The best tracker by level, with the tie rule; null when there is none.
    InterfaceRtt* getFastestInterface() REQUIRES(interfaceMutex, slsMutex);
    // Whether a switch is allowed now; restarts the window once it has run out.
    bool hystCheckAndUpdate(struct timeval& windowStart) REQUIRES(slsMutex);
    // Wi-Fi trackers to level 1, all others to 10: cellular is preferred until measured.
    void setNetworkLevel() EXCLUDES(slsMutex);
    // Adds (and starts probing) or removes (and joins) one interface while selection runs.
    // Returns 1.
    int updateSlsInterfacemap(const char* name, bool add) EXCLUDES(slsMutex);

    // ---- probe threads ----
    // New trackers for every registered interface; starts no thread.
    void initPingThreads() EXCLUDES(interfaceMutex, slsMutex);
    // A probe thread for every tracker without one; every tracker alive.
    void createRttThreads() EXCLUDES(slsMutex);
    // Probe threads keep looping but stop measuring.
    void threadStop() EXCLUDES(slsMutex);
    // Probe threads measure again.
    void threadResume() EXCLUDES(slsMutex);
    // Ends every probe thread and joins it; a thread asleep between probes wakes at once.
    void threadDestory() EXCLUDES(slsMutex);
    // Releases the trackers of the registered interfaces (after threadDestory).
    void destoryPingThreads() EXCLUDES(interfaceMutex, slsMutex);
    // Body of one probe thread: every ping_interval_ms one probe over the tracker's
    // interface, its result handed to the tracker.
    static void makeRawPingFunc(InterfaceRtt* tracker, vekt::Worker& worker) EXCLUDES(slsMutex);

    // ---- gaming and VoIP hooks, run after a selection step ----
    static void setVoipIpAddressAndPort();
    int gamingAiModeCheck() EXCLUDES(slsMutex);

    // Fields as the rest of selection knows them.
    std::map<std::string, InterfaceRtt*> m_slsInterfaceMap GUARDED_BY(slsMutex);
    uint64_t reserved = 0;
    InterfaceRtt* currentInterface GUARDED_BY(slsMutex) = nullptr;
    struct timeval hystWindowStart GUARDED_BY(slsMutex) = {};
    int32_t switchCount GUARDED_BY(slsMutex) = 0;
    std::string label;
    int64_t aiModeTimer = 0;  // seconds; 0 = the AI-mode Wi-Fi dwell timer is not running

    SmartLinkSelection(const SmartLinkSelection&) = delete;
    SmartLinkSelection& operator=(const SmartLinkSelection&) = delete;

  private:
    SmartLinkSelection();
    ~SmartLinkSelection();

    // Starts the tracker's probe thread and records its handle in `thread`.
    void startProbeThread(InterfaceRtt* tracker) REQUIRES(slsMutex);
    // Ends the tracker's probe thread and joins it, letting slsMutex go around the join.
    void joinProbeThread(InterfaceRtt* tracker) REQUIRES(slsMutex);
    // Stores a tracker under its name. One it replaces stays alive (its probe thread may
    // still use it) until the singleton goes.
    void storeTracker(const std::string& name, InterfaceRtt* tracker) REQUIRES(slsMutex);
    // Frees a tracker whose probe thread has been joined.
    void releaseTracker(InterfaceRtt* tracker) REQUIRES(slsMutex);

    // The probe thread of each tracker that has one. The tracker's `thread` holds the
    // thread's handle for the rest of selection; this is what stops and joins it.
    std::map<InterfaceRtt*, std::unique_ptr<vekt::Worker>> m_probeWorkers GUARDED_BY(slsMutex);
    // Trackers replaced in the map without being released.
    std::vector<InterfaceRtt*> m_replacedTrackers GUARDED_BY(slsMutex);
};
