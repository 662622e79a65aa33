#define LOG_TAG "SLM-Vekt-Tcping"

#include "selection/tcping.h"

#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/tcp.h>
#include <log/log.h>
#include <net/if.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/time.h>

#include "base/clock.h"
#include "base/socket_owner.h"

namespace {

constexpr int kProbeTimeoutUs = 500000;         // send, receive and connect time-out
constexpr long kConnectTimeoutNs = 500000000L;  // the same 500 ms as a timespec
constexpr int kMaxExchanges = 10;
constexpr int kBufferSize = 60;  // one answer; the request is 58 characters
constexpr long kNsPerSecond = 1000000000L;
// ppoll events after which the socket's pending error tells how the connect ended.
constexpr short kReadyOrError = POLLIN | POLLOUT | POLLERR;
static_assert(kReadyOrError == 13, "ready-or-error mask");

// The wall clock as a timespec; deadlines are kept on it so that a test can drive them
// through the clock seam.
struct timespec wallNow() {
    const struct timeval now = vekt::wallTime();
    return {now.tv_sec, static_cast<long>(now.tv_usec) * 1000L};
}

// The interface for the log lines; a probe without one goes over the default route.
const char* deviceName(const tcping_info* info) {
    return info->device != nullptr ? info->device : "(null)";
}

// Takes the probe socket out of the record: from here on it is closed on every path.
android::base::unique_fd takeSocket(tcping_info* info) {
    android::base::unique_fd fd(info->sockfd);
    info->sockfd = -1;
    return fd;
}

}  // namespace

int retrying_poll(int fd, short events, const struct timespec* deadline) {
    struct pollfd pfd = {fd, events, 0};
    int ret;
    for (;;) {
        const struct timespec now = wallNow();
        struct timespec remaining = {0, 0};
        if (now.tv_sec < deadline->tv_sec ||
            (now.tv_sec == deadline->tv_sec && now.tv_nsec < deadline->tv_nsec)) {
            remaining.tv_sec = deadline->tv_sec - now.tv_sec;
            remaining.tv_nsec = deadline->tv_nsec - now.tv_nsec;
            if (remaining.tv_nsec < 0) {
                remaining.tv_nsec += kNsPerSecond;
                remaining.tv_sec -= 1;
            }
        }
        pfd.revents = 0;
        ret = ppoll(&pfd, 1, &remaining, nullptr);
        if (ret == 0) {
            ALOGE(" %s : %d retrying_poll timeout", "retrying_poll", fd);
            errno = ETIMEDOUT;
            return 0;
        }
        if (ret > 0) break;
        // A signal (the daemon's own SIGUSR1) must not cut the wait short: wait out the rest.
        if (errno == EINTR) continue;
        ALOGE(" %s : %d retrying_poll failed", "retrying_poll", fd);
        return ret;
    }
    if ((pfd.revents & kReadyOrError) == 0) return ret;

    int pending = 0;
    socklen_t length = sizeof(pending);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &length) != 0 || pending != 0) {
        if (pending != 0) errno = pending;
        const int savedErrno = errno;  // the log call must not change what the caller sees
        ALOGE(" %s : %d retrying_poll getsockopt failed", "retrying_poll", fd);
        errno = savedErrno;
        return -1;
    }
    return ret;
}

int Tcping::connect_with_timeout(int fd, const struct sockaddr* addr, socklen_t addrlen,
                                 struct timespec timeout) {
    // Without O_NONBLOCK a silent server would hold the probe for the kernel's whole SYN
    // retry time (minutes), and with it the selection lock.
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0) return -1;
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return -1;
    auto restoreFlags = [fd, flags]() {
        const int savedErrno = errno;
        fcntl(fd, F_SETFL, flags);
        errno = savedErrno;
    };

    if (connect(fd, addr, addrlen) == 0) {
        restoreFlags();
        return 0;
    }
    if (errno != EINPROGRESS) {
        restoreFlags();
        return -1;
    }

    const struct timespec now = wallNow();
    struct timespec deadline = {now.tv_sec + timeout.tv_sec, now.tv_nsec + timeout.tv_nsec};
    if (deadline.tv_nsec >= kNsPerSecond) {
        deadline.tv_sec += deadline.tv_nsec / kNsPerSecond;
        deadline.tv_nsec %= kNsPerSecond;
    }
    const int ret = retrying_poll(fd, POLLIN | POLLOUT, &deadline);
    restoreFlags();
    return ret < 1 ? -1 : ret;
}

int Tcping::genRandomString(int length, char* buffer) {
    // Seeded on every call from the wall clock's microseconds, so that probes started in
    // the same second still send different texts.
    srand(static_cast<unsigned int>(vekt::wallTime().tv_usec));
    for (int i = 0; i < length - 2; ++i) {
        switch (rand() % 3) {
            case 2:
                buffer[i] = static_cast<char>('0' + rand() % 10);
                break;
            case 1:
                buffer[i] = static_cast<char>('a' + rand() % 26);
                break;
            default:
                buffer[i] = static_cast<char>('A' + rand() % 26);
                break;
        }
    }
    if (length >= 1) buffer[length - 1] = '\0';
    return 0;
}

int Tcping::populateTcpingSocket(tcping_info* info) {
    android::base::unique_fd fd = vekt::socketFactorySeam().get().open(AF_INET, SOCK_STREAM, 0);
    if (!fd.ok()) {
        info->sockfd = -1;
        ALOGE("create socket failed of client!\n");
        return -1;
    }

    memset(&info->serverAddr, 0, sizeof(info->serverAddr));
    info->serverAddr.sin_family = AF_INET;
    info->serverAddr.sin_port = htons(info->port);
    info->serverAddr.sin_addr.s_addr = inet_addr(info->server);

    // Every step of the exchanges is bounded by the same 500 ms, so that one probe costs at
    // most a few seconds of the selection lock. Only the receive time-out is essential (the
    // exchanges wait in recv); 58 bytes into a fresh connection's send buffer never block.
    struct timeval timeout = {0, kProbeTimeoutUs};
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0) {
        info->sockfd = -1;
        ALOGE("Set SocketTimeout failed.");
        return -1;
    }

    if (info->device == nullptr) {
        info->sockfd = fd.release();
        return 0;
    }
    struct ifreq request;
    memset(&request, 0, sizeof(request));
    strncpy(request.ifr_name, info->device, IFNAMSIZ - 1);
    // Only the name matters to the bind; the index is not used, and a missing interface is
    // reported by the bind below, not by this lookup.
    (void)ioctl(fd.get(), SIOCGIFINDEX, &request);
    // The kernel reads the name from the front of the whole request record (40 bytes on
    // a 64-bit device).
    if (setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, &request, sizeof(request)) != 0) {
        info->sockfd = -1;
        ALOGE("Set interface %s failed.", info->device);
        return -1;
    }
    info->sockfd = fd.release();
    return 0;
}

int Tcping::getTcpingRtt(tcping_info* info, int offsetMs) {
    android::base::unique_fd fd = takeSocket(info);

    const struct timespec timeout = {0, kConnectTimeoutNs};
    if (connect_with_timeout(fd.get(), reinterpret_cast<const struct sockaddr*>(&info->serverAddr),
                             sizeof(info->serverAddr), timeout) == -1) {
        ALOGE("connect failed of client,device is %s!\n", deviceName(info));
        return -1;
    }

    // The exchanges give the kernel RTT samples of data segments, not only the handshake's;
    // the texts are random so that no cache on the path answers for the server.
    char buffer[kBufferSize];
    int successes = 0;
    while (successes < kMaxExchanges) {
        // Zeroed each time: the previous answer must not lengthen the next request.
        memset(buffer, 0, sizeof(buffer));
        genRandomString(kBufferSize, buffer);
        if (send(fd.get(), buffer, strlen(buffer), MSG_NOSIGNAL) < 0) {
            ALOGE("send data to server request failed %d,device is %s(errno %d, errno count %d)\n",
                  -1, deviceName(info), errno, successes);
            break;
        }
        // An orderly close (0) is no answer either: errno is cleared so that the line does
        // not show a stale one. A short answer at the time-out still counts, since the RTT
        // is the kernel's, not ours.
        errno = 0;
        if (recv(fd.get(), buffer, sizeof(buffer), MSG_WAITALL | MSG_NOSIGNAL) <= 0) {
            ALOGE("recieve failed %d,device is %s(errno %d, errno count %d)", -1, deviceName(info),
                  errno, successes);
            break;
        }
        ++successes;
    }
    if (successes == 0) return -1;

    // Kernel layout: struct tcp_info grows between kernel versions; only the length the
    // kernel returned is ours to read.
    struct tcp_info tcpInfo;
    memset(&tcpInfo, 0, sizeof(tcpInfo));
    socklen_t length = sizeof(tcpInfo);
    if (getsockopt(fd.get(), IPPROTO_TCP, TCP_INFO, &tcpInfo, &length) != 0 ||
        length < offsetof(struct tcp_info, tcpi_rtt) + sizeof(tcpInfo.tcpi_rtt)) {
        return -1;
    }
    const int rttMs = static_cast<int>(tcpInfo.tcpi_rtt / 1000);  // smoothed RTT, µs
    fd.reset();
    info->rtt = rttMs + offsetMs;
    ALOGI("TCPing cacla rtt is %d,device is %s", info->rtt, deviceName(info));
    return info->rtt;
}

int Tcping::updateTcpingRtt(tcping_info* info, int offsetMs) {
    if (populateTcpingSocket(info) != 0) return -1;
    return getTcpingRtt(info, offsetMs);
}
