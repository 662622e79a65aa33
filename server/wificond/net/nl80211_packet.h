// One generic netlink message in wire format (host byte order): the 16-byte netlink header,
// the 4-byte generic netlink header and the attributes. Requests are built by appending
// attributes; received messages are copied in and read through checked getters.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "wificond/net/nl80211_attribute.h"

namespace android {
namespace wificond {

// Whether bytes[0, length) start with a complete netlink message that the client can read:
// the headers its type needs are there and nlmsg_len fits in length. Logs why not.
bool IsValidNetlinkMessage(const uint8_t* bytes, size_t length);

class NL80211Packet : public AttributeGetters<NL80211Packet> {
  public:
    // The attributes follow the netlink and the generic netlink headers.
    static constexpr size_t kAttributesOffset = 16 + 4;

    // A request: nlmsg_len 20, NLM_F_REQUEST, generic netlink version 1, no attributes.
    NL80211Packet(uint16_t type, uint8_t command, uint32_t sequence, uint32_t pid);
    // Received bytes, as they are.
    explicit NL80211Packet(const std::vector<uint8_t>& data) : data_(data) {}

    bool IsValid() const;

    // Header fields; 0 when the bytes are too short to hold the field.
    uint16_t GetMessageType() const;
    uint8_t GetCommand() const;
    uint32_t GetMessageSequence() const;
    bool IsMulti() const;
    const std::vector<uint8_t>& GetConstData() const { return data_; }

    // Appends the attribute's (already padded) bytes and grows nlmsg_len by their count.
    void AddAttribute(const BaseNL80211Attr& attribute);

  private:
    std::vector<uint8_t> data_;
};

}  // namespace wificond
}  // namespace android
