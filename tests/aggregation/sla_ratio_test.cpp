// Rate history, the per-pass evaluation and the ratio calculation.
#include <gtest/gtest.h>
#include <string.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "aggregation/sla_stats_data.h"
#include "aggregation/sla_stats_impl.h"
#include "aggregation/stats_ring_fixture.h"
#include "steering/iptables_manager.h"
#include "support/parameters_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {
namespace {

constexpr uint64_t kNow = 1700000000000ULL;

class SlaRatioTest : public ParametersTest {
protected:
    SlaRatioTest() : clockOverride_(clock_) {}

    void SetUp() override {
        SlaStatsImpl::finalize();
        impl_ = SlaStatsImpl::instance();
    }
    void TearDown() override { SlaStatsImpl::finalize(); }

    // Registers the interface (cellular names come out metered) and gives it a statistics
    // record over a ready, empty ring in memory, owned by the map from here on.
    linkStatsWrapper_t* addLink(const char* name, uint32_t rate = 0, bool mapped = true) {
        params()->UpdateInterface(name, true);
        auto* record = new linkStatsWrapper_t();
        copyBounded(record->name, sizeof(record->name), name);
        record->rate = rate;
        if (mapped) {
            MemoryRing ring;
            ring.ready();
            rings_[name] = ring.file();
            record->stats = new SlaStatsData(ring.release(), !isCellularName(name));
        }
        std::lock_guard<std::mutex> lock(slaStatsMutex);
        impl_->m_slaInterfaceMap[name] = record;
        return record;
    }

    // A ring that reads as `rate` now: 40 samples 20 ms apart, the newest 10 ms old.
    void steadyRate(const char* name, uint32_t rate, uint32_t samples = 40) {
        memset(rings_.at(name)->slots, 0, sizeof(StatsFile::slots));
        fillSteady(rings_.at(name), 40, samples, clock_.ms() - 10, 20, bytesForRate(rate, 20));
    }

    linkStatsWrapper_t* record(const char* name) { return impl_->m_slaInterfaceMap.at(name); }

    std::vector<std::string> ratioLines() const {
        std::vector<std::string> lines;
        for (const auto& r : log_.records()) {
            if (r.tag == "SLM-Vekt-SlaStatsImpl" && r.text.find("SLA_RATIO") != std::string::npos) {
                lines.push_back(r.text);
            }
        }
        return lines;
    }

    FixedClock clock_{kNow};
    ScopedClockOverride clockOverride_;
    SlaStatsImpl* impl_ = nullptr;
    std::map<std::string, StatsFile*> rings_;
};

TEST_F(SlaRatioTest, HistoryWindowKeepsTheBestRecentRate) {
    linkHistory_t history;
    Parameters* p = params();
    EXPECT_EQ(impl_->getMaxLinkRateFromHistory(history, 123, p), 123u);  // size 0: no history
    EXPECT_TRUE(history.samples.empty());

    p->m_bestEstCacheSize = 3;
    std::vector<uint32_t> results;
    for (uint32_t rate : {100u, 300u, 200u, 50u, 40u}) {
        results.push_back(impl_->getMaxLinkRateFromHistory(history, rate, p));
    }
    // 40 pushes the 300 out, so the maximum is searched again among 200, 50, 40.
    EXPECT_EQ(results, (std::vector<uint32_t>{100, 300, 300, 300, 200}));
    EXPECT_EQ(history.samples, (std::deque<uint32_t>{200, 50, 40}));

    // A window of zeros drops its oldest zero without a search and still takes a new high.
    linkHistory_t idle;
    for (int i = 0; i < 3; ++i) impl_->getMaxLinkRateFromHistory(idle, 0, p);
    EXPECT_EQ(impl_->getMaxLinkRateFromHistory(idle, 70, p), 70u);
}

TEST_F(SlaRatioTest, NoInterfacesMeansNoRewrite) {
    params()->m_ratioPercent = 1;
    params()->m_dominantPercent = 1;
    EXPECT_FALSE(impl_->calcSlaRatios(1, 0, 0, 0));
    EXPECT_EQ(params()->m_ratioPercent, 85);
    EXPECT_EQ(params()->m_dominantPercent, 90);
    EXPECT_TRUE(ratioLines().empty());
}

TEST_F(SlaRatioTest, OneWifiInStageOneKeepsTheRestInTheRemainder) {
    addLink("wlan0", 800);
    EXPECT_TRUE(impl_->calcSlaRatios(1, 0, 800, 800));
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.5f);  // 800 / 1600; nobody is at 0 to take the rest
    EXPECT_EQ(params()->m_ratioPercent, 85);
    EXPECT_EQ(params()->m_dominantPercent, 90);
    EXPECT_FALSE(impl_->calcSlaRatios(1, 0, 800, 800));  // unchanged
}

TEST_F(SlaRatioTest, FastestOfTwoWifiLinksDominatesAboveEightyFivePercent) {
    addLink("wlan0", 860);
    addLink("wlan1", 140);
    EXPECT_TRUE(impl_->calcSlaRatios(0, 0, 1000, 860));
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.8f);
    EXPECT_FLOAT_EQ(record("wlan1")->ratio, 0.2f);
    EXPECT_EQ(params()->m_dominantPercent, 85);
    EXPECT_EQ(params()->m_ratioPercent, 80);

    // 84 % does not dominate: the rates decide.
    record("wlan0")->rate = 840;
    record("wlan1")->rate = 160;
    impl_->calcSlaRatios(0, 0, 1000, 840);
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.84f);
    EXPECT_FLOAT_EQ(record("wlan1")->ratio, 0.16f);
}

TEST_F(SlaRatioTest, CellularGetsNothingInStageZero) {
    addLink("wlan0", 1000);
    addLink("wlan1", 1000);
    addLink("rmnet_data0", 500);
    EXPECT_TRUE(impl_->calcSlaRatios(0, 500, 2000, 1000));
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.5f);
    EXPECT_FLOAT_EQ(record("wlan1")->ratio, 0.5f);
    EXPECT_FLOAT_EQ(record("rmnet_data0")->ratio, 0.0f);
}

TEST_F(SlaRatioTest, StageOneGivesCellularWhatWifiCannotCarry) {
    addLink("wlan0", 800);
    addLink("rmnet_data0", 600);
    addLink("rmnet_data1", 200);
    EXPECT_TRUE(impl_->calcSlaRatios(1, 800, 800, 800));
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.5f);
    EXPECT_FLOAT_EQ(record("rmnet_data0")->ratio, 0.375f);  // (1 − 0.5) × 600 / 800
    EXPECT_FLOAT_EQ(record("rmnet_data1")->ratio, 0.125f);

    // An idle cellular link receives the remainder when others carry traffic.
    record("rmnet_data0")->rate = 0;
    record("rmnet_data1")->rate = 0;
    impl_->calcSlaRatios(1, 0, 800, 800);
    EXPECT_FLOAT_EQ(record("rmnet_data0")->ratio, 0.25f);  // 0.5 left, shared by two at 0
    EXPECT_FLOAT_EQ(record("rmnet_data1")->ratio, 0.25f);
}

TEST_F(SlaRatioTest, AllIdleSharesEquallyOverWifiAndGivesCellularNothing) {
    addLink("wlan0");
    addLink("wlan1");
    addLink("rmnet_data0");
    EXPECT_TRUE(impl_->calcSlaRatios(1, 0, 0, 0));
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.5f);
    EXPECT_FLOAT_EQ(record("wlan1")->ratio, 0.5f);
    EXPECT_FLOAT_EQ(record("rmnet_data0")->ratio, 0.0f);
    EXPECT_FALSE(impl_->calcSlaRatios(1, 0, 0, 0));  // the next idle pass changes nothing
}

TEST_F(SlaRatioTest, RewriteNeedsMoreThanTheMinimumChangeStrictly) {
    addLink("wlan0");
    addLink("wlan1");
    record("wlan0")->rate = 1500;
    record("wlan1")->rate = 500;
    // 0.5/0.5 to 0.75/0.25 moves a quarter of new connections: exactly 25 %.
    auto fromEvenSplit = [this]() {
        record("wlan0")->ratio = 0.5f;
        record("wlan1")->ratio = 0.5f;
        return impl_->calcSlaRatios(0, 0, 2000, 1500);
    };
    params()->m_minRatioChange = 25;
    EXPECT_FALSE(fromEvenSplit());
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.75f);  // the ratios move all the same
    params()->m_minRatioChange = 24;
    EXPECT_TRUE(fromEvenSplit());
}

TEST_F(SlaRatioTest, RatiosAreLoggedEverySixSecondsWithShiftedNames) {
    addLink("wlan0", 800);
    impl_->calcSlaRatios(1, 0, 800, 800);
    // "wlan0" turned by 17 codes: w→'(', l→'}', a→'r', n→DEL, 0→'A'.
    const std::string shifted = std::string("(}r") + '\x7f' + "A";
    EXPECT_EQ(ratioLines(), std::vector<std::string>{
                                "calcSlaRatios SLA_RATIO oldRatio = 0.000000, new ratio = "
                                "0.500000, LRE = 800, iterf = " +
                                shifted});
    clock_.setMs(kNow + 5999);
    impl_->calcSlaRatios(1, 0, 800, 800);
    EXPECT_EQ(ratioLines().size(), 1u);
    clock_.setMs(kNow + 6000);
    impl_->calcSlaRatios(1, 0, 800, 800);
    EXPECT_EQ(ratioLines().size(), 2u);
    EXPECT_EQ(impl_->m_lastRatioLogSec, static_cast<time_t>((kNow + 6000) / 1000));
}

TEST_F(SlaRatioTest, UnknownStageLeavesEveryRatioAlone) {
    addLink("wlan0", 800)->ratio = 0.3f;
    addLink("rmnet_data0", 700)->ratio = 0.7f;
    EXPECT_FALSE(impl_->calcSlaRatios(7, 700, 800, 800));
    EXPECT_EQ(log_.count("calcSlaRatios unexpected behavior in calc ratio"), 2u);
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.3f);
    EXPECT_FLOAT_EQ(record("rmnet_data0")->ratio, 0.7f);
}

TEST_F(SlaRatioTest, LinkWithoutStatisticsTakesNoPart) {
    addLink("wlan0", 800);
    addLink("wlan1", 0, /*mapped=*/false);
    impl_->calcSlaRatios(1, 0, 800, 800);
    EXPECT_EQ(params()->m_ratioPercent, 85);  // one unmetered link counted, not two
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.5f);
    EXPECT_FLOAT_EQ(record("wlan1")->ratio, 0.0f);  // no remainder for it
}

// ---- the evaluation pass over the rings ----

TEST_F(SlaRatioTest, EvaluationMeasuresEachLinkAndPicksTheStage) {
    addLink("wlan0");
    addLink("rmnet_data0");
    steadyRate("wlan0", 800);
    steadyRate("rmnet_data0", 1000);
    // Ratios already where this pass puts them: nothing to rewrite, so no rules are touched.
    record("wlan0")->ratio = 0.5f;
    record("rmnet_data0")->ratio = 0.5f;
    EXPECT_FALSE(impl_->evalAndSetSLAInterfaceRatio());
    EXPECT_EQ(record("wlan0")->rate, 800u);
    EXPECT_EQ(record("wlan0")->sampleCount, 25u);
    EXPECT_EQ(record("rmnet_data0")->rate, 1000u);
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.5f);        // stage 1: 800 / 1600
    EXPECT_FLOAT_EQ(record("rmnet_data0")->ratio, 0.5f);  // (1 − 0.5) × 1000 / 1000

    // Fewer samples than estimate_pack_num: the link counts as idle this pass.
    steadyRate("wlan0", 800, 5);  // 5 samples make 4 measurements
    record("wlan0")->ratio = 0.0f;
    record("rmnet_data0")->ratio = 1.0f;
    impl_->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ(record("wlan0")->sampleCount, 4u);
    EXPECT_EQ(record("wlan0")->rate, 0u);
}

TEST_F(SlaRatioTest, CellularBelowWanThresholdFallsBackToItsHistory) {
    params()->m_bestEstCacheSize = 3;
    addLink("rmnet_data0")->ratio = 1.0f;  // alone it always gets everything
    steadyRate("rmnet_data0", 800);
    impl_->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ(record("rmnet_data0")->rate, 800u);

    steadyRate("rmnet_data0", 499);
    impl_->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ(record("rmnet_data0")->rate, 800u);  // 499 < 500 counts as 0, history gives 800
    EXPECT_EQ(record("rmnet_data0")->history.samples, (std::deque<uint32_t>{800, 0}));

    params()->m_bestEstCacheSize = 0;     // without history it is just 0
    record("rmnet_data0")->ratio = 0.0f;  // where an idle cellular link ends up
    impl_->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ(record("rmnet_data0")->rate, 0u);
}

bool sawCommand(const RecordingRunner& runner, const std::string& text) {
    for (const std::string& line : runner.commands()) {
        if (line.find(text) != std::string::npos) return true;
    }
    return false;
}

TEST_F(SlaRatioTest, ChangedRatiosRewriteTheRulesAndStableOnesDoNot) {
    ScopedRecordingRunner runner;
    EXPECT_FALSE(impl_->evalAndSetSLAInterfaceRatio());  // no links: nothing at all is run
    EXPECT_TRUE(runner.commands().empty());

    addLink("wlan0");
    steadyRate("wlan0", 800);
    EXPECT_TRUE(impl_->evalAndSetSLAInterfaceRatio());
    EXPECT_TRUE(sawCommand(runner, "-F tarn_SLA"));
    EXPECT_FLOAT_EQ(record("wlan0")->ratio, 0.5f);

    runner.clear();
    EXPECT_FALSE(impl_->evalAndSetSLAInterfaceRatio());
    EXPECT_FALSE(sawCommand(runner, "tarn_SLA"));
    IptablesManager::clean_SLM_iptables();
}

}  // namespace
}  // namespace vekt::test
