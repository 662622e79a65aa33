// The dual Wi-Fi monitor with station readings and RTT results fed in by the test. Its thread
// runs a first round at once and then sleeps 5 s; the tests wait for that round and drive the
// next ones with poll(), well inside the sleep, so every figure below (worked out by hand)
// counts the thread's round as the first.
#include "monitors/double_wifi_monitor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "control/msg.h"
#include "support/fake_wifi_sources.h"
#include "support/handler_fixture.h"

namespace vekt::test {
namespace {

using Strings = std::vector<std::string>;

const std::string kFastSleep = "waitForNextPoll FAST_POLL_SLEEP_TIME ";

bool pollingThreadExists() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name == DoubleWifiMonitor::kThreadName) return true;
    }
    return false;
}

// The handlers' fixture: the last test drives the monitor through them.
class DoubleWifiMonitorTest : public HandlerTest {
  protected:
    DoubleWifiMonitorTest() { DoubleWifiMonitor::isCollectRtt = false; }  // kept across monitors

    void registerTwoWifiLinks(int rssi) {
        params()->UpdateInterface("wlan0", true);
        params()->UpdateInterface("wlan1", true);
        params()->UpdateInterfaceBssid("aabbccddee01,aabbccddee02");
        setRssi(rssi, rssi);
    }
    void setRssi(int wlan0, int wlan1) {
        links_.set("wlan0", wlan0);
        links_.set("wlan1", wlan1);
    }
    bool waitForLog(const std::string& text, int seconds) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (!log_.contains(text) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return log_.contains(text);
    }
    // The averages and the difference logged since the last clear, then clears.
    Strings averages() {
        Strings lines;
        for (const std::string& text : log_.texts("SLM-Vekt-DoubleWifiMonitor")) {
            if (text.rfind("Average ", 0) == 0 || text.rfind("Rtt Difference", 0) == 0) {
                lines.push_back(text);
            }
        }
        log_.clear();
        return lines;
    }

    FakeWifiLinks links_;
};

TEST_F(DoubleWifiMonitorTest, OneUsableWifiLinkStartsNoThreadAndSetsStatusZero) {
    // A cellular link and a Wi-Fi link without an access point do not count.
    params()->UpdateInterface("wlan0", true);
    params()->UpdateInterface("wlan1", true);
    params()->UpdateInterface("rmnet_data0", true);
    params()->UpdateInterfaceBssid("aa:bb:cc:dd:ee:01,");
    params()->setDoubleWifiSelectStatus(2);
    DoubleWifiMonitor::instance()->poll();
    EXPECT_FALSE(pollingThreadExists());
    EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 0);
    EXPECT_EQ(links_.queries(), Strings{"wlan0@aabbccddee01"});
}

TEST_F(DoubleWifiMonitorTest, SevenWeakReadingsSwitchRttProbingOnAndAllStrongLinksOff) {
    registerTwoWifiLinks(-80);
    DoubleWifiMonitor* monitor = DoubleWifiMonitor::instance();
    ASSERT_TRUE(waitForLog(kFastSleep, 5));  // the thread's first round
    EXPECT_TRUE(pollingThreadExists());
    setRssi(0, -127);  // impossible readings add no sample
    monitor->poll();
    setRssi(-80, -80);
    for (int round = 2; round <= 6; ++round) monitor->poll();
    EXPECT_EQ(averages(), Strings{});

    // The seventh reading fills the history: average (0 + 7 * 80) / 7 = 80, weak.
    monitor->poll();
    EXPECT_EQ(averages(), (Strings{"Average Rssi is 80, interface is wlan0",
                                   "Average Rssi is 80, interface is wlan1"}));
    EXPECT_TRUE(DoubleWifiMonitor::isCollectRtt);
    EXPECT_EQ(links_.calls().size(), 2u);

    // Stronger readings bring the damped average down to 85, 80, 74 (between the limits the
    // state holds) and then 67 on both links, which ends probing.
    setRssi(-40, -40);
    for (int round = 8; round <= 10; ++round) monitor->poll();
    EXPECT_TRUE(DoubleWifiMonitor::isCollectRtt);
    monitor->poll();
    EXPECT_EQ(averages().back(), "Average Rssi is 67, interface is wlan1");
    EXPECT_FALSE(DoubleWifiMonitor::isCollectRtt);
    EXPECT_EQ(links_.calls().size(), 8u);  // rounds 7 to 10, two links each
}

TEST_F(DoubleWifiMonitorTest, WeightedRttAveragesSelectTheFasterLinkKeepItAndGiveUp) {
    // Seven readings of -100 make both links weak with an RSSI average of 100; the readings
    // fail from then on, so the average, and each RTT's weight (100 + 100) / 100, stays.
    // Weighted, wlan0 gives 100 410 200 134 132 132 132, then 100 and 100; wlan1 gives
    // 100 220 100 100 100 100 100, then 100 and 100. Once the history is full it keeps six
    // samples, and each average is (previous average + those six) / 6: 190/120, then
    // 170/120, then 150/120.
    registerTwoWifiLinks(-100);
    links_.queue("wlan0", {50, 205, 100, 67, 66, 66, 66, 50, 50});
    links_.queue("wlan1", {50, 110, 50, 50, 50, 50, 50, 50, 50});
    DoubleWifiMonitor* monitor = DoubleWifiMonitor::instance();
    ASSERT_TRUE(waitForLog(kFastSleep, 5));  // the thread's first round
    for (int round = 2; round <= 6; ++round) monitor->poll();

    // The first six RTT rounds leave the history incomplete: selection off each time.
    for (int rttRound = 1; rttRound <= 6; ++rttRound) {
        params()->setDoubleWifiSelectStatus(1);
        monitor->poll();
        if (rttRound == 1) setRssi(0, 0);
        EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 0) << rttRound;
    }
    averages();
    // wlan0's average and the difference: the slave link, faster by 66 ms or more, is chosen;
    // the choice stands; under 40 ms selection is off.
    const int rounds[][3] = {{190, 70, 2}, {170, 50, 2}, {150, 30, 0}};
    for (const auto& [wlan0, difference, status] : rounds) {
        monitor->poll();
        EXPECT_EQ(averages(),
                  (Strings{"Average Rtt is " + std::to_string(wlan0) + ", interface wlan0",
                           "Average Rtt is 120, interface wlan1",
                           "Rtt Difference is " + std::to_string(difference)}));
        EXPECT_EQ(params()->getDoubleWifiSelectStatus(), status);
    }
    // One probe per link and round, over that link, to the built-in server, no offset.
    const Strings calls = links_.calls();
    ASSERT_EQ(calls.size(), 18u);
    EXPECT_EQ(calls[0], "wlan0 " VEKT_DEFAULT_RTT_SERVER ":443 x1 +0");
    EXPECT_EQ(calls[17], "wlan1 " VEKT_DEFAULT_RTT_SERVER ":443 x1 +0");
}

TEST_F(DoubleWifiMonitorTest, CommandStartsItOnceAndStopJoinsTheThreadWithoutWaitingOutItsSleep) {
    registerTwoWifiLinks(-50);
    send(MSG_DW_MONITOR, "1");
    send(MSG_DW_MONITOR, "1");
    EXPECT_EQ(log_.count("DoubleWifiMonitor enter "), 1u);
    EXPECT_EQ(links_.starts(), 1);
    ASSERT_TRUE(waitForLog(kFastSleep, 5));
    EXPECT_TRUE(params()->isDWMonitorStatus());

    // Once every history is full the thread sleeps 10 s; the stop must not wait it out.
    for (int round = 2; round <= 7; ++round) DoubleWifiMonitor::instance()->poll();
    ASSERT_TRUE(waitForLog("waitForNextPoll SLOW_POLL_SLEEP_TIME ", 10));
    const auto before = std::chrono::steady_clock::now();
    send(MSG_DW_MONITOR, "0");
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
    EXPECT_FALSE(pollingThreadExists());
    EXPECT_FALSE(params()->isDWMonitorStatus());
    EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 0);
}

}  // namespace
}  // namespace vekt::test
