// The generic netlink client over a socketpair: the test keeps the kernel's end and queues
// replies there before each request (sequence numbers run 1, 2, ... from the first request).
#include "wificond/net/netlink_utils.h"

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "base/socket_owner.h"
#include "support/wire_bytes.h"
#include "vekt_host/log_capture.h"
#include "wificond/net/nl80211_attribute.h"
#include "wificond/net/nl80211_packet.h"

namespace android::wificond {

// A private object per test (the singleton is the daemon's), and its request state.
class NetlinkUtilsTestPeer {
  public:
    static std::shared_ptr<NetlinkUtils> make() {
        return std::shared_ptr<NetlinkUtils>(new NetlinkUtils(), [](NetlinkUtils* u) { delete u; });
    }
    static void setSequence(NetlinkUtils& utils, uint32_t sequence) {
        vekt::MutexLock lock(utils.requestMutex);
        utils.sequenceNumber = sequence;
    }
    static std::map<std::string, uint32_t> groups(NetlinkUtils& utils) {
        vekt::MutexLock lock(utils.requestMutex);
        return utils.messageTypes["nl80211"].groups;
    }
    static size_t pendingHandlers(NetlinkUtils& utils) {
        vekt::MutexLock lock(utils.requestMutex);
        return utils.messageHandlers.size();
    }
};

namespace {

using android::base::unique_fd;
using vekt::test::Bytes;
using vekt::test::bytesOf;
using vekt::test::hex;
using vekt::test::operator+;
using Datagrams = std::vector<Bytes>;
using Lines = std::vector<std::string>;
using vekt::host::LogCapture;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kTag = "slm-netlink";
constexpr uint16_t kFamily = 0x1c;

// A message as the kernel sends it: the netlink header, then the body.
Bytes message(uint16_t type, uint32_t sequence, const Bytes& body, uint16_t flags = 0) {
    const nlmsghdr header = {uint32_t(NLMSG_HDRLEN + body.size()), type, flags, sequence, 0};
    return bytesOf(header) + body;
}

Bytes genl(uint8_t command) { return Bytes{command, 1, 0, 0}; }

// CTRL_CMD_NEWFAMILY: family id, name, and the groups (an empty name or id 0 is left out).
Bytes newFamily(const std::string& name, const std::map<std::string, uint32_t>& groups = {}) {
    Bytes body = genl(1) + NL80211Attr<uint16_t>(1, kFamily).GetConstData() +
                 NL80211Attr<std::string>(2, name).GetConstData();
    NL80211NestedAttr list(7);
    for (const auto& [group, id] : groups) {
        NL80211NestedAttr entry(1);
        const bool named = group.empty() || entry.AddAttribute(NL80211Attr<std::string>(1, group));
        EXPECT_TRUE(named && (id == 0 || entry.AddAttribute(NL80211Attr<uint32_t>(2, id))) &&
                    list.AddAttribute(entry));
    }
    return message(0x10, 1, groups.empty() ? body : body + list.GetConstData());
}

// The body of NL80211_CMD_NEW_STATION: ifindex 3, the MAC, and station info holding rx bytes
// and the signal, the way the kernel orders them.
Bytes station(int8_t signal, uint8_t command = 19) {
    return genl(command) + hex("0800 0300 03000000  0a00 0600 a0b1c2d3e4f5 0000") +
           hex("1800 1500  0800 0200 00100000  0500 0700") + Bytes{uint8_t(signal)} +
           hex("000000  0400 0100");
}
Bytes reply(uint32_t sequence, int8_t signal, uint16_t flags = 0) {
    return message(kFamily, sequence, station(signal), flags);
}

// The kernel's side: one socketpair per socket opened; the test keeps the other end.
class FakeKernel : public vekt::SocketFactory {
  public:
    unique_fd open(int domain, int type, int protocol) override {
        asked.push_back({domain, type, protocol});
        int ends[2];
        if (refuseOpen || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
            return unique_fd();
        }
        peers.emplace_back(ends[1]);
        queue(std::exchange(forNextSocket, {}));
        return unique_fd(ends[0]);
    }
    int setOption(int, int level, int name, const void* value, socklen_t) override {
        asked.push_back({level, name, *static_cast<const int*>(value)});
        return refuseOption ? -1 : 0;
    }
    int bindAddress(int, const sockaddr* address, socklen_t length) override {
        const auto* bytes = reinterpret_cast<const uint8_t*>(address);
        bound.assign(bytes, bytes + length);
        return refuseBind ? -1 : 0;
    }
    void queue(const Datagrams& datagrams) {
        for (const Bytes& d : datagrams) send(peers.back(), d.data(), d.size(), MSG_NOSIGNAL);
    }
    // The next request the client sent on its current socket; empty when there is none.
    Bytes request() {
        uint8_t buffer[8192];
        const ssize_t n = recv(peers.back(), buffer, sizeof(buffer), MSG_DONTWAIT);
        return Bytes(buffer, buffer + std::max<ssize_t>(n, 0));
    }

    Datagrams forNextSocket;
    bool refuseOpen = false, refuseOption = false, refuseBind = false;
    std::vector<std::vector<int>> asked;  // open, then setsockopt arguments
    Bytes bound;
    std::vector<unique_fd> peers;
};

class NetlinkUtilsTest : public testing::Test {
  protected:
    void start() {  // nl80211 resolved by request 1
        kernel.forNextSocket = {newFamily("nl80211")};
        ASSERT_TRUE(utils->Start());
        kernel.request();
    }
    // A station query for lo, with the replies queued before it.
    int query(const Datagrams& replies) {
        kernel.queue(replies);
        return utils->GetStationInfo("a0b1c2d3e4f5", "lo");
    }

    FakeKernel kernel;
    vekt::ScopedSeamOverride<vekt::SocketFactory> scope{vekt::socketFactorySeam(), kernel};
    std::shared_ptr<NetlinkUtils> utils = NetlinkUtilsTestPeer::make();
    LogCapture log;
};

TEST_F(NetlinkUtilsTest, SetupAsksForAForcedBufferAndAKernelPortAndStartLogsEachRefusal) {
    unique_fd fd;
    ASSERT_TRUE(utils->SetupSocket(&fd));
    EXPECT_EQ(kernel.asked, (std::vector<std::vector<int>>{
                                {AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC},
                                {SOL_SOCKET, SO_RCVBUFFORCE, 8192}}));
    EXPECT_EQ(kernel.bound, hex("1000 0000 00000000 00000000"));  // family, pad, port 0, groups

    for (bool* refuse : {&kernel.refuseBind, &kernel.refuseOption, &kernel.refuseOpen}) {
        *refuse = true;
        EXPECT_FALSE(utils->Start());
    }
    const std::string setup = "Failed to setup synchronous netlink socket";
    EXPECT_EQ(log.texts(kTag), (Lines{"Failed to bind netlink socket", setup,
                                      "Failed to set uevent socket SO_RCVBUFFORCE option", setup,
                                      "Failed to create netlink socket", setup}));
}

TEST_F(NetlinkUtilsTest, DiscoveryResolvesNl80211WithAndWithoutMulticastGroups) {
    EXPECT_EQ(utils->GetFamilyId(), 0);  // before Start()
    kernel.forNextSocket = {newFamily("nl80211", {{"scan", 5}, {"mlme", 7}})};
    ASSERT_TRUE(utils->Start());
    EXPECT_EQ(utils->GetFamilyId(), kFamily);
    EXPECT_EQ(NetlinkUtilsTestPeer::groups(*utils),
              (std::map<std::string, uint32_t>{{"scan", 5}, {"mlme", 7}}));
    // CTRL_CMD_GETFAMILY for "nl80211": type 16, request, sequence 1, our pid, version 1.
    EXPECT_EQ(kernel.request(), hex("20000000 1000 0100 01000000") + bytesOf(getpid()) +
                                    hex("03 01 0000  0c00 0200 6e6c3830323131 00"));

    // Again: a fresh socket (the old one closed) and the entry replaced, now without groups.
    NetlinkUtilsTestPeer::setSequence(*utils, 0);
    kernel.forNextSocket = {newFamily("nl80211")};
    ASSERT_TRUE(utils->Start());
    char byte;
    EXPECT_EQ(recv(kernel.peers.at(0), &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_TRUE(NetlinkUtilsTestPeer::groups(*utils).empty());
    EXPECT_TRUE(log.texts(kTag).empty());
}

TEST_F(NetlinkUtilsTest, DiscoveryRefusesRepliesThatDoNotDescribeNl80211) {
    const std::pair<Bytes, std::string> cases[] = {
        {message(NLMSG_ERROR, 1, hex("feffffff") + Bytes(16, 0)),
         "Wrong message type for new family message"},
        {message(0x10, 1, genl(1) + NL80211Attr<uint32_t>(1, kFamily).GetConstData()),
         "Failed to get family id"},
        {newFamily("nlctrl"), "Ignoring none nl80211 netlink families"},
        {newFamily("nl80211", {{"", 5}}), "Failed to get group name"},
        {newFamily("nl80211", {{"scan", 0}}), "Failed to get group id"},
    };
    for (const auto& [familyReply, why] : cases) {
        auto fresh = NetlinkUtilsTestPeer::make();
        kernel.forNextSocket = {familyReply};
        log.clear();
        EXPECT_FALSE(fresh->Start());
        EXPECT_EQ(log.texts(kTag), (Lines{why, "Failed to get NL80211 family id"}));
        EXPECT_EQ(fresh->GetFamilyId(), 0);
    }
}

TEST_F(NetlinkUtilsTest, StationQueryGivesTheSignedSignalOrZeroWithTheReason) {
    start();
    EXPECT_EQ(query({reply(2, -58)}), -58);
    // GET_STATION to the family: ifindex of lo, then the MAC from the 12 hex digits.
    const Bytes lo = bytesOf(static_cast<uint32_t>(if_nametoindex("lo")));
    EXPECT_EQ(kernel.request(), hex("28000000 1c00 0100 02000000") + bytesOf(getpid()) +
                                    hex("11 01 0000 0800 0300") + lo +
                                    hex("0a00 0600 a0b1c2d3e4f5 0000"));
    EXPECT_TRUE(log.texts(kTag).empty());

    // Replies without a signal; DONE or an overrun alone end the wait at once.
    const std::string failed = "NL80211_CMD_GET_STATION failed";
    const std::tuple<uint16_t, Bytes, Lines> cases[] = {
        {kFamily, station(-58, 17), {"Wrong command in response to a get station request: 17"}},
        {kFamily, genl(19), {"Failed to get NL80211_ATTR_STA_INFO"}},
        {kFamily,
         genl(19) + hex("0c00 1500 0800 0200 00100000"),
         {"Failed to get NL80211_STA_INFO_SIGNAL"}},
        {NLMSG_DONE, Bytes(4, 0), {failed}},
        {NLMSG_OVERRUN, Bytes(4, 0), {"Get message overrun notification", failed}},
    };
    uint32_t sequence = 3;
    for (const auto& [type, body, why] : cases) {
        log.clear();
        const auto begin = Clock::now();
        EXPECT_EQ(query({message(type, sequence++, body)}), 0);
        EXPECT_LT(Clock::now() - begin, milliseconds(500));
        EXPECT_EQ(log.texts(kTag), why);
    }
}

TEST_F(NetlinkUtilsTest, DatagramsStopAtAnUnknownSequenceSkipMulticastAndLastUntilDone) {
    start();
    // The first datagram: a message for nobody, then a reply (-40) that must not be read. The
    // second datagram holds the reply that counts.
    EXPECT_EQ(query({reply(102, -40) + reply(2, -40), reply(2, -58)}), -58);
    EXPECT_EQ(log.texts(kTag), Lines{"No handler for message: 102"});
    EXPECT_EQ(log.records().at(0).priority, 5);  // warning

    // A cut header, or a length of 0 (which could loop), ends the walk of its datagram.
    log.clear();
    EXPECT_EQ(query({Bytes(10, 0), hex("00000000 0300 0000 00000000 00000000"), reply(3, -62)}),
              -62);
    EXPECT_EQ(log.texts(kTag), (Lines{"payload is broken.", "Cannot retrieve netlink header.",
                                      "Receive invalid packet"}));
    log.clear();
    // A multicast event (sequence 0, of an unaligned length) ahead of the reply is skipped.
    EXPECT_EQ(query({message(NLMSG_NOOP, 0, Bytes(1, 0)) + reply(4, -61)}), -61);
    // A multipart reply is read up to its DONE: the first part's signal, nothing left over.
    const Bytes done = message(NLMSG_DONE, 5, Bytes(4, 0), NLM_F_MULTI);
    EXPECT_EQ(query({reply(5, -59, NLM_F_MULTI), reply(5, -40, NLM_F_MULTI) + done}), -59);
    // Sequence numbers skip 0, the multicast one, when they wrap.
    NetlinkUtilsTestPeer::setSequence(*utils, 0xFFFFFFFE);
    EXPECT_EQ(query({reply(0xFFFFFFFF, -50), reply(1, -51)}), -50);
    EXPECT_EQ(query({}), -51);
    EXPECT_TRUE(log.texts(kTag).empty());
}

TEST_F(NetlinkUtilsTest, SilenceTimesOutAfterASecond) {
    start();
    const auto begin = Clock::now();
    EXPECT_EQ(query({}), 0);
    EXPECT_GE(Clock::now() - begin, milliseconds(990));
    EXPECT_LT(Clock::now() - begin, milliseconds(1500));
    EXPECT_EQ(log.texts(kTag),
              (Lines{"Failed to poll netlink fd: time out ", "NL80211_CMD_GET_STATION failed"}));
    EXPECT_EQ(NetlinkUtilsTestPeer::pendingHandlers(*utils), 0u);
}

}  // namespace
}  // namespace android::wificond
