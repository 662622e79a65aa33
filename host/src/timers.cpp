#include <time.h>
#include <utils/Timers.h>

nsecs_t systemTime(int clock) {
    static const clockid_t clocks[] = {CLOCK_REALTIME, CLOCK_MONOTONIC,
                                       CLOCK_PROCESS_CPUTIME_ID, CLOCK_THREAD_CPUTIME_ID,
                                       CLOCK_BOOTTIME};
    clockid_t id = (clock >= 0 && clock <= SYSTEM_TIME_BOOTTIME) ? clocks[clock] : CLOCK_MONOTONIC;
    struct timespec t = {};
    clock_gettime(id, &t);
    return static_cast<nsecs_t>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}
