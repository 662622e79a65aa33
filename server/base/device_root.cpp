#include "base/device_root.h"

#include "base/shared_value.h"

namespace vekt {
namespace {

// Set once by main before any thread starts (and by tests between cases); a snapshot keeps
// a concurrent reader from seeing a half-written text.
SharedValue<std::string>& rootDir() {
    static SharedValue<std::string> dir;
    return dir;
}

}  // namespace

void DeviceRoot::set(const std::string& dir) {
    std::string trimmed = dir;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    rootDir().set(trimmed == "/" ? std::string() : trimmed);
}

std::string DeviceRoot::get() { return rootDir().get(); }

std::string DeviceRoot::map(const std::string& devicePath) {
    auto root = rootDir().snapshot();
    if (root->empty() || devicePath.empty() || devicePath[0] != '/') return devicePath;
    return *root + devicePath;
}

}  // namespace vekt
