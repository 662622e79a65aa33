// NetlinkUtils: the daemon's synchronous client of the generic netlink bus. It resolves the
// nl80211 family and answers one question for the Wi-Fi monitors: the signal strength of the
// access point a Wi-Fi interface is associated with. One request at a time: each waits up
// to a second for its reply, matched by sequence number.
#pragma once

#include <android-base/unique_fd.h>
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/thread_annotations.h"

namespace android {
namespace wificond {

class NL80211Packet;
class NetlinkUtilsTestPeer;

struct MessageType {
    uint16_t familyId = 0;
    std::map<std::string, uint32_t> groups;  // multicast group name -> group id
};

// Splits one received datagram into its messages, in order, and hands each valid one to
// visit, which returns whether to go on. A message cut short or invalid ends the walk with
// its log line. Reads nothing outside bytes[0, length).
void ForEachNetlinkMessage(const uint8_t* bytes, size_t length,
                           const std::function<bool(std::unique_ptr<const NL80211Packet>)>& visit);

class NetlinkUtils {
  public:
    static NetlinkUtils* instance();

    // A fresh socket (the old one closes) and nl80211 resolved again.
    bool Start() EXCLUDES(requestMutex);
    // Opens, sizes and binds a generic netlink socket into fd.
    bool SetupSocket(android::base::unique_fd* fd);
    // nl80211's family id, 0 while it is unknown.
    uint16_t GetFamilyId() EXCLUDES(requestMutex);
    // The station's signal in dBm (negative), 0 on any failure. bssid: 12 hex digits.
    int GetStationInfo(const char* bssid, const char* ifname) EXCLUDES(requestMutex);

    // The steps of a request. Start() and GetStationInfo() run them under requestMutex, so
    // the RSSI and dual Wi-Fi monitors, which share this object, never interleave requests.
    bool DiscoverFamilyId() REQUIRES(requestMutex);
    void OnNewFamily(std::unique_ptr<const NL80211Packet> packet) REQUIRES(requestMutex);
    bool SendMessageAndGetResponses(const NL80211Packet& packet,
                                    std::vector<std::unique_ptr<const NL80211Packet>>* responses)
        REQUIRES(requestMutex);
    bool SendMessageAndGetSingleResponse(const NL80211Packet& packet,
                                         std::unique_ptr<const NL80211Packet>* response)
        REQUIRES(requestMutex);
    bool SendMessageInternal(const NL80211Packet& packet, int fd);
    void ReceivePacketAndRunHandler(int fd) REQUIRES(requestMutex);

  private:
    friend class NetlinkUtilsTestPeer;

    static constexpr size_t kReceiveBufferSize = 8192;

    NetlinkUtils() = default;
    ~NetlinkUtils() = default;

    uint32_t GetSequenceNumber() REQUIRES(requestMutex);
    uint16_t FamilyIdLocked() REQUIRES(requestMutex);

    // Taken after the monitors' own mutexes and the interface registry lock (see mutex.h).
    vekt::Mutex requestMutex{vekt::LockLevel::kNetlink, "netlinkMutex"};

    android::base::unique_fd netlinkFd GUARDED_BY(requestMutex);
    std::map<uint32_t, std::function<void(std::unique_ptr<const NL80211Packet>)>> messageHandlers
        GUARDED_BY(requestMutex);
    std::map<std::string, MessageType> messageTypes GUARDED_BY(requestMutex);
    uint32_t sequenceNumber GUARDED_BY(requestMutex) = 0;
    std::array<uint8_t, kReceiveBufferSize> receiveBuffer GUARDED_BY(requestMutex) = {};
};

void AppendPacket(std::vector<std::unique_ptr<const NL80211Packet>>* vec,
                  std::unique_ptr<const NL80211Packet> packet);

}  // namespace wificond
}  // namespace android
