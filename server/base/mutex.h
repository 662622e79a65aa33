// The daemon's mutex: a std::mutex that clang's thread-safety analysis understands and that
// knows its place in the one lock order of the daemon.
//
// Lock order, outermost first (a thread may only take a lock of a higher level than every
// lock it already holds):
//
//   kParametersSingleton creation of the settings object (it fills the mark pool under
//                        interfaceMutex)
//   kSelectionSingleton  creation of the link-selection singleton (it builds probe trackers
//                        under interfaceMutex)
//   kMonitorSingleton    creation of a monitor (its constructor starts the thread under the
//                        monitor's own mutex)
//   kMonitor             a monitor's own mutex (socket, RSSI, dual Wi-Fi monitors)
//   kInterface           interfaceMutex: the interface registry and the mark pool
//   kSlaStats            slaStatsMutex: the aggregation map
//   kSelection           the SLS mutex: the selection map and its trackers
//   kSingleton           creation of the other singletons (the rule manager's constructor
//                        runs commands under iptablesMutex)
//   kIptables            iptablesMutex: the rule-command sequences
//   kRttServer           rttServerMutex: the RTT server and its port as one pair (probe
//                        threads read it under the SLS mutex, the socket monitor writes it
//                        under its own mutex)
//   kNetlink             the generic netlink client's request lock: one nl80211 request and
//                        its reply at a time. The RSSI monitor asks under its own mutex and
//                        the registry lock, so it comes after those; nothing is taken while it
//                        is held (a request only waits on its own socket, up to a second)
//   kLeaf                guards of single values (settings snapshots, the device root);
//                        nothing is taken while one is held
//
// The order is checked twice: clang's -Wthread-safety-beta checks the ACQUIRED_AFTER
// declarations of the named mutexes at compile time, and builds with VEKT_LOCK_ORDER_CHECK
// check every acquisition at run time and abort on an inversion, naming both locks.
#pragma once

#include <mutex>

#include "base/thread_annotations.h"

namespace vekt {

enum class LockLevel : int {
    kParametersSingleton = 2,
    kSelectionSingleton = 5,
    kMonitorSingleton = 7,
    kMonitor = 10,
    kInterface = 20,
    kSlaStats = 30,
    kSelection = 40,
    kSingleton = 50,
    kIptables = 60,
    kRttServer = 70,
    kNetlink = 80,
    kLeaf = 100,
};

class CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex(LockLevel level, const char* name) : level_(level), name_(name) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE();
    void unlock() RELEASE();
    // For std::condition_variable_any and std::unique_lock.
    bool try_lock() TRY_ACQUIRE(true);

    LockLevel level() const { return level_; }
    const char* name() const { return name_; }

    // For the analysis only: states that the calling thread holds this mutex.
    void assertHeld() const ASSERT_CAPABILITY(this) {}

private:
    std::mutex mutex_;
    const LockLevel level_;
    const char* const name_;
};

class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

// Whether this build checks the lock order at run time.
bool lockOrderChecked();

}  // namespace vekt
