#include "core/clock.h"

#include <atomic>

namespace vekt {
namespace {

class SystemClock : public Clock {
public:
    struct timeval wallTime() const override {
        struct timeval now = {};
        gettimeofday(&now, nullptr);
        return now;
    }
};

const SystemClock kSystemClock;
std::atomic<const Clock*> gClock{&kSystemClock};

}  // namespace

const Clock& clock() { return *gClock.load(std::memory_order_acquire); }

unsigned long long wallTimeMs() {
    struct timeval now = clock().wallTime();
    return static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(now.tv_usec) / 1000ULL;
}

ScopedClockOverride::ScopedClockOverride(const Clock& clock)
    : previous_(gClock.exchange(&clock, std::memory_order_acq_rel)) {}

ScopedClockOverride::~ScopedClockOverride() {
    gClock.store(previous_, std::memory_order_release);
}

}  // namespace vekt
