// Attributes of generic netlink (nl80211) messages. Each object owns the attribute's bytes in
// wire format: a 4-byte header (u16 nla_len, u16 nla_type), the payload and the zero padding
// to a multiple of 4. Builders write those bytes; getters read them and never look past them.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <type_traits>
#include <vector>

namespace android {
namespace wificond {

class BaseNL80211Attr {
  public:
    // Header (nla_type id, nla_len raw size + 4), then raw, padded.
    BaseNL80211Attr(int id, const std::vector<uint8_t>& raw);
    virtual ~BaseNL80211Attr() = default;

    // At least a header, and NLA_ALIGN(nla_len) is exactly the byte count.
    virtual bool IsValid() const;

    const std::vector<uint8_t>& GetConstData() const { return data_; }
    // nla_type as it stands (flag bits included); 0 without a header.
    int GetAttributeId() const;

    // Finds the first attribute of type id in buffer[0, length). On success start and end
    // delimit it, padding included. Not found: false, silently; found but its padded length
    // runs past length: false with a log line. A header whose nla_len is shorter than the
    // header itself ends the walk (not found): the walk could not advance past it.
    static bool GetAttributeImpl(const uint8_t* buffer, size_t length, int id, uint8_t** start,
                                 uint8_t** end);

  protected:
    BaseNL80211Attr() = default;
    explicit BaseNL80211Attr(const std::vector<uint8_t>& data) : data_(data) {}

    // Bytes sized to NLA_ALIGN(payloadLength) + 4, zero-filled; nla_type id; nla_len
    // payloadLength + 4.
    void InitHeaderAndResize(int id, int payloadLength);
    // nla_len of the header; 0 without a header.
    uint16_t GetLength() const;
    // The payload bytes that nla_len claims and the bytes hold.
    const uint8_t* PayloadBegin() const { return data_.data() + kHeaderSize; }
    size_t PayloadSize() const;

    static constexpr size_t kHeaderSize = 4;

    std::vector<uint8_t> data_;
};

// A fixed-size integer attribute: int8_t, uint16_t or uint32_t (any 1, 2 or 4-byte integer).
template <typename T>
class NL80211Attr : public BaseNL80211Attr {
    static_assert(std::is_integral<T>::value &&
                      (sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4),
                  "integer attributes carry 1, 2 or 4 bytes");

  public:
    NL80211Attr(int id, T value) {
        InitHeaderAndResize(id, sizeof(T));
        memcpy(data_.data() + kHeaderSize, &value, sizeof(T));
    }
    // Received bytes, as they are.
    explicit NL80211Attr(const std::vector<uint8_t>& data) : BaseNL80211Attr(data) {}

    // Padded to one 8-byte unit, and nla_len names exactly the value's width.
    bool IsValid() const override {
        return BaseNL80211Attr::IsValid() && data_.size() == 8 &&
               GetLength() == kHeaderSize + sizeof(T);
    }

    // The value; 0 when the bytes are too short to hold one.
    T GetValue() const {
        T value = 0;
        if (data_.size() >= kHeaderSize + sizeof(T)) {
            memcpy(&value, data_.data() + kHeaderSize, sizeof(T));
        }
        return value;
    }
};

template <>
class NL80211Attr<std::string> : public BaseNL80211Attr {
  public:
    // The characters and a terminating NUL.
    NL80211Attr(int id, const std::string& value);
    explicit NL80211Attr(const std::vector<uint8_t>& data) : BaseNL80211Attr(data) {}

    // The payload without its trailing NUL bytes, however many there are.
    std::string GetValue() const;
};

class NL80211NestedAttr;

// The typed getters of whatever holds attributes behind a header of its own: a nest behind
// its attribute header, a packet behind its netlink and generic netlink headers. Holder
// names that header's size as kAttributesOffset and gives its bytes by GetConstData().
template <typename Holder>
class AttributeGetters {
  public:
    // The first attribute of type id, copied into attribute; its IsValid().
    template <typename Attribute>
    bool GetAttribute(int id, Attribute* attribute) const {
        std::vector<uint8_t> found;
        if (!FindAttribute(id, &found)) return false;
        *attribute = Attribute(found);
        return attribute->IsValid();
    }
    template <typename T>
    bool GetAttributeValue(int id, T* value) const {
        NL80211Attr<T> attribute{std::vector<uint8_t>()};
        if (!GetAttribute(id, &attribute)) return false;
        *value = attribute.GetValue();
        return true;
    }

  private:
    bool FindAttribute(int id, std::vector<uint8_t>* found) const {
        const std::vector<uint8_t>& data = static_cast<const Holder*>(this)->GetConstData();
        const size_t offset = Holder::kAttributesOffset;
        uint8_t* start = nullptr;
        uint8_t* end = nullptr;
        if (data.size() < offset ||
            !BaseNL80211Attr::GetAttributeImpl(data.data() + offset, data.size() - offset, id,
                                               &start, &end)) {
            return false;
        }
        found->assign(start, end);
        return true;
    }
};

class NL80211NestedAttr : public BaseNL80211Attr, public AttributeGetters<NL80211NestedAttr> {
  public:
    static constexpr size_t kAttributesOffset = kHeaderSize;

    // An empty nest: nla_len 4, nla_type id (NLA_F_NESTED is not set).
    explicit NL80211NestedAttr(int id);
    explicit NL80211NestedAttr(const std::vector<uint8_t>& data) : BaseNL80211Attr(data) {}

    // Appends an attribute to the nest; false (nothing appended) when nla_len would overflow.
    [[nodiscard]] bool AddAttribute(const BaseNL80211Attr& attribute);

    // Every attribute inside the nest, each as a nest of its own (the usual shape of a list:
    // one nest per entry). False when a sub-attribute is broken or invalid.
    bool GetListOfNestedAttributes(std::vector<NL80211NestedAttr>* attributes) const;
};

}  // namespace wificond
}  // namespace android
