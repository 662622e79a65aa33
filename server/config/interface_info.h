// One managed interface, and the helpers that tell interface kinds apart by name.
#pragma once

#include <stdint.h>

#include <string>

#include "base/text.h"

// A zero-filled heap block (calloc/free) owned by Parameters::m_interfaceInfoMap.
// Texts are bounded copies, always terminated.
struct InterfaceInfo_t {
    char name[128];        // e.g. "wlan0", "rmnet_data0"
    char routeTable[128];  // routing table of this interface's marked traffic
    bool metered;          // cellular link
    bool slave;            // second link of its kind
    bool isDefault;        // primary Wi-Fi
    int32_t cost;
    int32_t bias;
    char fwmark[128];  // "0x" and lower-case hex, e.g. "0x200000"
    char bssid[16];    // 12 hex digits without colons; "ffffffffffff" when unknown
};

// One slot of the four-mark pool, owned by Parameters for the life of the process.
struct interfaceMark {
    uint32_t mark;
    std::string owner;  // " " when free
    bool isFree;
};

namespace vekt {

constexpr size_t kBssidLength = 12;
constexpr const char* kUnknownBssid = "ffffffffffff";

// Cellular data interfaces: names beginning "rmnet_data", "ccmni" or "wwan".
bool isCellularName(const char* name);
// Wi-Fi interfaces: names beginning "wlan".
bool isWifiName(const char* name);

}  // namespace vekt
