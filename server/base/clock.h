// Time, behind seams so that tests can drive it: the wall clock, the monotonic clock and
// sleeping, each replaceable for a scope.
//
// The daemon reads the wall clock (not a monotonic one) where its behaviour is defined
// against the kernel's sample stamps, which use the same clock; intervals that must not
// jump with the wall clock use the monotonic one.
#pragma once

#include <stdint.h>
#include <sys/time.h>

#include "base/seam.h"

namespace vekt {

class WallClock {
public:
    virtual ~WallClock() = default;
    virtual struct timeval wallTime() const = 0;
};

class MonotonicClock {
public:
    virtual ~MonotonicClock() = default;
    virtual int64_t monotonicNs() const = 0;
};

class Sleeper {
public:
    virtual ~Sleeper() = default;
    // Sleeps ms milliseconds; nothing for 0 or less.
    virtual void sleepMs(int64_t ms) = 0;
};

Seam<WallClock>& wallClockSeam();
Seam<MonotonicClock>& monotonicClockSeam();
Seam<Sleeper>& sleeperSeam();

// The clocks and the sleep in force: the system's, unless a test installed others.
inline struct timeval wallTime() { return wallClockSeam().get().wallTime(); }
inline int64_t monotonicNs() { return monotonicClockSeam().get().monotonicNs(); }
inline int64_t monotonicMs() { return monotonicNs() / 1000000; }
inline void sleepMs(int64_t ms) { sleeperSeam().get().sleepMs(ms); }

// Milliseconds of a wall time, seconds × 1000 + microseconds / 1000.
inline uint64_t toMs(const struct timeval& time) {
    return static_cast<uint64_t>(time.tv_sec) * 1000ULL +
           static_cast<uint64_t>(time.tv_usec) / 1000ULL;
}

}  // namespace vekt
