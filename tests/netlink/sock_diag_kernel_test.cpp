// SockDiag against the real kernel. Every scenario runs in a forked child inside a network
// namespace that the test creates, so that no destroy request can reach a socket of the
// machine; the child reports what went wrong as text through a pipe.
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "netlink/kill_sockets.h"
#include "netlink/sock_diag.h"
#include "support/emulation.h"
#include "support/daemon_process.h"
#include "support/link_lab.h"
#include "support/netns.h"
#include "vekt_host/log_capture.h"

namespace android::net {
namespace {

using android::base::unique_fd;
using vekt::host::LogCapture;

std::string errorText(const std::string& what) { return what + ": " + strerror(errno) + "\n"; }

// Runs scenario in a child inside a new network namespace (never anywhere else: a child
// that cannot enter it ends without running it) and returns its complaints, "" when all held.
std::string runInPrivateNetns(const std::function<std::string()>& scenario) {
    const vekt::test::NetNamespace ns;
    int ends[2];
    if (!ns.ok() || pipe2(ends, O_CLOEXEC) != 0) return errorText("namespace and pipe");
    unique_fd readEnd(ends[0]), writeEnd(ends[1]);
    vekt::test::ChildProcess child(ns.forkInside([&] {
        const std::string complaints = scenario();
        return write(writeEnd, complaints.data(), complaints.size()) == ssize_t(complaints.size())
                   ? 0
                   : 1;
    }));
    writeEnd.reset();
    std::string complaints;
    char buffer[512];
    for (ssize_t n; (n = read(readEnd, buffer, sizeof(buffer))) > 0;) complaints.append(buffer, n);
    if (child.wait(30000) != 0) complaints += "scenario child failed\n";
    return complaints;
}

// A socket on loopback: bound to any port (a TCP one listening) that *address receives, or,
// with connectTo, connected to *address.
unique_fd loopbackSocket(int family, int type, sockaddr_in6* address, bool connectTo = false) {
    unique_fd fd(socket(family, type | SOCK_CLOEXEC, 0));
    auto* sa = reinterpret_cast<sockaddr*>(address);
    socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    if (connectTo) return connect(fd, sa, length) == 0 ? std::move(fd) : unique_fd();
    *address = {};
    address->sin6_family = family;
    if (family == AF_INET) {
        reinterpret_cast<sockaddr_in*>(address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
        address->sin6_addr = in6addr_loopback;
    }
    const bool ok = bind(fd, sa, length) == 0 && getsockname(fd, sa, &length) == 0 &&
                    (type != SOCK_STREAM || listen(fd, 4) == 0);
    return ok ? std::move(fd) : unique_fd();
}

// One socket of each kind over IPv4 and IPv6 on loopback, owned by uid: the kernel stamps a
// socket with its creator's effective UID, so the process takes that UID to create them.
struct LoopbackSockets {
    explicit LoopbackSockets(uid_t uid) {
        if (setresuid(-1, uid, -1) != 0) error = errorText("setresuid");
        for (const int family : {AF_INET, AF_INET6}) {
            const std::string v = family == AF_INET ? "4" : "6";
            sockaddr_in6 tcp, udp;
            unique_fd listener = loopbackSocket(family, SOCK_STREAM, &tcp);
            unique_fd client = loopbackSocket(family, SOCK_STREAM, &tcp, true);
            unique_fd accepted(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            unique_fd bound = loopbackSocket(family, SOCK_DGRAM, &udp);
            unique_fd connected = loopbackSocket(family, SOCK_DGRAM, &udp, true);
            if (!listener.ok() || !client.ok() || !accepted.ok() || !bound.ok() ||
                !connected.ok()) {
                error += errorText("loopback sockets over IPv" + v);
            }
            tcpPairs.emplace_back(client.get(), accepted.get());
            sockets.emplace_back("tcp" + v + " listener", std::move(listener));
            sockets.emplace_back("tcp" + v + " client", std::move(client));
            sockets.emplace_back("tcp" + v + " accepted", std::move(accepted));
            sockets.emplace_back("udp" + v + " bound", std::move(bound));
            sockets.emplace_back("udp" + v + " connected", std::move(connected));
        }
        if (setresuid(-1, 0, -1) != 0) error += errorText("setresuid back");
    }

    // What each socket's holder sees (SO_ERROR), where it is not what is allowed: aborted
    // when destroyed (for a connection's end destroyed second, maybe reset by the first's
    // abort already), else no error.
    std::string unexpectedErrors(const std::string& who, bool destroyed) const {
        std::string complaints;
        for (const auto& [name, fd] : sockets) {
            int error = 0;
            socklen_t length = sizeof(error);
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
            const bool connection =
                name.find("tcp") == 0 && name.find("listener") == std::string::npos;
            if (destroyed ? error != ECONNABORTED && !(connection && error == ECONNRESET)
                          : error != 0) {
                complaints += who + " " + name + ": " + strerror(error) + "\n";
            }
        }
        return complaints;
    }

    std::vector<std::pair<std::string, unique_fd>> sockets;
    std::vector<std::pair<int, int>> tcpPairs;  // (client, accepted)
    std::string error;
};

TEST(KillSocketsForUidTest, AbortsEverySocketOfTheUidAndNoOtherUidsSockets) {
    VEKT_REQUIRE_NETNS();
    VEKT_REQUIRE_KERNEL(vekt::test::sockDiagMissing());
    EXPECT_EQ(runInPrivateNetns([]() -> std::string {
                  const LoopbackSockets game(10123), other(10124), root(0);
                  if (!(game.error + other.error + root.error).empty())
                      return game.error + other.error + root.error;
                  LogCapture log;
                  std::string complaints;
                  SockDiag diag;
                  if (!diag.open()) return errorText("open");
                  // Every socket of the game is on loopback, and nobody has UID 4242: these passes
                  // destroy nothing and log nothing.
                  if (diag.destroySockets(IPPROTO_TCP, 10123, true) != 0 ||
                      diag.destroySockets(IPPROTO_UDP, 4242, false) != 0 || !log.texts().empty()) {
                      complaints += "a pass that matches nothing\n";
                  }
                  if (killSocketsForUID("10123") != 0)
                      complaints += "killSocketsForUID(10123) failed\n";
                  complaints += game.unexpectedErrors("uid 10123", true) +
                                other.unexpectedErrors("uid 10124", false) +
                                root.unexpectedErrors("uid 0", false);
                  // The UDP pass ends the log: its four sockets, then its line.
                  const std::vector<std::string> lines = log.texts("SLM-Vekt-SockDiag");
                  if (lines.size() < 2 ||
                      lines[lines.size() - 2] != "Destroyed 4 sockets for UID" ||
                      lines.back() != " SLA_GAMING destroying UDP sockets: 10123" ||
                      !log.contains(" SLA_GAMING destroying TCP sockets: 10123")) {
                      complaints += "log lines of the kill\n";
                  }
                  // Text that is no number is UID 0.
                  if (killSocketsForUID("abc") != 0)
                      complaints += "killSocketsForUID(abc) failed\n";
                  return complaints + root.unexpectedErrors("uid 0", true) +
                         other.unexpectedErrors("uid 10124", false);
              }),
              "");
}

// Where the kernel's tcp_info keeps the segment counts (out, then in).
constexpr size_t kSegsOut = offsetof(tcp_info, tcpi_segs_out);
static_assert(offsetof(tcp_info, tcpi_segs_in) == kSegsOut + 4, "tcp_info layout");

// The live TCP sockets in the order reported: family and both segment counts.
std::vector<std::vector<uint32_t>> liveSockets(SockDiag& diag, std::string* complaints) {
    std::vector<std::vector<uint32_t>> seen;
    const auto reader = [&](const inet_diag_msg* msg, const tcp_info_ext* info,
                            unsigned int length) {
        uint32_t counts[2] = {0, 0};
        if (info == nullptr || length < kSegsOut + sizeof(counts) || msg->idiag_state != 1) {
            *complaints += "a socket not established, or its tcp_info short\n";
        } else {
            memcpy(counts, reinterpret_cast<const uint8_t*>(info) + kSegsOut, sizeof(counts));
        }
        seen.push_back({msg->idiag_family, counts[0], counts[1]});
    };
    if (diag.getLiveTcpInfos(reader) != 0) *complaints += "getLiveTcpInfos failed\n";
    return seen;
}

TEST(SockDiagKernelTest, LiveTcpInfosReportEachConnectionWithGrowingSegmentCounts) {
    VEKT_REQUIRE_NETNS();
    VEKT_REQUIRE_KERNEL(vekt::test::sockDiagMissing());
    EXPECT_EQ(
        runInPrivateNetns([]() -> std::string {
            const LoopbackSockets sockets(0);
            SockDiag diag;
            if (!sockets.error.empty() || !diag.open()) return sockets.error + errorText("open");
            std::string complaints = diag.open() ? "a second open was not refused\n" : "";
            const auto before = liveSockets(diag, &complaints);
            // Both ends of each connection, IPv4 first; listeners are not live.
            std::vector<uint32_t> families;
            for (const auto& socket : before) families.push_back(socket[0]);
            if (families != std::vector<uint32_t>{AF_INET, AF_INET, AF_INET6, AF_INET6}) {
                return complaints + std::to_string(before.size()) + " live sockets\n";
            }
            // Each message in a segment of its own: no delay, and each is read before the next.
            constexpr uint32_t kMessages = 20;
            for (const auto& [client, accepted] : sockets.tcpPairs) {
                const int on = 1;
                setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
                for (uint32_t i = 0; i < kMessages; ++i) {
                    char byte = 'x';
                    pollfd ready = {accepted, POLLIN, 0};
                    if (send(client, &byte, 1, 0) != 1 || poll(&ready, 1, 1000) != 1 ||
                        recv(accepted, &byte, 1, 0) != 1) {
                        return complaints + errorText("traffic");
                    }
                }
            }
            const auto after = liveSockets(diag, &complaints);
            if (after.size() != before.size()) return complaints + "the live sockets changed\n";
            // The client's segments out, or the accepted end's segments in, grew by each message.
            for (size_t i = 0; i < before.size(); ++i) {
                const uint32_t out = after[i][1] - before[i][1], in = after[i][2] - before[i][2];
                if (std::max(out, in) < kMessages) {
                    complaints += "socket " + std::to_string(i) + " grew by " +
                                  std::to_string(out) + " out, " + std::to_string(in) + " in\n";
                }
            }
            return complaints;
        }),
        "");
}

}  // namespace
}  // namespace android::net
