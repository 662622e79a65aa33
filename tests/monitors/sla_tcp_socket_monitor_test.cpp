// The TCP socket monitor against real sockets. Every socket, and the monitor's own thread,
// lives in a private network namespace that the test makes, so what sock_diag lists there
// is the test's own connections and nothing of the machine.
#include "monitors/sla_tcp_socket_monitor.h"

#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netdb.h>
#include <sched.h>
#include <string.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "support/emulation.h"
#include "support/link_lab.h"
#include "support/netns.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using android::base::unique_fd;
using std::chrono::steady_clock;

constexpr uid_t kGameUid = 10123;
constexpr uid_t kOtherUid = 10234;  // second on the gaming list: only the first is watched

unique_fd listenOn(const char* address, uint16_t port) {
    unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    in.sin_port = htons(port);
    inet_pton(AF_INET, address, &in.sin_addr);
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&in), sizeof(in)) != 0 || listen(fd, 8) != 0) {
        return unique_fd();
    }
    return fd;
}

struct Connection {
    unique_fd client;  // belongs to the UID that connected
    unique_fd server;  // belongs to root
};

// A connection from uid to peer:port (IPv4, or IPv4-mapped IPv6 over an IPv6 socket), then
// `exchanges` one-byte round trips, each sent as a segment of its own. The kernel stamps a
// socket with its creator's file-system UID, which setfsuid changes for this thread alone.
Connection connectAs(uid_t uid, int listener, const char* peer, uint16_t port, int exchanges) {
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* to = nullptr;
    if (getaddrinfo(peer, std::to_string(port).c_str(), &hints, &to) != 0) return {};
    Connection c;
    setfsuid(uid);
    c.client.reset(socket(to->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    setfsuid(0);
    const bool connected = connect(c.client, to->ai_addr, to->ai_addrlen) == 0;
    freeaddrinfo(to);
    if (!connected) return {};
    c.server.reset(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    const int on = 1;
    const timeval timeout = {2, 0};
    for (const int fd : {c.client.get(), c.server.get()}) {
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    }
    char byte = 'x';
    for (int i = 0; i < exchanges; ++i) {
        if (send(c.client, &byte, 1, 0) != 1 || recv(c.server, &byte, 1, 0) != 1 ||
            send(c.server, &byte, 1, 0) != 1 || recv(c.client, &byte, 1, 0) != 1) {
            return {};
        }
    }
    return c;
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = steady_clock::now() + std::chrono::seconds(5);
    while (!condition()) {
        if (steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// The polling thread, found by its name: its scheduling state and how often it has given up
// the CPU ("S 12": asleep, and a count that stays put while it sleeps on); "" with no thread.
std::string pollingThreadState() {
    std::string found;
    DIR* tasks = opendir("/proc/self/task");
    while (dirent* entry = tasks != nullptr ? readdir(tasks) : nullptr) {
        const std::string task = std::string("/proc/self/task/") + entry->d_name;
        std::string line;
        if (!std::getline(std::ifstream(task + "/comm"), line) ||
            line != SlaTcpSocketMonitor::kThreadName) {
            continue;
        }
        for (std::ifstream status(task + "/status"); std::getline(status, line);) {
            if (line.rfind("State:", 0) == 0) found = line.substr(7, 1);
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) found += line.substr(24);
        }
    }
    if (tasks != nullptr) closedir(tasks);
    return found;
}

class SlaTcpSocketMonitorTest : public ParametersTest {
  protected:
    SlaTcpSocketMonitorTest() {
        // A monitor left by an earlier test would watch another UID from another namespace.
        SlaTcpSocketMonitor::finalize();
        params()->setGamingUids("10123,10234");
    }
    ~SlaTcpSocketMonitorTest() override { SlaTcpSocketMonitor::finalize(); }

    // Runs body on a thread inside the namespace: the sockets it opens, the monitor's
    // sock_diag queries and the polling thread it creates all live there.
    void inside(const std::function<void()>& body) {
        ASSERT_TRUE(ns_.ok());
        std::thread([&] {
            if (setns(ns_.fd(), CLONE_NEWNET) != 0) {
                ADD_FAILURE() << "setns: " << strerror(errno);
                return;
            }
            body();
        }).join();
    }

    std::set<uint64_t> ports(SlaTcpSocketMonitor* monitor) {
        std::set<uint64_t> keys;
        for (const auto& entry : monitor->sockets()) keys.insert(entry.first);
        return keys;
    }

    NetNamespace ns_;
};

TEST_F(SlaTcpSocketMonitorTest, TheBusiestGameServerBecomesTheRttServerAndAClosedOneLeaves) {
    VEKT_REQUIRE_NETNS();
    VEKT_REQUIRE_KERNEL(sockDiagMissing());
    inside([&] {
        const unique_fd quiet = listenOn("127.0.0.7", 7000);
        const unique_fd busy = listenOn("127.0.0.9", 9000);
        Connection toQuiet = connectAs(kGameUid, quiet, "127.0.0.7", 7000, 10);
        Connection toBusy = connectAs(kGameUid, busy, "127.0.0.9", 9000, 60);
        ASSERT_TRUE(toQuiet.server.ok() && toBusy.server.ok());

        SlaTcpSocketMonitor* monitor = SlaTcpSocketMonitor::instance();
        monitor->resumePolling();
        monitor->poll();
        auto sockets = monitor->sockets();
        ASSERT_EQ(ports(monitor), (std::set<uint64_t>{7000, 9000}));
        EXPECT_STREQ(sockets[9000].server, "127.0.0.9");
        EXPECT_EQ(sockets[9000].uid, kGameUid);
        EXPECT_GT(sockets[9000].sent_cnt, sockets[7000].sent_cnt + 40);
        EXPECT_GT(sockets[9000].recvCnt, 60u);
        EXPECT_GT(sockets[9000].rttUs, 0u);
        EXPECT_TRUE(log_.contains("map server is 127.0.0.9 , port is 9000,total sent_cnt " +
                                  std::to_string(sockets[9000].sent_cnt)));

        monitor->selectServer();
        const RttServerTarget target = params()->rttServerAndPort();
        EXPECT_EQ(target.server, "127.0.0.9");
        EXPECT_EQ(target.port, 9000);

        toBusy = {};
        monitor->poll();
        EXPECT_EQ(ports(monitor), std::set<uint64_t>{7000});
    });
}

TEST_F(SlaTcpSocketMonitorTest, OtherUidsWebPortsAndMappedPeersAreIgnored) {
    VEKT_REQUIRE_NETNS();
    VEKT_REQUIRE_KERNEL(sockDiagMissing());
    inside([&] {
        const unique_fd game = listenOn("127.0.0.9", 9000);
        const unique_fd http = listenOn("127.0.0.8", 80);
        const unique_fd https = listenOn("127.0.0.8", 443);
        const Connection connections[] = {
            connectAs(kOtherUid, game, "127.0.0.9", 9000, 20),
            connectAs(kGameUid, http, "127.0.0.8", 80, 20),
            connectAs(kGameUid, https, "127.0.0.8", 443, 20),
            connectAs(kGameUid, game, "::ffff:127.0.0.9", 9000, 20),
        };
        for (const Connection& c : connections) ASSERT_TRUE(c.server.ok());

        SlaTcpSocketMonitor* monitor = SlaTcpSocketMonitor::instance();
        monitor->resumePolling();
        monitor->poll();
        monitor->selectServer();
        EXPECT_NE(monitor->lastPoll(), steady_clock::time_point());  // the poll did succeed
        EXPECT_TRUE(monitor->sockets().empty());
        EXPECT_TRUE(log_.texts("SLM-Vekt-SocketMonitor").empty());
        const RttServerTarget target = params()->rttServerAndPort();
        EXPECT_EQ(target.server, VEKT_DEFAULT_RTT_SERVER);
        EXPECT_EQ(target.port, 443);
    });
}

TEST_F(SlaTcpSocketMonitorTest, ThePausedThreadSleepsUntilResumedThenPollsUntilFinalized) {
    VEKT_REQUIRE_NETNS();
    VEKT_REQUIRE_KERNEL(sockDiagMissing());
    inside([&] {
        const unique_fd busy = listenOn("127.0.0.9", 9000);
        const Connection game = connectAs(kGameUid, busy, "127.0.0.9", 9000, 5);
        ASSERT_TRUE(game.server.ok());

        SlaTcpSocketMonitor* monitor = SlaTcpSocketMonitor::instance();
        ASSERT_TRUE(eventually([] { return pollingThreadState().rfind('S', 0) == 0; }));
        // Longer than a poll interval: a paused thread does not wake at all.
        const std::string asleep = pollingThreadState();
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        EXPECT_EQ(pollingThreadState(), asleep);
        EXPECT_EQ(monitor->lastPoll(), steady_clock::time_point());
        EXPECT_TRUE(monitor->sockets().empty());

        monitor->resumePolling();
        EXPECT_TRUE(eventually([&] { return params()->rttServerAndPort().port == 9000; }));
        EXPECT_EQ(params()->m_rttServer.get(), "127.0.0.9");
        EXPECT_NE(pollingThreadState(), asleep);

        SlaTcpSocketMonitor::finalize();
        EXPECT_EQ(pollingThreadState(), "");  // joined
    });
}

// Kernel layout: the tcp_info words the monitor reads and where each one starts.
TEST_F(SlaTcpSocketMonitorTest, ATcpInfoRecordTooShortForAWordGivesZeroForIt) {
    using Field = uint32_t SlaTcpSocketMonitor::SlsSocket::*;
    const struct {
        size_t offset;
        Field field;
    } words[] = {
        {56, &SlaTcpSocketMonitor::SlsSocket::lastAckRecv},
        {68, &SlaTcpSocketMonitor::SlsSocket::rttUs},
        {136, &SlaTcpSocketMonitor::SlsSocket::sent_cnt},
        {140, &SlaTcpSocketMonitor::SlsSocket::recvCnt},
        {224, &SlaTcpSocketMonitor::SlsSocket::rcvOooPack},
    };
    uint32_t record[64] = {};
    for (const auto& word : words) record[word.offset / 4] = 1000 + word.offset;
    inet_diag_msg msg = {};
    msg.idiag_family = AF_INET;
    msg.idiag_uid = kGameUid;
    msg.id.idiag_dport = htons(9000);
    msg.id.idiag_dst[0] = htonl(0x7f000009);
    const auto* info = reinterpret_cast<const tcp_info_ext*>(record);

    SlaTcpSocketMonitor* monitor = SlaTcpSocketMonitor::instance();  // paused: it never polls
    for (const auto& guard : words) {
        // Each word needs one byte beyond its end.
        for (const unsigned int length : {guard.offset + 4, guard.offset + 5}) {
            {
                MutexLock lock(monitor->mutex());
                monitor->updateSocketStats(steady_clock::now(), &msg, info, length);
            }
            const SlaTcpSocketMonitor::SlsSocket entry = monitor->sockets().at(9000);
            for (const auto& word : words) {
                const uint32_t expected = length >= word.offset + 5 ? 1000 + word.offset : 0;
                EXPECT_EQ(entry.*word.field, expected)
                    << "offset " << word.offset << ", length " << length;
            }
            EXPECT_STREQ(entry.server, "127.0.0.9");
        }
    }
}

}  // namespace
}  // namespace vekt::test
