// SockDiag against the real kernel. Every scenario runs in a forked child that has entered
// a network namespace of its own, so that no destroy request can reach a socket of the
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
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "netlink/kill_sockets.h"
#include "netlink/sock_diag.h"
#include "support/netns.h"
#include "vekt_host/log_capture.h"

namespace android::net {
namespace {

using android::base::unique_fd;
using vekt::host::LogCapture;

std::string errorText(const std::string& what) { return what + ": " + strerror(errno) + "\n"; }

ino_t netNamespace() {
    struct stat st = {};
    return stat("/proc/self/ns/net", &st) == 0 ? st.st_ino : 0;
}

// Runs scenario in a forked child inside a new network namespace with loopback up, and
// returns its complaints ("" when everything held). The scenario never runs in the test's
// process, nor in the namespace the test started in.
std::string runInPrivateNetns(const std::function<std::string()>& scenario) {
    const ino_t hostNamespace = netNamespace();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return errorText("pipe");
    unique_fd readEnd(ends[0]);
    unique_fd writeEnd(ends[1]);
    const pid_t child = fork();
    if (child < 0) return errorText("fork");
    if (child == 0) {
        std::string complaints;
        if (!vekt::test::enterPrivateNetNamespace()) {
            complaints = errorText("entering a private network namespace");
        } else if (hostNamespace == 0 || netNamespace() == hostNamespace) {
            complaints = "still in the test's own network namespace; nothing was run\n";
        } else {
            complaints = scenario();
        }
        const bool sent = write(writeEnd, complaints.data(), complaints.size()) ==
                          static_cast<ssize_t>(complaints.size());
        _exit(sent ? 0 : 1);
    }
    writeEnd.reset();
    std::string complaints;
    char buffer[512];
    for (ssize_t n; (n = read(readEnd, buffer, sizeof(buffer))) > 0;) complaints.append(buffer, n);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) complaints += "scenario child failed\n";
    return complaints;
}

// A socket on loopback: bound to any port (a TCP one listening), or connected to peer.
unique_fd loopbackSocket(int family, int type, sockaddr_in6* address, const sockaddr_in6* peer) {
    unique_fd fd(socket(family, type | SOCK_CLOEXEC, 0));
    socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    if (peer != nullptr) {
        return connect(fd, reinterpret_cast<const sockaddr*>(peer), length) == 0 ? std::move(fd)
                                                                                 : unique_fd();
    }
    *address = {};
    if (family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(address);
        in->sin_family = AF_INET;
        in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
        address->sin6_family = AF_INET6;
        address->sin6_addr = in6addr_loopback;
    }
    auto* sa = reinterpret_cast<sockaddr*>(address);
    if (bind(fd, sa, length) != 0 || getsockname(fd, sa, &length) != 0 ||
        (type == SOCK_STREAM && listen(fd, 4) != 0)) {
        return unique_fd();
    }
    return fd;
}

// One socket of each kind over IPv4 and IPv6 on loopback, owned by uid: the kernel stamps a
// socket with its creator's effective UID, so the process takes that UID to create them.
struct LoopbackSockets {
    explicit LoopbackSockets(uid_t uid) {
        if (setresuid(-1, uid, -1) != 0) {
            error = errorText("setresuid");
            return;
        }
        for (const int family : {AF_INET, AF_INET6}) {
            const std::string v = family == AF_INET ? "4" : "6";
            sockaddr_in6 tcp;
            sockaddr_in6 udp;
            unique_fd listener = loopbackSocket(family, SOCK_STREAM, &tcp, nullptr);
            unique_fd client = loopbackSocket(family, SOCK_STREAM, nullptr, &tcp);
            unique_fd accepted(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            unique_fd bound = loopbackSocket(family, SOCK_DGRAM, &udp, nullptr);
            unique_fd connected = loopbackSocket(family, SOCK_DGRAM, nullptr, &udp);
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

    // What each socket's holder sees: the error the kernel left on it (SO_ERROR), where it
    // is not one of those allowed.
    std::string unexpectedErrors(const std::string& who, bool destroyed) const {
        std::string complaints;
        for (const auto& [name, fd] : sockets) {
            int error = 0;
            socklen_t length = sizeof(error);
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
            // Of a connection's two ends, the one destroyed second may have been reset by
            // the first one's abort already.
            const bool connection = name.find("tcp") == 0 && name.find("listener") == npos;
            const bool allowed = destroyed
                                     ? error == ECONNABORTED || (connection && error == ECONNRESET)
                                     : error == 0;
            if (!allowed) complaints += who + " " + name + ": " + strerror(error) + "\n";
        }
        return complaints;
    }

    static constexpr size_t npos = std::string::npos;
    std::vector<std::pair<std::string, unique_fd>> sockets;
    std::vector<std::pair<int, int>> tcpPairs;  // (client, accepted)
    std::string error;
};

TEST(KillSocketsForUidTest, AbortsEverySocketOfTheUidAndNoOtherUidsSockets) {
    VEKT_REQUIRE_NETNS();
    const std::string complaints = runInPrivateNetns([]() -> std::string {
        const LoopbackSockets game(10123);
        const LoopbackSockets other(10124);
        const LoopbackSockets root(0);
        if (!game.error.empty() || !other.error.empty() || !root.error.empty()) {
            return game.error + other.error + root.error;
        }
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

        if (killSocketsForUID("10123") != 0) complaints += "killSocketsForUID(10123) failed\n";
        complaints += game.unexpectedErrors("uid 10123", true);
        complaints += other.unexpectedErrors("uid 10124", false);
        complaints += root.unexpectedErrors("uid 0", false);
        // The UDP pass ends the log: its four sockets, then its line.
        std::vector<std::string> lines = log.texts("SLM-Vekt-SockDiag");
        if (lines.size() < 2 || lines[lines.size() - 2] != "Destroyed 4 sockets for UID" ||
            lines.back() != " SLA_GAMING destroying UDP sockets: 10123" ||
            !log.contains(" SLA_GAMING destroying TCP sockets: 10123")) {
            complaints += "log lines of the kill\n";
        }

        // Text that is no number is UID 0.
        if (killSocketsForUID("abc") != 0) complaints += "killSocketsForUID(abc) failed\n";
        complaints += root.unexpectedErrors("uid 0", true);
        complaints += other.unexpectedErrors("uid 10124", false);
        return complaints;
    });
    EXPECT_EQ(complaints, "");
}

// Bounds: where the kernel's tcp_info keeps the segment counts.
constexpr size_t kSegsOut = 136;
constexpr size_t kSegsIn = 140;
static_assert(offsetof(tcp_info, tcpi_segs_out) == kSegsOut, "tcp_info layout");
static_assert(offsetof(tcp_info, tcpi_segs_in) == kSegsIn, "tcp_info layout");

// The live TCP sockets in the order reported: family and both segment counts.
std::vector<std::vector<uint32_t>> liveSockets(SockDiag& diag, std::string* complaints) {
    std::vector<std::vector<uint32_t>> seen;
    const auto reader = [&](const inet_diag_msg* msg, const tcp_info_ext* info,
                            unsigned int length) {
        uint32_t counts[2] = {0, 0};
        if (info == nullptr || length < kSegsIn + sizeof(uint32_t) || msg->idiag_state != 1) {
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
    const std::string complaints = runInPrivateNetns([]() -> std::string {
        const LoopbackSockets sockets(0);
        SockDiag diag;
        if (!sockets.error.empty() || !diag.open()) return sockets.error + errorText("open");
        std::string complaints;
        if (diag.open()) complaints += "a second open was not refused\n";

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
            const uint32_t out = after[i][1] - before[i][1];
            const uint32_t in = after[i][2] - before[i][2];
            if (std::max(out, in) < kMessages) {
                complaints += "socket " + std::to_string(i) + " grew by " + std::to_string(out) +
                              " out, " + std::to_string(in) + " in\n";
            }
        }
        return complaints;
    });
    EXPECT_EQ(complaints, "");
}

}  // namespace
}  // namespace android::net
