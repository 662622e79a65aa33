// The dual Wi-Fi monitor with station readings and RTT results fed in by the test.
//
// The monitor's thread runs its first round as soon as it starts and then sleeps 5 s; the
// tests wait for that first round and then drive further rounds themselves with poll(),
// well inside that sleep, so every expected figure below counts the thread's round as the
// first. The figures are worked out by hand from the readings.
#include "monitors/double_wifi_monitor.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "control/msg.h"
#include "support/fake_wifi_sources.h"
#include "support/handler_fixture.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using std::chrono::steady_clock;
using Strings = std::vector<std::string>;

bool pollingThreadExists() {
    bool found = false;
    DIR* tasks = opendir("/proc/self/task");
    while (dirent* entry = tasks != nullptr ? readdir(tasks) : nullptr) {
        std::string name;
        std::getline(std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm"),
                     name);
        found = found || name == DoubleWifiMonitor::kThreadName;
    }
    if (tasks != nullptr) closedir(tasks);
    return found;
}

bool waitForLog(const host::LogCapture& log, const std::string& text, int seconds) {
    const auto deadline = steady_clock::now() + std::chrono::seconds(seconds);
    while (!log.contains(text)) {
        if (steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

double secondsSince(steady_clock::time_point start) {
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

const std::string kFastSleep = "waitForNextPoll FAST_POLL_SLEEP_TIME ";
const std::string kSlowSleep = "waitForNextPoll SLOW_POLL_SLEEP_TIME ";

class DoubleWifiMonitorTest : public ParametersTest {
  protected:
    DoubleWifiMonitorTest() {
        DoubleWifiMonitor::finalize();
        DoubleWifiMonitor::isCollectRtt = false;  // kept across monitors by design
    }
    ~DoubleWifiMonitorTest() override { DoubleWifiMonitor::finalize(); }

    void registerTwoWifiLinks(int rssi) {
        params()->UpdateInterface("wlan0", true);
        params()->UpdateInterface("wlan1", true);
        params()->UpdateInterfaceBssid("aabbccddee01,aabbccddee02");
        setRssi(rssi, rssi);
    }
    void setRssi(int wlan0, int wlan1) {
        station_.set("wlan0", wlan0);
        station_.set("wlan1", wlan1);
    }
    // The monitor, once its thread has run its first round and gone to sleep.
    DoubleWifiMonitor* startAndWaitForFirstRound() {
        DoubleWifiMonitor* monitor = DoubleWifiMonitor::instance();
        EXPECT_TRUE(waitForLog(log_, kFastSleep, 5));
        return monitor;
    }
    Strings averages() const {
        Strings lines;
        for (const std::string& text : log_.texts("SLM-Vekt-DoubleWifiMonitor")) {
            if (text.rfind("Average ", 0) == 0 || text.rfind("Rtt Difference", 0) == 0) {
                lines.push_back(text);
            }
        }
        return lines;
    }

    FakeStationSource station_;
    FakeRttProbe rtt_;
};

TEST_F(DoubleWifiMonitorTest, FewerThanTwoUsableWifiLinksLeaveItIdle) {
    params()->UpdateInterface("wlan0", true);
    params()->setDoubleWifiSelectStatus(2);
    DoubleWifiMonitor::instance();
    EXPECT_TRUE(log_.contains(
        "DoubleWifiMonitor m_interfaceInfoMap size < 2 is error!, interfaceMapSize ="));
    EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 0);
    DoubleWifiMonitor::finalize();

    // Two registered links, but only one Wi-Fi link with a known access point.
    params()->UpdateInterface("wlan1", true);
    params()->UpdateInterface("rmnet_data0", true);
    params()->UpdateInterfaceBssid("aa:bb:cc:dd:ee:01,");
    DoubleWifiMonitor::instance()->poll();
    EXPECT_TRUE(log_.contains(
        "DoubleWifiMonitor wifiInfo->name is wlan0, wifiInfo->bssid is aabbccddee01!"));
    EXPECT_FALSE(pollingThreadExists());
    EXPECT_FALSE(params()->isDWMonitorStatus());
    EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 0);
    EXPECT_EQ(log_.count("DoubleWifiMonitor exit "), 1u);
}

TEST_F(DoubleWifiMonitorTest, WeakSignalSwitchesRttProbingOnAndOnlyAllStrongLinksSwitchItOff) {
    registerTwoWifiLinks(-80);
    DoubleWifiMonitor* monitor = startAndWaitForFirstRound();
    EXPECT_TRUE(params()->isDWMonitorStatus());
    EXPECT_TRUE(pollingThreadExists());

    // Impossible readings are refused and add no sample.
    setRssi(0, -127);
    monitor->poll();
    EXPECT_TRUE(log_.contains("Interface = wlan0 current rssi = 0 error!"));
    EXPECT_TRUE(log_.contains("Interface = wlan1 current rssi = 127 error!"));

    setRssi(-80, -80);
    for (int round = 2; round <= 6; ++round) monitor->poll();
    EXPECT_EQ(averages(), Strings{});
    EXPECT_TRUE(rtt_.calls().empty());

    // The seventh reading fills the history: average (0 + 7 * 80) / 7 = 80, weak.
    monitor->poll();
    EXPECT_EQ(averages(), (Strings{"Average Rssi is 80, interface is wlan0",
                                   "Average Rssi is 80, interface is wlan1"}));
    EXPECT_TRUE(DoubleWifiMonitor::isCollectRtt);
    EXPECT_EQ(rtt_.calls().size(), 2u);

    // Stronger readings bring the damped average down to 85, 80, 74 (still probing: between
    // the limits the state holds) and then 67 on both links, which ends probing.
    setRssi(-40, -40);
    log_.clear();
    for (int round = 8; round <= 11; ++round) monitor->poll();
    EXPECT_EQ(
        averages(),
        (Strings{"Average Rssi is 85, interface is wlan0", "Average Rssi is 85, interface is wlan1",
                 "Average Rssi is 80, interface is wlan0", "Average Rssi is 80, interface is wlan1",
                 "Average Rssi is 74, interface is wlan0", "Average Rssi is 74, interface is wlan1",
                 "Average Rssi is 67, interface is wlan0",
                 "Average Rssi is 67, interface is wlan1"}));
    EXPECT_EQ(log_.count("poll isCollectRtt is 1"), 3u);
    EXPECT_EQ(log_.count("poll isCollectRtt is 0"), 1u);
    EXPECT_FALSE(DoubleWifiMonitor::isCollectRtt);
    EXPECT_EQ(rtt_.calls().size(), 8u);  // rounds 7 to 10, two links each
    EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 0);
}

TEST_F(DoubleWifiMonitorTest, WeightedRttAveragesSelectTheFasterLinkKeepItAndGiveUp) {
    // Seven readings of -100 make both links weak with an RSSI average of 100; the readings
    // fail from then on, so the average, and each RTT's weight (100 + 100) / 100, stays.
    // Weighted, wlan0 gives 100 410 200 134 132 132 132, then 100 and 100; wlan1 gives
    // 100 220 100 100 100 100 100, then 100 and 100. Once the history is full it keeps six
    // samples, and each average is (previous average + those six) / 6: 190/120, then
    // 170/120, then 150/120.
    registerTwoWifiLinks(-100);
    rtt_.queue("wlan0", {50, 205, 100, 67, 66, 66, 66, 50, 50});
    rtt_.queue("wlan1", {50, 110, 50, 50, 50, 50, 50, 50, 50});
    DoubleWifiMonitor* monitor = startAndWaitForFirstRound();
    for (int round = 2; round <= 6; ++round) monitor->poll();
    EXPECT_TRUE(rtt_.calls().empty());

    // The first six RTT rounds leave the history incomplete: selection off each time.
    for (int rttRound = 1; rttRound <= 6; ++rttRound) {
        params()->setDoubleWifiSelectStatus(1);
        monitor->poll();
        if (rttRound == 1) setRssi(0, 0);
        EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 0) << rttRound;
    }
    EXPECT_EQ(log_.count("rttCollectMonitor isCaclRtt is 0!"), 6u);

    log_.clear();
    monitor->poll();
    EXPECT_EQ(averages(), (Strings{"Average Rtt is 190, interface wlan0",
                                   "Average Rtt is 120, interface wlan1", "Rtt Difference is 70"}));
    EXPECT_TRUE(log_.contains("rttCaclAndInterfaceSelect double wifi Select slave wifi"));
    EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 2);

    log_.clear();
    monitor->poll();
    EXPECT_EQ(averages(), (Strings{"Average Rtt is 170, interface wlan0",
                                   "Average Rtt is 120, interface wlan1", "Rtt Difference is 50"}));
    EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 2);

    log_.clear();
    monitor->poll();
    EXPECT_EQ(averages(), (Strings{"Average Rtt is 150, interface wlan0",
                                   "Average Rtt is 120, interface wlan1", "Rtt Difference is 30"}));
    EXPECT_TRUE(log_.contains("poll double wifi Select disable"));
    EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 0);

    // One probe per link and round, over that link, to the built-in server, no offset.
    const std::vector<FakeRttProbe::Call> calls = rtt_.calls();
    ASSERT_EQ(calls.size(), 18u);
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].device, i % 2 == 0 ? "wlan0" : "wlan1");
        EXPECT_EQ(calls[i].server, VEKT_DEFAULT_RTT_SERVER);
        EXPECT_EQ(calls[i].port, 443);
        EXPECT_EQ(calls[i].probeCount, 1);
        EXPECT_EQ(calls[i].offsetMs, 0);
    }
}

TEST_F(DoubleWifiMonitorTest, FullHistoriesSleepLongAndFinalizeWakesAndJoinsTheThread) {
    registerTwoWifiLinks(-50);
    DoubleWifiMonitor* monitor = startAndWaitForFirstRound();
    for (int round = 2; round <= 7; ++round) monitor->poll();
    // The thread's next round finds every history full: strong links, no probing.
    ASSERT_TRUE(waitForLog(log_, kSlowSleep, 10));
    EXPECT_EQ(log_.count(kFastSleep), 1u);

    const auto before = steady_clock::now();
    DoubleWifiMonitor::finalize();
    // The thread was in its 10 s sleep; the stop must not wait it out.
    EXPECT_LT(secondsSince(before), 2.0);
    EXPECT_FALSE(pollingThreadExists());
    EXPECT_FALSE(params()->isDWMonitorStatus());
    EXPECT_EQ(params()->getDoubleWifiSelectStatus(), 0);
}

class DoubleWifiMonitorHandlerTest : public HandlerTest {
  protected:
    FakeStationSource station_;
    FakeRttProbe rtt_;
};

TEST_F(DoubleWifiMonitorHandlerTest, CommandStartsItOnceAndStopsItWithoutBlockingTheSocket) {
    for (const char* name : {"wlan0", "wlan1"}) root_.publishStatsFile(name);
    send(MSG_UPDATE_INTERFACES, "wlan0,wlan1");
    send(MSG_BSSID, "aa:bb:cc:dd:ee:01,aa:bb:cc:dd:ee:02");
    station_.set("wlan0", -50);
    station_.set("wlan1", -50);

    send(MSG_DW_MONITOR, "1");
    send(MSG_DW_MONITOR, "1");
    send(MSG_DW_MONITOR, "2");  // neither on nor off
    EXPECT_EQ(log_.count("DoubleWifiMonitor enter "), 1u);
    EXPECT_TRUE(params()->isDWMonitorStatus());
    ASSERT_TRUE(waitForLog(log_, kFastSleep, 5));

    const auto before = steady_clock::now();
    send(MSG_DW_MONITOR, "0");
    // The socket thread runs every command: a monitor asleep for 5 s must not hold it.
    EXPECT_LT(secondsSince(before), 2.0);
    EXPECT_EQ(log_.count("DoubleWifiMonitor exit "), 1u);
    EXPECT_FALSE(params()->isDWMonitorStatus());
    EXPECT_FALSE(pollingThreadExists());
    send(MSG_DW_MONITOR, "0");  // not running: nothing to stop
    EXPECT_EQ(log_.count("DoubleWifiMonitor exit "), 1u);
}

}  // namespace
}  // namespace vekt::test
