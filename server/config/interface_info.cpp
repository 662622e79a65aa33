#include "config/interface_info.h"

#include <string.h>

namespace vekt {

bool isCellularName(const char* name) {
    return strncmp(name, "rmnet_data", 10) == 0 || strncmp(name, "ccmni", 5) == 0 ||
           strncmp(name, "wwan", 4) == 0;
}

bool isWifiName(const char* name) { return strncmp(name, "wlan", 4) == 0; }

void copyBounded(char* dest, size_t size, const char* src) {
    if (size == 0) return;
    size_t length = strnlen(src, size - 1);
    memcpy(dest, src, length);
    dest[length] = '\0';
}

}  // namespace vekt
