#define LOG_TAG "slm-netlink"

#include "wificond/net/netlink_utils.h"

#include <android-base/logging.h>
#include <errno.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <log/log.h>
#include <net/if.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utils/Timers.h>

#include <algorithm>
#include <utility>

#include "base/socket_owner.h"
#include "wificond/net/nl80211_attribute.h"
#include "wificond/net/nl80211_packet.h"

namespace android {
namespace wificond {
namespace {

// Kernel layout: the bound address is family, pad, port id and groups.
static_assert(sizeof(sockaddr_nl) == 12, "sockaddr_nl is 12 bytes");
static_assert(sizeof(nlmsghdr) == 16, "nlmsghdr is 16 bytes");

constexpr int kReceiveBufferSizeOption = 8192;
constexpr int kMaximumWaitMs = 1000;
constexpr char kFamilyName[] = "nl80211";
constexpr size_t kBssidDigits = 12;

uint32_t ProcessId() { return static_cast<uint32_t>(getpid()); }

}  // namespace

void AppendPacket(std::vector<std::unique_ptr<const NL80211Packet>>* vec,
                  std::unique_ptr<const NL80211Packet> packet) {
    vec->push_back(std::move(packet));
}

void ForEachNetlinkMessage(const uint8_t* bytes, size_t length,
                           const std::function<bool(std::unique_ptr<const NL80211Packet>)>& visit) {
    size_t offset = 0;
    while (offset < length) {
        if (length - offset < sizeof(nlmsghdr)) {
            LOG(ERROR) << "payload is broken.";
            return;
        }
        uint32_t messageLength;
        memcpy(&messageLength, bytes + offset + offsetof(nlmsghdr, nlmsg_len),
               sizeof(messageLength));
        // Bounds: a length past the datagram copies what is there, and the packet then fails
        // its own check, since it claims more than it holds.
        const size_t copied = std::min<size_t>(messageLength, length - offset);
        auto packet = std::make_unique<const NL80211Packet>(
            std::vector<uint8_t>(bytes + offset, bytes + offset + copied));
        // Messages follow each other unaligned, as the kernel packs its replies.
        offset += copied;
        if (!packet->IsValid()) {
            LOG(ERROR) << "Receive invalid packet";
            return;
        }
        if (!visit(std::move(packet))) return;
    }
}

NetlinkUtils* NetlinkUtils::instance() {
    // Never destroyed: the monitor threads may still ask while the process ends.
    static NetlinkUtils* utils = new NetlinkUtils();
    return utils;
}

bool NetlinkUtils::Start() {
    vekt::MutexLock lock(requestMutex);
    if (!SetupSocket(&netlinkFd)) {
        LOG(ERROR) << "Failed to setup synchronous netlink socket";
        return false;
    }
    return DiscoverFamilyId();
}

bool NetlinkUtils::SetupSocket(android::base::unique_fd* fd) {
    vekt::SocketFactory& factory = vekt::socketFactorySeam().get();
    *fd = factory.open(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
    if (!fd->ok()) {
        ALOGE("Failed to create netlink socket");
        return false;
    }
    const int receiveBuffer = kReceiveBufferSizeOption;
    if (factory.setOption(fd->get(), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer,
                          sizeof(receiveBuffer)) != 0) {
        LOG(ERROR) << "Failed to set uevent socket SO_RCVBUFFORCE option";
        return false;
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = 0;  // the kernel assigns the port id
    address.nl_groups = 0;
    if (factory.bindAddress(fd->get(), reinterpret_cast<const sockaddr*>(&address),
                            sizeof(address)) != 0) {
        LOG(ERROR) << "Failed to bind netlink socket";
        return false;
    }
    return true;
}

uint32_t NetlinkUtils::GetSequenceNumber() {
    // 0 is the sequence of the kernel's multicast messages; requests never use it.
    if (++sequenceNumber == 0) sequenceNumber = 1;
    return sequenceNumber;
}

bool NetlinkUtils::DiscoverFamilyId() {
    NL80211Packet request(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, GetSequenceNumber(), ProcessId());
    request.AddAttribute(NL80211Attr<std::string>(CTRL_ATTR_FAMILY_NAME, kFamilyName));
    std::unique_ptr<const NL80211Packet> response;
    if (!SendMessageAndGetSingleResponse(request, &response)) {
        LOG(ERROR) << "Failed to get NL80211 family info";
        return false;
    }
    OnNewFamily(std::move(response));
    if (messageTypes.find(kFamilyName) == messageTypes.end()) {
        LOG(ERROR) << "Failed to get NL80211 family id";
        return false;
    }
    return true;
}

void NetlinkUtils::OnNewFamily(std::unique_ptr<const NL80211Packet> packet) {
    if (packet->GetMessageType() != GENL_ID_CTRL) {
        LOG(ERROR) << "Wrong message type for new family message";
        return;
    }
    if (packet->GetCommand() != CTRL_CMD_NEWFAMILY) {
        LOG(ERROR) << "Wrong command for new family message";
        return;
    }
    uint16_t familyId;
    if (!packet->GetAttributeValue(CTRL_ATTR_FAMILY_ID, &familyId)) {
        LOG(ERROR) << "Failed to get family id";
        return;
    }
    std::string familyName;
    if (!packet->GetAttributeValue(CTRL_ATTR_FAMILY_NAME, &familyName)) {
        LOG(ERROR) << "Failed to get family name";
        return;
    }
    if (familyName != kFamilyName) {
        LOG(WARNING) << "Ignoring none nl80211 netlink families";
        return;
    }
    MessageType type;
    type.familyId = familyId;
    NL80211NestedAttr groupsAttribute(0);
    if (packet->GetAttribute(CTRL_ATTR_MCAST_GROUPS, &groupsAttribute)) {
        std::vector<NL80211NestedAttr> groups;
        // A list that cannot be read leaves the family without groups (the list logs a
        // broken length); the station query needs none.
        if (!groupsAttribute.GetListOfNestedAttributes(&groups)) groups.clear();
        for (const NL80211NestedAttr& group : groups) {
            std::string groupName;
            if (!group.GetAttributeValue(CTRL_ATTR_MCAST_GRP_NAME, &groupName)) {
                LOG(ERROR) << "Failed to get group name";
                return;
            }
            uint32_t groupId;
            if (!group.GetAttributeValue(CTRL_ATTR_MCAST_GRP_ID, &groupId)) {
                LOG(ERROR) << "Failed to get group id";
                return;
            }
            type.groups[groupName] = groupId;
        }
    }
    messageTypes[familyName] = std::move(type);
}

uint16_t NetlinkUtils::GetFamilyId() {
    vekt::MutexLock lock(requestMutex);
    return FamilyIdLocked();
}

uint16_t NetlinkUtils::FamilyIdLocked() {
    // The subscript creates an empty entry (id 0) for a family never resolved.
    return messageTypes[kFamilyName].familyId;
}

bool NetlinkUtils::SendMessageInternal(const NL80211Packet& packet, int fd) {
    const std::vector<uint8_t>& bytes = packet.GetConstData();
    ssize_t sent;
    do {
        // MSG_NOSIGNAL: a vanished peer must cost a log line, not the process.
        sent = sendto(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL, nullptr, 0);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        PLOG(ERROR) << "Failed to send netlink message";
        return false;
    }
    return true;
}

bool NetlinkUtils::SendMessageAndGetResponses(
    const NL80211Packet& packet, std::vector<std::unique_ptr<const NL80211Packet>>* responses) {
    if (!SendMessageInternal(packet, netlinkFd.get())) return false;
    const uint32_t sequence = packet.GetMessageSequence();
    messageHandlers[sequence] = [responses](std::unique_ptr<const NL80211Packet> reply) {
        AppendPacket(responses, std::move(reply));
    };

    int64_t timeRemaining = kMaximumWaitMs;
    while (messageHandlers.find(sequence) != messageHandlers.end()) {
        const nsecs_t start = systemTime(SYSTEM_TIME_MONOTONIC);
        struct pollfd entry = {netlinkFd.get(), POLLIN, 0};
        const int ready = poll(&entry, 1, static_cast<int>(timeRemaining));
        if (ready == 0) {
            LOG(ERROR) << "Failed to poll netlink fd: time out ";
            messageHandlers.erase(sequence);
            return false;
        }
        if (ready < 0) {
            PLOG(ERROR) << "Failed to poll netlink fd";
            messageHandlers.erase(sequence);
            return false;
        }
        ReceivePacketAndRunHandler(netlinkFd.get());
        timeRemaining -= ns2ms(systemTime(SYSTEM_TIME_MONOTONIC) - start);
        if (timeRemaining <= 0) {
            LOG(ERROR) << "Timeout waiting for netlink reply messages";
            messageHandlers.erase(sequence);
            return false;
        }
    }
    return true;
}

bool NetlinkUtils::SendMessageAndGetSingleResponse(const NL80211Packet& packet,
                                                   std::unique_ptr<const NL80211Packet>* response) {
    std::vector<std::unique_ptr<const NL80211Packet>> responses;
    // A reply of NLMSG_DONE alone ends the wait with nothing to hand back.
    if (!SendMessageAndGetResponses(packet, &responses) || responses.empty()) return false;
    *response = std::move(responses.front());
    return true;
}

void NetlinkUtils::ReceivePacketAndRunHandler(int fd) {
    ssize_t length;
    do {
        length = read(fd, receiveBuffer.data(), receiveBuffer.size());
    } while (length < 0 && errno == EINTR);
    if (length < 0) {
        LOG(ERROR) << "Failed to read packet from buffer";
        return;
    }
    if (length == 0) return;

    ForEachNetlinkMessage(
        receiveBuffer.data(), static_cast<size_t>(length),
        [this](std::unique_ptr<const NL80211Packet> packet) {
            requestMutex.assertHeld();  // the walk runs on this thread, within this call
            const uint32_t sequence = packet->GetMessageSequence();
            if (sequence == 0) return true;  // a multicast event: nobody asked for it
            auto handler = messageHandlers.find(sequence);
            if (handler == messageHandlers.end()) {
                LOG(WARNING) << "No handler for message: " << sequence;
                return false;
            }
            const uint16_t type = packet->GetMessageType();
            if (type == NLMSG_DONE || type == NLMSG_NOOP) {
                messageHandlers.erase(handler);
                return false;
            }
            if (type == NLMSG_OVERRUN) {
                LOG(ERROR) << "Get message overrun notification";
                messageHandlers.erase(handler);
                return false;
            }
            // Errors go to the handler too: the caller reads the command and sees no reply.
            const bool multipart = packet->IsMulti();
            handler->second(std::move(packet));
            if (!multipart) messageHandlers.erase(handler);
            return true;
        });
}

int NetlinkUtils::GetStationInfo(const char* bssid, const char* ifname) {
    if (bssid == nullptr) bssid = "";
    if (ifname == nullptr) ifname = "";
    vekt::MutexLock lock(requestMutex);
    const uint16_t familyId = FamilyIdLocked();
    NL80211Packet request(familyId, NL80211_CMD_GET_STATION, GetSequenceNumber(), ProcessId());
    // An unknown interface gives index 0; the kernel refuses it and the query fails.
    request.AddAttribute(NL80211Attr<uint32_t>(NL80211_ATTR_IFINDEX, if_nametoindex(ifname)));

    // Two hex digits per byte, no separators: "aabbccddeeff" is aa:bb:cc:dd:ee:ff. At most
    // 12 digits are read, so a registry field without a terminating NUL is safe too.
    std::vector<uint8_t> mac;
    const size_t digits = strnlen(bssid, kBssidDigits);
    for (size_t i = 0; i < digits; i += 2) {
        const char pair[3] = {bssid[i], i + 1 < digits ? bssid[i + 1] : '\0', '\0'};
        mac.push_back(static_cast<uint8_t>(strtol(pair, nullptr, 16)));
    }
    request.AddAttribute(BaseNL80211Attr(NL80211_ATTR_MAC, mac));

    std::unique_ptr<const NL80211Packet> response;
    if (!SendMessageAndGetSingleResponse(request, &response)) {
        LOG(ERROR) << "NL80211_CMD_GET_STATION failed";
        return 0;
    }
    if (response->GetCommand() != NL80211_CMD_NEW_STATION) {
        LOG(ERROR) << "Wrong command in response to a get station request: "
                   << static_cast<int>(response->GetCommand());
        return 0;
    }
    NL80211NestedAttr stationInfo(0);
    if (!response->GetAttribute(NL80211_ATTR_STA_INFO, &stationInfo)) {
        LOG(ERROR) << "Failed to get NL80211_ATTR_STA_INFO";
        return 0;
    }
    int8_t signal;
    if (!stationInfo.GetAttributeValue(NL80211_STA_INFO_SIGNAL, &signal)) {
        LOG(ERROR) << "Failed to get NL80211_STA_INFO_SIGNAL";
        return 0;
    }
    return signal;
}

}  // namespace wificond
}  // namespace android
