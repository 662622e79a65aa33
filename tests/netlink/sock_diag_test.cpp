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
using vekt::host::LogCapture;
using vekt::test::Bytes;
using vekt::test::bytesOf;
using vekt::test::hex;
using vekt::test::operator+;
using Lines = std::vector<std::string>;
using Seen = std::vector<std::pair<uint32_t, int>>;

constexpr const char* kTag = "SLM-Vekt-SockDiag";

// A netlink message, or an attribute; lengthField, when given, is what its header claims.
Bytes message(uint16_t type, const Bytes& payload, int64_t lengthField = -1) {
    const nlmsghdr nlh = {
        static_cast<uint32_t>(lengthField >= 0 ? lengthField : 16 + payload.size()), type,
        NLM_F_MULTI, 0, 0};
    Bytes bytes = bytesOf(nlh) + payload;
    bytes.resize((bytes.size() + 3) & ~size_t{3});
    return bytes;
}
Bytes attribute(uint8_t type, const Bytes& payload, int lengthField = -1) {
    const size_t length = lengthField >= 0 ? lengthField : 4 + payload.size();
    Bytes bytes = Bytes{uint8_t(length), uint8_t(length >> 8), type, 0} + payload;
    bytes.resize((bytes.size() + 3) & ~size_t{3});
    return bytes;
}

inet_diag_msg diagSocket(uint8_t family, uint32_t uid, const char* src = "10.0.0.1",
                         const char* dst = "10.0.0.3", uint8_t state = 1 /* established */) {
    inet_diag_msg msg = {family, state, 0, 0,   {htons(40000), htons(443), {}, {}, 0, {uid, 0}},
                         0,      0,     0, uid, 0};
    inet_pton(family, src, msg.id.idiag_src);
    inet_pton(family, dst, msg.id.idiag_dst);
    return msg;
}
Bytes record(const inet_diag_msg& msg, const Bytes& attributes = {}, int64_t lengthField = -1) {
    return message(SOCK_DIAG_BY_FAMILY, bytesOf(msg) + attributes, lengthField);
}

const Bytes kDone = message(NLMSG_DONE, Bytes(4, 0));
const Bytes kSocket = record(diagSocket(AF_INET, 1, "10.0.0.1", "10.0.0.2"));
const Bytes kCut = record(diagSocket(AF_INET, 2), {}, 4000);  // claims more than any read

// The kernel's refusal: the error, then a copy of the refused request.
Bytes refusal(int32_t error) {
    nlmsgerr err = {error, {static_cast<uint32_t>(kDiagRequestSize), SOCK_DIAG_BY_FAMILY, 0, 0, 0}};
    return message(NLMSG_ERROR, bytesOf(err) + Bytes(sizeof(inet_diag_req_v2), 0));
}

// A TCP-info pass over one receive: (uid, tcp_info length) per socket; a null tcp_info
// counts as -1 - length, so -1 is "null pointer and length 0".
Seen tcpInfoPass(Bytes reply, DumpWalk* walk = nullptr) {
    Seen seen;
    const TcpInfoReader reader = [&](const inet_diag_msg* msg, const tcp_info_ext* info,
                                     unsigned int length) {
        seen.emplace_back(msg->idiag_uid, info ? int(length) : -1 - int(length));
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
    // Claiming more than is left, less than a header, or a header cut short: the walk ends
    // unfinished, for the next read to carry on; only NLMSG_DONE finishes it.
    const std::pair<Bytes, bool> cases[] = {{kSocket + kCut + kDone, false},
                                            {kSocket + message(20, {}, 15) + kDone, false},
                                            {kSocket + message(20, {}, 0) + kDone, false},
                                            {kSocket + Bytes{88, 0, 0, 0, 20, 0}, false},
                                            {kSocket + kDone + kSocket, true}};
    for (const auto& [reply, finished] : cases) {
        DumpWalk walk;
        EXPECT_EQ(tcpInfoPass(reply, &walk), (Seen{{1, -1}}));
        EXPECT_EQ(walk.finished, finished);
    }
}

TEST(SockDiagDumpTest, AForeignMessageInATcpInfoDumpIsLoggedAndSkipped) {
    LogCapture log;
    const Bytes link = message(16 /* RTM_NEWLINK */, bytesOf(diagSocket(AF_INET, 7)));
    EXPECT_EQ(tcpInfoPass(link + kSocket + kDone), (Seen{{1, -1}}));
    EXPECT_EQ(log.texts(kTag), Lines{"expected nlmsg_type=SOCK_DIAG_BY_FAMILY, got nlmsg_type=16"});
}

TEST(SockDiagDumpTest, TcpInfoIsTheLastInfoAttributeWithinTheMessageOrNullWithLengthZero) {
    const inet_diag_msg msg = diagSocket(AF_INET6, 3, "2001:db8::1", "2001:db8::2");
    const Bytes info = attribute(INET_DIAG_INFO, Bytes(8, 0));
    const Bytes reply =
        record(msg) + record(msg, attribute(INET_DIAG_MEMINFO, Bytes(16, 0))) +  // none, others
        record(msg, attribute(INET_DIAG_INFO, Bytes(232, 0)) +  // the last one wins
                        attribute(INET_DIAG_INFO, Bytes(6, 0)) +
                        attribute(INET_DIAG_CONG, Bytes(4, 0))) +
        // An attribute that runs past its message, or is shorter than its own header, is
        // not reported and ends the walk of the attributes.
        record(msg, attribute(INET_DIAG_INFO, {}, 200) + info) +
        record(msg, attribute(INET_DIAG_INFO, {}, 2) + info) +
        message(SOCK_DIAG_BY_FAMILY, Bytes(40, 0)) + kDone;  // too short for a socket: skipped
    EXPECT_EQ(tcpInfoPass(reply), (Seen{{3, -1}, {3, -1}, {3, 6}, {3, -1}, {3, -1}}));
}

// Plays the kernel for open(): hands out one end of a socketpair wherever a netlink socket
// is asked for and keeps the other end; fails from socket number failFrom + 1 on.
struct PairFactory : vekt::SocketFactory {
    unique_fd open(int domain, int type, int protocol) override {
        asked.push_back({domain, type, protocol});
        int ends[2];
        if ((failFrom >= 0 && int(asked.size()) > failFrom) ||
            socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
            errno = EMFILE;
            return unique_fd();
        }
        peers.emplace_back(ends[1]);
        return unique_fd(ends[0]);
    }
    bool allHungUp() const {
        char byte;
        for (const unique_fd& peer : peers) {
            if (recv(peer, &byte, 1, MSG_DONTWAIT) != 0) return false;
        }
        return true;
    }
    std::vector<std::vector<int>> asked;
    std::vector<unique_fd> peers;
    int failFrom = -1;
};

// A SockDiag on two socketpairs; the test is the kernel at peer[0] (dumps) and peer[1]
// (destroy requests).
struct PairedSockDiag {
    PairedSockDiag() {
        int ends[2][2];
        for (auto& pair : ends)
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
        peer[0].reset(ends[0][1]);
        peer[1].reset(ends[1][1]);
        diag = std::make_unique<SockDiag>(unique_fd(ends[0][0]), unique_fd(ends[1][0]));
    }
    void queue(const Bytes& datagram, int i = 0) {
        ASSERT_EQ(send(peer[i], datagram.data(), datagram.size(), 0), ssize_t(datagram.size()));
    }
    // What was written to a peer so far, one entry per write.
    std::vector<Bytes> written(int i = 0) {
        std::vector<Bytes> writes;
        uint8_t buffer[256];
        for (ssize_t n; (n = recv(peer[i], buffer, sizeof(buffer), MSG_DONTWAIT)) > 0;) {
            writes.emplace_back(buffer, buffer + n);
        }
        return writes;
    }
    unique_fd peer[2];
    std::unique_ptr<SockDiag> diag;
};

TEST(SockDiagTest, OpenTakesTwoNetlinkSocketsClosesBothWhenOneFailsAndRefusesASecondOpen) {
    PairFactory factory;
    vekt::ScopedSeamOverride<vekt::SocketFactory> scope(vekt::socketFactorySeam(), factory);
    SockDiag diag;
    // A socketpair end refuses the kernel's netlink address: connecting fails.
    EXPECT_FALSE(diag.open());
    const std::vector<int> netlink = {AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG};
    EXPECT_EQ(factory.asked, (std::vector<std::vector<int>>{netlink, netlink}));
    EXPECT_TRUE(factory.peers.size() == 2u && factory.allHungUp());
    // The second socket cannot be made: the first is closed, its error kept for the log.
    factory.peers.clear();
    factory.failFrom = 3;
    EXPECT_FALSE(diag.open());
    EXPECT_EQ(errno, EMFILE);
    EXPECT_TRUE(factory.peers.size() == 1u && factory.allHungUp());
    LogCapture log;
    EXPECT_EQ(killSocketsForUID("10123"), -1);
    EXPECT_EQ(log.texts(kTag),
              Lines{" SLA_GAMING Error opening NETLINK_SOCK_DIAG socket: Too many open files"});

    factory.asked.clear();
    EXPECT_FALSE(PairedSockDiag().diag->open());  // already open: refused, nothing asked for
    EXPECT_TRUE(factory.asked.empty());
}

TEST(SockDiagTest, DumpRequestsAreWrittenWholeARefusalIsTheirResultAndReadsGoOnPastACut) {
    PairedSockDiag paired;
    iovec iov[1] = {};
    EXPECT_EQ(paired.diag->sendDumpRequest(IPPROTO_TCP, AF_INET6, 2, 14, iov, 1), 0);
    EXPECT_EQ(iov[0].iov_base, nullptr);  // no pointer to the request's stack frame is left
    EXPECT_EQ(paired.written(),
              std::vector<Bytes>{hex("48000000 1400 0103 00000000 00000000  0a 06 02 00 0e000000") +
                                 Bytes(48, 0)});
    // A refusal is consumed: the next request, with nothing queued, succeeds.
    paired.queue(refusal(-EPERM));
    EXPECT_EQ(paired.diag->sendDumpRequest(IPPROTO_TCP, AF_INET, 2, 14, iov, 1), -EPERM);
    EXPECT_EQ(paired.diag->sendDumpRequest(IPPROTO_TCP, AF_INET, 2, 14, iov, 1), 0);
    // A dump reply already queued is left for the reader.
    paired.queue(kSocket + kDone);
    EXPECT_EQ(paired.diag->sendDumpRequest(IPPROTO_TCP, AF_INET, 2, 14, iov, 1), 0);
    Seen seen;
    const TcpInfoReader collect = [&](const inet_diag_msg* msg, const tcp_info_ext*,
                                      unsigned int length) {
        seen.emplace_back(msg->idiag_uid, length);
    };
    EXPECT_EQ(paired.diag->readDiagMsgWithTcpInfo(collect), 0);
    EXPECT_EQ(seen, (Seen{{1, 0}}));

    // Live TCP infos: IPv4, then IPv6; a message cut short ends a read, not the dump.
    paired.written();
    paired.queue(kSocket + kCut);
    paired.queue(record(diagSocket(AF_INET, 3)) + kDone);
    paired.queue(record(diagSocket(AF_INET6, 4, "::1", "::1")) + kDone);
    seen.clear();
    EXPECT_EQ(paired.diag->getLiveTcpInfos(collect), 0);
    EXPECT_EQ(seen, (Seen{{1, 0}, {3, 0}, {4, 0}}));
    const std::vector<Bytes> requests = paired.written();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0][16], AF_INET);
    EXPECT_EQ(requests[1][16], AF_INET6);
}

TEST(SockDiagTest, DestroySocketsAsksForEachSocketOfTheUidCountsPerCallAndStopsAtAFailure) {
    inet_diag_msg remote = diagSocket(AF_INET, 10123, "10.0.0.1", "10.0.0.2");
    remote.id.idiag_if = 3;
    const inet_diag_msg local = diagSocket(AF_INET, 10123, "127.0.0.1", "127.0.0.1", 10);
    PairedSockDiag paired;
    LogCapture log;
    const auto queueDumps = [&] {
        paired.queue(record(remote) + record(diagSocket(AF_INET, 10124)) + record(local) + kDone);
        paired.queue(record(diagSocket(AF_INET6, 10123, "2001:db8::1", "2001:db8::2")) + kDone);
    };
    queueDumps();
    paired.queue(refusal(-ENOENT), 1);  // the first one is gone already
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_UDP, 10123, false), 0);
    const std::vector<Bytes> requests = paired.written(1);
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], hex("48000000 1500 0100 00000000 00000000  02 11 00 00 02000000"
                               "9c40 01bb 0a000001 000000000000000000000000 0a000002 "
                               "000000000000000000000000 03000000 8b270000 00000000"));
    EXPECT_EQ(reinterpret_cast<const DiagRequest*>(requests[1].data())->req.idiag_states, 1u << 10);

    queueDumps();
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_TCP, 10123, true), 0);
    EXPECT_EQ(paired.written(1).size(), 2u);  // not the loopback one
    queueDumps();
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_TCP, 4242, false), 0);
    EXPECT_TRUE(paired.written(1).empty());
    // The count is per call, and a call that destroyed nothing logs nothing. A pass ends at
    // its first failure, with its line.
    EXPECT_EQ(log.texts(kTag), Lines(2, "Destroyed 2 sockets for UID"));
    log.clear();
    paired.written();
    paired.queue(refusal(-EPERM));
    EXPECT_EQ(paired.diag->getLiveTcpInfos(nullptr), -EPERM);
    paired.queue(refusal(-EINVAL));
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_UDP, 10123, false), -EINVAL);
    paired.queue(kDone);
    paired.queue(kSocket + refusal(-EBUSY));  // fails while it is read
    EXPECT_EQ(paired.diag->destroySockets(IPPROTO_UDP, 10123, false), -EBUSY);
    EXPECT_EQ(paired.written().size(), 4u);  // no family after a failed one
    EXPECT_EQ(log.texts(kTag),
              (Lines{"Failed to dump IPv4 sockets struct tcp_info: Operation not permitted",
                     "Failed to dump IPv4 sockets for UID: Invalid argument",
                     "Failed to destroy IPv6 sockets for UID: Device or resource busy"}));
}

TEST(SockDiagTest, LoopbackSocketsAreRecognisedByTheirAddresses) {
    // Talking to itself counts; a mapped address counts by the last byte of its IPv4
    // address, not the first, and an unmapped one not at all.
    struct Case {
        uint8_t family;
        const char *src, *dst;
        bool loopback;
    } const cases[] = {{AF_INET, "127.0.0.1", "10.0.0.2", true},
                       {AF_INET, "10.0.0.1", "127.0.0.53", true},
                       {AF_INET, "10.0.0.1", "10.0.0.1", true},
                       {AF_INET, "10.0.0.1", "10.0.0.2", false},
                       {AF_INET, "10.0.0.127", "1.0.0.127", false},
                       {AF_INET6, "::1", "2001:db8::2", true},
                       {AF_INET6, "2001:db8::1", "::1", true},
                       {AF_INET6, "2001:db8::1", "2001:db8::1", true},
                       {AF_INET6, "2001:db8::1", "2001:db8::2", false},
                       {AF_INET6, "2001:db8::1", "::ffff:10.1.1.127", true},
                       {AF_INET6, "::ffff:10.0.0.127", "2001:db8::2", true},
                       {AF_INET6, "2001:db8::1", "::ffff:127.0.0.1", false},
                       {AF_INET6, "::ffff:127.0.0.1", "::ffff:127.0.0.1", true},
                       {AF_INET6, "2001:db8::1", "::10.1.1.127", false},
                       {AF_UNIX, "127.0.0.1", "127.0.0.1", false}};
    for (const Case& c : cases) {
        inet_diag_msg msg = diagSocket(c.family == AF_UNIX ? AF_INET : c.family, 0, c.src, c.dst);
        msg.idiag_family = c.family;
        EXPECT_EQ(SockDiag::isLoopbackSocket(&msg), c.loopback) << c.src << " -> " << c.dst;
    }
}

}  // namespace
}  // namespace android::net
