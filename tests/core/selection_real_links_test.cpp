// Link selection over real links: the daemon runs in a phone namespace with a Wi-Fi and a
// cellular veth link to a peer namespace, probes both, steers a game's UID to the faster one,
// and when that link goes dark moves the game to the other and resets its connections, so
// that the game reconnects over the link that works.
#include <gtest/gtest.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "control/msg.h"
#include "support/control_client.h"
#include "support/daemon_process.h"
#include "support/link_lab.h"
#include "support/netfilter_wrappers.h"
#include "support/netns.h"
#include "support/packet_delay.h"
#include "support/temp_root.h"

namespace vekt::test {
namespace {

constexpr const char* kNsenter = "/usr/bin/nsenter";
constexpr uid_t kGameUid = 10321;
constexpr uint16_t kGamePort = 7088;
constexpr uint16_t kProbePort = 443;       // the daemon's probe port
constexpr const char* kProbeTarget = "127.0.0.1";  // the host build's default RTT server

// One-way delays added in the peer to what the phone sends over each link. Wi-Fi at 130 ms
// rates level 9, cellular at 10 ms level 10: cellular wins on its RTT alone, since in the same
// band Wi-Fi would win.
constexpr int kWifiDelayMs = 130;
constexpr int kCellularDelayMs = 10;

// The daemon's timing, from the settings this test writes and its fixed probe time-out.
constexpr int kPingIntervalMs = 200;
constexpr int kMainLoopMs = 100;
constexpr int kMaxPingMiss = 5;  // plain gaming mode
constexpr int kProbeTimeoutMs = 500;
// A probe is a connect and ten exchanges, each a round trip of the link; a Wi-Fi probe holds
// the selection lock that long, and the cellular probes wait for it.
constexpr int kWifiProbeMs = 11 * (kWifiDelayMs + 10);

int64_t nowMs() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The link that the last selection switch in the command log pointed at; "" before any.
std::string selectedLink(const std::string& commandLog) {
    const std::string prefix = "iptables -w -t mangle -A tarn_SLS -j tarn_sls_uid_";
    std::string link;
    for (const ForwardedCommand& command : readForwardedCommands(commandLog)) {
        if (command.status == 0 && command.line.rfind(prefix, 0) == 0)
            link = command.line.substr(prefix.size());
    }
    return link;
}

class LinkFailoverTest : public ::testing::Test {
  protected:
    void SetUp() override {
        VEKT_REQUIRE_NETNS();
        std::string missing;
        if (!findNetfilterTools(&tools_, &missing)) GTEST_SKIP() << "needs" << missing;
        if (access(kNsenter, X_OK) != 0) GTEST_SKIP() << "needs " << kNsenter;
        if (!PacketDelayStage::available(&missing)) GTEST_SKIP() << missing;
    }

    std::string log() const { return root_.dir() + "/vekt.log"; }

    void peerIptables(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {tools_.iptables, "-w"};
        argv.insert(argv.end(), args.begin(), args.end());
        int status = -1;
        const std::string output = lab_.peer().run(argv, &status);
        ASSERT_EQ(status, 0) << output;
    }

    // The links, with the default RTT server answering from the peer over both: loopback
    // addresses may cross the links (route_localnet on every end), and the phone accepts
    // answers that come from an address of its own (accept_local).
    void buildLinks() {
        std::string error;
        ASSERT_TRUE(lab_.build(tools_.ip, {"wlan0", "rmnet_data0"}, defaultRouteTables(), &error))
            << error;
        for (const char* link : {"wlan0", "rmnet_data0"}) {
            const std::string conf = std::string("net/ipv4/conf/") + link + "/";
            ASSERT_TRUE(lab_.phone().writeSysctl(conf + "route_localnet", "1"));
            ASSERT_TRUE(lab_.phone().writeSysctl(conf + "accept_local", "1"));
        }
        for (const char* end : {"link0", "link1"}) {
            ASSERT_TRUE(lab_.peer().writeSysctl(std::string("net/ipv4/conf/") + end +
                                                    "/route_localnet", "1"));
        }
        ASSERT_TRUE(probes_.start(lab_.peer(), kProbeTarget, kProbePort));
        ASSERT_TRUE(game_.start(lab_.peer(), kGamePort, true));
        // Only the probes are delayed: the game's own traffic goes to the peer's server address.
        peerIptables({"-t", "mangle", "-A", "PREROUTING", "-i", "link0", "-d", kProbeTarget,
                      "-j", "NFQUEUE", "--queue-num", "1"});
        peerIptables({"-t", "mangle", "-A", "PREROUTING", "-i", "link1", "-d", kProbeTarget,
                      "-j", "NFQUEUE", "--queue-num", "2"});
        ASSERT_TRUE(delays_.start(lab_.peer(), {{1, kWifiDelayMs}, {2, kCellularDelayMs}}, &error))
            << error;
    }

    void startDaemonAndGame() {
        commandLog_ = installForwardingWrappers(root_, tools_);
        root_.writeConf("ping_interval_ms = " + std::to_string(kPingIntervalMs) +
                        "\nmini_est_interval = " + std::to_string(kMainLoopMs) + "\n");
        ASSERT_TRUE(vekt_.start(
            {kNsenter, "--net=" + lab_.phone().path(), binPath("vekt"), "--root", root_.dir()},
            log(), false));
        ASSERT_TRUE(client_.connect(root_.path("/dev/socket/vekt"))) << readWholeFile(log());
        ASSERT_TRUE(client_.send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0"));
        ASSERT_TRUE(client_.send(MSG_START_SLS, std::to_string(kGameUid)));
    }

    // Polls until the selection points at link; the hysteresis may hold a first choice for
    // up to its window before the measured rates may move it.
    bool waitForSelection(const std::string& link, int timeoutMs) {
        for (const int64_t end = nowMs() + timeoutMs; nowMs() < end; usleep(50 * 1000)) {
            if (selectedLink(commandLog_) == link) return true;
        }
        return false;
    }

    // Destroyed in reverse order: the player, client and daemon go before the namespaces.
    VethLab lab_;
    ProbeAnswerServer probes_;
    SourceAddressServer game_;
    PacketDelayStage delays_;
    NetfilterTools tools_;
    TempRoot root_;
    std::string commandLog_;
    ChildProcess vekt_;
    ControlClient client_;
    HeldConnectionClient player_;
};

TEST_F(LinkFailoverTest, GameMovesToTheOtherLinkWhenItsLinkGoesDark) {
    buildLinks();
    if (HasFatalFailure()) return;
    startDaemonAndGame();
    if (HasFatalFailure()) return;

    // Both links are probed and rated from their own round trips, and the faster one wins.
    ASSERT_TRUE(waitForSelection("rmnet_data0", 40000))
        << readWholeFile(commandLog_) << readWholeFile(log());
    EXPECT_GE(countLines(log(), "(interface wlan0) (networklevel 9)"), 1u);
    EXPECT_GE(countLines(log(), "(interface rmnet_data0) (networklevel 10)"), 1u);
    EXPECT_GE(probes_.connections(), 8);

    ASSERT_TRUE(player_.start(lab_.phone(), kGameUid, VethLab::kServerAddress, kGamePort, 2));
    HeldConnectionClient::Event event;
    ASSERT_TRUE(player_.next(&event, 5000));
    ASSERT_TRUE(event.up);
    EXPECT_EQ(event.text, lab_.phoneAddress("rmnet_data0"));

    // Everything that arrives over the cellular link is dropped from here on.
    peerIptables({"-t", "raw", "-I", "PREROUTING", "-i", "link1", "-j", "DROP"});
    const int64_t darkAtMs = nowMs();
    // The probe in flight fails; each further miss waits an interval, a Wi-Fi probe holding
    // the lock, and the time-out; after the last one a main-loop pass switches.
    const int boundMs = kProbeTimeoutMs +
                        kMaxPingMiss * (kPingIntervalMs + kWifiProbeMs + kProbeTimeoutMs) +
                        kMainLoopMs;

    ASSERT_TRUE(player_.next(&event, boundMs + 5000))
        << "the game's connection was never reset\n" << readWholeFile(log());
    EXPECT_FALSE(event.up);
    EXPECT_EQ(event.text, strerror(ECONNABORTED));
    const int64_t failoverMs = event.atMs - darkAtMs;
    EXPECT_EQ(selectedLink(commandLog_), "wlan0");

    ASSERT_TRUE(player_.next(&event, 5000)) << "the game did not reconnect";
    EXPECT_TRUE(event.up);
    EXPECT_EQ(event.text, lab_.phoneAddress("wlan0"));
    printf("  failover %lld ms (bound %d ms); reconnected over wlan0 %lld ms later\n",
           static_cast<long long>(failoverMs), boundMs,
           static_cast<long long>(event.atMs - darkAtMs - failoverMs));
    EXPECT_LE(failoverMs, boundMs);
}

}  // namespace
}  // namespace vekt::test
