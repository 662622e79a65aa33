#define LOG_TAG "SLM-Vekt-Status"

#include "status/status_socket.h"

#include <errno.h>
#include <log/log.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "base/device_root.h"
#include "status/status_document.h"
#include "status/status_snapshot.h"

namespace vekt {
namespace {

using android::base::unique_fd;

unique_fd bindStatusSocket(const std::string& file) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (file.size() >= sizeof(address.sun_path)) {
        ALOGE("status socket path too long: %s", file.c_str());
        return {};
    }
    memcpy(address.sun_path, file.c_str(), file.size() + 1);
    // Non-blocking: a connection that is gone by the time accept runs must not park the
    // thread in accept, where a stop could not reach it.
    unique_fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener.ok() || (unlink(address.sun_path) != 0 && errno != ENOENT) ||
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(address.sun_path, 0660) != 0 || listen(listener, StatusSocket::kBacklog) != 0) {
        ALOGE("status socket '%s' failed: %s", StatusSocket::kPath, strerror(errno));
        return {};
    }
    return listener;
}

using Deadline = std::chrono::steady_clock::time_point;

// Sends the whole text before the deadline; false when the client did not take it in time
// or went away. The deadline is on the real clock, whatever clock a test installs: it
// bounds a real wait on a real socket.
bool sendBefore(int client, const std::string& text, Deadline deadline) {
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n =
            send(client, text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return false;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        pollfd writable = {client, POLLOUT, 0};
        if (left <= 0 || poll(&writable, 1, static_cast<int>(left)) <= 0) return false;
    }
    return true;
}

StatusSocket& daemonStatusSocket() {
    static StatusSocket statusSocket;
    return statusSocket;
}

}  // namespace

bool StatusSocket::start() {
    if (worker_.started()) return true;
    listener_ = bindStatusSocket(DeviceRoot::map(kPath));
    wakeup_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!listener_.ok() || !wakeup_.ok()) {
        listener_.reset();
        wakeup_.reset();
        return false;
    }
    ALOGI("status socket ready at '%s'", kPath);
    return worker_.start([this](Worker& worker) { serve(worker); });
}

void StatusSocket::stop() {
    if (!worker_.started()) return;
    worker_.requestStop();
    eventfd_write(wakeup_.get(), 1);  // the counter is never near full, so this cannot block
    worker_.stop();
    listener_.reset();
    wakeup_.reset();
    unlink(DeviceRoot::map(kPath).c_str());
}

void StatusSocket::serve(Worker& worker) {
    // While the process is out of descriptors a waiting connection cannot be taken, and
    // would wake every poll at once: the listener is left out of the wait for a while.
    constexpr int kOutOfDescriptorsPauseMs = 100;
    bool listening = true;
    while (!worker.stopRequested()) {
        pollfd ready[2] = {{wakeup_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
        const int waited = poll(ready, listening ? 2 : 1, listening ? -1 : kOutOfDescriptorsPauseMs);
        if (waited < 0 && errno != EINTR) {
            ALOGE("status socket poll failed: %s", strerror(errno));
            return;
        }
        if (ready[0].revents != 0) return;  // stop
        listening = true;
        if (waited <= 0 || ready[1].revents == 0) continue;
        if ((ready[1].revents & (POLLERR | POLLNVAL)) != 0) {
            ALOGE("status socket failed; no more status clients");
            return;
        }
        unique_fd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (client.ok()) {
            serveClient(client.get());
        } else if (errno == EMFILE || errno == ENFILE) {
            listening = false;
        }
    }
}

void StatusSocket::serveClient(int client) {
    // The snapshot is taken under the daemon's locks; the document is built and sent with
    // none held.
    const std::string document = statusDocument(takeStatusSnapshot());
    const Deadline deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kSendTimeoutMs);
    if (!sendBefore(client, document, deadline)) {
        ALOGI("status client dropped: it did not read the document in %d ms", kSendTimeoutMs);
    }
}

void startStatusSocket() { daemonStatusSocket().start(); }

void stopStatusSocket() { daemonStatusSocket().stop(); }

}  // namespace vekt
