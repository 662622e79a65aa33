// The wall clock, behind a seam so tests can drive time. The daemon reads the wall clock
// (not a monotonic one) where its behaviour is defined against the kernel's sample stamps,
// which use the same clock.
#pragma once

#include <sys/time.h>

namespace vekt {

class Clock {
public:
    virtual ~Clock() = default;
    virtual struct timeval wallTime() const = 0;
};

// The clock in force: the system's, unless a test installed another.
const Clock& clock();

// Wall-clock milliseconds, seconds × 1000 + microseconds / 1000.
unsigned long long wallTimeMs();

// Test-only: installs a clock for the scope. Not thread-safe against running workers;
// install it before the code under test starts.
class ScopedClockOverride {
public:
    explicit ScopedClockOverride(const Clock& clock);
    ~ScopedClockOverride();
    ScopedClockOverride(const ScopedClockOverride&) = delete;
    ScopedClockOverride& operator=(const ScopedClockOverride&) = delete;

private:
    const Clock* previous_;
};

}  // namespace vekt
