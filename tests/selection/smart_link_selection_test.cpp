#include "selection/smart_link_selection.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "selection/selection_fixture.h"
#include "support/emulation.h"
#include "support/link_lab.h"
#include "support/netns.h"

namespace vekt::test {
namespace {

TEST_F(SmartLinkSelectionTest, SingletonLifecycleAndTrackersForTheRegistry) {
    EXPECT_FALSE(SmartLinkSelection::isInstance());
    SmartLinkSelection::Init();
    SmartLinkSelection* sls = start({"wlan0", "rmnet_data0"});
    EXPECT_TRUE(SmartLinkSelection::isInstance());
    EXPECT_EQ(SmartLinkSelection::instance(), sls);
    sls->setNetworkLevel();
    {
        MutexLock lock(slsMutex);
        ASSERT_EQ(sls->m_slsInterfaceMap.size(), 2u);
        InterfaceRtt* wlan0 = sls->m_slsInterfaceMap.at("wlan0");
        EXPECT_EQ(wlan0->thread, InterfaceRtt::kNoThread);
        EXPECT_EQ(sls->currentInterface, nullptr);
        EXPECT_EQ(sls->hystWindowStart.tv_sec, kStart);
        EXPECT_EQ(wlan0->networkLevel, 1);  // odd levels for Wi-Fi, even for others
        EXPECT_EQ(sls->m_slsInterfaceMap.at("rmnet_data0")->networkLevel, 10);
    }
    SmartLinkSelection::cleanup();
    EXPECT_FALSE(SmartLinkSelection::isInstance());
    SmartLinkSelection::finalize();  // nothing left: no effect
}

// n_hyst 1, t_hyst_s 10 (the fixture's): one switch per ten-second window.
TEST_F(SmartLinkSelectionTest, HysteresisAllowsOneSwitchPerWindow) {
    start({"wlan0", "rmnet_data0"});
    setLevel("wlan0", 9);
    setLevel("rmnet_data0", 6);
    stepAt(kStart);
    EXPECT_EQ(current(), "wlan0");
    for (const char* line :
         {"SLA_LINK in cycle, but good to switch - calc 0  config delta 10000",
          "calcInterface SLA_RTT_SELECTED current =  wlan0 , prvious = NULL",
          "calcInterface SLA_RTT_SELECTED perform switch wlan0 ",
          "SLA_LINK resetting hystWindow, current switch count = 0-----<*>",
          "getFastestInterface (interface rmnet_data0) (networklevel 6)",
          "getFastestInterface (best Interface wlan0) (networklevel 9)"})
        EXPECT_TRUE(log_.contains(line)) << line;

    setLevel("rmnet_data0", 10);
    stepAt(kStart + 3);
    EXPECT_EQ(current(), "wlan0");
    EXPECT_TRUE(log_.contains(
        "SLA_LINK in cycle, switch not allowed-----*** calc 3000  config delta 10000"));

    stepAt(kStart + 10);
    EXPECT_EQ(current(), "rmnet_data0");
    EXPECT_TRUE(
        log_.contains("SLA_LINK time elapsed, ready for switch calc 10000  config delta 10000"));
    EXPECT_TRUE(
        log_.contains("calcInterface SLA_RTT_SELECTED current =  rmnet_data0 , prvious = wlan0"));
    stepAt(kStart + 11);  // the same choice again switches nothing
    EXPECT_EQ(switches(), (std::vector<std::string>{"tarn_sls_uid_wlan0",
                                                    "tarn_sls_uid_rmnet_data0"}));
}

TEST_F(SmartLinkSelectionTest, FailedCurrentLinkClearsTheCount) {
    SmartLinkSelection* sls = start({"wlan0", "rmnet_data0"});
    setLevel("wlan0", 9);
    setLevel("rmnet_data0", 6);
    stepAt(kStart);
    setLevel("wlan0", 1);
    stepAt(kStart + 3);  // inside the window, but the count was cleared
    EXPECT_EQ(current(), "rmnet_data0");
    EXPECT_TRUE(
        log_.contains("SLA_LINK in cycle, but good to switch - calc 3000  config delta 10000"));
    MutexLock lock(slsMutex);
    EXPECT_EQ(sls->switchCount, 1);  // cleared, then this switch
    EXPECT_EQ(sls->hystWindowStart.tv_sec, kStart + 3);
}

TEST_F(SmartLinkSelectionTest, TieKeepsCurrentWifiButLeavesCurrentCellular) {
    start({"wlan0", "rmnet_data0"});
    setLevel("wlan0", 9);
    setLevel("rmnet_data0", 9);
    stepAt(kStart);  // no current link: the later name wins unless it is a slave
    stepAt(kStart + 20);
    EXPECT_EQ(current(), "wlan0");
    EXPECT_EQ(switches().size(), 1u);

    setLevel("rmnet_data0", 10);
    stepAt(kStart + 40);
    EXPECT_EQ(current(), "rmnet_data0");
    setLevel("rmnet_data0", 9);
    stepAt(kStart + 60);
    EXPECT_EQ(current(), "wlan0");
    EXPECT_EQ(switches().size(), 3u);
}

TEST_F(SmartLinkSelectionTest, FirstChoiceIsAlwaysApplied) {
    params()->m_nHyst = 0;  // the window allows no switch at all
    start({"rmnet_data0"});
    setLevel("rmnet_data0", 4);
    stepAt(kStart + 1);
    EXPECT_TRUE(log_.contains(
        "SLA_LINK in cycle, switch not allowed-----*** calc 1000  config delta 10000"));
    EXPECT_EQ(current(), "rmnet_data0");
    EXPECT_EQ(switches().size(), 1u);
}

TEST_F(SmartLinkSelectionTest, NoTrackerIsAnError) {
    start({});
    stepAt(kStart);
    EXPECT_TRUE(log_.contains("calcInterface SLA_RTT Fastest Interface returned NULL"));
    EXPECT_TRUE(switches().empty());
}

TEST_F(SmartLinkSelectionTest, RemovingTheCurrentInterfaceClearsIt) {
    SmartLinkSelection* sls = start({"wlan0", "rmnet_data0"});
    setLevel("wlan0", 9);
    setLevel("rmnet_data0", 6);
    stepAt(kStart);
    ASSERT_EQ(current(), "wlan0");

    EXPECT_EQ(sls->updateSlsInterfacemap("wlan0", false), 1);
    EXPECT_EQ(current(), "wlan0");  // outside gaming and VoIP the map does not change

    params()->setGamingRunning(1);
    EXPECT_EQ(sls->updateSlsInterfacemap("wlan0", false), 1);
    EXPECT_TRUE(log_.contains("m_slsInterfaceMap del wlan0 success!"));
    EXPECT_EQ(current(), "");
    {
        MutexLock lock(slsMutex);
        EXPECT_EQ(sls->m_slsInterfaceMap.count("wlan0"), 0u);
    }
    stepAt(kStart + 1);  // inside the window, but with nothing current the choice is free
    EXPECT_EQ(current(), "rmnet_data0");
}

// The last phase is a tie of unrated links with none current: the later name wins unless
// it is a slave, as wlan1 registers.
TEST_F(SmartLinkSelectionTest, ChooseRunsOnlyInGamingOrVoipAndAFirstTieSkipsASlave) {
    start({"wlan0", "wlan1"});
    // Gaming off, then AI mode (2) without its RTT check, then gaming on.
    for (const auto& [gaming, chosen] : {std::pair{0, ""}, {2, ""}, {1, "wlan0"}}) {
        params()->setGamingRunning(gaming);
        SmartLinkSelection::slsChooseInterface();
        EXPECT_EQ(current(), chosen) << "gaming " << gaming;
    }
}

// Probe threads that idle (running false) never touch the network: these tests see only
// the thread management.
class ProbeThreadTest : public SmartLinkSelectionTest {
  protected:
    ProbeThreadTest() { params()->m_pingIntervalMs = 600000; }

    std::vector<pthread_t> handles(SmartLinkSelection* sls) {
        MutexLock lock(slsMutex);
        std::vector<pthread_t> result;
        for (auto& entry : sls->m_slsInterfaceMap) result.push_back(entry.second->thread);
        return result;
    }
    static double secondsSince(std::chrono::steady_clock::time_point start) {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
};

TEST_F(ProbeThreadTest, RemovalAndStopWakeSleepingThreadsAndJoinThem) {
    SmartLinkSelection* sls = start({"wlan0", "rmnet_data0"});
    sls->threadStop();
    sls->createRttThreads();
    std::vector<pthread_t> first = handles(sls);
    ASSERT_EQ(first.size(), 2u);
    for (pthread_t handle : first) EXPECT_NE(handle, InterfaceRtt::kNoThread);
    sls->createRttThreads();  // no second thread for a tracker that has one
    EXPECT_EQ(handles(sls), first);
    sls->threadResume();
    sls->threadStop();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // asleep in the interval

    // Removal joins the tracker's thread before releasing it; the interval is ten minutes.
    params()->setGamingRunning(1);
    auto before = std::chrono::steady_clock::now();
    sls->updateSlsInterfacemap("rmnet_data0", false);
    EXPECT_LT(secondsSince(before), 2.0);
    EXPECT_EQ(handles(sls).size(), 1u);

    before = std::chrono::steady_clock::now();
    sls->threadDestory();
    EXPECT_LT(secondsSince(before), 2.0);
    for (pthread_t handle : handles(sls)) EXPECT_EQ(handle, InterfaceRtt::kNoThread);

    sls->destoryPingThreads();
    MutexLock lock(slsMutex);
    EXPECT_TRUE(sls->m_slsInterfaceMap.empty());
    EXPECT_EQ(sls->currentInterface, nullptr);
}

// Real probes over loopback feed the tracker, the chooser switches to the link and resets
// the gaming UID's sockets. The probing runs in a child inside a namespace of the test's
// own (it never runs anywhere else), against an answering server on that loopback.
TEST_F(ProbeThreadTest, RealProbesRateTheLinkAndASwitchResetsGamingSockets) {
    VEKT_REQUIRE_NETNS();
    VEKT_REQUIRE_KERNEL(sockDiagMissing());
    VEKT_REQUIRE_KERNEL(tcpInfoMissing());
    NetNamespace ns;
    ASSERT_TRUE(ns.ok());
    // Everything starts inside the child: a thread running in this process at the fork
    // would leave the child a copy that cannot start threads of its own under TSan.
    ChildProcess child(ns.forkInside([this, &ns] {
        ProbeAnswerServer server;
        if (!server.start(ns, "127.0.0.1", 7007)) return 16;
        params()->m_rttServer.set("127.0.0.1");
        params()->m_rttServerPort = 7007;
        params()->m_pingIntervalMs = 20;
        params()->m_gamingUidList.set({"54321"});
        SmartLinkSelection* sls = start({"lo"});
        // Loopback answers in well under a millisecond, which rates nothing; the offset
        // (the RSSI monitor's penalty) makes every sample 30 ms.
        {
            MutexLock lock(slsMutex);
            sls->m_slsInterfaceMap.at("lo")->rttOffsetMs = 30;
        }
        sls->threadStop();
        sls->createRttThreads();
        sls->threadResume();
        int32_t level = 0;
        for (int i = 0; i < 300 && level == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            MutexLock lock(slsMutex);
            level = sls->m_slsInterfaceMap.at("lo")->networkLevel;
        }
        const bool rated = level == 10;
        sls->calcInterface();
        const bool chosen = current() == "lo";
        const bool reset = log_.contains("SLA_RTT_SELECTED  UID destroying sockets = 54321");
        const auto before = std::chrono::steady_clock::now();
        SmartLinkSelection::finalize();
        const bool prompt = secondsSince(before) < 7.0;
        return (rated ? 0 : 1) | (chosen ? 0 : 2) | (reset ? 0 : 4) | (prompt ? 0 : 8);
    }));
    // Bits of the child's status: 1 lo not rated 10, 2 lo not chosen, 4 gaming sockets not
    // reset, 8 finalize slow, 16 no probe server; 125 it could not enter the namespace.
    EXPECT_EQ(child.wait(30000), 0);
}

}  // namespace
}  // namespace vekt::test
