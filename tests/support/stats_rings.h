// Statistics rings filled by hand, and a wall clock set by hand, for the tests and the
// benchmarks of rate estimation.
#pragma once

#include <stdint.h>
#include <sys/time.h>

#include "aggregation/stats_file.h"
#include "base/clock.h"

namespace vekt::test {

constexpr uint64_t kNow = 1700000000000ULL;  // wall-clock ms the samples are stamped around

// A wall clock set by hand, in force while it exists.
class FixedClock : public WallClock {
public:
    struct timeval wallTime() const override {
        return {static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    }
    uint64_t ms = kNow;

private:
    ScopedSeamOverride<WallClock> scope_{wallClockSeam(), *this};
};

// count closing samples of `bytes` each, stepMs apart, going back from sample `newest`
// (stamped newestMs) and on from 1 to 1279; the header points at `newest`, magic set.
inline void fillSteady(StatsFile* file, uint32_t newest, uint32_t count, uint64_t newestMs,
                       uint32_t stepMs, uint32_t bytes) {
    for (uint32_t i = 0, k = newest; i < count; ++i, k = k == 1 ? kStatsSampleCount : k - 1) {
        file->slots[k] =
            StatsSample{newestMs - uint64_t{i} * stepMs, bytes, 0, kSampleKindClosing, 0};
    }
    file->header = StatsFileHeader{kStatsMagic, 0, newest, 0};
}

// Bytes per 20 ms sample of a ring that reads as `rate` (1024 bit/s).
constexpr uint32_t bytesPer20Ms(uint32_t rate) { return rate * 128 * 20 / 1000; }

}  // namespace vekt::test
