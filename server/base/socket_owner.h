// The owner of one kernel socket (sock_diag, generic netlink), and the seam that opens it.
// Tests install a SocketFactory that hands out one end of a socketpair and play the kernel
// on the other end; everything above the descriptor runs unchanged.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "base/seam.h"

namespace vekt {

class SocketFactory {
public:
    virtual ~SocketFactory() = default;
    // A new socket, close-on-exec; an invalid descriptor (errno set) on failure.
    virtual android::base::unique_fd open(int domain, int type, int protocol) = 0;

    // The set-up calls that only a kernel socket honours (a forced receive buffer, a netlink
    // address). The default makes the system calls; a factory that hands out socketpair ends
    // may accept them instead. Results and errno as the system calls give them.
    virtual int setOption(int fd, int level, int name, const void* value, socklen_t length);
    virtual int bindAddress(int fd, const sockaddr* address, socklen_t length);
};

Seam<SocketFactory>& socketFactorySeam();

class SocketOwner {
public:
    SocketOwner() = default;
    explicit SocketOwner(android::base::unique_fd fd) : fd_(std::move(fd)) {}

    // Opens a socket through the factory in force; false (errno set) when that fails.
    bool open(int domain, int type, int protocol);
    void adopt(android::base::unique_fd fd) { fd_ = std::move(fd); }
    void close() { fd_.reset(); }
    bool ok() const { return fd_.ok(); }
    int fd() const { return fd_.get(); }

    // send/recv that retry on EINTR; results and errno as the system calls give them.
    ssize_t send(const void* data, size_t length, int flags = 0);
    ssize_t receive(void* buffer, size_t size, int flags = 0);
    // Waits until the socket is readable: 1 readable, 0 timed out, -1 error (errno set).
    // A negative timeout waits without limit.
    int waitReadable(int timeoutMs);

private:
    android::base::unique_fd fd_;
};

}  // namespace vekt
