// Host stand-in for <utils/Timers.h>.
#pragma once

#include <stdint.h>

typedef int64_t nsecs_t;

enum {
    SYSTEM_TIME_REALTIME = 0,
    SYSTEM_TIME_MONOTONIC = 1,
    SYSTEM_TIME_PROCESS = 2,
    SYSTEM_TIME_THREAD = 3,
    SYSTEM_TIME_BOOTTIME = 4,
};

nsecs_t systemTime(int clock = SYSTEM_TIME_MONOTONIC);

static inline nsecs_t nanoseconds_to_milliseconds(nsecs_t ns) { return ns / 1000000; }
static inline nsecs_t milliseconds_to_nanoseconds(nsecs_t ms) { return ms * 1000000; }
static inline nsecs_t ns2ms(nsecs_t ns) { return ns / 1000000; }
static inline nsecs_t ms2ns(nsecs_t ms) { return ms * 1000000; }
