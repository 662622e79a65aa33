#include "support/control_client.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "control/msg.h"

namespace vekt::test {

bool ControlClient::connect(const std::string& socketPath, int timeoutMs) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof(address.sun_path)) return false;
    memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    for (int waited = 0;; waited += 20) {
        android::base::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!fd.ok()) return false;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
            fd_ = std::move(fd);
            return true;
        }
        if (waited >= timeoutMs) return false;
        usleep(20000);
    }
}

bool ControlClient::send(int id, const std::string& text) {
    msg_t msg = {};
    msg.id = id;
    msg.length = static_cast<int32_t>(text.size());
    memcpy(msg.message, text.data(), std::min(text.size(), sizeof(msg.message) - 1));
    return ::send(fd_, &msg, sizeof(msg), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(msg));
}

}  // namespace vekt::test
