// System properties on the host: the file <root>/properties/<name>, text up to the first
// newline. A missing file gives the caller's default.
#include <cutils/properties.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "base/device_root.h"

namespace {

std::string propertyFile(const char* key) {
    return vekt::DeviceRoot::map(std::string("/properties/") + key);
}

int copyValue(char* value, const char* text, size_t length) {
    if (length > PROPERTY_VALUE_MAX - 1) length = PROPERTY_VALUE_MAX - 1;
    memcpy(value, text, length);
    value[length] = '\0';
    return static_cast<int>(length);
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    if (key == nullptr || value == nullptr) return -1;
    int fd = open(propertyFile(key).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char buffer[PROPERTY_VALUE_MAX] = {};
        ssize_t n = read(fd, buffer, sizeof(buffer) - 1);
        close(fd);
        if (n >= 0) {
            size_t length = strcspn(buffer, "\n");
            return copyValue(value, buffer, length);
        }
    }
    if (default_value == nullptr) return copyValue(value, "", 0);
    return copyValue(value, default_value, strlen(default_value));
}

extern "C" int property_set(const char* key, const char* value) {
    if (key == nullptr || value == nullptr) return -1;
    std::string path = propertyFile(key);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return -1;
    size_t length = strlen(value);
    ssize_t written = write(fd, value, length);
    close(fd);
    return written == static_cast<ssize_t>(length) ? 0 : -1;
}
