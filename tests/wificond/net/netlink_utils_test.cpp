// The generic netlink client over a socketpair: the socket factory hands the client one end,
// and a thread of the test plays the kernel on the other, answering each request with the
// datagrams the test scripts (or with silence).
#include "wificond/net/netlink_utils.h"

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/socket_owner.h"
#include "vekt_host/log_capture.h"
#include "wificond/net/nl80211_attribute.h"
#include "wificond/net/nl80211_packet.h"

namespace android::wificond {

// A private object per test (the singleton is the daemon's), and its request state.
class NetlinkUtilsTestPeer {
  public:
    struct Deleter {
        void operator()(NetlinkUtils* utils) const { NetlinkUtilsTestPeer::destroy(utils); }
    };
    using Owned = std::unique_ptr<NetlinkUtils, Deleter>;

    static Owned make() { return Owned(new NetlinkUtils()); }
    static void destroy(NetlinkUtils* utils) { delete utils; }
    static vekt::Mutex& mutex(NetlinkUtils& utils) { return utils.requestMutex; }
    static void setSequence(NetlinkUtils& utils, uint32_t sequence) {
        vekt::MutexLock lock(utils.requestMutex);
        utils.sequenceNumber = sequence;
    }
    static std::map<std::string, MessageType> families(NetlinkUtils& utils) {
        vekt::MutexLock lock(utils.requestMutex);
        return utils.messageTypes;
    }
    static size_t pendingHandlers(NetlinkUtils& utils) {
        vekt::MutexLock lock(utils.requestMutex);
        return utils.messageHandlers.size();
    }
};

namespace {

using android::base::unique_fd;
using Bytes = std::vector<uint8_t>;
using Datagrams = std::vector<Bytes>;
using Lines = std::vector<std::string>;
using vekt::host::LogCapture;

constexpr const char* kTag = "slm-netlink";
constexpr uint16_t kFamily = 0x1c;
constexpr uint8_t kGetStation = 17;
constexpr uint8_t kNewStation = 19;

Bytes hex(const std::string& text) {
    Bytes bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ') continue;
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i++, 2), nullptr, 16)));
    }
    return bytes;
}

Bytes operator+(Bytes head, const Bytes& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

template <typename T>
Bytes bytesOf(const T& value) {
    const auto* p = reinterpret_cast<const uint8_t*>(&value);
    return Bytes(p, p + sizeof(value));
}

// A message as the kernel sends it: netlink header, then body (the generic header and
// attributes of a family message, the errno and request of an error, an int for DONE).
Bytes message(uint16_t type, uint16_t flags, uint32_t sequence, const Bytes& body) {
    nlmsghdr header = {};
    header.nlmsg_len = static_cast<uint32_t>(sizeof(header) + body.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = flags;
    header.nlmsg_seq = sequence;
    header.nlmsg_pid = 0;
    return bytesOf(header) + body;
}

Bytes genl(uint8_t command) { return Bytes{command, 1, 0, 0}; }

Bytes done(uint32_t sequence) { return message(NLMSG_DONE, NLM_F_MULTI, sequence, Bytes(4, 0)); }

Bytes newFamily(uint32_t sequence, const std::string& name, const Bytes& groups = {}) {
    return message(0x10, 0, sequence,
                   genl(1) + NL80211Attr<uint16_t>(1, kFamily).GetConstData() +
                       NL80211Attr<std::string>(2, name).GetConstData() + groups);
}

// CTRL_ATTR_MCAST_GROUPS with one entry per (name, id).
Bytes groups(const std::vector<std::pair<std::string, uint32_t>>& entries) {
    NL80211NestedAttr list(7);
    int index = 1;
    for (const auto& [name, id] : entries) {
        NL80211NestedAttr entry(index++);
        EXPECT_TRUE(entry.AddAttribute(NL80211Attr<std::string>(1, name)));
        EXPECT_TRUE(entry.AddAttribute(NL80211Attr<uint32_t>(2, id)));
        EXPECT_TRUE(list.AddAttribute(entry));
    }
    return list.GetConstData();
}

// NL80211_CMD_NEW_STATION: ifindex 3, the MAC, and station info holding rx bytes and the
// signal, the way the kernel orders them.
Bytes station(uint32_t sequence, int8_t signal, uint16_t flags = 0, uint8_t command = kNewStation) {
    return message(kFamily, flags, sequence,
                   genl(command) + hex("0800 0300 03000000  0a00 0600 a0b1c2d3e4f5 0000") +
                       hex("1800 1500  0800 0200 00100000  0500 0700") + Bytes{uint8_t(signal)} +
                       hex("000000  0400 0100"));
}

uint32_t sequenceOf(const Bytes& request) { return NL80211Packet(request).GetMessageSequence(); }

// The kernel's side: hands the client one end of a socketpair per socket it asks for, and
// answers every request on the other end with what respond returns for it.
class FakeKernel : public vekt::SocketFactory {
  public:
    using Responder = std::function<Datagrams(const Bytes& request)>;

    ~FakeKernel() override {
        std::vector<std::thread> threads;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (const unique_fd& peer : peers_) shutdown(peer.get(), SHUT_RDWR);
            threads.swap(threads_);
        }
        for (std::thread& thread : threads) thread.join();
    }

    unique_fd open(int domain, int type, int protocol) override {
        std::lock_guard<std::mutex> lock(mutex_);
        asked_.push_back({domain, type, protocol});
        if (refuseOpen) {
            errno = EPROTONOSUPPORT;
            return unique_fd();
        }
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return unique_fd();
        peers_.emplace_back(ends[1]);
        threads_.emplace_back([this, peer = ends[1]] { serve(peer); });
        return unique_fd(ends[0]);
    }
    int setOption(int, int level, int name, const void* value, socklen_t length) override {
        options.push_back(
            {level, name, length == sizeof(int) ? *static_cast<const int*>(value) : -1});
        return refuseOption ? (errno = EPERM, -1) : 0;
    }
    int bindAddress(int, const sockaddr* address, socklen_t length) override {
        bound.push_back(Bytes(reinterpret_cast<const uint8_t*>(address),
                              reinterpret_cast<const uint8_t*>(address) + length));
        return refuseBind ? (errno = EADDRINUSE, -1) : 0;
    }

    void respond(Responder responder) {
        std::lock_guard<std::mutex> lock(mutex_);
        responder_ = std::move(responder);
    }
    Datagrams requests() {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }
    std::vector<std::vector<int>> asked() {
        std::lock_guard<std::mutex> lock(mutex_);
        return asked_;
    }
    // Whether the client has closed the socket of the nth open.
    bool closedByClient(size_t n) {
        std::lock_guard<std::mutex> lock(mutex_);
        return n < closed_.size() && closed_[n];
    }

    // Set before the client runs; read on the client's thread only.
    bool refuseOpen = false;
    bool refuseOption = false;
    bool refuseBind = false;
    std::vector<std::vector<int>> options;
    Datagrams bound;

  private:
    void serve(int peer) {
        uint8_t buffer[8192];
        for (ssize_t n; (n = recv(peer, buffer, sizeof(buffer), 0)) > 0;) {
            const Bytes request(buffer, buffer + n);
            Responder responder;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.push_back(request);
                responder = responder_;
            }
            if (!responder) continue;
            for (const Bytes& datagram : responder(request)) {
                send(peer, datagram.data(), datagram.size(), MSG_NOSIGNAL);
            }
        }
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < peers_.size(); ++i) {
            if (peers_[i].get() == peer) {
                closed_.resize(peers_.size());
                closed_[i] = true;
            }
        }
    }

    std::mutex mutex_;
    Responder responder_;
    Datagrams requests_;
    std::vector<std::vector<int>> asked_;
    std::vector<unique_fd> peers_;
    std::vector<bool> closed_;
    std::vector<std::thread> threads_;
};

class NetlinkUtilsTest : public testing::Test {
  protected:
    // The kernel resolves nl80211 (with the given groups) and answers station queries with
    // the given signal.
    void kernelKnows(const Bytes& familyGroups = {}, int8_t signal = -58) {
        kernel.respond([familyGroups, signal](const Bytes& request) -> Datagrams {
            const NL80211Packet packet(request);
            if (packet.GetMessageType() == 0x10) {
                return {newFamily(packet.GetMessageSequence(), "nl80211", familyGroups)};
            }
            return {station(packet.GetMessageSequence(), signal)};
        });
    }
    // Started with the family resolved; the station queries then follow respond.
    void startThen(FakeKernel::Responder stationReplies) {
        kernelKnows();
        ASSERT_TRUE(utils->Start());
        kernel.respond([stationReplies](const Bytes& request) { return stationReplies(request); });
    }

    FakeKernel kernel;
    vekt::ScopedSeamOverride<vekt::SocketFactory> scope{vekt::socketFactorySeam(), kernel};
    NetlinkUtilsTestPeer::Owned utils = NetlinkUtilsTestPeer::make();
};

TEST_F(NetlinkUtilsTest, SetupAsksForAForcedBufferAndAKernelAssignedPortAndLogsEachRefusal) {
    unique_fd fd;
    ASSERT_TRUE(utils->SetupSocket(&fd));
    EXPECT_TRUE(fd.ok());
    EXPECT_EQ(
        kernel.asked(),
        (std::vector<std::vector<int>>{{AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC}}));
    EXPECT_EQ(kernel.options, (std::vector<std::vector<int>>{{SOL_SOCKET, SO_RCVBUFFORCE, 8192}}));
    // sockaddr_nl: family 16, pad, port id 0, groups 0.
    EXPECT_EQ(kernel.bound, Datagrams{hex("1000 0000 00000000 00000000")});

    LogCapture log;
    kernel.refuseBind = true;
    EXPECT_FALSE(utils->Start());
    kernel.refuseOption = true;
    EXPECT_FALSE(utils->Start());
    kernel.refuseOpen = true;
    EXPECT_FALSE(utils->Start());
    EXPECT_EQ(
        log.texts(kTag),
        (Lines{"Failed to bind netlink socket", "Failed to setup synchronous netlink socket",
               "Failed to set uevent socket SO_RCVBUFFORCE option",
               "Failed to setup synchronous netlink socket", "Failed to create netlink socket",
               "Failed to setup synchronous netlink socket"}));
    EXPECT_TRUE(kernel.requests().empty());
}

TEST_F(NetlinkUtilsTest, WithoutAKernelSocketQueriesFailAtOnceAndTheFamilyStaysUnknown) {
    kernel.refuseOpen = true;
    // Asking first creates the empty entry and gives 0.
    EXPECT_EQ(utils->GetFamilyId(), 0);
    EXPECT_EQ(NetlinkUtilsTestPeer::families(*utils).count("nl80211"), 1u);
    EXPECT_FALSE(utils->Start());

    LogCapture log;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    EXPECT_EQ(log.texts(kTag), (Lines{"Failed to send netlink message: Bad file descriptor",
                                      "NL80211_CMD_GET_STATION failed"}));
    EXPECT_EQ(utils->GetFamilyId(), 0);
}

TEST_F(NetlinkUtilsTest, DiscoveryResolvesNl80211WithAndWithoutMulticastGroups) {
    kernelKnows(groups({{"scan", 5}, {"mlme", 7}}));
    ASSERT_TRUE(utils->Start());
    EXPECT_EQ(utils->GetFamilyId(), kFamily);
    EXPECT_EQ(NetlinkUtilsTestPeer::families(*utils)["nl80211"].groups,
              (std::map<std::string, uint32_t>{{"scan", 5}, {"mlme", 7}}));
    // CTRL_CMD_GETFAMILY for "nl80211": type 16, request, sequence 1, our pid, version 1.
    const Bytes pid = bytesOf(static_cast<uint32_t>(getpid()));
    EXPECT_EQ(kernel.requests(), Datagrams{hex("20000000 1000 0100 01000000") + pid +
                                           hex("03 01 0000  0c00 0200 6e6c3830323131 00")});

    // Again: a fresh socket (the old one closed) and the entry replaced, now without groups.
    kernelKnows();
    ASSERT_TRUE(utils->Start());
    EXPECT_EQ(kernel.asked().size(), 2u);
    for (int i = 0; i < 100 && !kernel.closedByClient(0); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(kernel.closedByClient(0));
    EXPECT_EQ(sequenceOf(kernel.requests().at(1)), 2u);
    EXPECT_TRUE(NetlinkUtilsTestPeer::families(*utils)["nl80211"].groups.empty());
    EXPECT_EQ(NetlinkUtilsTestPeer::pendingHandlers(*utils), 0u);
}

TEST_F(NetlinkUtilsTest, DiscoveryRefusesRepliesThatDoNotDescribeNl80211) {
    struct Case {
        std::function<Bytes(uint32_t)> reply;
        Lines log;
    };
    const Bytes errorBody = hex("feffffff") + Bytes(16, 0);
    const Case cases[] = {
        {[&](uint32_t seq) { return message(NLMSG_ERROR, 0, seq, errorBody); },
         {"Wrong message type for new family message"}},
        {[](uint32_t seq) { return message(0x10, 0, seq, genl(2)); },
         {"Wrong command for new family message"}},
        {[](uint32_t seq) {
             return message(0x10, 0, seq,
                            genl(1) + NL80211Attr<uint32_t>(1, kFamily).GetConstData());
         },
         {"Failed to get family id"}},
        {[](uint32_t seq) {
             return message(0x10, 0, seq,
                            genl(1) + NL80211Attr<uint16_t>(1, kFamily).GetConstData());
         },
         {"Failed to get family name"}},
        {[](uint32_t seq) { return newFamily(seq, "nlctrl"); },
         {"Ignoring none nl80211 netlink families"}},
        {[](uint32_t seq) {
             NL80211NestedAttr entry(1), list(7);
             EXPECT_TRUE(entry.AddAttribute(NL80211Attr<uint32_t>(2, 5)));
             EXPECT_TRUE(list.AddAttribute(entry));
             return newFamily(seq, "nl80211", list.GetConstData());
         },
         {"Failed to get group name"}},
        {[](uint32_t seq) {
             NL80211NestedAttr entry(1), list(7);
             EXPECT_TRUE(entry.AddAttribute(NL80211Attr<std::string>(1, "scan")));
             EXPECT_TRUE(list.AddAttribute(entry));
             return newFamily(seq, "nl80211", list.GetConstData());
         },
         {"Failed to get group id"}},
    };
    for (const Case& c : cases) {
        auto fresh = NetlinkUtilsTestPeer::make();
        kernel.respond(
            [&](const Bytes& request) { return Datagrams{c.reply(sequenceOf(request))}; });
        LogCapture log;
        EXPECT_FALSE(fresh->Start());
        Lines expected = c.log;
        expected.push_back("Failed to get NL80211 family id");
        EXPECT_EQ(log.texts(kTag), expected);
        EXPECT_EQ(fresh->GetFamilyId(), 0);
    }
}

TEST_F(NetlinkUtilsTest, StationQueryGivesTheSignedSignal) {
    startThen([](const Bytes& request) { return Datagrams{station(sequenceOf(request), -58)}; });
    EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), -58);
    // GET_STATION to the family: ifindex of lo, then the MAC from the 12 hex digits.
    const Bytes pid = bytesOf(static_cast<uint32_t>(getpid()));
    EXPECT_EQ(kernel.requests().back(), hex("28000000 1c00 0100 02000000") + pid +
                                            hex("11 01 0000  0800 0300") +
                                            bytesOf(static_cast<uint32_t>(if_nametoindex("lo"))) +
                                            hex("0a00 0600 a0b1c2d3e4f5 0000"));
    // An unknown interface is asked about as index 0.
    EXPECT_EQ(utils->GetStationInfo("A0B1C2D3E4F5", "no-such-if0"), -58);
    EXPECT_EQ(kernel.requests().back(),
              hex("28000000 1c00 0100 03000000") + pid +
                  hex("11 01 0000  0800 0300 00000000  0a00 0600 a0b1c2d3e4f5 0000"));
    EXPECT_EQ(NetlinkUtilsTestPeer::pendingHandlers(*utils), 0u);
}

TEST_F(NetlinkUtilsTest, StationRepliesWithoutASignalGiveZeroAndSayWhy) {
    struct Case {
        std::function<Bytes(uint32_t)> reply;
        std::string log;
    };
    const Case cases[] = {
        {[](uint32_t seq) { return station(seq, -58, 0, kGetStation); },
         "Wrong command in response to a get station request: 17"},
        // An error reply reaches the handler like any reply; its errno's low byte (-19,
        // ENODEV) is where the command would be.
        {[](uint32_t seq) { return message(NLMSG_ERROR, 0, seq, hex("edffffff") + Bytes(16, 0)); },
         "Wrong command in response to a get station request: 237"},
        {[](uint32_t seq) { return message(kFamily, 0, seq, genl(kNewStation)); },
         "Failed to get NL80211_ATTR_STA_INFO"},
        {[](uint32_t seq) {
             return message(kFamily, 0, seq,
                            genl(kNewStation) + hex("0c00 1500 0800 0200 00100000"));
         },
         "Failed to get NL80211_STA_INFO_SIGNAL"},
    };
    startThen([](const Bytes&) { return Datagrams{}; });
    for (const Case& c : cases) {
        kernel.respond(
            [&](const Bytes& request) { return Datagrams{c.reply(sequenceOf(request))}; });
        LogCapture log;
        EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), 0);
        EXPECT_EQ(log.texts(kTag), Lines{c.log});
    }
}

TEST_F(NetlinkUtilsTest, DatagramWalkDropsMulticastAndStopsAtAnUnknownSequence) {
    // The first datagram: a message for nobody, then a reply (-40) that must not be read. The
    // second datagram holds the reply that counts.
    startThen([](const Bytes& request) {
        const uint32_t seq = sequenceOf(request);
        return Datagrams{station(seq + 100, -40) + station(seq, -40), station(seq, -58)};
    });
    LogCapture log;
    EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), -58);
    EXPECT_EQ(log.texts(kTag), Lines{"No handler for message: 102"});
    EXPECT_EQ(log.records().at(0).priority, 5);  // warning

    // A multicast event (sequence 0) in front of the reply is skipped, not a stop.
    log.clear();
    kernel.respond([](const Bytes& request) {
        return Datagrams{station(0, -40) + station(sequenceOf(request), -61)};
    });
    EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), -61);
    EXPECT_TRUE(log.texts(kTag).empty());
}

TEST_F(NetlinkUtilsTest, MultipartRepliesLastUntilDoneAndControlMessagesEndTheWait) {
    startThen([](const Bytes& request) {
        const uint32_t seq = sequenceOf(request);
        return Datagrams{station(seq, -58, NLM_F_MULTI),
                         station(seq, -40, NLM_F_MULTI) + done(seq)};
    });
    NL80211Packet request(kFamily, kGetStation, 77, getpid());
    std::vector<std::unique_ptr<const NL80211Packet>> replies;
    {
        vekt::MutexLock lock(NetlinkUtilsTestPeer::mutex(*utils));
        ASSERT_TRUE(utils->SendMessageAndGetResponses(request, &replies));
    }
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_TRUE(replies[0]->IsMulti());
    EXPECT_EQ(NetlinkUtilsTestPeer::pendingHandlers(*utils), 0u);
    EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), -58);  // the first of the parts

    // DONE or an overrun alone: the wait ends at once, with nothing to read the signal from.
    for (uint16_t type : {NLMSG_DONE, NLMSG_NOOP, NLMSG_OVERRUN}) {
        kernel.respond([type](const Bytes& request) {
            return Datagrams{message(type, 0, sequenceOf(request), Bytes(4, 0))};
        });
        LogCapture log;
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
        Lines expected{"NL80211_CMD_GET_STATION failed"};
        if (type == NLMSG_OVERRUN)
            expected.insert(expected.begin(), "Get message overrun notification");
        EXPECT_EQ(log.texts(kTag), expected) << type;
    }
}

TEST_F(NetlinkUtilsTest, SilenceTimesOutAfterASecond) {
    startThen([](const Bytes&) { return Datagrams{}; });
    LogCapture log;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), 0);
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, std::chrono::milliseconds(990));
    EXPECT_LT(waited, std::chrono::milliseconds(1500));
    EXPECT_EQ(log.texts(kTag),
              (Lines{"Failed to poll netlink fd: time out ", "NL80211_CMD_GET_STATION failed"}));
    EXPECT_EQ(NetlinkUtilsTestPeer::pendingHandlers(*utils), 0u);

    // Broken datagrams are discarded the same way: the reply never comes.
    kernel.respond([](const Bytes& request) {
        const Bytes reply = station(sequenceOf(request), -58);
        return Datagrams{Bytes(reply.begin(), reply.end() - 4)};
    });
    log.clear();
    EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), 0);
    EXPECT_EQ(log.texts(kTag),
              (Lines{"Discarding incomplete / invalid message.", "Receive invalid packet",
                     "Failed to poll netlink fd: time out ", "NL80211_CMD_GET_STATION failed"}));
}

TEST_F(NetlinkUtilsTest, SequenceNumbersSkipZeroWhenTheyWrap) {
    startThen([](const Bytes& request) { return Datagrams{station(sequenceOf(request), -58)}; });
    NetlinkUtilsTestPeer::setSequence(*utils, 0xFFFFFFFE);
    EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), -58);
    EXPECT_EQ(utils->GetStationInfo("a0b1c2d3e4f5", "lo"), -58);
    const Datagrams requests = kernel.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(sequenceOf(requests[1]), 0xFFFFFFFFu);
    EXPECT_EQ(sequenceOf(requests[2]), 1u);
}

TEST(NetlinkDatagramWalkTest, EndsAtACutHeaderOrAnInvalidMessage) {
    const Bytes first = message(NLMSG_DONE, 0, 4, Bytes(4, 0));
    struct Case {
        Bytes datagram;
        size_t visited;
        Lines log;
    };
    const Case cases[] = {
        {first + first, 2, {}},
        {first + Bytes(10, 0), 1, {"payload is broken."}},
        // A length of 0 or past the datagram makes an invalid message; the walk cannot loop.
        {first + hex("00000000 0300 0000 00000000 00000000"),
         1,
         {"Cannot retrieve netlink header.", "Receive invalid packet"}},
        {first + hex("ff000000 0300 0000 00000000 00000000"),
         1,
         {"Discarding incomplete / invalid message.", "Receive invalid packet"}},
        // Unaligned lengths are followed as they are.
        {message(NLMSG_DONE, 0, 4, Bytes(1, 0)) + first, 2, {}},
    };
    for (const Case& c : cases) {
        LogCapture log;
        size_t visited = 0;
        ForEachNetlinkMessage(c.datagram.data(), c.datagram.size(),
                              [&](std::unique_ptr<const NL80211Packet>) { return ++visited > 0; });
        EXPECT_EQ(visited, c.visited);
        EXPECT_EQ(log.texts(kTag), c.log);
    }
}

}  // namespace
}  // namespace android::wificond
