// The nl80211 message model against byte blobs written out by hand: what the builders put on
// the wire, and what the getters make of received (and broken) bytes.
#include "wificond/net/nl80211_packet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/wire_bytes.h"
#include "vekt_host/log_capture.h"
#include "wificond/net/nl80211_attribute.h"

namespace android::wificond {
namespace {

using vekt::test::Bytes;
using vekt::test::hex;
using Lines = std::vector<std::string>;
using vekt::host::LogCapture;

constexpr const char* kTag = "slm-netlink";

TEST(NL80211AttributeTest, BuildersPadAndReadersCheckTheWidthAndDropTrailingNuls) {
    EXPECT_EQ(NL80211Attr<uint16_t>(1, 0x1234).GetConstData(), hex("0600 0100 3412 0000"));
    EXPECT_EQ(NL80211Attr<std::string>(2, "nl80211").GetConstData(),
              hex("0c00 0200 6e6c3830323131 00"));
    EXPECT_EQ(BaseNL80211Attr(6, hex("aabbccddeeff")).GetConstData(),
              hex("0a00 0600 aabbccddeeff 0000"));
    NL80211NestedAttr nest(21);
    ASSERT_TRUE(nest.AddAttribute(NL80211Attr<int8_t>(7, -58)));
    EXPECT_EQ(nest.GetConstData(), hex("0c00 1500 0500 0700 c6000000"));
    // nla_len is 16 bits: a nest that would outgrow it refuses the attribute whole.
    EXPECT_FALSE(nest.AddAttribute(BaseNL80211Attr(1, Bytes(65530, 0))));
    EXPECT_EQ(nest.GetConstData().size(), 12u);

    EXPECT_TRUE(NL80211Attr<uint16_t>(hex("0600 0100 3412 0000")).IsValid());
    // A u16 whose nla_len is 8 is a u32 on the wire, not a u16.
    EXPECT_FALSE(NL80211Attr<uint16_t>(hex("0800 0100 34120000")).IsValid());
    EXPECT_FALSE(NL80211Attr<int8_t>(hex("0500 0700 c6")).IsValid());  // padding missing
    EXPECT_FALSE(NL80211Attr<std::string>(hex("0900 0200 6e6c38 00")).IsValid());
    EXPECT_EQ(NL80211Attr<uint32_t>(hex("0800 01")).GetValue(), 0u);  // too short: nothing read

    for (const char* bytes :
         {"0c00 0200 6e6c3830323131 00", "0e00 0200 6e6c3830323131 000000 0000"}) {
        EXPECT_EQ(NL80211Attr<std::string>(hex(bytes)).GetValue(), "nl80211") << bytes;
    }
    // Without a NUL the characters are all there is; nla_len, not the padding, ends them.
    EXPECT_EQ(NL80211Attr<std::string>(hex("0700 0200 616263 00")).GetValue(), "abc");
}

TEST(NL80211AttributeTest, SearchLogsABrokenLengthAndNeverReadsPastTheBuffer) {
    LogCapture log;
    uint8_t* start = nullptr;
    uint8_t* end = nullptr;
    // type 3 (u32), then type 6 whose padded length (12) runs 2 bytes past the buffer.
    const Bytes bytes = hex("0800 0300 01000000  0a00 0600 aabbccddeeff");
    EXPECT_TRUE(BaseNL80211Attr::GetAttributeImpl(bytes.data(), bytes.size(), 3, &start, &end));
    EXPECT_EQ(end - start, 8);
    EXPECT_TRUE(log.texts(kTag).empty());
    EXPECT_FALSE(BaseNL80211Attr::GetAttributeImpl(bytes.data(), bytes.size(), 6, &start, &end));
    EXPECT_EQ(log.texts(kTag), Lines{"Failed to get attribute: broken nl80211 atrribute."});

    // A trailing stub shorter than a header, and an nla_len of 0 or below the header (the walk
    // could not advance): not found, without a log.
    log.clear();
    for (const char* broken : {"0800 0300 01000000 0600", "0000 0600 0800 0600 01000000",
                               "0300 0600 0800 0600 01000000"}) {
        const Bytes walk = hex(broken);
        EXPECT_FALSE(BaseNL80211Attr::GetAttributeImpl(walk.data(), walk.size(), 6, &start, &end))
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
    std::vector<NL80211NestedAttr> entries;
    ASSERT_TRUE(NL80211NestedAttr(groups).GetListOfNestedAttributes(&entries));
    ASSERT_EQ(entries.size(), 2u);
    std::string name;
    uint32_t id = 0;
    EXPECT_TRUE(entries[1].GetAttributeValue(1, &name) && entries[1].GetAttributeValue(2, &id));
    EXPECT_EQ(name + std::to_string(id), "mlme7");
    uint16_t wrongWidth = 0;
    EXPECT_FALSE(entries[1].GetAttributeValue(2, &wrongWidth));

    LogCapture log;
    Bytes broken = groups;
    broken[28] = 0x1c;  // the second entry claims 0x1c bytes where 0x18 remain
    EXPECT_FALSE(NL80211NestedAttr(broken).GetListOfNestedAttributes(&entries));
    EXPECT_EQ(log.texts(kTag), Lines{"Failed to get list of nested attributes: invalid nla_len."});
    // A zero length would never advance: the walk ends, and the entry before it is kept.
    broken[28] = 0;
    entries.clear();
    EXPECT_FALSE(NL80211NestedAttr(broken).GetListOfNestedAttributes(&entries));
    EXPECT_EQ(entries.size(), 1u);
    EXPECT_FALSE(NL80211NestedAttr(hex("0400 0700")).GetListOfNestedAttributes(&entries));
}

TEST(NL80211PacketTest, RequestsAreByteExactAndReceivedMessagesAreCheckedAgainstTheirHeaders) {
    NL80211Packet request(0x1c, 17, 0x01020304, 4242);
    request.AddAttribute(NL80211Attr<uint32_t>(3, 9));
    EXPECT_EQ(request.GetConstData(), hex("1c000000 1c00 0100 04030201 92100000  11 01 0000"
                                          "0800 0300 09000000"));
    uint32_t ifindex = 0;
    EXPECT_TRUE(request.GetAttributeValue(3, &ifindex));
    EXPECT_EQ(ifindex, 9u);

    const std::pair<Bytes, const char*> cases[] = {
        // the bytes, and why not valid
        {hex("10000000 0300 0200 05000000 00000000"), nullptr},  // NLMSG_DONE, multipart
        {hex("14000000 0200 0000 05000000 00000000 feffffff"), nullptr},
        {hex("10000000 0300 0200 05000000 000000"), "Cannot retrieve netlink header."},  // 15
        {hex("10000000 1c00 0000 05000000 00000000 13010000"),
         "Cannot retrieve generic netlink header."},
        {hex("10000000 0200 0000 05000000 00000000 feffffff"), "Broken error message."},
        {hex("18000000 1c00 0000 05000000 00000000 13010000"),
         "Discarding incomplete / invalid message."},
    };
    for (const auto& [bytes, why] : cases) {
        LogCapture log;
        EXPECT_EQ(NL80211Packet(bytes).IsValid(), why == nullptr) << testing::PrintToString(bytes);
        EXPECT_EQ(log.texts(kTag), why ? Lines{why} : Lines{});
    }
    EXPECT_TRUE(NL80211Packet(cases[0].first).IsMulti());
    EXPECT_EQ(NL80211Packet(hex("10000000 1c")).GetMessageSequence(), 0u);  // nothing past a stub
}

}  // namespace
}  // namespace android::wificond
