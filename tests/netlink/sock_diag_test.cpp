// SockDiag without a kernel: the dump walk over datagrams built here byte by byte, and the
// whole client over socketpairs on which the test plays the kernel.
#include "netlink/sock_diag.h"

#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/socket_owner.h"
#include "netlink/kill_sockets.h"
#include "support/wire_bytes.h"
#include "vekt_host/log_capture.h"

namespace android::net {
namespace {

using android::base::unique_fd;
using vekt::test::Bytes;
using vekt::test::bytesOf;
using vekt::test::hex;
using vekt::test::operator+;
using Lines = std::vector<std::string>;
using vekt::host::LogCapture;

constexpr const char* kTag = "SLM-Vekt-SockDiag";
constexpr uint16_t kRtmNewLink = 16;

Bytes padded(Bytes bytes) {
    bytes.resize((bytes.size() + 3) & ~size_t{3});
    return bytes;
}

// A netlink message; lengthField, when given, is what its header claims.
Bytes message(uint16_t type, const Bytes& payload, int64_t lengthField = -1) {
    nlmsghdr nlh = {};
    nlh.nlmsg_len = static_cast<uint32_t>(lengthField >= 0 ? lengthField : 16 + payload.size());
    nlh.nlmsg_type = type;
    nlh.nlmsg_flags = NLM_F_MULTI;
    return padded(bytesOf(nlh) + payload);
}

Bytes attribute(uint16_t type, const Bytes& payload, int lengthField = -1) {
    const rtattr attr = {
        static_cast<unsigned short>(lengthField >= 0 ? lengthField : 4 + payload.size()), type};
    return padded(bytesOf(attr) + payload);
}

inet_diag_msg diagSocket(uint8_t family, uint32_t uid, const char* src, const char* dst,
                         uint8_t state = 1 /* established */) {
    inet_diag_msg msg = {};
    msg.idiag_family = family;
    msg.idiag_state = state;
    msg.idiag_uid = uid;
    msg.id.idiag_sport = htons(40000);
    msg.id.idiag_dport = htons(443);
    inet_pton(family, src, msg.id.idiag_src);
    inet_pton(family, dst, msg.id.idiag_dst);
    msg.id.idiag_cookie[0] = uid;
    return msg;
}

Bytes socketRecord(const inet_diag_msg& msg, const Bytes& attributes = {}) {
    return message(SOCK_DIAG_BY_FAMILY, bytesOf(msg) + attributes);
}

const Bytes kDone = message(NLMSG_DONE, Bytes(4, 0));

// The kernel's refusal: the error, then a copy of the refused request.
Bytes refusal(int32_t error) {
    nlmsgerr err = {error, {static_cast<uint32_t>(kDiagRequestSize), SOCK_DIAG_BY_FAMILY, 0, 0, 0}};
    return message(NLMSG_ERROR, bytesOf(err) + Bytes(sizeof(inet_diag_req_v2), 0));
}

const Bytes kSocket = socketRecord(diagSocket(AF_INET, 1, "10.0.0.1", "10.0.0.2"));

using Seen = std::vector<std::pair<uint32_t, int>>;

// A TCP-info pass over one receive: (uid, tcp_info length, or -1 for none) per socket.
Seen tcpInfoPass(Bytes reply, DumpWalk* walk = nullptr) {
    Seen seen;
    const TcpInfoReader reader = [&](const inet_diag_msg* msg, const tcp_info_ext* info,
                                     unsigned int length) {
        seen.emplace_back(msg->idiag_uid, info == nullptr ? -1 : static_cast<int>(length));
    };
    const DumpWalk result = walkNetlinkDump(reply.data(), reply.size(),
                                            [&](nlmsghdr* nlh) { reportTcpInfo(nlh, reader); });
    if (walk != nullptr) *walk = result;
    return seen;
}

TEST(SockDiagDumpTest, AnErrorAsFirstMessageEndsTheDumpWithThatError) {
    DumpWalk walk;
    EXPECT_TRUE(tcpInfoPass(refusal(-EPERM) + kSocket + kDone, &walk).empty());
    EXPECT_TRUE(walk.finished);
    EXPECT_EQ(walk.result, -EPERM);
}

TEST(SockDiagDumpTest, AMessageLongerThanTheBytesLeftEndsTheWalkOfThatRead) {
    const Bytes cut =
        message(SOCK_DIAG_BY_FAMILY, bytesOf(diagSocket(AF_INET, 2, "10.0.0.1", "10.0.0.3")), 4000);
    // Claiming more than is left, less than a header, or a header cut short.
    for (const Bytes& reply :
         {kSocket + cut + kDone, kSocket + message(20, {}, 15) + kDone,
          kSocket + message(20, {}, 0) + kDone, kSocket + Bytes{88, 0, 0, 0, 20, 0}}) {
        DumpWalk walk;
        EXPECT_EQ(tcpInfoPass(reply, &walk), (Seen{{1, -1}}));
        EXPECT_FALSE(walk.finished);  // the next read carries on with the dump
    }
    DumpWalk walk;
    EXPECT_EQ(tcpInfoPass(kSocket + kDone + kSocket, &walk), (Seen{{1, -1}}));
    EXPECT_TRUE(walk.finished);
}

TEST(SockDiagDumpTest, AForeignMessageInATcpInfoDumpIsLoggedAndSkipped) {
    LogCapture log;
    EXPECT_EQ(
        tcpInfoPass(message(kRtmNewLink, bytesOf(diagSocket(AF_INET, 7, "10.0.0.1", "10.0.0.3"))) +
                    kSocket + kDone),
        (Seen{{1, -1}}));
    EXPECT_EQ(log.texts(kTag), Lines{"expected nlmsg_type=SOCK_DIAG_BY_FAMILY, got nlmsg_type=16"});
}

TEST(SockDiagDumpTest, TcpInfoIsTheLastInfoAttributeWithinTheMessageOrNull) {
    const inet_diag_msg msg = diagSocket(AF_INET6, 3, "2001:db8::1", "2001:db8::2");
    const Bytes info = attribute(INET_DIAG_INFO, Bytes(8, 0));
    const Bytes reply =
        socketRecord(msg) +                                              // no attribute
        socketRecord(msg, attribute(INET_DIAG_MEMINFO, Bytes(16, 0))) +  // others only
        socketRecord(msg, attribute(INET_DIAG_INFO, Bytes(232, 0)) +     // last one wins
                              attribute(INET_DIAG_INFO, Bytes(6, 0)) +
                              attribute(INET_DIAG_CONG, Bytes(4, 0))) +
        // An attribute that runs past its message, or is shorter than its own header, is
        // not reported and ends the walk of the attributes.
        socketRecord(msg, attribute(INET_DIAG_INFO, {}, 200) + info) +
        socketRecord(msg, attribute(INET_DIAG_INFO, {}, 2) + info) +
        message(SOCK_DIAG_BY_FAMILY, Bytes(40, 0)) +  // too short for a socket: skipped
        kDone;
    EXPECT_EQ(tcpInfoPass(reply), (Seen{{3, -1}, {3, -1}, {3, 6}, {3, -1}, {3, -1}}));
}

// Plays the kernel for open(): hands out one end of a socketpair wherever a netlink socket
// is asked for and keeps the other end; fails from socket number failFrom + 1 on.
struct PairFactory : vekt::SocketFactory {
    unique_fd open(int domain, int type, int protocol) override {
        asked.push_back({domain, type, protocol});
        int ends[2];
        if ((failFrom >= 0 && static_cast<int>(asked.size()) > failFrom) ||
            socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
            errno = EMFILE;
            return unique_fd();
        }
        peers.emplace_back(ends[1]);
        return unique_fd(ends[0]);
    }
    std::vector<std::vector<int>> asked;
    std::vector<unique_fd> peers;
    int failFrom = -1;
};

bool hungUp(int peer) {
    char byte;
    return recv(peer, &byte, 1, MSG_DONTWAIT) == 0;
}

// A SockDiag on two socketpairs; the test is the kernel at dumpPeer and destroyPeer.
struct PairedSockDiag {
    PairedSockDiag() {
        int dumpEnds[2];
        int destroyEnds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, dumpEnds), 0);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, destroyEnds), 0);
        dumpPeer.reset(dumpEnds[1]);
        destroyPeer.reset(destroyEnds[1]);
        diag = std::make_unique<SockDiag>(unique_fd(dumpEnds[0]), unique_fd(destroyEnds[0]));
    }
    static void queue(int peer, const Bytes& datagram) {
        ASSERT_EQ(send(peer, datagram.data(), datagram.size(), 0),
                  static_cast<ssize_t>(datagram.size()));
    }
    // What was written to the peer so far, one entry per write.
    static std::vector<Bytes> written(int peer) {
        std::vector<Bytes> writes;
        uint8_t buffer[256];
        for (ssize_t n; (n = recv(peer, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0;) {
            writes.emplace_back(buffer, buffer + n);
        }
        return writes;
    }

    unique_fd dumpPeer;
    unique_fd destroyPeer;
    std::unique_ptr<SockDiag> diag;
};

TEST(SockDiagTest, OpenTakesTwoNetlinkSocketsAndClosesBothWhenOneFails) {
    PairFactory factory;
    vekt::ScopedSeamOverride<vekt::SocketFactory> scope(vekt::socketFactorySeam(), factory);
    SockDiag diag;
    // A socketpair end refuses the kernel's netlink address: connecting fails.
    EXPECT_FALSE(diag.open());
    const std::vector<int> netlink = {AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG};
    EXPECT_EQ(factory.asked, (std::vector<std::vector<int>>{netlink, netlink}));
    ASSERT_EQ(factory.peers.size(), 2u);
    EXPECT_TRUE(hungUp(factory.peers[0]) && hungUp(factory.peers[1]));

    // The second socket cannot be made: the first is closed, its error kept for the log.
    factory.peers.clear();
    factory.failFrom = 3;
    EXPECT_FALSE(diag.open());
    EXPECT_EQ(errno, EMFILE);
    ASSERT_EQ(factory.peers.size(), 1u);
    EXPECT_TRUE(hungUp(factory.peers[0]));

    LogCapture log;
    EXPECT_EQ(killSocketsForUID("10123"), -1);
    EXPECT_EQ(log.texts(kTag),
              Lines{" SLA_GAMING Error opening NETLINK_SOCK_DIAG socket: Too many open files"});
}

TEST(SockDiagTest, ADumpRequestIsWrittenWholeAndAnImmediateRefusalIsItsResult) {
    PairedSockDiag paired;
    PairFactory factory;
    vekt::ScopedSeamOverride<vekt::SocketFactory> scope(vekt::socketFactorySeam(), factory);
    EXPECT_FALSE(paired.diag->open());  // already open: refused, sockets kept
    EXPECT_TRUE(factory.asked.empty());

    iovec iov[1] = {};
    EXPECT_EQ(paired.diag->sendDumpRequest(IPPROTO_TCP, AF_INET6, 2, 14, iov, 1), 0);
    EXPECT_EQ(iov[0].iov_base, nullptr);
    EXPECT_EQ(iov[0].iov_len, 0u);
    EXPECT_EQ(paired.written(paired.dumpPeer),
              std::vector<Bytes>{hex("48000000 1400 0103 00000000 00000000  0a 06 02 00 0e000000") +
                                 Bytes(48, 0)});

    // A refusal is consumed: the next request, with nothing queued, succeeds.
    paired.queue(paired.dumpPeer, refusal(-EPERM));
    EXPECT_EQ(paired.diag->sendDumpRequest(IPPROTO_TCP, AF_INET, 2, 14, iov, 1), -EPERM);
    EXPECT_EQ(paired.diag->sendDumpRequest(IPPROTO_TCP, AF_INET, 2, 14, iov, 1), 0);
    // A dump reply already queued is left for the reader.
    paired.queue(paired.dumpPeer, kSocket + kDone);
    EXPECT_EQ(paired.diag->sendDumpRequest(IPPROTO_TCP, AF_INET, 2, 14, iov, 1), 0);
    Seen seen;
    EXPECT_EQ(paired.diag->readDiagMsgWithTcpInfo(
                  [&](const inet_diag_msg* msg, const tcp_info_ext*, unsigned int length) {
                      seen.emplace_back(msg->idiag_uid, length);
                  }),
              0);
    EXPECT_EQ(seen, (Seen{{1, 0}}));
}

TEST(SockDiagTest, LiveTcpInfosAskIpv4ThenIpv6AndReadOnAfterATruncatedMessage) {
    PairedSockDiag paired;
    const Bytes cut =
        message(SOCK_DIAG_BY_FAMILY, bytesOf(diagSocket(AF_INET, 2, "10.0.0.1", "10.0.0.3")), 4096);
    paired.queue(paired.dumpPeer, kSocket + cut);
    paired.queue(paired.dumpPeer,
                 socketRecord(diagSocket(AF_INET, 3, "10.0.0.1", "10.0.0.3")) + kDone);
    paired.queue(paired.dumpPeer, socketRecord(diagSocket(AF_INET6, 4, "::1", "::1")) + kDone);
    std::vector<uint32_t> uids;
    EXPECT_EQ(paired.diag->getLiveTcpInfos([&](const inet_diag_msg* msg, const tcp_info_ext*,
                                               unsigned int) { uids.push_back(msg->idiag_uid); }),
              0);
    EXPECT_EQ(uids, (std::vector<uint32_t>{1, 3, 4}));
    const std::vector<Bytes> requests = paired.written(paired.dumpPeer);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0][16], AF_INET);
    EXPECT_EQ(requests[1][16], AF_INET6);
}

TEST(SockDiagTest, DestroySocketsAsksForEachSocketOfTheUidAndCountsWhatTheKernelTook) {
    inet_diag_msg remote = diagSocket(AF_INET, 10123, "10.0.0.1", "10.0.0.2");
    remote.id.idiag_if = 3;
    const inet_diag_msg local = diagSocket(AF_INET, 10123, "127.0.0.1", "127.0.0.1", 10);
    const inet_diag_msg remote6 = diagSocket(AF_INET6, 10123, "2001:db8::1", "2001:db8::2");
    PairedSockDiag paired;
    LogCapture log;
    const auto queueDumps = [&] {
        paired.queue(paired.dumpPeer,
                     socketRecord(remote) +
                         socketRecord(diagSocket(AF_INET, 10124, "10.0.0.1", "10.0.0.3")) +
                         socketRecord(local) + kDone);
        paired.queue(paired.dumpPeer, socketRecord(remote6) + kDone);
    };
    queueDumps();
    paired.queue(paired.destroyPeer, refusal(-ENOENT));  // the first one is gone already
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_UDP, 10123, false), 0);
    const std::vector<Bytes> requests = paired.written(paired.destroyPeer);
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], hex("48000000 1500 0100 00000000 00000000  02 11 00 00 02000000"
                               "9c40 01bb 0a000001 000000000000000000000000 0a000002 "
                               "000000000000000000000000 03000000 8b270000 00000000"));
    EXPECT_EQ(reinterpret_cast<const DiagRequest*>(requests[1].data())->req.idiag_states, 1u << 10);

    queueDumps();
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_TCP, 10123, true), 0);
    EXPECT_EQ(paired.written(paired.destroyPeer).size(), 2u);  // not the loopback one
    queueDumps();
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_TCP, 4242, false), 0);
    EXPECT_TRUE(paired.written(paired.destroyPeer).empty());
    // The count is per call, and a call that destroyed nothing logs nothing.
    EXPECT_EQ(log.texts(kTag),
              (Lines{"Destroyed 2 sockets for UID", "Destroyed 2 sockets for UID"}));
}

TEST(SockDiagTest, APassEndsAtTheFirstFailureWithItsLine) {
    PairedSockDiag paired;
    LogCapture log;
    paired.queue(paired.dumpPeer, refusal(-EPERM));
    EXPECT_EQ(paired.diag->getLiveTcpInfos(nullptr), -EPERM);
    paired.queue(paired.dumpPeer, refusal(-EINVAL));
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_UDP, 10123, false), -EINVAL);
    paired.queue(paired.dumpPeer, kDone);
    paired.queue(paired.dumpPeer, kSocket + refusal(-EBUSY));  // fails while it is read
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_UDP, 10123, false), -EBUSY);
    EXPECT_EQ(paired.written(paired.dumpPeer).size(), 4u);  // no family after a failed one
    EXPECT_EQ(log.texts(kTag),
              (Lines{"Failed to dump IPv4 sockets struct tcp_info: Operation not permitted",
                     "Failed to dump IPv4 sockets for UID: Invalid argument",
                     "Failed to destroy IPv6 sockets for UID: Device or resource busy"}));
}

TEST(SockDiagTest, LoopbackSocketsAreRecognisedByTheirAddresses) {
    struct Case {
        uint8_t family;
        const char* src;
        const char* dst;
        bool loopback;
    };
    const Case cases[] = {
        {AF_INET, "127.0.0.1", "10.0.0.2", true},
        {AF_INET, "10.0.0.1", "127.0.0.53", true},
        {AF_INET, "10.0.0.1", "10.0.0.1", true},  // talks to itself
        {AF_INET, "10.0.0.1", "10.0.0.2", false},
        {AF_INET, "10.0.0.127", "1.0.0.127", false},
        {AF_INET6, "::1", "2001:db8::2", true},
        {AF_INET6, "2001:db8::1", "::1", true},
        {AF_INET6, "2001:db8::1", "2001:db8::1", true},
        {AF_INET6, "2001:db8::1", "2001:db8::2", false},
        // A mapped address counts by the last byte of its IPv4 address, not the first.
        {AF_INET6, "2001:db8::1", "::ffff:10.1.1.127", true},
        {AF_INET6, "::ffff:10.0.0.127", "2001:db8::2", true},
        {AF_INET6, "2001:db8::1", "::ffff:127.0.0.1", false},
        {AF_INET6, "::ffff:127.0.0.1", "::ffff:127.0.0.1", true},
        {AF_INET6, "2001:db8::1", "::10.1.1.127", false},  // not mapped
        {AF_UNIX, "127.0.0.1", "127.0.0.1", false},
    };
    for (const Case& c : cases) {
        inet_diag_msg msg = diagSocket(c.family == AF_UNIX ? AF_INET : c.family, 0, c.src, c.dst);
        msg.idiag_family = c.family;
        EXPECT_EQ(SockDiag::isLoopbackSocket(&msg), c.loopback) << c.src << " -> " << c.dst;
    }
}

}  // namespace
}  // namespace android::net
