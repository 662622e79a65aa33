// The two hooks that follow each selection step: VoIP points the probes at the call's peer,
// and gaming AI mode ends RTT checking once the game has stayed on Wi-Fi for six seconds.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "aggregation/sla_stats_impl.h"
#include "selection/selection_fixture.h"

namespace vekt::test {
namespace {

class VoipPeerTest : public SmartLinkSelectionTest {
  protected:
    // The statistics channel's VoIP state: both numbers in network byte order.
    void reportPeer(const std::string& state) {
        root_.writeFile(SlaStatsImpl::kVoipStateFile, state);
        SmartLinkSelection::setVoipIpAddressAndPort();
    }
    std::string server() { return params()->m_rttServer.get(); }
    int32_t port() { return params()->m_rttServerPort.load(); }
};

TEST_F(VoipPeerTest, RunningCallTakesOverTheDefaultServerOnce) {
    params()->m_rttServerPort = 443;
    reportPeer("16777343,20480");
    EXPECT_EQ(port(), 443) << "VoIP is not running";

    params()->setVoipRunning(true);
    reportPeer("16777343,20480");
    EXPECT_EQ(server(), "127.0.0.1");
    EXPECT_EQ(port(), 80);

    reportPeer("0,20480");
    reportPeer("16777343,0");
    reportPeer("16777343,65536");  // only the low 16 bits are the port
    EXPECT_EQ(server(), "127.0.0.1");
    EXPECT_EQ(port(), 80);

    reportPeer("33663168,47873");  // 192.168.1.2, port 443
    EXPECT_EQ(server(), "192.168.1.2");
    EXPECT_EQ(port(), 443);
    // That server is no longer the default one: later peers are not taken over.
    reportPeer("16777343,20480");
    EXPECT_EQ(server(), "192.168.1.2");
    EXPECT_EQ(port(), 443);
}

TEST_F(VoipPeerTest, ConfiguredServerIsLeftAlone) {
    params()->setVoipRunning(true);
    params()->setGamingRttServer("10.1.2.3");
    params()->m_rttServerPort = 443;
    reportPeer("16777343,20480");
    EXPECT_EQ(server(), "10.1.2.3");
    EXPECT_EQ(port(), 443);
}

// The probe threads of this process, by their names ("SlaPing-wlan0"). Counted by name: a
// sanitizer's runtime may start threads of its own at any time.
size_t probeThreads() {
    size_t count = 0;
    DIR* tasks = opendir("/proc/self/task");
    for (struct dirent* entry; tasks != nullptr && (entry = readdir(tasks)) != nullptr;) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name) && name.rfind("SlaPing-", 0) == 0) ++count;
    }
    if (tasks != nullptr) closedir(tasks);
    return count;
}

// AI mode with RTT checking on and idle probe threads (they never probe: the tests set the
// levels by hand). The hysteresis allows every switch.
class AiModeTest : public SmartLinkSelectionTest {
  protected:
    void SetUp() override {
        SmartLinkSelectionTest::SetUp();
        params()->m_pingIntervalMs = 600000;
        params()->m_tHystS = 0;
        SmartLinkSelection* sls = start({"wlan0", "rmnet_data0"});
        sls->threadStop();
        sls->createRttThreads();
        params()->setGamingRunning(2);
        params()->setGamingAiModeCheckRtt(true);
    }
    // One main-loop pass at the given second, with wlan0 rated above or below cellular.
    void passAt(time_t seconds, bool wifiBest) {
        setLevel("wlan0", wifiBest ? 11 : 3);
        setLevel("rmnet_data0", 10);
        clock_.setSeconds(seconds);
        SmartLinkSelection::slsChooseInterface();
    }
    bool checking() { return params()->isGamingAiModeCheckRtt(); }
};

TEST_F(AiModeTest, SixSecondsOnWifiEndsRttChecking) {
    passAt(kStart, true);
    passAt(kStart + 5, true);
    EXPECT_TRUE(checking());
    EXPECT_EQ(probeThreads(), 2u);

    passAt(kStart + 6, true);
    EXPECT_TRUE(log_.contains("gamingAiModeCheck timeout exit tcping check"));
    EXPECT_FALSE(checking());
    // A joined thread leaves the task list a moment after the join returns.
    size_t left = probeThreads();
    for (int i = 0; i < 100 && left != 0; ++i) {
        usleep(10 * 1000);
        left = probeThreads();
    }
    EXPECT_EQ(left, 0u) << "probe threads left running";
    {
        MutexLock lock(slsMutex);
        EXPECT_TRUE(SmartLinkSelection::instance()->m_slsInterfaceMap.empty());
        EXPECT_EQ(SmartLinkSelection::instance()->currentInterface, nullptr);
    }
    // Traffic stays where it was: no more selection steps until checking starts again.
    runner_.clear();
    log_.clear();
    SmartLinkSelection::slsChooseInterface();
    EXPECT_TRUE(runner_.commands().empty());
    EXPECT_FALSE(log_.contains("getFastestInterface"));
}

TEST_F(AiModeTest, LeavingWifiRestartsTheTimer) {
    passAt(kStart, true);
    passAt(kStart + 3, false);
    EXPECT_EQ(current(), "rmnet_data0");
    EXPECT_TRUE(log_.contains("gamingAiModeCheck reset timer"));
    passAt(kStart + 4, true);
    passAt(kStart + 9, true);
    EXPECT_TRUE(checking()) << "the timer did not restart on the return to Wi-Fi";
    passAt(kStart + 10, true);
    EXPECT_FALSE(checking());
}

}  // namespace
}  // namespace vekt::test
