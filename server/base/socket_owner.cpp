#include "base/socket_owner.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

namespace vekt {
namespace {

class SystemSocketFactory : public SocketFactory {
public:
    android::base::unique_fd open(int domain, int type, int protocol) override {
        return android::base::unique_fd(socket(domain, type | SOCK_CLOEXEC, protocol));
    }
};

}  // namespace

int SocketFactory::setOption(int fd, int level, int name, const void* value, socklen_t length) {
    return ::setsockopt(fd, level, name, value, length);
}

int SocketFactory::bindAddress(int fd, const sockaddr* address, socklen_t length) {
    return ::bind(fd, address, length);
}

Seam<SocketFactory>& socketFactorySeam() {
    static SystemSocketFactory real;
    static Seam<SocketFactory> seam(real);
    return seam;
}

bool SocketOwner::open(int domain, int type, int protocol) {
    fd_ = socketFactorySeam().get().open(domain, type, protocol);
    return fd_.ok();
}

ssize_t SocketOwner::send(const void* data, size_t length, int flags) {
    for (;;) {
        ssize_t sent = ::send(fd_.get(), data, length, flags | MSG_NOSIGNAL);
        if (sent >= 0 || errno != EINTR) return sent;
    }
}

ssize_t SocketOwner::receive(void* buffer, size_t size, int flags) {
    for (;;) {
        ssize_t received = ::recv(fd_.get(), buffer, size, flags);
        if (received >= 0 || errno != EINTR) return received;
    }
}

int SocketOwner::waitReadable(int timeoutMs) {
    struct pollfd entry = {fd_.get(), POLLIN, 0};
    for (;;) {
        int ready = poll(&entry, 1, timeoutMs);
        if (ready >= 0) return ready > 0 ? 1 : 0;
        if (errno != EINTR) return -1;
    }
}

}  // namespace vekt
