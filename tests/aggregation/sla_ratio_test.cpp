// Rate history and the ratio calculation.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <deque>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "aggregation/sla_stats_data.h"
#include "aggregation/stats_ring_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {
namespace {

class SlaRatioTest : public SlaStatsTest {
protected:
    // Registers the link (cellular names come out metered) with a record over an empty ring
    // in memory, which the record owns; returns the ring for filling.
    StatsFile* addLink(const char* name, uint32_t rate = 0) {
        params()->UpdateInterface(name, true);
        void* ring = mmap(nullptr, kStatsFileSize, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        auto* record = new linkStatsWrapper_t();
        copyBounded(record->name, sizeof(record->name), name);
        record->rate = rate;
        record->stats = new SlaStatsData(ring, !isCellularName(name));
        vekt::MutexLock lock(slaStatsMutex);
        impl_->m_slaInterfaceMap[name] = record;
        return static_cast<StatsFile*>(ring);
    }
    linkStatsWrapper_t* record(const char* name) { return impl_->m_slaInterfaceMap.at(name); }
    std::vector<std::string> logged() const { return log_.texts("SLM-Vekt-SlaStatsImpl"); }

    FixedClock clock_;
    ScopedRecordingRunner runner_;
};

TEST_F(SlaRatioTest, HistoryWindowKeepsTheBestRecentRate) {
    linkHistory_t history;
    EXPECT_EQ(impl_->getMaxLinkRateFromHistory(history, 123, params()), 123u);  // size 0
    params()->m_bestEstCacheSize = 3;
    std::vector<uint32_t> best;
    for (uint32_t rate : {100u, 300u, 200u, 50u, 40u}) {
        best.push_back(impl_->getMaxLinkRateFromHistory(history, rate, params()));
    }
    EXPECT_EQ(best, (std::vector<uint32_t>{100, 300, 300, 300, 200}));  // 40 pushed 300 out
}

TEST_F(SlaRatioTest, NoInterfacesRewriteNothing) {
    EXPECT_FALSE(impl_->calcSlaRatios(1, 0, 0, 0));
    EXPECT_FALSE(impl_->evalAndSetSLAInterfaceRatio());
    EXPECT_TRUE(runner_.commands().empty());
    EXPECT_TRUE(logged().empty());
}

TEST_F(SlaRatioTest, RatiosFollowTheStageAndTheRates) {
    using Link = std::tuple<const char*, uint32_t, float>;  // name, rate, expected ratio
    const std::tuple<SLA_ratio_calc_process, float, float, float, std::vector<Link>> cases[] = {
        // Stage 1, Wi-Fi alone: its rate over wifi_threshold (1600).
        {1, 0, 800, 800, {{"wlan0", 800, 0.5f}}},
        // Over 85 % of two Wi-Fi links' traffic: the fastest dominates with 80 %; at 84 % the
        // rates decide.
        {0, 0, 1000, 860, {{"wlan0", 860, 0.8f}, {"wlan1", 140, 0.2f}}},
        {0, 0, 1000, 840, {{"wlan0", 840, 0.84f}, {"wlan1", 160, 0.16f}}},
        // Stage 0 gives cellular nothing; stage 1 gives it what Wi-Fi cannot carry.
        {0, 500, 2000, 1000, {{"wlan0", 1000, 0.5f}, {"wlan1", 1000, 0.5f}, {"wwan0", 500, 0}}},
        {1, 800, 800, 800, {{"wlan0", 800, 0.5f}, {"wwan0", 600, 0.375f}, {"wwan1", 200, 0.125f}}},
        // All idle: the Wi-Fi links share equally, cellular gets nothing.
        {1, 0, 0, 0, {{"wlan0", 0, 0.5f}, {"wlan1", 0, 0.5f}, {"wwan0", 0, 0}}},
        // Not all idle: what is left goes in equal parts to the idle links, whatever they are.
        {1, 0, 400, 400, {{"wlan0", 400, 0.25f}, {"wwan0", 0, 0.375f}, {"wwan1", 0, 0.375f}}},
    };
    for (const auto& [stage, cellSum, wifiSum, wifiMax, links] : cases) {
        SlaStatsImpl::finalize();
        Parameters::destroyInstanceForTest();
        impl_ = SlaStatsImpl::instance();
        for (const auto& [name, rate, ratio] : links) addLink(name, rate);
        EXPECT_TRUE(impl_->calcSlaRatios(stage, cellSum, wifiSum, wifiMax));
        for (const auto& [name, rate, ratio] : links) {
            EXPECT_FLOAT_EQ(record(name)->ratio, ratio) << name << " of " << links.size();
        }
    }
}

// The lock-in that the floor undoes: Wi-Fi carried a trickle (1 of 12000) while cellular was
// busy. Off, Wi-Fi keeps next to nothing; at 20 % it keeps a fifth and cellular the rest. In
// stage 0 (here at 30 %) cellular stays at 0 and only the Wi-Fi links are held up.
TEST_F(SlaRatioTest, ShareFloorKeepsAQuietLinkInPlay) {
    using Link = std::tuple<const char*, uint32_t, float>;  // name, rate, expected ratio
    const std::tuple<int, SLA_ratio_calc_process, float, float, std::vector<Link>> cases[] = {
        {0, 1, 8000, 1, {{"wlan0", 1, 1.0f / 12000}, {"wwan0", 8000, 1.0f - 1.0f / 12000}}},
        {20, 1, 8000, 1, {{"wlan0", 1, 0.2f}, {"wwan0", 8000, 0.8f}}},
        {30, 0, 500, 2000, {{"wlan0", 1600, 0.7f}, {"wlan1", 400, 0.3f}, {"wwan0", 500, 0}}},
    };
    for (const auto& [floor, stage, cellSum, wifiSum, links] : cases) {
        SlaStatsImpl::finalize();
        Parameters::destroyInstanceForTest();
        impl_ = SlaStatsImpl::instance();
        params()->setValue("wifi_threshold", "12000");
        params()->m_minLinkSharePercent = floor;
        for (const auto& [name, rate, ratio] : links) addLink(name, rate);
        impl_->calcSlaRatios(stage, cellSum, wifiSum, static_cast<float>(std::get<1>(links[0])));
        for (const auto& [name, rate, ratio] : links) {
            EXPECT_NEAR(record(name)->ratio, ratio, 1e-5) << name << " at floor " << floor;
        }
    }
}

TEST_F(SlaRatioTest, CellularBelowWanThresholdFallsBackToItsHistory) {
    params()->m_bestEstCacheSize = 3;
    StatsFile* ring = addLink("rmnet_data0");
    for (uint32_t rate : {800u, 499u}) {  // 499 is under wan_threshold (500): it counts as 0
        fillSteady(ring, 40, 40, kNow - 10, 20, bytesPer20Ms(rate));
        impl_->evalAndSetSLAInterfaceRatio();
        EXPECT_EQ(record("rmnet_data0")->rate, 800u);
    }
    EXPECT_EQ(record("rmnet_data0")->history.samples, (std::deque<uint32_t>{800, 0}));
}

// A pass that measures a link below its recent best keeps the measurement, unless
// credit_best_rate asks for the best: then a link held down by a small share is credited with
// the capacity it showed.
TEST_F(SlaRatioTest, CreditBestRateUsesTheWindowsBestForEveryPass) {
    params()->m_bestEstCacheSize = 3;
    StatsFile* ring = addLink("wlan0");
    for (int credit : {0, 1}) {
        params()->m_creditBestRate = credit;
        record("wlan0")->history = linkHistory_t();
        for (uint32_t rate : {800u, 300u}) {
            fillSteady(ring, 40, 40, kNow - 10, 20, bytesPer20Ms(rate));
            impl_->evalAndSetSLAInterfaceRatio();
        }
        EXPECT_EQ(record("wlan0")->rate, credit != 0 ? 800u : 300u);
    }
}

TEST_F(SlaRatioTest, BelowTheWifiThresholdOneWifiLinkLeavesRoomButTwoShareAll) {
    // Under wifi_threshold (1600) a lone Wi-Fi link is held to its part of the threshold,
    // leaving room for cellular; two Wi-Fi links without cellular share all by their rates.
    using Rates = std::vector<std::pair<const char*, uint32_t>>;
    const std::pair<Rates, std::vector<float>> cases[] = {
        {{{"wlan0", 600}}, {0.375f}},
        {{{"wlan0", 600}, {"wlan1", 200}}, {0.75f, 0.25f}},
    };
    for (const auto& [rates, ratios] : cases) {
        SlaStatsImpl::finalize();
        Parameters::destroyInstanceForTest();
        impl_ = SlaStatsImpl::instance();
        for (const auto& [name, rate] : rates) {
            fillSteady(addLink(name), 40, 40, kNow - 10, 20, bytesPer20Ms(rate));
        }
        impl_->evalAndSetSLAInterfaceRatio();
        for (size_t i = 0; i < rates.size(); ++i) {
            ASSERT_EQ(record(rates[i].first)->rate, rates[i].second);
            EXPECT_FLOAT_EQ(record(rates[i].first)->ratio, ratios[i])
                << rates[i].first << " of " << rates.size();
        }
    }
}

TEST_F(SlaRatioTest, RewriteNeedsMoreThanTheMinimumChange) {
    addLink("wlan0", 1500);
    addLink("wlan1", 500);
    // From 0.5/0.5 to 0.75/0.25 a quarter of new connections change link: exactly 25 %.
    for (int minimum : {25, 24}) {
        params()->m_minRatioChange = minimum;
        record("wlan0")->ratio = record("wlan1")->ratio = 0.5f;
        EXPECT_EQ(impl_->calcSlaRatios(0, 0, 2000, 1500), minimum < 25) << minimum;
    }
}

TEST_F(SlaRatioTest, RatiosAreLoggedEverySixSecondsUnderShiftedNames) {
    addLink("wlan0", 800);
    for (uint64_t ms : {kNow, kNow + 5999, kNow + 6000}) {
        clock_.ms = ms;
        impl_->calcSlaRatios(1, 0, 800, 800);
    }
    // "wlan0" turned by 17 codes: w to '(', l to '}', a to 'r', n to DEL, 0 to 'A'.
    EXPECT_EQ(logged(), (std::vector<std::string>{
                            "calcSlaRatios SLA_RATIO oldRatio = 0.000000, new ratio = 0.500000, "
                            "LRE = 800, iterf = (}r\177A",
                            "calcSlaRatios SLA_RATIO oldRatio = 0.500000, new ratio = 0.500000, "
                            "LRE = 800, iterf = (}r\177A"}));
}

}  // namespace
}  // namespace vekt::test
