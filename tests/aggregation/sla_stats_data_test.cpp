// Rate estimation over statistics rings built in memory.
#include "aggregation/sla_stats_data.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "aggregation/stats_ring_fixture.h"

namespace vekt::test {
namespace {

using Reading = std::pair<uint32_t, uint32_t>;  // rate, samples used
constexpr uint32_t rateOf(uint64_t bytes, uint32_t ms) { return bytes * 8000 / 1024 / ms; }

class LinkRateEstimateTest : public ParametersTest {
protected:
    // The ring ends where an inaccessible page begins: a read past its end faults.
    void SetUp() override {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t body = (kStatsFileSize + page - 1) / page * page;
        mappedSize_ = body + page;
        mapping_ = static_cast<char*>(
            mmap(nullptr, mappedSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        ASSERT_EQ(mprotect(mapping_ + body, page, PROT_NONE), 0);
        ring_ = reinterpret_cast<StatsFile*>(mapping_ + body - kStatsFileSize);
        params();  // defaults: stale after 1500 ms, window 500 ms, minimum 50 ms, cap 102400 B
    }
    void TearDown() override { munmap(mapping_, mappedSize_); }

    Reading read(bool isWifi = true) {
        uint32_t count = 77;
        const uint32_t rate = SlaStatsData(ring_, isWifi).linkRateEstimate(&count, "wlan0");
        return {rate, count};
    }
    void put(uint32_t k, uint64_t timeMs, uint32_t bytes, uint8_t kind = kSampleKindClosing,
             uint8_t flag = 0) {
        ring_->slots[k] = StatsSample{timeMs, bytes, 0, kind, flag};
    }
    std::vector<std::string> logged() const { return log_.texts("SLM-Vekt-SlaStatsData"); }

    FixedClock clock_;
    char* mapping_ = nullptr;
    size_t mappedSize_ = 0;
    StatsFile* ring_ = nullptr;
};

TEST_F(LinkRateEstimateTest, AllZeroFileIsNotReady) {
    EXPECT_EQ(read(), Reading(0, 77));  // the count is left alone too
    EXPECT_EQ(logged(), std::vector<std::string>{"SLA stat colletct is not ready"});
}

TEST_F(LinkRateEstimateTest, WalkWrapsFromSampleOneTo1279) {
    // 20 ms apart: 24 samples fall short of the window, the 25th meets it and counts.
    fillSteady(ring_, 1279, 60, kNow - 10, 20, bytesPer20Ms(1500));
    ring_->header.newest = 0;  // stands for sample 1279
    EXPECT_EQ(read(), Reading(1500, 25));
    fillSteady(ring_, 3, 60, kNow - 10, 20, bytesPer20Ms(800));  // samples 3, 2, 1, 1279 ...
    EXPECT_EQ(read(), Reading(800, 25));
}

TEST_F(LinkRateEstimateTest, LastSampleCountsWhenThatLandsAtLeastAsCloseToTheWindow) {
    fillSteady(ring_, 100, 60, kNow, 40, 1000);  // 12 short of 500 ms by 20, 13 over by 20
    EXPECT_EQ(read(), Reading(rateOf(13000, 520), 13));
    fillSteady(ring_, 100, 60, kNow, 60, 1000);  // 8 short by 20, 9 over by 40
    EXPECT_EQ(read(), Reading(rateOf(8000, 480), 8));
}

TEST_F(LinkRateEstimateTest, WalkEndsAtAStaleSampleTheByteCapOrOnceAround) {
    // Ages count from the wall clock + 1 ms: a sample stamped 1500 ms before it is stale.
    fillSteady(ring_, 50, 200, kNow - 1500, 20, 5000);
    EXPECT_EQ(read(), Reading(0, 0));
    params()->setValue("ideal_est_window", "5000");  // wider than the stale limit
    fillSteady(ring_, 50, 200, kNow - 19, 20, 100);  // the 75th is 1499 ms before: it counts
    EXPECT_EQ(read(), Reading(rateOf(7500, 1500), 75));

    fillSteady(ring_, 20, 10, kNow, 20, 60000);  // two samples pass the cap, within 40 ms
    EXPECT_EQ(read(), Reading(rateOf(120000, 40), 2));

    for (uint32_t k = 1; k <= kStatsSampleCount; ++k) put(k, kNow, 1);  // no time passes
    EXPECT_EQ(read(), Reading(0, kStatsSampleCount - 1));
}

TEST_F(LinkRateEstimateTest, StepAndFlaggedSamplesAreSteppedOver) {
    put(6, kNow, 1000);                                 // measured from sample 4:
    put(5, kNow - 50, 900000, kSampleKindStep);         // a step sample is never a start,
    put(4, kNow - 100, 900000, kSampleKindClosing, 1);  // a flagged one never a measurement
    put(3, kNow - 150, 2000);
    put(2, kNow - 200, 4000);  // its start, sample 1, was never written: the walk ends
    ring_->header = StatsFileHeader{kStatsMagic, 0, 6, 0};
    EXPECT_EQ(read(), Reading(rateOf(3000, 150), 2));
}

TEST_F(LinkRateEstimateTest, IndexPastTheRingIsWrappedIntoItNotFollowed) {
    fillSteady(ring_, 1279, 40, kNow, 20, bytesPer20Ms(600));
    ring_->header.newest = 2558;  // (2558 - 1) % 1279 + 1 = 1279
    EXPECT_EQ(read(), Reading(600, 25));
    ring_->header.newest = 1280;  // wraps to sample 1, never written
    EXPECT_EQ(read(false), Reading(0, 0));
    EXPECT_EQ(logged(), (std::vector<std::string>{"WLAN:Index(2557) out of bound!",
                                                  "WWAN:Index(1279) out of bound!"}));
}

}  // namespace
}  // namespace vekt::test
