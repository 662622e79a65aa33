// Link aggregation end to end: the real daemon in a private network namespace, slasim
// scripting two Wi-Fi links' rates, and wrapper tools that record the rules.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>

#include "control/msg.h"
#include "support/control_client.h"
#include "support/daemon_process.h"
#include "support/netns.h"
#include "support/temp_root.h"

namespace vekt::test {
namespace {

struct RatioRules {
    int writes = 0;             // times tarn_SLA was rebuilt with rules
    double lastWlan0 = -1.0;    // probability of the last rule for wlan0
    std::string lastWlan1Line;  // last rule for wlan1
};

RatioRules readRatioRules(const std::string& commands) {
    RatioRules rules;
    std::istringstream lines(commands);
    const std::string marker = "--probability ";
    for (std::string line; std::getline(lines, line);) {
        if (line.find("-A tarn_SLA ") == std::string::npos) continue;
        size_t at = line.find(marker);
        if (at == std::string::npos) continue;
        if (line.find("-j tarn_fw_wlan0") != std::string::npos) {
            ++rules.writes;
            rules.lastWlan0 = atof(line.c_str() + at + marker.size());
        } else if (line.find("-j tarn_fw_wlan1") != std::string::npos) {
            rules.lastWlan1Line = line;
        }
    }
    return rules;
}

class AggregationEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override { VEKT_REQUIRE_NETNS(); }

    std::string log() const { return root_.dir() + "/vekt.log"; }
    RatioRules rules() const { return readRatioRules(root_.recordedCommands()); }

    // Waits until t seconds after slasim started.
    void sleepUntil(double seconds) const {
        double left = seconds - elapsedSeconds();
        if (left > 0) usleep(static_cast<useconds_t>(left * 1e6));
    }
    double elapsedSeconds() const {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return (now.tv_sec - started_.tv_sec) + (now.tv_nsec - started_.tv_nsec) / 1e9;
    }

    TempRoot root_;
    ChildProcess slasim_;
    ChildProcess vekt_;
    struct timespec started_ = {};
};

TEST_F(AggregationEndToEndTest, RulesFollowTheRatesAndIgnoreSmallMoves) {
    root_.installRecordingWrappers();
    root_.writeConf("mini_est_interval = 200  # passes five times a second\n");
    root_.setProperty("vendor.sla.enabled", "1");

    // wlan0: 1200, then 1210 at 4 s (under min_ratio_change), then 3000 at 7 s (dominant).
    clock_gettime(CLOCK_MONOTONIC, &started_);
    ASSERT_TRUE(slasim_.start({binPath("slasim"), "--root", root_.dir(), "wlan0=1200,4:1210,7:3000",
                               "wlan1=400"},
                              root_.dir() + "/slasim.log", false));
    ASSERT_TRUE(waitForText(root_.dir() + "/slasim.log", "slasim: ready", 5000));
    ASSERT_TRUE(vekt_.start({binPath("vekt"), "--root", root_.dir()}, log(), true));

    ControlClient client;
    ASSERT_TRUE(client.connect(root_.path("/dev/socket/vekt")));
    ASSERT_TRUE(client.send(MSG_UPDATE_INTERFACES, "wlan0,wlan1"));

    // 1200 against 400: wlan0 takes three quarters; wlan1, a slave, gets the rest through
    // its wrapper chain.
    sleepUntil(3.8);
    RatioRules settled = rules();
    ASSERT_GT(settled.writes, 0) << readWholeFile(log());
    EXPECT_NEAR(settled.lastWlan0, 0.75, 0.02);
    EXPECT_NE(settled.lastWlan1Line.find("-j tarn_fw_wlan1_wrapper"), std::string::npos);

    // 1210 moves the shares by a fraction of a percent: the rules stay as they are.
    sleepUntil(6.8);
    EXPECT_EQ(rules().writes, settled.writes) << root_.recordedCommands();

    // 3000 against 400 dominates: 80 % and the rest. The estimate climbs over a few passes
    // and the last rewrite happens once the shares stand within min_ratio_change of that.
    sleepUntil(8.5);
    RatioRules dominant = rules();
    EXPECT_GT(dominant.writes, settled.writes);
    EXPECT_NEAR(dominant.lastWlan0, 0.8, 0.02);
    EXPECT_NE(dominant.lastWlan1Line.find("--probability 1.000000 -j tarn_fw_wlan1_wrapper"),
              std::string::npos);

    // A stop with the client connected tears the tree down and switches statistics off.
    root_.setProperty("vendor.sla.enabled", "2");
    ASSERT_TRUE(waitForText(log(), "Vekt exiting", 5000)) << readWholeFile(log());
    EXPECT_NE(root_.recordedCommands().find("iptables -w -t mangle -X tarn_SLA"),
              std::string::npos);
    EXPECT_TRUE(waitForText(root_.dir() + "/slasim.log", "enable=0", 1000));
}

}  // namespace
}  // namespace vekt::test
