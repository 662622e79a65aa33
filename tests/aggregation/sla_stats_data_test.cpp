// Rate estimation over rings built in memory.
#include "aggregation/sla_stats_data.h"

#include <gtest/gtest.h>

#include "aggregation/stats_ring_fixture.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

constexpr uint64_t kNow = 1700000000000ULL;  // the clock; samples are stamped around it
constexpr const char* kDataTag = "SLM-Vekt-SlaStatsData";

class LinkRateEstimateTest : public ParametersTest {
protected:
    LinkRateEstimateTest() : clockOverride_(clock_) {}

    void SetUp() override {
        ASSERT_TRUE(ring_.ok());
        params();  // settings at their defaults: stale 1500, window 500, minimum 50, cap 102400
    }

    uint32_t estimate(uint32_t* count, bool isWifi = true) {
        SlaStatsData data(ring_.data(), isWifi);
        return data.linkRateEstimate(count, "wlan0");
    }

    FixedClock clock_{kNow};
    ScopedClockOverride clockOverride_;
    MemoryRing ring_;
};

TEST_F(LinkRateEstimateTest, FileWithoutMagicIsNotReadyOnEveryPass) {
    uint32_t count = 77;
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(estimate(nullptr), 0u);
    EXPECT_EQ(count, 77u);  // the counter is only touched once the file is ready
    EXPECT_EQ(log_.count("SLA stat colletct is not ready"), 2u);
    ASSERT_FALSE(log_.records().empty());
    EXPECT_EQ(log_.records().back().tag, kDataTag);
    EXPECT_EQ(log_.records().back().priority, 6);

    ring_.ready();  // magic alone, no samples: ready but empty
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(log_.count("SLA stat colletct is not ready"), 2u);
}

TEST_F(LinkRateEstimateTest, SteadyRingReadsItsRateOverTheWindow) {
    // 20 ms samples: 24 fit below 500 ms, the 25th lands exactly on it (a tie) and counts.
    ring_.steady(100, 60, kNow - 10, 20, bytesForRate(1000, 20));
    uint32_t count = 0;
    EXPECT_EQ(estimate(&count), 1000u);
    EXPECT_EQ(count, 25u);

    // Index 0 names sample 1279, and the walk runs on backwards from it.
    MemoryRing other;
    other.steady(1279, 60, kNow - 10, 20, bytesForRate(1500, 20)).newest(0);
    SlaStatsData data(other.data(), false);
    EXPECT_EQ(data.linkRateEstimate(&count, "rmnet_data0"), 1500u);
    EXPECT_EQ(count, 25u);
}

TEST_F(LinkRateEstimateTest, WalkWrapsFromSampleOneToSampleTwelveSeventyNine) {
    ring_.steady(3, 30, kNow, 20, bytesForRate(800, 20));  // slots 3, 2, 1, 1279, 1278 ...
    uint32_t count = 0;
    EXPECT_EQ(estimate(&count), 800u);
    EXPECT_EQ(count, 25u);
}

TEST_F(LinkRateEstimateTest, WindowTakesTheLastSampleOnlyWhenThatLandsCloser) {
    // Gaps of 200, 200 and then g ms. The last sample counts when 400 + g − 500 ≤ 500 − 400.
    auto ringWithLastGap = [this](uint32_t gap) {
        ring_.put(10, kNow, 1000).put(9, kNow - 200, 1000).put(8, kNow - 400, 1000);
        ring_.put(7, kNow - 400 - gap, 1000).put(6, kNow - 400 - gap - 10, 1000);
        ring_.ready().newest(10);
    };
    uint32_t count = 0;
    ringWithLastGap(200);  // 600: 100 over, as far as 100 under: the tie includes it
    EXPECT_EQ(estimate(&count), 3000u * 8000 / 1024 / 600);
    EXPECT_EQ(count, 3u);

    ringWithLastGap(201);  // 601: one over the tie, left out
    EXPECT_EQ(estimate(&count), 2000u * 8000 / 1024 / 400);
    EXPECT_EQ(count, 2u);

    ringWithLastGap(150);
    EXPECT_EQ(estimate(&count), 3000u * 8000 / 1024 / 550);
    EXPECT_EQ(count, 3u);
}

TEST_F(LinkRateEstimateTest, StaleSamplesEndTheWalk) {
    // Newest sample 1500 ms old: with now = wall + 1 it is just stale.
    ring_.steady(50, 200, kNow - 1500, 20, 5000);
    uint32_t count = 9;
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);

    // One ms earlier it is still fresh and counts, measured from its stale predecessor
    // (a start is never checked for age); 20 ms is under the 50 ms minimum.
    clock_.setMs(kNow - 1);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 1u);

    // With a window wider than the stale limit the age check is what ends the walk: the
    // samples up to 1480 ms old count, the one of 1500 ms ends it.
    clock_.setMs(kNow);
    params()->setValue("ideal_est_window", "5000");
    ring_.steady(50, 200, kNow, 20, 100);
    EXPECT_EQ(estimate(&count), 7500u * 8000 / 1024 / 1500);
    EXPECT_EQ(count, 75u);
}

TEST_F(LinkRateEstimateTest, ByteCapEndsTheWalkAndOverridesTheMinimumWindow) {
    ring_.steady(20, 10, kNow, 20, 60000);
    uint32_t count = 0;
    // Two samples make 120000 bytes ≥ 102400; 40 ms is under the 50 ms minimum, but the
    // cap is exceeded, so the rate is reported anyway.
    EXPECT_EQ(estimate(&count), 120000u * 8000 / 1024 / 40);
    EXPECT_EQ(count, 2u);

    params()->m_rateByteCap = 200000;
    EXPECT_EQ(estimate(&count), 240000u * 8000 / 1024 / 80);
    EXPECT_EQ(count, 4u);

    // Below the cap and under the minimum window: nothing to report.
    MemoryRing small;
    small.steady(5, 3, kNow, 20, 1000);
    SlaStatsData data(small.data(), true);
    EXPECT_EQ(data.linkRateEstimate(&count, "wlan0"), 0u);
    EXPECT_EQ(count, 2u);
    params()->setValue("mini_rate_window", "40");
    EXPECT_EQ(data.linkRateEstimate(&count, "wlan0"), 2000u * 8000 / 1024 / 40);
}

TEST_F(LinkRateEstimateTest, StepSamplesAndFlaggedSamplesAreSteppedOver) {
    ring_.put(5, kNow, 1000);            // measured against sample 2
    ring_.put(4, kNow - 30, 900000, 1);  // kind 1: skipped as a predecessor
    ring_.put(3, kNow - 60, 900000, 1);
    ring_.put(2, kNow - 100, 2000);                        // measured against sample 1
    ring_.put(1, kNow - 150, 900000, 2, 1);                // flagged: a start, not a measurement
    ring_.put(1279, kNow - 200, 900000, 7);                // unknown kind: stepped over
    ring_.put(1278, kNow - 220, 4000);                     // measured against 1277
    ring_.put(1277, kNow - 260, 0, 2, 0).put(1276, 0, 0);  // 1276 unwritten: the walk ends
    ring_.ready().newest(5);
    uint32_t count = 0;
    EXPECT_EQ(estimate(&count), 7000u * 8000 / 1024 / (100 + 50 + 40 + 0));
    EXPECT_EQ(count, 3u);

    // A predecessor never written ends the whole walk, even with older samples behind it.
    ring_.put(2, 0, 0);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);
}

TEST_F(LinkRateEstimateTest, IndexPastTheRingIsLoggedAndWrappedNotFollowed) {
    // 5000 lies far past the file; 4999 % 1279 + 1 = 1163 is where the walk starts.
    ring_.steady(1163, 40, kNow, 20, bytesForRate(600, 20)).newest(5000);
    uint32_t count = 0;
    EXPECT_EQ(estimate(&count, true), 600u);
    EXPECT_TRUE(log_.contains("WLAN:Index(4999) out of bound!"));

    ring_.newest(1280);                      // one past the last sample: wraps to sample 1
    EXPECT_EQ(estimate(&count, false), 0u);  // sample 1 was never written
    EXPECT_TRUE(log_.contains("WWAN:Index(1279) out of bound!"));

    ring_.newest(0xFFFFFFFFu);
    estimate(&count);
    EXPECT_TRUE(log_.contains("WLAN:Index(4294967294) out of bound!"));
}

TEST_F(LinkRateEstimateTest, RingThatNeverEndsIsWalkedOnceAround) {
    // Every slot fresh and flagged: nothing ends the walk but its own bound.
    for (uint32_t k = 1; k <= kStatsSampleCount; ++k) ring_.put(k, kNow - k, 10, 2, 1);
    ring_.ready().newest(700);
    uint32_t count = 5;
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);

    // Every slot a step sample: the search for a predecessor is bounded as well.
    for (uint32_t k = 1; k <= kStatsSampleCount; ++k) ring_.put(k, kNow - k, 10, 1);
    ring_.put(700, kNow, 10);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, 0u);

    // Equal time stamps add no time, so the window is never filled.
    for (uint32_t k = 1; k <= kStatsSampleCount; ++k) ring_.put(k, kNow, 1);
    EXPECT_EQ(estimate(&count), 0u);
    EXPECT_EQ(count, kStatsSampleCount - 1);
}

}  // namespace
}  // namespace vekt::test
