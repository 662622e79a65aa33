#define LOG_TAG "SLM-Vekt-SockDiag"

#include "netlink/sock_diag.h"

#include <errno.h>
#include <linux/netlink.h>
#include <log/log.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/socket_owner.h"
#include "status/status_counters.h"

#if defined(__BIONIC__)
#include <android/fdsan.h>
#endif

namespace android {
namespace net {
namespace {

constexpr size_t kDumpBufferSize = 8192;
// The live states of a TCP connection: established, or on its way there.
constexpr uint32_t kLiveTcpStates =
    (1u << TCP_ESTABLISHED) | (1u << TCP_SYN_SENT) | (1u << TCP_SYN_RECV);
constexpr uint8_t kTcpInfoExtension = 1u << (INET_DIAG_INFO - 1);
constexpr uint32_t kEveryState = 0xFFFFFFFF;

static_assert(sizeof(sockaddr_nl) == 12, "netlink address layout");
static_assert(kLiveTcpStates == 14 && kTcpInfoExtension == 2, "dump request values");

// Descriptor ownership tags: with them the C library aborts when other code closes one of
// our sockets by mistake, instead of letting us talk on whatever reuses the number. Bionic
// has them; a glibc host does not, so there tagging does nothing and closing is plain.
#if defined(__BIONIC__)
uint64_t ownerTag(const void* owner) {
    return android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_GENERIC_00,
                                          reinterpret_cast<uint64_t>(owner));
}
#endif

int takeTagged(android::base::unique_fd fd, const void* owner) {
    const int raw = fd.release();
#if defined(__BIONIC__)
    if (raw >= 0) android_fdsan_exchange_owner_tag(raw, 0, ownerTag(owner));
#else
    (void)owner;
#endif
    return raw;
}

void closeTagged(int fd, const void* owner) {
    if (fd < 0) return;
    const int savedErrno = errno;  // a close must not hide the error being reported
#if defined(__BIONIC__)
    android_fdsan_close_with_tag(fd, ownerTag(owner));
#else
    (void)owner;
    ::close(fd);
#endif
    errno = savedErrno;
}

// A signal (the daemon's SIGUSR1) must not cut a dump or an acknowledgement short.
template <typename Call>
ssize_t retryingEintr(Call call) {
    for (;;) {
        const ssize_t result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

// A datagram socket writes a message whole or not at all; a short count still must not be
// taken for success with a stale errno.
int writeFailure(ssize_t written) { return written < 0 ? -errno : -EIO; }

// After a request: a refusal the kernel queued at once comes back as an NLMSG_ERROR with
// its error, which is consumed; a plain acknowledgement gives 0. Nothing queued means no
// error, and a dump reply that is already there is left for the reader.
int checkAcknowledgement(int fd) {
    DiagAck ack;
    ssize_t peeked =
        retryingEintr([&] { return recv(fd, &ack, sizeof(ack), MSG_PEEK | MSG_DONTWAIT); });
    if (peeked < 0) return errno == EAGAIN ? 0 : -errno;
    if (peeked != static_cast<ssize_t>(sizeof(ack)) || ack.nlh.nlmsg_type != NLMSG_ERROR) {
        return 0;
    }
    if (retryingEintr([&] { return recv(fd, &ack, sizeof(ack), 0); }) < 0) return -errno;
    return ack.err.error;
}

// Reads a dump to its end: 0 after NLMSG_DONE or an empty read, the kernel's error after
// NLMSG_ERROR, -errno when a read fails. Each read is walked on its own.
int processNetlinkDump(int fd, const NetlinkDumpCallback& callback) {
    alignas(8) uint8_t buffer[kDumpBufferSize] = {};
    for (;;) {
        const ssize_t received = retryingEintr([&] { return read(fd, buffer, sizeof(buffer)); });
        if (received < 0) return -errno;
        if (received == 0) return 0;
        const DumpWalk walk = walkNetlinkDump(buffer, static_cast<size_t>(received), callback);
        if (walk.finished) return walk.result;
    }
}

const char* familyName(int family) { return family == AF_INET ? "IPv4" : "IPv6"; }

bool isMappedWithLoopbackLastByte(const uint8_t* address) {
    static const uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return memcmp(address, kMappedPrefix, sizeof(kMappedPrefix)) == 0 && address[15] == 127;
}

bool isIpv6Loopback(const uint8_t* address) {
    static const uint8_t kLoopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return memcmp(address, kLoopback, sizeof(kLoopback)) == 0;
}

}  // namespace

SockDiag::SockDiag(android::base::unique_fd dumpFd, android::base::unique_fd destroyFd)
    : dumpSocket(takeTagged(std::move(dumpFd), this)),
      destroySocket(takeTagged(std::move(destroyFd), this)) {}

SockDiag::~SockDiag() { closeSockets(); }

void SockDiag::closeSockets() {
    closeTagged(dumpSocket, this);
    closeTagged(destroySocket, this);
    dumpSocket = -1;
    destroySocket = -1;
}

bool SockDiag::open() {
    if (dumpSocket >= 0 && destroySocket >= 0) return false;
    closeSockets();

    vekt::SocketFactory& factory = vekt::socketFactorySeam().get();
    android::base::unique_fd dump =
        factory.open(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    const int dumpErrno = errno;
    android::base::unique_fd destroy =
        factory.open(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (!dump.ok() || !destroy.ok()) {
        if (!dump.ok()) errno = dumpErrno;
        return false;  // both closed on the way out
    }

    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    const auto* address = reinterpret_cast<const sockaddr*>(&kernel);
    if (connect(dump.get(), address, sizeof(kernel)) != 0 ||
        connect(destroy.get(), address, sizeof(kernel)) != 0) {
        return false;
    }
    dumpSocket = takeTagged(std::move(dump), this);
    destroySocket = takeTagged(std::move(destroy), this);
    return true;
}

int SockDiag::sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states,
                              iovec* iov, int iovcnt) {
    if (iov == nullptr || iovcnt < 1) return -EINVAL;
    DiagRequest request = makeDumpRequest(proto, family, extensions, states);
    iov[0] = {&request, sizeof(request)};
    size_t length = 0;
    for (int i = 0; i < iovcnt; ++i) length += iov[i].iov_len;
    request.nlh.nlmsg_len = static_cast<uint32_t>(length);

    const ssize_t written = retryingEintr([&] { return writev(dumpSocket, iov, iovcnt); });
    const int writeErrno = errno;
    iov[0] = {nullptr, 0};  // the request lives on this stack frame only
    if (written != static_cast<ssize_t>(length)) {
        errno = writeErrno;
        return writeFailure(written);
    }
    return checkAcknowledgement(dumpSocket);
}

int SockDiag::readDiagMsg(uint8_t proto, const DestroyFilter& shouldDestroy) {
    const auto destroyPicked = [&](nlmsghdr* nlh) {
        const inet_diag_msg* msg = diagMsgOf(nlh);
        // A refused destroy (the socket may be gone already) does not stop the pass.
        if (shouldDestroy(proto, msg)) (void)sockDestroy(proto, msg);
    };
    return processNetlinkDump(dumpSocket, destroyPicked);
}

int SockDiag::readDiagMsgWithTcpInfo(const TcpInfoReader& reader) {
    return processNetlinkDump(dumpSocket, [&](nlmsghdr* nlh) { reportTcpInfo(nlh, reader); });
}

int SockDiag::getLiveTcpInfos(const TcpInfoReader& reader) {
    for (const int family : {AF_INET, AF_INET6}) {
        iovec iov[] = {{nullptr, 0}};
        int ret = sendDumpRequest(IPPROTO_TCP, family, kTcpInfoExtension, kLiveTcpStates, iov, 1);
        if (ret != 0) {
            ALOGE("Failed to dump %s sockets struct tcp_info: %s", familyName(family),
                  strerror(-ret));
            return ret;
        }
        ret = readDiagMsgWithTcpInfo(reader);
        if (ret != 0) {
            ALOGE("Failed to read %s sockets struct tcp_info: %s", familyName(family),
                  strerror(-ret));
            return ret;
        }
    }
    return 0;
}

int SockDiag::destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback) {
    destroyedCount = 0;
    const auto ownedByUid = [uid, excludeLoopback](uint8_t, const inet_diag_msg* msg) {
        return msg != nullptr && msg->idiag_uid == uid &&
               !(excludeLoopback && isLoopbackSocket(msg));
    };
    for (const int family : {AF_INET, AF_INET6}) {
        // Every state: listening and time-wait sockets hold the application's ports too.
        iovec iov[] = {{nullptr, 0}};
        int ret = sendDumpRequest(proto, family, 0, kEveryState, iov, 1);
        if (ret != 0) {
            ALOGE("Failed to dump %s sockets for UID: %s", familyName(family), strerror(-ret));
            return ret;
        }
        ret = readDiagMsg(proto, ownedByUid);
        if (ret != 0) {
            ALOGE("Failed to destroy %s sockets for UID: %s", familyName(family), strerror(-ret));
            return ret;
        }
    }
    if (destroyedCount > 0) ALOGI("Destroyed %d sockets for UID", destroyedCount);
    return 0;
}

int SockDiag::sockDestroy(uint8_t proto, const inet_diag_msg* msg) {
    if (msg == nullptr) return 0;
    const DiagRequest request = makeDestroyRequest(proto, *msg);
    const ssize_t written =
        retryingEintr([&] { return write(destroySocket, &request, sizeof(request)); });
    if (written < static_cast<ssize_t>(sizeof(request))) return writeFailure(written);
    const int ret = checkAcknowledgement(destroySocket);
    if (ret != 0) return ret;
    ++destroyedCount;
    vekt::countEvent(vekt::statusCounters().socketsDestroyed);
    return 0;
}

bool SockDiag::isLoopbackSocket(const inet_diag_msg* msg) {
    if (msg == nullptr) return false;
    uint8_t src[16];
    uint8_t dst[16];
    static_assert(sizeof(msg->id.idiag_src) == sizeof(src), "address width");
    memcpy(src, msg->id.idiag_src, sizeof(src));
    memcpy(dst, msg->id.idiag_dst, sizeof(dst));
    switch (msg->idiag_family) {
        case AF_INET:
            return src[0] == 127 || dst[0] == 127 || memcmp(src, dst, 4) == 0;
        case AF_INET6:
            // The mapped test looks at the embedded address's last byte on purpose: that is
            // the classification the selection code has always had, and it must not move.
            return isMappedWithLoopbackLastByte(src) || isMappedWithLoopbackLastByte(dst) ||
                   isIpv6Loopback(src) || isIpv6Loopback(dst) || memcmp(src, dst, 16) == 0;
        default:
            return false;
    }
}

}  // namespace net
}  // namespace android
