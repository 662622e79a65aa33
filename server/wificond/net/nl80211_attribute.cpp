#define LOG_TAG "slm-netlink"

#include "wificond/net/nl80211_attribute.h"

#include <android-base/logging.h>
#include <linux/netlink.h>

#include <algorithm>

namespace android {
namespace wificond {
namespace {

// Kernel layout: the attribute header.
static_assert(sizeof(nlattr) == 4, "nlattr is nla_len and nla_type, 2 bytes each");
static_assert(NLA_HDRLEN == 4, "attribute headers need no padding");

size_t Align(size_t length) { return NLA_ALIGN(length); }

// Bounds: the caller has checked that offset + 4 is within the bytes.
nlattr ReadHeader(const uint8_t* bytes) {
    nlattr header;
    memcpy(&header, bytes, sizeof(header));
    return header;
}

}  // namespace

BaseNL80211Attr::BaseNL80211Attr(int id, const std::vector<uint8_t>& raw) {
    InitHeaderAndResize(id, static_cast<int>(raw.size()));
    if (!raw.empty()) memcpy(data_.data() + kHeaderSize, raw.data(), raw.size());
}

bool BaseNL80211Attr::IsValid() const {
    return data_.size() >= kHeaderSize && Align(GetLength()) == data_.size();
}

int BaseNL80211Attr::GetAttributeId() const {
    if (data_.size() < kHeaderSize) return 0;
    return ReadHeader(data_.data()).nla_type;
}

uint16_t BaseNL80211Attr::GetLength() const {
    if (data_.size() < kHeaderSize) return 0;
    return ReadHeader(data_.data()).nla_len;
}

size_t BaseNL80211Attr::PayloadSize() const {
    const size_t length = std::min<size_t>(GetLength(), data_.size());
    return length > kHeaderSize ? length - kHeaderSize : 0;
}

void BaseNL80211Attr::InitHeaderAndResize(int id, int payloadLength) {
    data_.assign(Align(payloadLength) + kHeaderSize, 0);
    nlattr header;
    header.nla_len = static_cast<uint16_t>(payloadLength + kHeaderSize);
    header.nla_type = static_cast<uint16_t>(id);
    memcpy(data_.data(), &header, sizeof(header));
}

bool BaseNL80211Attr::GetAttributeImpl(const uint8_t* buffer, size_t length, int id,
                                       uint8_t** start, uint8_t** end) {
    // nla_type is 16 bits wide: no other id can ever match.
    if (id < 0 || id > UINT16_MAX) return false;
    // Offsets, not pointers: a claimed length may point far beyond the buffer.
    size_t offset = 0;
    while (offset <= length && length - offset >= kHeaderSize) {
        const nlattr header = ReadHeader(buffer + offset);
        if (header.nla_len < kHeaderSize) return false;
        const size_t attributeStart = offset;
        offset += Align(header.nla_len);
        if (header.nla_type != id) continue;
        if (offset > length) {
            LOG(ERROR) << "Failed to get attribute: broken nl80211 atrribute.";
            return false;
        }
        // The caller only reads through these; the signature is shared with builders.
        *start = const_cast<uint8_t*>(buffer + attributeStart);
        *end = const_cast<uint8_t*>(buffer + offset);
        return true;
    }
    return false;
}

NL80211Attr<std::string>::NL80211Attr(int id, const std::string& value) {
    InitHeaderAndResize(id, static_cast<int>(value.size() + 1));
    memcpy(data_.data() + kHeaderSize, value.data(), value.size());
}

std::string NL80211Attr<std::string>::GetValue() const {
    size_t size = PayloadSize();
    if (size == 0) return std::string();
    const uint8_t* payload = PayloadBegin();
    while (size > 0 && payload[size - 1] == '\0') --size;
    return std::string(reinterpret_cast<const char*>(payload), size);
}

NL80211NestedAttr::NL80211NestedAttr(int id) { InitHeaderAndResize(id, 0); }

bool NL80211NestedAttr::AddAttribute(const BaseNL80211Attr& attribute) {
    const std::vector<uint8_t>& bytes = attribute.GetConstData();
    if (data_.size() < kHeaderSize) return false;
    const size_t length = GetLength() + bytes.size();
    if (length > UINT16_MAX) return false;
    data_.insert(data_.end(), bytes.begin(), bytes.end());
    const uint16_t newLength = static_cast<uint16_t>(length);
    memcpy(data_.data() + offsetof(nlattr, nla_len), &newLength, sizeof(newLength));
    return true;
}

bool NL80211NestedAttr::GetListOfNestedAttributes(
    std::vector<NL80211NestedAttr>* attributes) const {
    if (data_.size() < 2 * kHeaderSize) return false;
    size_t offset = kHeaderSize;
    while (true) {
        const nlattr header = ReadHeader(data_.data() + offset);
        // Shorter than its own header: the walk cannot go on past it.
        if (header.nla_len < kHeaderSize) return false;
        const size_t length = Align(header.nla_len);
        if (length > data_.size() - offset) {
            LOG(ERROR) << "Failed to get list of nested attributes: invalid nla_len.";
            return false;
        }
        NL80211NestedAttr attribute(
            std::vector<uint8_t>(data_.begin() + offset, data_.begin() + offset + length));
        const bool valid = attribute.IsValid();
        attributes->push_back(std::move(attribute));
        if (!valid) return false;
        offset += length;
        if (data_.size() - offset < kHeaderSize) return true;
    }
}

}  // namespace wificond
}  // namespace android
