#include "config/interface_info.h"

#include <string.h>

namespace vekt {

bool isCellularName(const char* name) {
    return strncmp(name, "rmnet_data", 10) == 0 || strncmp(name, "ccmni", 5) == 0 ||
           strncmp(name, "wwan", 4) == 0;
}

bool isWifiName(const char* name) { return strncmp(name, "wlan", 4) == 0; }

}  // namespace vekt
