// SockDiag: the daemon's client of the kernel's socket diagnostics. It lists the live TCP
// sockets with their tcp_info (for the TCP socket monitor) and destroys every socket of one
// UID, so that an application reconnects and its new connections follow the current rules.
//
// One object per pass and per thread: it has no lock, and each user opens its own pair of
// sockets, which the destructor closes.
#pragma once

#include <android-base/unique_fd.h>
#include <stdint.h>
#include <sys/uio.h>

#include "netlink/sock_diag_dump.h"
#include "netlink/sock_diag_wire.h"

namespace android {
namespace net {

class SockDiag {
  public:
    SockDiag() = default;
    // Adopts two sockets that are already open and connected (a test's socketpair ends, on
    // which the test plays the kernel); open() then refuses, as it does on any open object.
    SockDiag(android::base::unique_fd dumpFd, android::base::unique_fd destroyFd);
    virtual ~SockDiag();
    SockDiag(const SockDiag&) = delete;
    SockDiag& operator=(const SockDiag&) = delete;

    // Opens and connects both sockets; false when that fails (errno set) and when both are
    // already open, which keeps them.
    [[nodiscard]] bool open();

    // Writes a dump request as iov[0] (the caller leaves it empty and gets it back empty)
    // and checks for an immediate refusal. 0, a negative errno, or the kernel's error.
    [[nodiscard]] int sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions,
                                      uint32_t states, iovec* iov, int iovcnt);
    // Reads the dump that sendDumpRequest started and destroys each socket the filter picks.
    int readDiagMsg(uint8_t proto, const DestroyFilter& shouldDestroy);
    // Reads the dump that sendDumpRequest started and hands each socket to the reader.
    int readDiagMsgWithTcpInfo(const TcpInfoReader& reader);

    // Every established or connecting TCP socket, IPv4 then IPv6, with its tcp_info.
    int getLiveTcpInfos(const TcpInfoReader& reader);
    // Destroys every socket of proto that belongs to uid, IPv4 then IPv6, in every state.
    int destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback);
    // Destroys one dumped socket; a kernel refusal is returned and not counted.
    int sockDestroy(uint8_t proto, const inet_diag_msg* msg);

    // Whether a socket talks over loopback, or to itself.
    static bool isLoopbackSocket(const inet_diag_msg* msg);

  private:
    void closeSockets();

    int dumpSocket = -1;
    int destroySocket = -1;
    int destroyedCount = 0;
};

}  // namespace net
}  // namespace android
