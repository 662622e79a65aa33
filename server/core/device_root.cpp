#include "core/device_root.h"

#include <mutex>

namespace vekt {
namespace {

// The root is set once by main before any thread starts (and by tests between cases);
// the mutex only keeps a test's change from tearing a concurrent read.
std::mutex& rootMutex() {
    static std::mutex m;
    return m;
}

std::string& rootDir() {
    static std::string dir;
    return dir;
}

}  // namespace

void DeviceRoot::set(const std::string& dir) {
    std::lock_guard<std::mutex> lock(rootMutex());
    std::string trimmed = dir;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    rootDir() = trimmed == "/" ? std::string() : trimmed;
}

std::string DeviceRoot::get() {
    // A copy: a reference would be read after the lock is gone.
    std::lock_guard<std::mutex> lock(rootMutex());
    return rootDir();
}

std::string DeviceRoot::map(const std::string& devicePath) {
    std::lock_guard<std::mutex> lock(rootMutex());
    if (rootDir().empty() || devicePath.empty() || devicePath[0] != '/') return devicePath;
    return rootDir() + devicePath;
}

}  // namespace vekt
