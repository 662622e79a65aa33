// Fuzzes the nl80211 message model: each input is the bytes of one receive from the generic
// netlink socket. The datagram is split into messages as the client splits it, and every
// message is read the way the client reads family and station replies: header getters,
// typed attribute lookups, nests and lists of nests. The same bytes are also searched as a
// bare attribute sequence, and each hit must lie inside them and carry the asked-for type.
#include <linux/netlink.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "vekt_host/log_capture.h"
#include "wificond/net/netlink_utils.h"
#include "wificond/net/nl80211_attribute.h"
#include "wificond/net/nl80211_packet.h"

namespace {

using namespace android::wificond;

// Logs of broken messages stay out of the fuzzer's output.
const bool kQuiet = (vekt::host::setStderrEcho(false), true);

// Attribute types the client asks for: family id and name, groups, ifindex, MAC, station
// info, signal; 0 and a flagged type for the odd cases.
constexpr int kIds[] = {0, 1, 2, 3, 6, 7, 21, 0x8007};

uint64_t sink;

void touch(const std::vector<uint8_t>& bytes) {
    for (uint8_t byte : bytes) sink += byte;
}

// Reads a container (a message or a nest) every way the client does, one level of nesting
// deeper each time, as far as depth allows.
template <typename Container>
void readAttributes(const Container& container, int depth) {
    for (int id : kIds) {
        int8_t signal = 0;
        uint16_t familyId = 0;
        uint32_t number = 0;
        std::string text;
        if (container.GetAttributeValue(id, &signal)) sink += static_cast<uint8_t>(signal);
        if (container.GetAttributeValue(id, &familyId)) sink += familyId;
        if (container.GetAttributeValue(id, &number)) sink += number;
        if (container.GetAttributeValue(id, &text)) sink += text.size();

        NL80211NestedAttr nest(0);
        if (!container.GetAttribute(id, &nest)) continue;
        touch(nest.GetConstData());
        if (nest.GetAttributeId() != id) abort();
        if (depth == 0) continue;
        readAttributes(nest, depth - 1);
        std::vector<NL80211NestedAttr> list;
        nest.GetListOfNestedAttributes(&list);
        for (const NL80211NestedAttr& entry : list) {
            touch(entry.GetConstData());
            readAttributes(entry, depth - 1);
        }
    }
}

void searchBare(const uint8_t* bytes, size_t size) {
    for (int id : kIds) {
        uint8_t* start = nullptr;
        uint8_t* end = nullptr;
        if (!BaseNL80211Attr::GetAttributeImpl(bytes, size, id, &start, &end)) continue;
        if (start < bytes || end > bytes + size || end - start < NLA_HDRLEN) abort();
        nlattr header;
        memcpy(&header, start, sizeof(header));
        if (header.nla_type != id ||
            end - start != static_cast<ptrdiff_t>(NLA_ALIGN(header.nla_len))) {
            abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    (void)kQuiet;
    // Exactly the input's bytes on the heap, so the sanitizer sees the first byte beyond them.
    std::unique_ptr<uint8_t[]> bytes(new uint8_t[size > 0 ? size : 1]);
    if (size > 0) memcpy(bytes.get(), data, size);

    ForEachNetlinkMessage(bytes.get(), size, [](std::unique_ptr<const NL80211Packet> packet) {
        // Only valid messages come out of the walk, and each holds what it claims.
        uint32_t claimed = 0;
        memcpy(&claimed, packet->GetConstData().data(), sizeof(claimed));
        if (!packet->IsValid() || claimed != packet->GetConstData().size()) abort();
        sink += packet->GetMessageType() + packet->GetCommand() + packet->GetMessageSequence() +
                packet->IsMulti();
        readAttributes(*packet, 2);
        return true;
    });

    searchBare(bytes.get(), size);
    const NL80211NestedAttr whole(std::vector<uint8_t>(bytes.get(), bytes.get() + size));
    readAttributes(whole, 2);
    std::vector<NL80211NestedAttr> list;
    whole.GetListOfNestedAttributes(&list);
    return 0;
}
