// Link selection over real links: the daemon runs in a phone namespace with a Wi-Fi and a
// cellular veth link to a peer namespace, probes both, and steers a game's UID to the faster
// one. When that link goes dark it moves the game to the other and resets its connections,
// so that the game reconnects over the link that works. In AI mode it learns the game's
// server from the game's own connections and probes that instead.
#include <dirent.h>
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <stdio.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "control/msg.h"
#include "support/control_client.h"
#include "support/daemon_process.h"
#include "support/link_lab.h"
#include "support/netfilter_wrappers.h"
#include "support/packet_delay.h"
#include "support/temp_root.h"

namespace vekt::test {
namespace {

constexpr uid_t kGameUid = 10321;
// The failover game's server. The socket monitor never takes a server on 80 for a game's,
// so its probes stay on the default server, whose delays this test sets.
constexpr uint16_t kGamePort = 80;
constexpr uint16_t kProbePort = 443;       // the daemon's probe port
constexpr const char* kProbeTarget = "127.0.0.1";  // the host build's default RTT server
constexpr uint16_t kGameServerPort = 7000;
constexpr uint16_t kGameClientPort = 40123;

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

class SelectionRealLinksTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string missing;
        if (!canRunOnRealLinks(&tools_, &missing)) GTEST_SKIP() << missing;
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

    void startDaemon() {
        commandLog_ = installForwardingWrappers(root_, tools_);
        root_.writeConf("ping_interval_ms = " + std::to_string(kPingIntervalMs) +
                        "\nmini_est_interval = " + std::to_string(kMainLoopMs) + "\n");
        ASSERT_TRUE(vekt_.start(daemonInside(lab_.phone(), root_.dir()), log(), false));
        ASSERT_TRUE(client_.connect(root_.path("/dev/socket/vekt"))) << readWholeFile(log());
        ASSERT_TRUE(client_.send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0"));
    }

    // The daemon's worker threads (probes, monitors), told by the names they give
    // themselves: the main thread and the two socket threads stay, and a sanitizer's
    // runtime thread keeps the name of the process.
    size_t daemonWorkers() const {
        const std::string dir = "/proc/" + std::to_string(vekt_.pid()) + "/task/";
        size_t count = 0;
        DIR* tasks = opendir(dir.c_str());
        for (struct dirent* entry; tasks != nullptr && (entry = readdir(tasks)) != nullptr;) {
            std::string name;
            std::getline(std::ifstream(dir + entry->d_name + "/comm"), name);
            const bool always = name == "vekt" || name == "vekt-socket" || name == "vekt-status";
            if (entry->d_name[0] != '.' && !always) ++count;
        }
        if (tasks != nullptr) closedir(tasks);
        return count;
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

TEST_F(SelectionRealLinksTest, GameMovesToTheOtherLinkWhenItsLinkGoesDark) {
    buildLinks();
    if (HasFatalFailure()) return;
    startDaemon();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(client_.send(MSG_START_SLS, std::to_string(kGameUid)));

    // Both links are probed and rated from their own round trips, and the faster one wins.
    ASSERT_TRUE(waitForSelection("rmnet_data0", 40000))
        << readWholeFile(commandLog_) << readWholeFile(log());
    // A first choice may come before Wi-Fi has its fourth sample; its rating follows.
    EXPECT_TRUE(waitForText(log(), "(interface wlan0) (networklevel 9)", 10000));
    EXPECT_TRUE(waitForText(log(), "(interface rmnet_data0) (networklevel 10)", 1000));
    EXPECT_EQ(selectedLink(commandLog_), "rmnet_data0");

    ASSERT_TRUE(player_.start(lab_.phone(), kGameUid, VethLab::kServerAddress, kGamePort, 2));
    HeldConnectionClient::Event event;
    ASSERT_TRUE(player_.next(&event, 5000));
    ASSERT_TRUE(event.up);
    EXPECT_EQ(event.text, lab_.phoneAddress("rmnet_data0"));

    // Everything that arrives over the cellular link is dropped from here on.
    peerIptables({"-t", "raw", "-I", "PREROUTING", "-i", "link1", "-j", "DROP"});
    const int64_t darkAtMs = nowMs();
    // The probe in flight fails; each further miss waits an interval, a Wi-Fi probe holding
    // the lock (a connect and ten exchanges: measured at the server, plus the connect's
    // round trip), and the time-out; after the last one a main-loop pass switches.
    const int wifiProbeMs =
        static_cast<int>(probes_.longestConnectionMs(lab_.phoneAddress("wlan0") + ":")) +
        kWifiDelayMs;
    ASSERT_GT(wifiProbeMs, 10 * kWifiDelayMs) << "no Wi-Fi probe seen";
    const int boundMs = kProbeTimeoutMs +
                        kMaxPingMiss * (kPingIntervalMs + wifiProbeMs + kProbeTimeoutMs) +
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
    printf("  failover %lld ms (bound %d ms, Wi-Fi probe %d ms); reconnected over wlan0 %lld ms "
           "later\n", static_cast<long long>(failoverMs), boundMs, wifiProbeMs,
           static_cast<long long>(event.atMs - darkAtMs - failoverMs));
    EXPECT_LE(failoverMs, boundMs);
}

// A game of the test UID that talks to its server at address:port without pause, from a
// fixed local port so that the server can tell it from the daemon's probes. It reconnects
// whenever its connection breaks, until it is killed.
pid_t startChattyGame(const NetNamespace& phone, const std::string& address, uint16_t port) {
    return phone.forkInside([&] {
        if (!becomeUid(kGameUid)) return 126;
        struct sockaddr_in local = {};
        local.sin_family = AF_INET;
        local.sin_port = htons(kGameClientPort);
        struct sockaddr_in server = {};
        server.sin_family = AF_INET;
        server.sin_port = htons(port);
        inet_pton(AF_INET, address.c_str(), &server.sin_addr);
        char request[58] = {};
        char answer[60];
        for (;;) {
            const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const int on = 1;
            setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
            if (bind(sock, reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) == 0 &&
                connect(sock, reinterpret_cast<struct sockaddr*>(&server), sizeof(server)) == 0) {
                while (send(sock, request, sizeof(request), MSG_NOSIGNAL) == sizeof(request) &&
                       recv(sock, answer, sizeof(answer), MSG_WAITALL) == sizeof(answer)) {
                    usleep(10 * 1000);
                }
            }
            close(sock);
            usleep(50 * 1000);
        }
    });
}

// AI mode driven as the platform drives it: ids 13, 14, 15, then 13 with "0". The socket
// monitor learns the game's server from the game's busiest connection, the probes of both
// links go there, and turning AI mode off stops and joins everything that it started.
TEST_F(SelectionRealLinksTest, AiModeProbesTheLearntGameServerOverBothLinks) {
    buildLinks();
    if (HasFatalFailure()) return;
    ProbeAnswerServer gameServer;
    ASSERT_TRUE(gameServer.start(lab_.peer(), VethLab::kServerAddress, kGameServerPort));
    startDaemon();
    if (HasFatalFailure()) return;
    // Settled once the control socket has handled the interfaces.
    ASSERT_TRUE(waitForText(log(), "preinterfacelist is rmnet_data0", 5000)) << readWholeFile(log());
    EXPECT_EQ(daemonWorkers(), 0u);

    ASSERT_TRUE(client_.send(MSG_GAME_AI_MODE, std::to_string(kGameUid)));
    ChildProcess game(startChattyGame(lab_.phone(), VethLab::kServerAddress, kGameServerPort));
    const std::string server = std::string(VethLab::kServerAddress) + " , port is " +
                               std::to_string(kGameServerPort);
    ASSERT_TRUE(waitForText(log(), "map server is " + server, 5000)) << readWholeFile(log());
    ASSERT_TRUE(client_.send(MSG_GAME_AI_CHECK_RTT, "1"));
    ASSERT_TRUE(client_.send(MSG_GAME_AI_FAST_CHOOSE, "1"));

    // Probes come from the phone's address on each link and any port but the game's.
    const std::string wifiProbe = lab_.phoneAddress("wlan0") + ":";
    const std::string cellularProbe = lab_.phoneAddress("rmnet_data0") + ":";
    const std::string gamePort = ":" + std::to_string(kGameClientPort);
    auto probesOver = [&](const std::string& prefix) {
        int probes = 0;
        for (const std::string& source : gameServer.sources()) {
            if (source.rfind(prefix, 0) == 0 && source.find(gamePort) == std::string::npos)
                ++probes;
        }
        return probes;
    };
    bool both = false;
    for (const int64_t end = nowMs() + 10000; !both && nowMs() < end; usleep(50 * 1000))
        both = probesOver(wifiProbe) > 0 && probesOver(cellularProbe) > 0;
    EXPECT_TRUE(both) << "probe sources: " << testing::PrintToString(gameServer.sources());
    printf("  learnt %s:%d; probes to it: wlan0 %d, rmnet_data0 %d\n", VethLab::kServerAddress,
           kGameServerPort, probesOver(wifiProbe), probesOver(cellularProbe));

    const size_t workersDuring = daemonWorkers();  // the monitors' and the probes'
    EXPECT_GE(workersDuring, 2u);

    ASSERT_TRUE(client_.send(MSG_GAME_AI_MODE, "0"));
    ASSERT_TRUE(waitForText(log(), "setGameAiModeEnable disable", 5000));
    size_t workersAfter = 0;
    for (const int64_t end = nowMs() + 5000; nowMs() < end; usleep(50 * 1000)) {
        workersAfter = daemonWorkers();
        if (workersAfter == 0) break;
    }
    EXPECT_EQ(workersAfter, 0u) << readWholeFile(log());
    printf("  daemon worker threads: %zu in AI mode, %zu after\n", workersDuring, workersAfter);
}

}  // namespace
}  // namespace vekt::test
