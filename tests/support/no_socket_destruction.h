// Keeps code under test away from the kernel's socket table: while it lives, netlink sockets
// cannot be opened, so nothing that would destroy sockets (a selection switch, the
// shutdown) reaches the host's own connections. Every other socket is made as usual.
#pragma once

#include <errno.h>
#include <sys/socket.h>

#include "base/socket_owner.h"

namespace vekt::test {

class ScopedNoSocketDestruction : public SocketFactory {
public:
    android::base::unique_fd open(int domain, int type, int protocol) override {
        if (domain == AF_NETLINK) {
            errno = EPERM;
            return android::base::unique_fd();
        }
        return socketFactorySeam().real().open(domain, type, protocol);
    }

private:
    ScopedSeamOverride<SocketFactory> scope_{socketFactorySeam(), *this};
};

}  // namespace vekt::test
