#include "base/clock.h"

#include <errno.h>
#include <time.h>

namespace vekt {
namespace {

class SystemWallClock : public WallClock {
public:
    struct timeval wallTime() const override {
        struct timeval now = {};
        gettimeofday(&now, nullptr);
        return now;
    }
};

class SystemMonotonicClock : public MonotonicClock {
public:
    int64_t monotonicNs() const override {
        struct timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
    }
};

class SystemSleeper : public Sleeper {
public:
    void sleepMs(int64_t ms) override {
        if (ms <= 0) return;
        struct timespec delay = {static_cast<time_t>(ms / 1000),
                                 static_cast<long>(ms % 1000) * 1000000L};
        // A signal (SIGUSR1 is the daemon's own) does not cut the sleep short.
        while (nanosleep(&delay, &delay) != 0 && errno == EINTR) {
        }
    }
};

}  // namespace

Seam<WallClock>& wallClockSeam() {
    static SystemWallClock real;
    static Seam<WallClock> seam(real);
    return seam;
}

Seam<MonotonicClock>& monotonicClockSeam() {
    static SystemMonotonicClock real;
    static Seam<MonotonicClock> seam(real);
    return seam;
}

Seam<Sleeper>& sleeperSeam() {
    static SystemSleeper real;
    static Seam<Sleeper> seam(real);
    return seam;
}

}  // namespace vekt
