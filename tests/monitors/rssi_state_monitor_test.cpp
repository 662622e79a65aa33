// The RSSI monitor with station readings fed in by the test. Teardown destroys the gaming
// UIDs' sockets; where it can reach a real socket it runs in a forked child inside a network
// namespace of its own, and elsewhere socket destruction is switched off (HandlerTest).
#include "monitors/rssi_state_monitor.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "control/msg.h"
#include "support/emulation.h"
#include "support/fake_wifi_sources.h"
#include "support/handler_fixture.h"
#include "support/link_lab.h"
#include "support/netns.h"

namespace vekt::test {
namespace {

using android::base::unique_fd;
using Strings = std::vector<std::string>;

class RssiStateMonitorTest : public HandlerTest {
  protected:
    int32_t offset(const std::string& name) {
        MutexLock lock(slsMutex);
        InterfaceRtt* tracker = SmartLinkSelection::instance()->m_slsInterfaceMap.at(name);
        return tracker != nullptr ? tracker->rttOffsetMs : -1;
    }

    FakeWifiLinks links_;
};

TEST_F(RssiStateMonitorTest, PenaltyBandEdgesReachOnlyTheQueriedWifiTracker) {
    params()->UpdateInterface("wlan0", true);
    params()->UpdateInterface("rmnet_data0", true);
    params()->UpdateInterfaceBssid("aa:bb:cc:dd:ee:01,");
    links_.set("wlan0", -70);
    RssiStateMonitor* monitor = RssiStateMonitor::instance();
    monitor->poll();  // without selection only a log line; the monitor never creates it
    EXPECT_FALSE(SmartLinkSelection::isInstance());
    EXPECT_TRUE(log_.contains("poll interface = wlan0, rssi = -70"));

    SmartLinkSelection::instance();
    params()->UpdateInterface("wlan1", true);  // no access point yet
    const std::pair<int, int32_t> table[] = {{-1, 0},    {-64, 0},   {-65, 60},  {-75, 60},
                                             {-76, 120}, {-85, 120}, {-86, 300}, {0, 60}};
    for (const auto& [rssi, penalty] : table) {
        links_.set("wlan0", rssi);
        monitor->poll();
        EXPECT_EQ(offset("wlan0"), penalty) << rssi;
    }
    links_.set("wlan0", 3);  // impossible: an error, and the penalty stays
    monitor->poll();
    EXPECT_EQ(offset("wlan0"), 60);
    for (const std::string& query : links_.queries()) EXPECT_EQ(query, "wlan0@aabbccddee01");

    // With an access point wlan1 is asked about; selection, built before wlan1 came, keeps an
    // empty slot for it, and nothing is written there.
    params()->UpdateInterfaceBssid(",aabbccddee02");
    monitor->poll();
    const Strings queries = links_.queries();
    EXPECT_NE(std::find(queries.begin(), queries.end(), "wlan1@aabbccddee02"), queries.end());
    EXPECT_EQ(offset("wlan1"), -1);
}

// A TCP connection on loopback whose three sockets belong to uid (the kernel stamps a socket
// with its creator's effective UID; an accepted one inherits the listener's).
std::vector<unique_fd> loopbackConnectionAs(uid_t uid) {
    std::vector<unique_fd> fds;
    if (setresuid(-1, uid, -1) != 0) return fds;
    unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    unique_fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof(address);
    auto* sa = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener, sa, length) == 0 && getsockname(listener, sa, &length) == 0 &&
        listen(listener, 1) == 0 && connect(client, sa, length) == 0) {
        fds.emplace_back(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        fds.push_back(std::move(listener));
        fds.push_back(std::move(client));
    }
    if (setresuid(-1, 0, -1) != 0) fds.clear();
    return fds;
}

// "ok" or "destroyed" per socket; reading a socket's error clears it, so read each once.
std::string socketStates(const std::vector<unique_fd>& fds) {
    std::string states;
    for (const unique_fd& fd : fds) {
        int error = 0;
        socklen_t length = sizeof(error);
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = -1;
        // Of a connection's two ends, the one destroyed second may have been reset by the
        // first one's abort already.
        states += error == 0                                     ? "ok "
                  : error == ECONNABORTED || error == ECONNRESET ? "destroyed "
                                                                 : std::to_string(error) + " ";
    }
    return states;
}

TEST_F(RssiStateMonitorTest, TeardownDestroysEveryGamingUidsSocketsAndNoOthers) {
    VEKT_REQUIRE_NETNS();
    VEKT_REQUIRE_KERNEL(sockDiagMissing());
    NetNamespace ns;
    ASSERT_TRUE(ns.ok());
    // Runs in the child, in the private namespace only. Exit status bits: 1 a gaming UID's
    // socket survived, 2 another UID's socket was destroyed, 4 the teardown was not logged.
    const pid_t child = ns.forkInside([&]() -> int {
        socketFactorySeam().install(nullptr);  // real sockets in here
        const std::vector<unique_fd> game = loopbackConnectionAs(10123);
        const std::vector<unique_fd> other = loopbackConnectionAs(10124);
        params()->setGamingUids("10123");
        params()->populateGamingUids();
        RssiStateMonitor::instance();
        RssiStateMonitor::finalize();
        return (socketStates(game) == "destroyed destroyed destroyed " ? 0 : 1) |
               (socketStates(other) == "ok ok ok " ? 0 : 2) |
               (log_.count("RssiStateMonitor UID destroying sockets = 10123") == 1 ? 0 : 4);
    });
    ASSERT_GT(child, 0);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(RssiStateMonitorTest, GamingAiModeAndVoipEachStartAndTearDownTheMonitor) {
    const std::pair<int32_t, int32_t> modes[] = {
        {MSG_START_SLS, MSG_STOP_SLS}, {MSG_GAME_AI_MODE, MSG_GAME_AI_MODE}, {MSG_VOIP, MSG_VOIP}};
    int starts = 0;
    for (const auto& [on, off] : modes) {
        send(on, "10123");
        send(on, "10123");  // already running: no second monitor
        EXPECT_EQ(links_.starts(), ++starts) << on;
        log_.clear();
        send(off, "0");
        EXPECT_EQ(log_.count("RssiStateMonitor UID destroying sockets = 10123"), 1u) << off;
    }
}

}  // namespace
}  // namespace vekt::test
