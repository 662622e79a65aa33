// What the daemon has done since it started, for the status socket: each subsystem counts
// its own events here. The counts are tallies read one by one, never a condition for
// anything, so relaxed atomics are all they need.
#pragma once

#include <stdint.h>

#include <atomic>

namespace vekt {

struct StatusCounters {
    std::atomic<uint64_t> commandsRun{0};         // wrapper-tool command lines run or tried
    std::atomic<uint64_t> commandsNotStarted{0};  // command lines whose process never ran
    std::atomic<uint64_t> ruleRewrites{0};        // rewrites of the aggregation ratio rules
    std::atomic<uint64_t> selectionSwitches{0};   // moves of the steered traffic to a new link
    std::atomic<uint64_t> socketsDestroyed{0};    // sockets destroyed for steered UIDs
    std::atomic<uint64_t> mainLoopPasses{0};      // evaluation passes of the main loop
    std::atomic<int64_t> startedAtNs{0};          // monotonic time of the daemon's start
};

StatusCounters& statusCounters();

inline void countEvent(std::atomic<uint64_t>& counter, uint64_t by = 1) {
    counter.fetch_add(by, std::memory_order_relaxed);
}

// The daemon's version, as its start line and the status document give it.
constexpr const char* kVektVersion = "3.0.4.5";

}  // namespace vekt
