#include "selection/smart_link_selection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "selection/selection_fixture.h"
#include "support/netns.h"

namespace vekt::test {
namespace {

TEST_F(SmartLinkSelectionTest, SingletonLifecycleAndTrackersForTheRegistry) {
    EXPECT_FALSE(SmartLinkSelection::isInstance());
    SmartLinkSelection::Init();
    SmartLinkSelection* sls = start({"wlan0", "rmnet_data0"});
    EXPECT_TRUE(SmartLinkSelection::isInstance());
    EXPECT_EQ(SmartLinkSelection::instance(), sls);
    {
        MutexLock lock(slsMutex);
        ASSERT_EQ(sls->m_slsInterfaceMap.size(), 2u);
        InterfaceRtt* wlan0 = sls->m_slsInterfaceMap.at("wlan0");
        EXPECT_STREQ(wlan0->interfaceName, "wlan0");
        EXPECT_EQ(wlan0->thread, InterfaceRtt::kNoThread);
        EXPECT_FALSE(wlan0->running);
        EXPECT_EQ(sls->currentInterface, nullptr);
        EXPECT_EQ(sls->switchCount, 0);
        EXPECT_EQ(sls->hystWindowStart.tv_sec, kStart);
    }
    sls->setNetworkLevel();
    {
        MutexLock lock(slsMutex);
        EXPECT_EQ(sls->m_slsInterfaceMap.at("wlan0")->networkLevel, 1);
        EXPECT_EQ(sls->m_slsInterfaceMap.at("rmnet_data0")->networkLevel, 10);
    }
    SmartLinkSelection::cleanup();
    EXPECT_FALSE(SmartLinkSelection::isInstance());
    SmartLinkSelection::finalize();  // nothing left: no effect
}

TEST_F(SmartLinkSelectionTest, HysteresisAllowsOneSwitchPerWindow) {
    start({"wlan0", "rmnet_data0"});
    setLevel("wlan0", 9);
    setLevel("rmnet_data0", 6);
    stepAt(kStart);
    EXPECT_EQ(current(), "wlan0");
    EXPECT_TRUE(
        log_.contains("SLA_LINK in cycle, but good to switch - calc 0  config delta 10000"));
    EXPECT_TRUE(log_.contains("calcInterface SLA_RTT_SELECTED current =  wlan0 , prvious = NULL"));
    EXPECT_TRUE(log_.contains("calcInterface SLA_RTT_SELECTED perform switch wlan0 "));
    EXPECT_TRUE(log_.contains("SLA_LINK resetting hystWindow, current switch count = 0-----<*>"));
    EXPECT_TRUE(log_.contains("getFastestInterface (interface rmnet_data0) (networklevel 6)"));
    EXPECT_TRUE(log_.contains("getFastestInterface (best Interface wlan0) (networklevel 9)"));

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
    ASSERT_EQ(switches().size(), 2u);
    EXPECT_NE(switches()[0].find("wlan0"), std::string::npos);
    EXPECT_NE(switches()[1].find("rmnet_data0"), std::string::npos);

    // The same choice again: the step logs it but switches nothing.
    stepAt(kStart + 11);
    EXPECT_EQ(switches().size(), 2u);
}

TEST_F(SmartLinkSelectionTest, FailedCurrentLinkClearsTheCount) {
    SmartLinkSelection* sls = start({"wlan0", "rmnet_data0"});
    setLevel("wlan0", 9);
    setLevel("rmnet_data0", 6);
    stepAt(kStart);
    setLevel("wlan0", 1);
    stepAt(kStart + 3);
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
    // No current link: the later name wins unless it is a slave.
    stepAt(kStart);
    EXPECT_EQ(current(), "wlan0");
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

TEST_F(SmartLinkSelectionTest, TieWithoutCurrentSkipsASlave) {
    start({"wlan0", "wlan1"});  // wlan1 registers as the slave
    stepAt(kStart);             // both unrated (level 0)
    EXPECT_EQ(current(), "wlan0");
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

    // Outside gaming and VoIP the map does not change.
    EXPECT_EQ(sls->updateSlsInterfacemap("wlan0", false), 1);
    EXPECT_EQ(current(), "wlan0");

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
    EXPECT_TRUE(
        log_.contains("calcInterface SLA_RTT_SELECTED current =  rmnet_data0 , prvious = NULL"));
}

TEST_F(SmartLinkSelectionTest, ChooseRunsOnlyInGamingOrVoip) {
    start({"wlan0"});
    SmartLinkSelection::slsChooseInterface();
    EXPECT_EQ(current(), "");
    params()->setGamingRunning(2);  // AI mode without its RTT check
    SmartLinkSelection::slsChooseInterface();
    EXPECT_EQ(current(), "");
    params()->setGamingRunning(1);
    SmartLinkSelection::slsChooseInterface();
    EXPECT_EQ(current(), "wlan0");
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

TEST_F(ProbeThreadTest, StopWakesSleepingThreadsAndJoinsThem) {
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
    const auto before = std::chrono::steady_clock::now();
    sls->threadDestory();
    EXPECT_LT(secondsSince(before), 2.0);
    for (pthread_t handle : handles(sls)) EXPECT_EQ(handle, InterfaceRtt::kNoThread);

    sls->destoryPingThreads();
    MutexLock lock(slsMutex);
    EXPECT_TRUE(sls->m_slsInterfaceMap.empty());
    EXPECT_EQ(sls->currentInterface, nullptr);
}

TEST_F(ProbeThreadTest, RemovalJoinsTheThreadBeforeReleasingTheTracker) {
    SmartLinkSelection* sls = start({"wlan0", "rmnet_data0"});
    sls->createRttThreads();
    params()->setGamingRunning(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto before = std::chrono::steady_clock::now();
    sls->updateSlsInterfacemap("rmnet_data0", false);
    EXPECT_LT(secondsSince(before), 2.0);
    EXPECT_EQ(handles(sls).size(), 1u);
}

std::string errorText(const std::string& what) { return what + ": " + strerror(errno) + "\n"; }

ino_t netNamespace() {
    struct stat status;
    return stat("/proc/self/ns/net", &status) == 0 ? status.st_ino : 0;
}

// Runs scenario in a forked child inside a new network namespace with loopback up, and
// returns its complaints ("" when everything held). Real probes and socket destruction
// never run in the test's own namespace.
std::string runInPrivateNetns(const std::function<std::string()>& scenario) {
    const ino_t hostNamespace = netNamespace();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return errorText("pipe");
    const pid_t child = fork();
    if (child < 0) return errorText("fork");
    if (child == 0) {
        close(ends[0]);
        std::string complaints;
        if (!enterPrivateNetNamespace()) {
            complaints = errorText("entering a private network namespace");
        } else if (hostNamespace == 0 || netNamespace() == hostNamespace) {
            complaints = "still in the test's own network namespace; nothing was run\n";
        } else {
            complaints = scenario();
        }
        const bool sent = write(ends[1], complaints.data(), complaints.size()) ==
                          static_cast<ssize_t>(complaints.size());
        _exit(sent ? 0 : 1);
    }
    close(ends[1]);
    std::string complaints;
    char buffer[512];
    for (ssize_t n; (n = read(ends[0], buffer, sizeof(buffer))) > 0;) complaints.append(buffer, n);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) complaints += "scenario child failed\n";
    return complaints;
}

// A loopback RTT server that answers each 58-byte request with 60 bytes, as the probe
// expects. Runs until stopped; joined by its destructor.
class LoopbackRttServer {
  public:
    LoopbackRttServer() {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            listen(listener_, 16) != 0 ||
            getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return;
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~LoopbackRttServer() {
        stop_ = true;
        shutdown(listener_, SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
        close(listener_);
    }
    uint16_t port() const { return port_; }

  private:
    void serve() {
        while (!stop_) {
            const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (peer < 0) return;
            char request[58];
            char answer[60] = {};
            while (recv(peer, request, sizeof(request), MSG_WAITALL) == sizeof(request)) {
                if (send(peer, answer, sizeof(answer), MSG_NOSIGNAL) != sizeof(answer)) break;
            }
            close(peer);
        }
    }

    int listener_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Real probes over loopback feed the tracker, the chooser switches to the link and resets
// the gaming UID's sockets; all of it inside a namespace of the test's own.
TEST_F(ProbeThreadTest, RealProbesRateTheLinkAndASwitchResetsGamingSockets) {
    VEKT_REQUIRE_NETNS();
    const std::string complaints = runInPrivateNetns([this]() -> std::string {
        LoopbackRttServer server;
        if (server.port() == 0) return errorText("rtt server");
        params()->m_rttServer.set("127.0.0.1");
        params()->m_rttServerPort = server.port();
        params()->m_pingIntervalMs = 20;
        params()->m_gamingUidList.set({"54321"});
        SmartLinkSelection* sls = start({"lo"});
        {
            // Loopback answers in well under a millisecond, which rates nothing; the offset
            // (the RSSI monitor's penalty) makes every sample 30 ms.
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
        std::string result;
        if (level != 10) result += "lo rated " + std::to_string(level) + ", not 10\n";
        sls->calcInterface();
        if (current() != "lo") result += "lo not chosen\n";
        if (!log_.contains("SLA_RTT_SELECTED  UID destroying sockets = 54321")) {
            result += "gaming sockets not reset\n";
        }
        const auto before = std::chrono::steady_clock::now();
        SmartLinkSelection::finalize();
        if (secondsSince(before) > 7.0) result += "finalize waited too long\n";
        return result;
    });
    EXPECT_EQ(complaints, "");
}

}  // namespace
}  // namespace vekt::test
