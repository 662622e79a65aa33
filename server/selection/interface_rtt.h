// InterfaceRtt: one link's round-trip-time tracker in link selection. The link's probe
// thread hands it one sample per cycle; the tracker smooths the samples into `speed` and
// grades that into a network level the chooser compares across links.
//
// Levels run from 1 (failed) to 11, higher is better. Wi-Fi links get odd levels and all
// other links even ones, so that in the same RTT band Wi-Fi always ranks one step above
// cellular: on a tie the phone should stay on the link that costs nothing.
//
// Locking: a plain record without a lock of its own. Every field is read and written with
// the selection (SLS) mutex held, the mutex of the selection's interface map: the probe
// thread holds it across a probe and setSpeed, the chooser while it reads the levels.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <vector>

#include "base/mutex.h"
#include "config/parameters.h"

class InterfaceRtt {
public:
    // `thread` of a tracker whose probe thread is not running.
    static inline const pthread_t kNoThread = static_cast<pthread_t>(-1);
    // Stand-in for a sample (and for `speed`) when a miss has no history to fall back on,
    // and what a failed link leaves in its histories.
    static constexpr int32_t kMissRttMs = 500;
    static constexpr size_t kLongHistory = 10;
    static constexpr size_t kShortHistory = 3;
    // A one-band level move needs the RTT to have moved this far from the last accepted one.
    static constexpr int32_t kLevelHysteresisMs = 20;

    // A fresh tracker for the interface name (cut to 14 characters), with the probe settings
    // copied from Parameters as they stand now.
    explicit InterfaceRtt(const char* name);
    InterfaceRtt(const InterfaceRtt&) = delete;
    InterfaceRtt& operator=(const InterfaceRtt&) = delete;

    // One probe result: an RTT in ms, or -1 for no answer. Updates the miss count, the
    // histories, `speed` and the level; returns the result of the level's log call.
    int setSpeed(int rtt);
    // The smoothing step for a sample that is not a failure.
    void caclaverageInterfaceSpeed(int rtt);
    // Regrades `networkLevel` from `speed`; returns the result of its log call.
    int caclInterfaceLevel();
    // The registry's `slave` flag of this interface; false (with an error line) when the
    // registry has no record for it. Like the registry's subscript, a miss leaves an empty
    // entry behind. The caller holds interfaceMutex, which the lock order puts before the
    // selection mutex, so the chooser takes it first.
    bool isSlave() REQUIRES(interfaceMutex);

    // Fields in the order the rest of selection knows them.
    pthread_t thread = kNoThread;  // the probe thread of this interface
    char rttServer[20] = {};       // rtt_server at creation
    int32_t minGamePingTimes = 0;  // 1: raw mode, each sample is taken as it is
    int32_t pingIntervalMs = 0;
    int32_t noResponseTimeoutMs = 0;
    char interfaceName[15] = {};
    int32_t speed = 0;        // smoothed RTT in ms; -1 once the link has failed
    int32_t levelRefRtt = 0;  // `speed` when `networkLevel` last changed; -1 after a failure
    bool running = false;     // the probe thread measures only while this is set
    bool alive = true;        // the probe thread keeps looping while this is set
    uint32_t missCount = 0;   // consecutive misses, net of successes
    std::vector<int32_t> longpreviousSpeed;     // oldest first, at most 10
    std::vector<int32_t> m_shortpreviousSpeed;  // oldest first, at most 3
    int32_t rttOffsetMs = 0;   // added to every measured RTT; the RSSI monitor rewrites it
    int32_t networkLevel = 0;  // 0 until the first rating

private:
    bool isWifi() const;
    int32_t candidateLevel() const;
    void appendToHistories(int32_t rtt);
};
