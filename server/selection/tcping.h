// Tcping measures one link's round-trip time: a TCP connection to the RTT server, bound to
// the link's interface, a short burst of request/response exchanges over it, and then the
// kernel's own smoothed RTT of that connection read back with TCP_INFO. It is no ICMP echo:
// a TCP probe passes the middleboxes and firewalls that games' own traffic passes.
//
// Used by the per-interface probe threads of link selection and by the dual Wi-Fi monitor.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <time.h>

// One probe's inputs and last result; plain, so that each probe thread keeps its own on its
// stack and fills it field by field.
struct tcping_info {
    int32_t sockfd;          // the probe socket of the current probe; -1 once it is closed
    sockaddr_in serverAddr;  // filled by populateTcpingSocket from server and port
    const char* device;      // interface to bind to; null probes over the default route
    const char* server;      // RTT server, dotted quad
    int32_t probeCount;      // kept for the probe thread's bookkeeping; the probe ignores it
    int32_t minCapMs;        // rtt_min_cap_ms, for the caller; the probe ignores it
    int32_t rtt;             // result of the last successful probe, ms (offset included)
    uint16_t port;           // RTT server port, host byte order
};

class Tcping {
public:
    // Socket, addressing and binding, then the measurement. The RTT in ms plus offsetMs, or
    // -1 when any step failed (the socket is closed either way).
    static int updateTcpingRtt(tcping_info* info, int offsetMs);
    // Opens info->sockfd, fills info->serverAddr, sets the 500 ms send and receive time-outs
    // and binds to info->device. 0, or -1 with the socket closed.
    static int populateTcpingSocket(tcping_info* info);
    // Connects, exchanges up to ten texts and reads the kernel's smoothed RTT. The RTT in ms
    // plus offsetMs, or -1. Always closes info->sockfd.
    static int getTcpingRtt(tcping_info* info, int offsetMs);
    // 0 when the connection completed at once, the positive ppoll count when a non-blocking
    // connect completed within timeout, -1 otherwise (errno set). fd's flags are restored.
    static int connect_with_timeout(int fd, const struct sockaddr* addr, socklen_t addrlen,
                                    struct timespec timeout);
    // length - 2 random letters and digits, then a NUL at length - 1; position length - 2 is
    // left as the caller had it (zero). Returns 0.
    static int genRandomString(int length, char* buffer);
};

// ppoll on one descriptor until the wall-clock deadline, retried after EINTR: the ppoll
// result (> 0), 0 on time-out (errno ETIMEDOUT), < 0 on failure. A descriptor that reports
// readiness or an error has its pending socket error checked: a non-zero one gives -1.
int retrying_poll(int fd, short events, const struct timespec* deadline);
