// The RSSI monitor with station readings fed in by the test. Teardown destroys the gaming
// UIDs' sockets; wherever it can reach a real socket it runs in a forked child inside a
// network namespace of its own, and elsewhere socket destruction is switched off.
#include "monitors/rssi_state_monitor.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "control/msg.h"
#include "support/fake_wifi_sources.h"
#include "support/handler_fixture.h"
#include "support/link_lab.h"
#include "support/netns.h"
#include "support/no_socket_destruction.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using android::base::unique_fd;
using Strings = std::vector<std::string>;

class RssiStateMonitorTest : public ParametersTest {
  protected:
    RssiStateMonitorTest() { RssiStateMonitor::finalize(); }
    ~RssiStateMonitorTest() override {
        RssiStateMonitor::finalize();
        SmartLinkSelection::finalize();
    }

    // wlan0 with a known access point, wlan1 without one, and a cellular link.
    void registerLinks() {
        for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) {
            params()->UpdateInterface(name, true);
        }
        params()->UpdateInterfaceBssid("aa:bb:cc:dd:ee:01,");
    }
    int32_t offset(const std::string& name) {
        MutexLock lock(slsMutex);
        return SmartLinkSelection::instance()->m_slsInterfaceMap.at(name)->rttOffsetMs;
    }

    FakeStationSource station_;
    ScopedNoSocketDestruction noSocketDestruction_;
};

TEST_F(RssiStateMonitorTest, PenaltyBandEdgesReachOnlyTheQueriedWifiTracker) {
    registerLinks();
    SmartLinkSelection::instance();
    RssiStateMonitor* monitor = RssiStateMonitor::instance();
    EXPECT_EQ(station_.starts(), 1);

    const std::pair<int, int32_t> table[] = {{-1, 0},    {-64, 0},   {-65, 60},  {-75, 60},
                                             {-76, 120}, {-85, 120}, {-86, 300}, {0, 60}};
    for (const auto& [rssi, penalty] : table) {
        station_.set("wlan0", rssi);
        monitor->poll();
        EXPECT_EQ(offset("wlan0"), penalty) << rssi;
        EXPECT_TRUE(log_.contains("poll interface = wlan0, rssi = " + std::to_string(rssi)));
    }
    // An impossible reading is an error and leaves the penalty as it was.
    station_.set("wlan0", 3);
    monitor->poll();
    EXPECT_EQ(offset("wlan0"), 60);
    EXPECT_TRUE(log_.contains("poll interface = wlan0 currentrssi > 0"));

    // The link without an access point and the cellular link are never asked about.
    for (const std::string& query : station_.queries()) EXPECT_EQ(query, "wlan0@aabbccddee01");
    EXPECT_EQ(offset("wlan1"), 0);
    EXPECT_EQ(offset("rmnet_data0"), 0);

    // The offset outlives the monitor.
    RssiStateMonitor::finalize();
    EXPECT_EQ(offset("wlan0"), 60);
}

TEST_F(RssiStateMonitorTest, WithoutSelectionItOnlyLogsAndAnUnknownLinkGetsAnEmptySlot) {
    params()->UpdateInterface("wlan0", true);
    params()->UpdateInterfaceBssid("aabbccddee01,");
    station_.set("wlan0", -70);
    RssiStateMonitor::instance()->poll();
    EXPECT_TRUE(log_.contains("poll interface = wlan0, rssi = -70"));
    EXPECT_FALSE(SmartLinkSelection::isInstance());  // the monitor never creates it

    SmartLinkSelection* selection = SmartLinkSelection::instance();
    params()->UpdateInterface("wlan1", true);  // registered after selection was built
    params()->UpdateInterfaceBssid(",aabbccddee02");
    RssiStateMonitor::instance()->poll();
    MutexLock lock(slsMutex);
    ASSERT_EQ(selection->m_slsInterfaceMap.count("wlan1"), 1u);
    EXPECT_EQ(selection->m_slsInterfaceMap.at("wlan1"), nullptr);
    EXPECT_EQ(selection->m_slsInterfaceMap.at("wlan0")->rttOffsetMs, 60);
}

TEST_F(RssiStateMonitorTest, TeardownWithNoGamingUidsDestroysNothing) {
    RssiStateMonitor::instance();
    RssiStateMonitor::finalize();
    EXPECT_EQ(log_.texts("SLM-Vekt-RssiStateMonitor"), Strings{});
    EXPECT_EQ(log_.texts("SLM-Vekt-SockDiag"), Strings{});  // not even an attempt
}

// A TCP connection on loopback whose three sockets belong to uid (the kernel stamps a socket
// with its creator's effective UID; an accepted one inherits the listener's).
std::vector<unique_fd> loopbackConnectionAs(uid_t uid) {
    std::vector<unique_fd> fds;
    if (setresuid(-1, uid, -1) != 0) return fds;
    unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* sa = reinterpret_cast<sockaddr*>(&address);
    unique_fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(listener, sa, length) == 0 && getsockname(listener, sa, &length) == 0 &&
        listen(listener, 1) == 0 && connect(client, sa, length) == 0) {
        unique_fd accepted(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (accepted.ok()) {
            fds.push_back(std::move(listener));
            fds.push_back(std::move(client));
            fds.push_back(std::move(accepted));
        }
    }
    if (setresuid(-1, 0, -1) != 0) fds.clear();
    return fds;
}

std::string socketErrors(const std::vector<unique_fd>& fds) {
    std::string errors;
    for (const unique_fd& fd : fds) {
        int error = 0;
        socklen_t length = sizeof(error);
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
        // Of a connection's two ends, the one destroyed second may have been reset by the
        // first one's abort already.
        errors += error == 0                                     ? "ok "
                  : error == ECONNABORTED || error == ECONNRESET ? "destroyed "
                                                                 : strerror(error);
    }
    return errors;
}

TEST_F(RssiStateMonitorTest, TeardownDestroysEveryGamingUidsSocketsAndNoOthers) {
    VEKT_REQUIRE_NETNS();
    NetNamespace ns;
    ASSERT_TRUE(ns.ok());
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    unique_fd readEnd(ends[0]);
    unique_fd writeEnd(ends[1]);
    // Everything below runs in the child, in the private namespace only.
    const pid_t child = ns.forkInside([&]() -> int {
        socketFactorySeam().install(nullptr);  // real sockets in here
        std::string complaints;
        const std::vector<unique_fd> game = loopbackConnectionAs(10123);
        const std::vector<unique_fd> other = loopbackConnectionAs(10124);
        if (game.size() != 3 || other.size() != 3) complaints += "loopback connections\n";
        params()->setGamingUids("10123");
        params()->populateGamingUids();
        RssiStateMonitor::instance();
        RssiStateMonitor::finalize();
        // Reading a socket's error clears it: each is read once.
        const std::string gameErrors = socketErrors(game);
        const std::string otherErrors = socketErrors(other);
        if (gameErrors != "destroyed destroyed destroyed ") {
            complaints += "gaming UID's sockets: " + gameErrors + "\n";
        }
        if (otherErrors != "ok ok ok ") complaints += "other UID's sockets: " + otherErrors + "\n";
        if (log_.count("RssiStateMonitor UID destroying sockets = 10123") != 1 ||
            !log_.contains(" SLA_GAMING destroying TCP sockets: 10123")) {
            complaints += "log lines of the teardown\n";
        }
        const bool sent = write(writeEnd, complaints.data(), complaints.size()) ==
                          static_cast<ssize_t>(complaints.size());
        return sent ? 0 : 1;
    });
    ASSERT_GT(child, 0);
    writeEnd.reset();
    std::string complaints;
    char buffer[512];
    for (ssize_t n; (n = read(readEnd, buffer, sizeof(buffer))) > 0;) complaints.append(buffer, n);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(complaints, "");
}

// The handlers start the monitor with gaming, gaming AI mode and VoIP, and tear it down
// with each of them.
class RssiMonitorHandlersTest : public HandlerTest {
  protected:
    FakeStationSource station_;
};

TEST_F(RssiMonitorHandlersTest, GamingAiModeAndVoipEachStartAndStopTheMonitor) {
    const std::string teardown = "RssiStateMonitor UID destroying sockets = 10123";
    const std::pair<int32_t, int32_t> modes[] = {
        {MSG_START_SLS, MSG_STOP_SLS}, {MSG_GAME_AI_MODE, MSG_GAME_AI_MODE}, {MSG_VOIP, MSG_VOIP}};
    int starts = 0;
    for (const auto& [on, off] : modes) {
        send(on, "10123");
        EXPECT_EQ(station_.starts(), ++starts) << on;
        send(on, "10123");  // already running: no second monitor
        EXPECT_EQ(station_.starts(), starts) << on;
        log_.clear();
        send(off, "0");
        EXPECT_EQ(log_.count(teardown), 1u) << off;
    }
}

}  // namespace
}  // namespace vekt::test
