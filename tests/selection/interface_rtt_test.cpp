#include "selection/interface_rtt.h"

#include <gtest/gtest.h>
#include <log/log.h>

#include <string>
#include <vector>

#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using History = std::vector<int32_t>;

class InterfaceRttTest : public ParametersTest {
protected:
    // Feeds the samples in order; -1 is a probe without an answer.
    static void feed(InterfaceRtt& rtt, const std::vector<int>& samples) {
        for (int sample : samples) rtt.setSpeed(sample);
    }
    bool logged(const std::string& text) const { return log_.contains(text); }
};

TEST_F(InterfaceRttTest, SpeedWaitsForThreeSamplesAndLagsOneBehind) {
    InterfaceRtt rtt("wlan0");
    log_.clear();  // the settings' own lines
    feed(rtt, {50, 60, 70});
    EXPECT_EQ(rtt.speed, 0);
    EXPECT_EQ(rtt.networkLevel, 0);
    EXPECT_TRUE(logged("caclInterfaceLevel: SLA_PING cacl Interface Level interface (wlan0) "
                       "(network level = 0)"));

    // Both histories hold 50, 60, 70 (mean 60); the 80 counts from the next sample on.
    rtt.setSpeed(80);
    EXPECT_EQ(rtt.speed, 60);
    EXPECT_EQ(rtt.networkLevel, 11);
    EXPECT_EQ(rtt.longpreviousSpeed, (History{50, 60, 70, 80}));
    EXPECT_EQ(rtt.m_shortpreviousSpeed, (History{60, 70, 80}));
    EXPECT_TRUE(logged(
        "caclaverageInterfaceSpeed: SLA_PING Ping Pass for RTT interface (wlan0) "
        "(short_average = 60) (long_average = 60) (cacl = 60) (raw = 80) "
        "(longpreviousSpeed size= 4) (m_shortpreviousSpeed size= 3) (alpha_percent = 50)"));
    EXPECT_TRUE(logged("caclInterfaceLevel: SLA_PING cacl Interface Level interface (wlan0) "
                       "(network level = 11)"));
    for (const auto& record : log_.records()) {
        EXPECT_EQ(record.tag, "SLM-Vekt-SlaPing");
        EXPECT_EQ(record.priority, ANDROID_LOG_INFO);
    }
}

TEST_F(InterfaceRttTest, AlphaWeighsTheLongAverage) {
    params()->m_alphaPercent = 25;
    InterfaceRtt rtt("wlan0");
    feed(rtt, {100, 100, 100, 400, 400, 400});
    // short (100+400+400)/3 = 300, long 1100/5 = 220: 300*75/100 + 220*25/100 = 225 + 55.
    EXPECT_EQ(rtt.speed, 280);
}

TEST_F(InterfaceRttTest, MissWithoutHistoryStandsInAs500) {
    InterfaceRtt rtt("wlan0");
    rtt.setSpeed(-1);
    EXPECT_EQ(rtt.missCount, 1u);
    EXPECT_EQ(rtt.speed, 500);
    EXPECT_EQ(rtt.longpreviousSpeed, History{500});
    EXPECT_EQ(rtt.m_shortpreviousSpeed, History{500});
    EXPECT_EQ(rtt.networkLevel, 3);
    EXPECT_TRUE(logged(
        "setSpeed: SLA_PING Ping Miss for RTT interface (wlan0) num ping miss = (1) "));
}

TEST_F(InterfaceRttTest, FiveMissesFailTheLinkAndItsFiveHundredsWeighAfterwards) {
    InterfaceRtt rtt("wlan0");
    feed(rtt, {50, 60, 70, 80});
    // Four misses replay the last sample (80): the link keeps its rating.
    feed(rtt, {-1, -1, -1, -1});
    EXPECT_EQ(rtt.missCount, 4u);
    EXPECT_EQ(rtt.speed, 75);
    EXPECT_EQ(rtt.networkLevel, 11);

    rtt.setSpeed(-1);
    EXPECT_EQ(rtt.missCount, 5u);
    EXPECT_EQ(rtt.speed, -1);
    EXPECT_EQ(rtt.networkLevel, 1);
    EXPECT_EQ(rtt.levelRefRtt, -1);
    EXPECT_EQ(rtt.m_shortpreviousSpeed, (History{80, 80, 500}));
    EXPECT_TRUE(logged("setSpeed: SLA_PING Ping FAIL for RTT interface (wlan0) (calc = -1)"
                       "(old speed = 80) (new prev = 500) (alpha_percent = 50)"));

    // A good sample takes back one miss and is averaged with the 500 the failure left:
    // short (80+80+500)/3 = 220, long (50+60+70+5*80+500)/9 = 120.
    rtt.setSpeed(100);
    EXPECT_EQ(rtt.missCount, 4u);
    EXPECT_EQ(rtt.speed, 170);
    EXPECT_EQ(rtt.networkLevel, 9);
    EXPECT_EQ(rtt.longpreviousSpeed.size(), 10u);

    // One success does not clear the count: the next miss fails the link again.
    rtt.setSpeed(-1);
    EXPECT_EQ(rtt.speed, -1);
    EXPECT_EQ(rtt.missCount, 5u);
}

TEST_F(InterfaceRttTest, AiModeMissLimitIsReadOnEveryCall) {
    InterfaceRtt rtt("rmnet_data0");
    feed(rtt, {50, 60, 70, 80, -1});
    EXPECT_EQ(rtt.networkLevel, 10);
    params()->maxPingMiss = 2;
    rtt.setSpeed(-1);
    EXPECT_EQ(rtt.speed, -1);
    EXPECT_EQ(rtt.networkLevel, 1);
}

TEST_F(InterfaceRttTest, HistoriesKeepTheNewestTenAndThree) {
    InterfaceRtt rtt("wlan0");
    feed(rtt, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    EXPECT_EQ(rtt.longpreviousSpeed, (History{3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(rtt.m_shortpreviousSpeed, (History{10, 11, 12}));
}

TEST_F(InterfaceRttTest, RawModeFollowsEachSampleWithoutHistoryOrMissCount) {
    params()->m_minGamePingTimes = 1;
    InterfaceRtt rtt("wlan0");
    struct Step {
        int sample;
        int32_t level;
    };
    // 0 is not a rating: the level stays where the failure put it.
    for (const Step& step : {Step{80, 11}, Step{-1, 1}, Step{0, 1}, Step{300, 7}}) {
        rtt.setSpeed(step.sample);
        EXPECT_EQ(rtt.speed, step.sample);
        EXPECT_EQ(rtt.networkLevel, step.level) << "after " << step.sample;
    }
    EXPECT_EQ(rtt.missCount, 0u);
    EXPECT_TRUE(rtt.longpreviousSpeed.empty());
    EXPECT_TRUE(rtt.m_shortpreviousSpeed.empty());
    // The number logged is the miss counter, not the RTT.
    EXPECT_EQ(log_.count("SLA_PING Ping RTT interface (wlan0) num ping rtt = (0) "), 4u);
}

TEST_F(InterfaceRttTest, BandsOddForWifiEvenForOthers) {
    struct Case {
        const char* name;
        int32_t speed;
        int32_t level;
    };
    const Case cases[] = {
        {"wlan0", 1, 11},        {"wlan0", 119, 11},      {"wlan0", 120, 9},
        {"wlan1", 219, 9},       {"wlan1", 220, 7},       {"wlan0", 319, 7},
        {"wlan0", 320, 5},       {"wlan0", 419, 5},       {"wlan0", 420, 3},
        {"wlan0", -1, 1},        {"rmnet_data0", 1, 10},  {"rmnet_data0", 89, 10},
        {"rmnet_data0", 90, 8},  {"ccmni0", 189, 8},      {"ccmni0", 190, 6},
        {"wwan0", 289, 6},       {"wwan0", 290, 4},       {"rmnet_data1", 389, 4},
        {"rmnet_data1", 390, 2}, {"rmnet_data1", 9000, 2}, {"rmnet_data0", -1, 1},
        {"wlaX0", 100, 8},  // only "wlan" marks Wi-Fi
    };
    for (const Case& c : cases) {
        InterfaceRtt rtt(c.name);
        rtt.speed = c.speed;
        rtt.caclInterfaceLevel();
        EXPECT_EQ(rtt.networkLevel, c.level) << c.name << " at " << c.speed << " ms";
    }
}

TEST_F(InterfaceRttTest, OneBandMoveNeedsTwentyMsTwoBandsMoveAtOnce) {
    struct Step {
        int32_t speed;
        int32_t level;
        int32_t ref;
    };
    const Step steps[] = {
        {110, 11, 110},
        {125, 11, 110},  // one band down, but only 15 ms from the reference
        {130, 9, 130},   // 20 ms: taken
        {115, 9, 130},   // one band up, 15 ms: refused
        {140, 9, 140},   // same level: the reference follows
        {230, 7, 230},   // 90 ms, one band
        {100, 11, 100},  // two bands up: at once
        {0, 11, 100},    // no rating yet
        {-7, 11, 100},   // nor any other negative but -1
    };
    InterfaceRtt rtt("wlan0");
    for (const Step& step : steps) {
        rtt.speed = step.speed;
        rtt.caclInterfaceLevel();
        EXPECT_EQ(rtt.networkLevel, step.level) << "at " << step.speed << " ms";
        EXPECT_EQ(rtt.levelRefRtt, step.ref) << "at " << step.speed << " ms";
    }
}

TEST_F(InterfaceRttTest, SlaveFlagComesFromTheRegistry) {
    Parameters* p = params();
    ASSERT_EQ(p->addNewInterfacetoMap(
                  p->parseInterfaceParams("rmnet_data1,1,table9,0x400000,0,0,0,1,ffffffffffff")),
              1);
    ASSERT_EQ(p->addNewInterfacetoMap(
                  p->parseInterfaceParams("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff")),
              1);
    log_.clear();

    MutexLock lock(interfaceMutex);
    EXPECT_TRUE(InterfaceRtt("rmnet_data1").isSlave());
    EXPECT_FALSE(InterfaceRtt("wlan0").isSlave());
    EXPECT_TRUE(log_.records().empty());

    EXPECT_FALSE(InterfaceRtt("wlan1").isSlave());
    ASSERT_EQ(log_.records().size(), 1u);
    EXPECT_EQ(log_.records()[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(log_.records()[0].text, "isSlave ifaceInfo is NULL");
    // The lookup leaves an empty entry behind, as every registry subscript does.
    ASSERT_EQ(p->m_interfaceInfoMap.count("wlan1"), 1u);
    EXPECT_EQ(p->m_interfaceInfoMap["wlan1"], nullptr);
}

}  // namespace
}  // namespace vekt::test
