#include "core/main_loop.h"

#include <gtest/gtest.h>

#include "aggregation/sla_stats_impl.h"
#include "base/clock.h"
#include "steering/iptables_manager.h"
#include "selection/smart_link_selection.h"
#include "support/no_socket_destruction.h"
#include "support/parameters_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {
namespace {

struct RecordingSleeper : Sleeper {
    void sleepMs(int64_t ms) override { slept.push_back(ms); }
    std::vector<int64_t> slept;
};

class MainLoopTest : public ParametersTest {
protected:
    void TearDown() override {
        SmartLinkSelection::finalize();
        IptablesManager::clean_SLM_iptables();
        SlaStatsImpl::finalize();
    }
    ScopedRecordingRunner runner_;
    ScopedNoSocketDestruction noSocketDestruction_;
    RecordingSleeper sleeper_;
    ScopedSeamOverride<Sleeper> sleepScope_{sleeperSeam(), sleeper_};
};

TEST_F(MainLoopTest, EachPassSleepsTheIntervalAndOnlyTwoStopsTheLoop) {
    root_.writeConf("mini_est_interval = 250\n");
    SlaStatsImpl* stats = SlaStatsImpl::instance();
    root_.setProperty("vendor.sla.enabled", "0");
    EXPECT_TRUE(runMainLoopPass(params(), stats));
    root_.setProperty("vendor.sla.enabled", "1");
    EXPECT_TRUE(runMainLoopPass(params(), stats));
    // The pass that sees 2 has still run and slept in full.
    root_.setProperty("vendor.sla.enabled", "2");
    EXPECT_FALSE(runMainLoopPass(params(), stats));
    EXPECT_EQ(sleeper_.slept, (std::vector<int64_t>{250, 250, 250}));
    EXPECT_EQ(params()->get(SLA_ENABLED), 2);
}

}  // namespace
}  // namespace vekt::test
