// A control-socket client for end-to-end tests: one connection, whole 1032-byte records.
#pragma once

#include <android-base/unique_fd.h>

#include <string>

namespace vekt::test {

class ControlClient {
public:
    // Connects to the socket file, retrying until it exists or timeoutMs passes.
    bool connect(const std::string& socketPath, int timeoutMs = 5000);
    bool send(int id, const std::string& text);
    bool connected() const { return fd_.ok(); }
    void close() { fd_.reset(); }

private:
    android::base::unique_fd fd_;
};

}  // namespace vekt::test
