// The nl80211 message model against byte blobs written out by hand: what the builders put on
// the wire, and what the getters make of received (and broken) bytes.
#include "wificond/net/nl80211_packet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vekt_host/log_capture.h"
#include "wificond/net/nl80211_attribute.h"

namespace android::wificond {
namespace {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;
using vekt::host::LogCapture;

constexpr const char* kTag = "slm-netlink";

Bytes hex(const std::string& text) {
    Bytes bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ') continue;
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i++, 2), nullptr, 16)));
    }
    return bytes;
}

// A received generic netlink message: the 20 header bytes given, then the attributes.
Bytes received(const std::string& headers, const std::string& attributes = "") {
    return hex(headers + attributes);
}

TEST(NL80211AttributeTest, BuildersWriteHeaderPayloadAndPadding) {
    EXPECT_EQ(NL80211Attr<uint32_t>(3, 0x11223344).GetConstData(), hex("0800 0300 44332211"));
    EXPECT_EQ(NL80211Attr<uint16_t>(1, 0x1234).GetConstData(), hex("0600 0100 3412 0000"));
    EXPECT_EQ(NL80211Attr<int8_t>(7, -58).GetConstData(), hex("0500 0700 c6 000000"));
    EXPECT_EQ(NL80211Attr<std::string>(2, "nl80211").GetConstData(),
              hex("0c00 0200 6e6c3830323131 00"));
    EXPECT_EQ(BaseNL80211Attr(6, hex("aabbccddeeff")).GetConstData(),
              hex("0a00 0600 aabbccddeeff 0000"));

    NL80211NestedAttr nest(21);
    EXPECT_EQ(nest.GetConstData(), hex("0400 1500"));
    ASSERT_TRUE(nest.AddAttribute(NL80211Attr<int8_t>(7, -58)));
    EXPECT_EQ(nest.GetConstData(), hex("0c00 1500 0500 0700 c6000000"));
    EXPECT_TRUE(nest.IsValid());
    // nla_len is 16 bits: a nest that would outgrow it refuses the attribute whole.
    EXPECT_FALSE(nest.AddAttribute(BaseNL80211Attr(1, Bytes(65530, 0))));
    EXPECT_EQ(nest.GetConstData().size(), 12u);
}

TEST(NL80211AttributeTest, ValidityFollowsTheTypeWidthAndThePaddedLength) {
    EXPECT_TRUE(NL80211Attr<uint16_t>(hex("0600 0100 3412 0000")).IsValid());
    // A u16 whose nla_len claims 4 payload bytes is a u32 on the wire, not a u16.
    EXPECT_FALSE(NL80211Attr<uint16_t>(hex("0800 0100 34120000")).IsValid());
    EXPECT_TRUE(NL80211Attr<uint32_t>(hex("0800 0100 34120000")).IsValid());
    EXPECT_FALSE(NL80211Attr<uint32_t>(hex("0600 0100 3412 0000")).IsValid());
    EXPECT_FALSE(NL80211Attr<int8_t>(hex("0500 0700 c6")).IsValid());  // padding missing
    EXPECT_FALSE(NL80211Attr<std::string>(hex("0900 0200 6e6c38 00")).IsValid());
    EXPECT_FALSE(NL80211Attr<std::string>(hex("0400")).IsValid());
    // Getters on bytes too short for a value read nothing past them.
    EXPECT_EQ(NL80211Attr<uint32_t>(hex("0800 01")).GetValue(), 0u);
    EXPECT_EQ(NL80211Attr<std::string>(hex("0800 02")).GetValue(), "");
    EXPECT_EQ(NL80211Attr<int8_t>(hex("0500 0700 c6000000")).GetValue(), -58);
}

TEST(NL80211AttributeTest, StringsDropEveryTrailingNul) {
    EXPECT_EQ(NL80211Attr<std::string>(hex("0c00 0200 6e6c3830323131 00")).GetValue(), "nl80211");
    EXPECT_EQ(NL80211Attr<std::string>(hex("0e00 0200 6e6c3830323131 000000 0000")).GetValue(),
              "nl80211");
    EXPECT_EQ(NL80211Attr<std::string>(hex("0800 0200 00000000")).GetValue(), "");
    // Without a NUL the characters are all there is; nla_len, not the padding, ends them.
    EXPECT_EQ(NL80211Attr<std::string>(hex("0700 0200 616263 00")).GetValue(), "abc");
    EXPECT_EQ(NL80211Attr<std::string>(2, "").GetConstData(), hex("0500 0200 00000000"));
}

TEST(NL80211AttributeTest, SearchStopsAtBrokenLengthsAndNeverReadsPastTheBuffer) {
    LogCapture log;
    uint8_t* start = nullptr;
    uint8_t* end = nullptr;
    // type 3 (u32), then type 6 whose padded length (12) runs 2 bytes past the buffer.
    const Bytes bytes = hex("0800 0300 01000000  0a00 0600 aabbccddeeff");
    EXPECT_TRUE(BaseNL80211Attr::GetAttributeImpl(bytes.data(), bytes.size(), 3, &start, &end));
    EXPECT_EQ(start, bytes.data());
    EXPECT_EQ(end, bytes.data() + 8);
    EXPECT_TRUE(log.texts(kTag).empty());

    EXPECT_FALSE(BaseNL80211Attr::GetAttributeImpl(bytes.data(), bytes.size(), 6, &start, &end));
    EXPECT_EQ(log.texts(kTag), Lines{"Failed to get attribute: broken nl80211 atrribute."});
    log.clear();

    // Absent, a trailing stub shorter than a header, flag bits that make another type, and
    // an nla_len of 0 or below the header: not found, without a log.
    EXPECT_FALSE(BaseNL80211Attr::GetAttributeImpl(bytes.data(), 8, 6, &start, &end));
    const Bytes stub = hex("0800 0300 01000000 0600");
    EXPECT_FALSE(BaseNL80211Attr::GetAttributeImpl(stub.data(), stub.size(), 6, &start, &end));
    const Bytes nested = hex("0400 1580");  // NLA_F_NESTED | 21
    EXPECT_FALSE(BaseNL80211Attr::GetAttributeImpl(nested.data(), 4, 21, &start, &end));
    EXPECT_TRUE(BaseNL80211Attr::GetAttributeImpl(nested.data(), 4, 0x8015, &start, &end));
    for (const char* broken : {"0000 0100 0800 0300 01000000", "0300 0100 0800 0300 01000000"}) {
        const Bytes walk = hex(broken);
        EXPECT_FALSE(BaseNL80211Attr::GetAttributeImpl(walk.data(), walk.size(), 3, &start, &end))
            << broken;
    }
    EXPECT_TRUE(log.texts(kTag).empty());
}

TEST(NL80211AttributeTest, NestedListsYieldEachEntryAndStopAtTheFirstBrokenOne) {
    // Two multicast groups as the controller lists them: entry n holds a name and an id.
    const Bytes groups =
        hex("3400 0700"
            "  1800 0100  0900 0100 7363616e 00000000  0800 0200 05000000"
            "  1800 0200  0900 0100 6d6c6d65 00000000  0800 0200 07000000");
    NL80211NestedAttr list(groups);
    ASSERT_TRUE(list.IsValid());
    std::vector<NL80211NestedAttr> entries;
    ASSERT_TRUE(list.GetListOfNestedAttributes(&entries));
    ASSERT_EQ(entries.size(), 2u);
    std::string name;
    uint32_t id = 0;
    EXPECT_TRUE(entries[1].GetAttributeValue(1, &name));
    EXPECT_TRUE(entries[1].GetAttributeValue(2, &id));
    EXPECT_EQ(name, "mlme");
    EXPECT_EQ(id, 7u);
    EXPECT_FALSE(entries[1].GetAttributeValue(3, &id));
    uint16_t wrongWidth = 0;
    EXPECT_FALSE(entries[1].GetAttributeValue(2, &wrongWidth));

    LogCapture log;
    entries.clear();
    EXPECT_FALSE(NL80211NestedAttr(hex("0400 0700")).GetListOfNestedAttributes(&entries));
    // The second entry claims 0x1c bytes where 0x18 remain.
    Bytes overlong = groups;
    overlong[28] = 0x1c;
    EXPECT_FALSE(NL80211NestedAttr(overlong).GetListOfNestedAttributes(&entries));
    EXPECT_EQ(log.texts(kTag), Lines{"Failed to get list of nested attributes: invalid nla_len."});
    log.clear();
    // A zero length would never advance: the walk ends, and the entry before it is kept.
    Bytes zero = groups;
    zero[28] = 0;
    entries.clear();
    EXPECT_FALSE(NL80211NestedAttr(zero).GetListOfNestedAttributes(&entries));
    EXPECT_EQ(entries.size(), 1u);
    // An entry shorter than its own header ends the list the same way.
    entries.clear();
    EXPECT_FALSE(NL80211NestedAttr(hex("0c00 0700  0200 0100 0800 0200"))
                     .GetListOfNestedAttributes(&entries));
    EXPECT_TRUE(entries.empty());
    EXPECT_TRUE(log.texts(kTag).empty());
}

TEST(NL80211PacketTest, RequestIsByteExactAndAttributesGrowItsLength) {
    NL80211Packet request(0x1c, 17, 0x01020304, 4242);
    EXPECT_EQ(request.GetConstData(), hex("14000000 1c00 0100 04030201 92100000  11 01 0000"));
    request.AddAttribute(NL80211Attr<uint32_t>(3, 9));
    request.AddAttribute(BaseNL80211Attr(6, hex("aabbccddeeff")));
    EXPECT_EQ(request.GetConstData(), hex("28000000 1c00 0100 04030201 92100000  11 01 0000"
                                          "0800 0300 09000000  0a00 0600 aabbccddeeff 0000"));
    EXPECT_TRUE(request.IsValid());
    EXPECT_EQ(request.GetMessageType(), 0x1c);
    EXPECT_EQ(request.GetCommand(), 17);
    EXPECT_EQ(request.GetMessageSequence(), 0x01020304u);
    EXPECT_FALSE(request.IsMulti());
    uint32_t ifindex = 0;
    EXPECT_TRUE(request.GetAttributeValue(3, &ifindex));
    EXPECT_EQ(ifindex, 9u);
}

TEST(NL80211PacketTest, ReceivedMessagesAreCheckedAgainstTheirHeaders) {
    struct Case {
        Bytes bytes;
        const char* log;  // nullptr: valid
    };
    const Case cases[] = {
        {hex("10000000 0300 0200 05000000 00000000"), nullptr},  // NLMSG_DONE, multipart
        {hex("14000000 0200 0000 05000000 00000000 feffffff"), nullptr},
        {hex("10000000 0300 0200 05000000 000000"), "Cannot retrieve netlink header."},
        {hex("10000000 1c00 0000 05000000 00000000"), "Cannot retrieve generic netlink header."},
        {hex("10000000 1c00 0000 05000000 00000000 13010000"),
         "Cannot retrieve generic netlink header."},
        {hex("10000000 0200 0000 05000000 00000000 feffffff"), "Broken error message."},
        {hex("18000000 1c00 0000 05000000 00000000 13010000"),
         "Discarding incomplete / invalid message."},
        {hex("0f000000 0300 0000 05000000 00000000"), "Discarding incomplete / invalid message."},
    };
    for (const Case& c : cases) {
        LogCapture log;
        NL80211Packet packet(c.bytes);
        EXPECT_EQ(packet.IsValid(), c.log == nullptr) << testing::PrintToString(c.bytes);
        EXPECT_EQ(log.texts(kTag), c.log ? Lines{c.log} : Lines{});
    }
    EXPECT_TRUE(NL80211Packet(hex("10000000 0300 0200 05000000 00000000")).IsMulti());
    // Header getters on a stub read nothing past it.
    NL80211Packet stub(hex("10000000 1c"));
    EXPECT_EQ(stub.GetMessageType(), 0);
    EXPECT_EQ(stub.GetCommand(), 0);
    EXPECT_EQ(stub.GetMessageSequence(), 0u);
}

TEST(NL80211PacketTest, AttributesAreFoundAfterTheHeadersOnly) {
    // A controller reply: family id 0x1c, name "nl80211", and an empty groups nest.
    const NL80211Packet reply(received("2c000000 1000 0000 05000000 00000000  01 02 0000",
                                       "0600 0100 1c00 0000  0c00 0200 6e6c3830323131 00"
                                       "0400 0700"));
    uint16_t familyId = 0;
    std::string name;
    EXPECT_TRUE(reply.GetAttributeValue(1, &familyId));
    EXPECT_TRUE(reply.GetAttributeValue(2, &name));
    EXPECT_EQ(familyId, 0x1c);
    EXPECT_EQ(name, "nl80211");
    NL80211NestedAttr groups(0);
    EXPECT_TRUE(reply.GetAttribute(7, &groups));
    EXPECT_EQ(groups.GetConstData(), hex("0400 0700"));
    // The header's own bytes (0x10 at offset 4 looks like a type) are never searched.
    uint32_t value = 0;
    EXPECT_FALSE(reply.GetAttributeValue(16, &value));
    EXPECT_FALSE(NL80211Packet(hex("10000000 0300 0200")).GetAttributeValue(1, &familyId));
}

}  // namespace
}  // namespace android::wificond
