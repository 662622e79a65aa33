#define LOG_TAG "slm-netlink"

#include "wificond/net/nl80211_packet.h"

#include <android-base/logging.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <string.h>

namespace android {
namespace wificond {
namespace {

// Kernel layout: the two headers in front of the attributes.
static_assert(sizeof(nlmsghdr) == 16, "nlmsghdr is len, type, flags, seq, pid");
static_assert(sizeof(genlmsghdr) == 4, "genlmsghdr is cmd, version, reserved");
static_assert(NLMSG_HDRLEN == 16 && GENL_HDRLEN == 4, "headers need no padding");
static_assert(NL80211Packet::kAttributesOffset == NLMSG_HDRLEN + GENL_HDRLEN,
              "attributes follow both headers");

constexpr size_t kNetlinkHeaderSize = sizeof(nlmsghdr);
constexpr size_t kHeadersSize = NL80211Packet::kAttributesOffset;
// Message types from here up belong to families; below are the netlink control types.
constexpr uint16_t kFirstFamilyType = NLMSG_MIN_TYPE;
static_assert(NLMSG_MIN_TYPE == 16, "family message types start at 16");

// Bounds: reads a field only when the bytes hold all of it.
template <typename T>
T ReadField(const std::vector<uint8_t>& bytes, size_t offset) {
    T value = 0;
    if (bytes.size() >= offset + sizeof(T)) memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

}  // namespace

bool IsValidNetlinkMessage(const uint8_t* bytes, size_t length) {
    if (length < kNetlinkHeaderSize) {
        LOG(ERROR) << "Cannot retrieve netlink header.";
        return false;
    }
    nlmsghdr header;
    memcpy(&header, bytes, sizeof(header));
    if (header.nlmsg_type >= kFirstFamilyType) {
        if (length < kHeadersSize || header.nlmsg_len < kHeadersSize) {
            LOG(ERROR) << "Cannot retrieve generic netlink header.";
            return false;
        }
    }
    // An error message carries the errno and the request's netlink header; the first 4
    // bytes after the header (the errno) must be there.
    if (header.nlmsg_type == NLMSG_ERROR) {
        if (length < kHeadersSize || header.nlmsg_len < kHeadersSize) {
            LOG(ERROR) << "Broken error message.";
            return false;
        }
    }
    if (header.nlmsg_len < kNetlinkHeaderSize || header.nlmsg_len > length) {
        LOG(ERROR) << "Discarding incomplete / invalid message.";
        return false;
    }
    return true;
}

NL80211Packet::NL80211Packet(uint16_t type, uint8_t command, uint32_t sequence, uint32_t pid)
    : data_(kHeadersSize, 0) {
    nlmsghdr header = {};
    header.nlmsg_len = kHeadersSize;
    header.nlmsg_type = type;
    header.nlmsg_flags = NLM_F_REQUEST;
    header.nlmsg_seq = sequence;
    header.nlmsg_pid = pid;
    memcpy(data_.data(), &header, sizeof(header));
    genlmsghdr generic = {};
    generic.cmd = command;
    generic.version = 1;
    memcpy(data_.data() + NLMSG_HDRLEN, &generic, sizeof(generic));
}

bool NL80211Packet::IsValid() const { return IsValidNetlinkMessage(data_.data(), data_.size()); }

uint16_t NL80211Packet::GetMessageType() const {
    return ReadField<uint16_t>(data_, offsetof(nlmsghdr, nlmsg_type));
}

uint8_t NL80211Packet::GetCommand() const {
    return ReadField<uint8_t>(data_, NLMSG_HDRLEN + offsetof(genlmsghdr, cmd));
}

uint32_t NL80211Packet::GetMessageSequence() const {
    return ReadField<uint32_t>(data_, offsetof(nlmsghdr, nlmsg_seq));
}

bool NL80211Packet::IsMulti() const {
    return (ReadField<uint16_t>(data_, offsetof(nlmsghdr, nlmsg_flags)) & NLM_F_MULTI) != 0;
}

void NL80211Packet::AddAttribute(const BaseNL80211Attr& attribute) {
    const std::vector<uint8_t>& bytes = attribute.GetConstData();
    if (data_.size() < kNetlinkHeaderSize) return;  // not a message to grow
    data_.insert(data_.end(), bytes.begin(), bytes.end());
    const uint32_t length = ReadField<uint32_t>(data_, offsetof(nlmsghdr, nlmsg_len)) +
                            static_cast<uint32_t>(bytes.size());
    memcpy(data_.data() + offsetof(nlmsghdr, nlmsg_len), &length, sizeof(length));
}

}  // namespace wificond
}  // namespace android
