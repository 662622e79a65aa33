// One link's RTT tracker: miss counting, the two histories, smoothing and the level grade.
#define LOG_TAG "SLM-Vekt-SlaPing"

#include "selection/interface_rtt.h"

#include <log/log.h>
#include <stdlib.h>

#include <string>

#include "base/text.h"
#include "config/interface_info.h"

namespace {

// Upper ends (inclusive, ms) of the RTT bands and their levels, best band first; anything
// slower gets the last level. Wi-Fi's bands reach 30 ms further than cellular's, and its
// odd levels put it one step above cellular in the same band.
struct Band {
    int32_t upToMs;
    int32_t level;
};
constexpr Band kWifiBands[] = {{119, 11}, {219, 9}, {319, 7}, {419, 5}};
constexpr int32_t kWifiSlowestLevel = 3;
constexpr Band kOtherBands[] = {{89, 10}, {189, 8}, {289, 6}, {389, 4}};
constexpr int32_t kOtherSlowestLevel = 2;
constexpr int32_t kFailedLevel = 1;

template <size_t N>
int32_t levelOf(int32_t rtt, const Band (&bands)[N], int32_t slowest) {
    for (const Band& band : bands) {
        if (rtt <= band.upToMs) return band.level;
    }
    return slowest;
}

// Truncating mean; 0 for an empty history. Summed wide: ten large samples must not wrap.
int32_t average(const std::vector<int32_t>& history) {
    if (history.empty()) return 0;
    int64_t sum = 0;
    for (int32_t value : history) sum += value;
    return static_cast<int32_t>(sum / static_cast<int64_t>(history.size()));
}

// Drops the oldest entry once a history has grown past its length (one per append, so
// one at most).
void trimOldest(std::vector<int32_t>& history, size_t length) {
    if (history.size() > length) history.erase(history.begin());
}

}  // namespace

InterfaceRtt::InterfaceRtt(const char* name) {
    Parameters* params = Parameters::instance();
    const std::string server = params->m_rttServer.get();
    vekt::copyBounded(rttServer, sizeof(rttServer), server.c_str());
    minGamePingTimes = params->m_minGamePingTimes.load();
    pingIntervalMs = params->m_pingIntervalMs.load();
    noResponseTimeoutMs = params->m_rttNoResponseTimeoutMs.load();
    vekt::copyBounded(interfaceName, sizeof(interfaceName), name);
}

int InterfaceRtt::setSpeed(int rtt) {
    Parameters* params = Parameters::instance();
    // Read on every call: the gaming AI mode lowers the miss limit while it runs.
    const int64_t maxMiss = params->maxPingMiss.load();
    const int32_t alpha = params->m_alphaPercent.load();

    if (minGamePingTimes == 1) {
        // Raw mode follows the probe exactly, a miss included: no history, no miss count.
        speed = rtt;
        // The number is the miss counter, not the RTT: tools reading this line count on it.
        ALOGI("SLA_PING Ping RTT interface (%s) num ping rtt = (%d) ", interfaceName,
              static_cast<int>(missCount));
        return caclInterfaceLevel();
    }

    if (rtt == -1) {
        if (static_cast<int64_t>(missCount) < maxMiss) {
            ++missCount;
            ALOGI("%s: SLA_PING Ping Miss for RTT interface (%s) num ping miss = (%d) ", "setSpeed",
                  interfaceName, static_cast<int>(missCount));
        }
        // A miss below the limit feeds the last value back in as if it had been measured,
        // so one lost probe does not cost the link its rating.
        rtt = m_shortpreviousSpeed.empty() ? kMissRttMs : m_shortpreviousSpeed.back();
        speed = longpreviousSpeed.empty() ? kMissRttMs : longpreviousSpeed.back();
    } else if (missCount > 0) {
        // A success takes back one miss only: a flapping link stays close to failing.
        --missCount;
    }

    if (static_cast<int64_t>(missCount) >= maxMiss) {
        speed = -1;
        // The failure weighs on the averages once the link answers again.
        appendToHistories(kMissRttMs);
        ALOGI(
            "%s: SLA_PING Ping FAIL for RTT interface (%s) (calc = %d)(old speed = %d) "
            "(new prev = %d) (alpha_percent = %d)",
            "setSpeed", interfaceName, speed, rtt, longpreviousSpeed.back(), alpha);
    } else {
        caclaverageInterfaceSpeed(rtt);
    }
    return caclInterfaceLevel();
}

void InterfaceRtt::caclaverageInterfaceSpeed(int rtt) {
    const int64_t alpha = Parameters::instance()->m_alphaPercent.load();
    const int32_t longAverage = average(longpreviousSpeed);
    const int32_t shortAverage = average(m_shortpreviousSpeed);

    // Until three samples are in, an average says too little to rate a link on: `speed`
    // keeps its value (0 on a new tracker). The new sample counts from the next call on,
    // so one outlier moves the rating one cycle late.
    if (!m_shortpreviousSpeed.empty() && longpreviousSpeed.size() >= 3) {
        speed =
            static_cast<int32_t>(shortAverage * (100 - alpha) / 100 + longAverage * alpha / 100);
    }
    appendToHistories(rtt);

    ALOGI(
        "%s: SLA_PING Ping Pass for RTT interface (%s) (short_average = %d) "
        "(long_average = %d) (cacl = %d) (raw = %d) (longpreviousSpeed size= %d) "
        "(m_shortpreviousSpeed size= %d) (alpha_percent = %d)",
        "caclaverageInterfaceSpeed", interfaceName, shortAverage, longAverage, speed, rtt,
        static_cast<int>(longpreviousSpeed.size()), static_cast<int>(m_shortpreviousSpeed.size()),
        static_cast<int>(alpha));
}

int InterfaceRtt::caclInterfaceLevel() {
    if (speed == -1) {
        networkLevel = kFailedLevel;
        levelRefRtt = -1;
    } else if (speed > 0) {
        const int32_t candidate = candidateLevel();
        // A move to the neighbouring band must be worth 20 ms, so an RTT sitting on a band
        // edge does not make the chooser flip links every cycle. Bigger jumps (and the
        // first rating) are taken at once; an unchanged level moves the reference along.
        const bool oneBand = abs(candidate - networkLevel) == 2;
        const int64_t moved = llabs(static_cast<int64_t>(speed) - levelRefRtt);
        if (!oneBand || moved >= kLevelHysteresisMs) {
            networkLevel = candidate;
            levelRefRtt = speed;
        }
    }
    // 0 (nothing measured yet) and other negative values leave the level as it is.
    return __android_log_print(ANDROID_LOG_INFO, LOG_TAG,
                               "%s: SLA_PING cacl Interface Level interface (%s) "
                               "(network level = %d)",
                               "caclInterfaceLevel", interfaceName, networkLevel);
}

bool InterfaceRtt::isSlave() {
    // The subscript inserts on a miss, as every registry reader does; walkers skip the
    // empty entry.
    const InterfaceInfo_t* info = Parameters::instance()->m_interfaceInfoMap[interfaceName];
    if (info == nullptr) {
        ALOGE("%s ifaceInfo is NULL", "isSlave");
        return false;
    }
    return info->slave;
}

bool InterfaceRtt::isWifi() const { return vekt::isWifiName(interfaceName); }

int32_t InterfaceRtt::candidateLevel() const {
    return isWifi() ? levelOf(speed, kWifiBands, kWifiSlowestLevel)
                    : levelOf(speed, kOtherBands, kOtherSlowestLevel);
}

void InterfaceRtt::appendToHistories(int32_t rtt) {
    longpreviousSpeed.push_back(rtt);
    m_shortpreviousSpeed.push_back(rtt);
    trimOldest(longpreviousSpeed, kLongHistory);
    trimOldest(m_shortpreviousSpeed, kShortHistory);
}
