// The device root. With `vekt --root DIR` every absolute device path the daemon opens or
// executes lives under DIR; log lines and command texts keep the device paths.
#pragma once

#include <string>

namespace vekt {

class DeviceRoot {
public:
    // Sets the root; an empty text means the device paths are used as they stand.
    static void set(const std::string& dir);
    static std::string get();
    // The file to open for a device path such as "/proc/sla/config".
    static std::string map(const std::string& devicePath);
};

// Test-only: installs a root for the scope and restores the previous one on exit.
class ScopedDeviceRoot {
public:
    explicit ScopedDeviceRoot(const std::string& dir) : previous_(DeviceRoot::get()) {
        DeviceRoot::set(dir);
    }
    ~ScopedDeviceRoot() { DeviceRoot::set(previous_); }
    ScopedDeviceRoot(const ScopedDeviceRoot&) = delete;
    ScopedDeviceRoot& operator=(const ScopedDeviceRoot&) = delete;

private:
    std::string previous_;
};

}  // namespace vekt
