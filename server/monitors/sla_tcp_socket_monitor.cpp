#define LOG_TAG "SLM-Vekt-SocketMonitor"

#include "monitors/sla_tcp_socket_monitor.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <log/log.h>
#include <pthread.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "base/text.h"
#include "config/parameters.h"
#include "monitors/monitor_slot.h"
#include "netlink/sock_diag.h"

namespace {

using Clock = std::chrono::steady_clock;

// Kernel layout: where struct tcp_info keeps the words the monitor reads.
constexpr size_t kLastAckRecv = 56;
constexpr size_t kRtt = 68;
constexpr size_t kSegsOut = 136;
constexpr size_t kSegsIn = 140;
constexpr size_t kRcvOooPack = 224;
static_assert(offsetof(tcp_info, tcpi_last_ack_recv) == kLastAckRecv, "tcp_info layout");
static_assert(offsetof(tcp_info, tcpi_rtt) == kRtt, "tcp_info layout");
static_assert(offsetof(tcp_info, tcpi_segs_out) == kSegsOut, "tcp_info layout");
static_assert(offsetof(tcp_info, tcpi_segs_in) == kSegsIn, "tcp_info layout");
static_assert(offsetof(tcp_info, tcpi_rcv_ooopack) == kRcvOooPack, "tcp_info layout");

// Bounds: a word counts only when the record reaches one byte past its end. Older kernels
// send shorter records; the extra byte is a margin kept on purpose.
uint32_t tcpInfoWord(const tcp_info_ext* info, unsigned int length, size_t offset) {
    if (info == nullptr || length < offset + 5) return 0;
    uint32_t value = 0;
    // The attribute's payload is only 4-byte aligned; copy rather than cast.
    memcpy(&value, reinterpret_cast<const uint8_t*>(info) + offset, sizeof(value));
    return value;
}

// Web traffic is not the game's; a mapped IPv4 peer is skipped as well.
constexpr uint32_t kHttpPort = 80;
constexpr uint32_t kHttpsPort = 443;
constexpr const char kMappedPrefix[] = "::ffff";

}  // namespace

SlaTcpSocketMonitor* SlaTcpSocketMonitor::instance() {
    return monitorSlot<SlaTcpSocketMonitor>().getOrCreate([] { return new SlaTcpSocketMonitor(); });
}

void SlaTcpSocketMonitor::finalize() { delete monitorSlot<SlaTcpSocketMonitor>().take(); }

SlaTcpSocketMonitor::SlaTcpSocketMonitor() {
    {
        vekt::MutexLock lock(m_mutex);
        m_gamingUid = atoi(Parameters::instance()->getGamingUids().c_str());
        m_sockets.max_load_factor(1.0f);
    }
    // A thread that cannot be created throws, and the process ends with the library's
    // "thread constructor failed".
    m_thread = std::thread([this] {
        (void)pthread_setname_np(pthread_self(), kThreadName);
        threadLoop();
    });
}

SlaTcpSocketMonitor::~SlaTcpSocketMonitor() {
    {
        vekt::MutexLock lock(m_mutex);
        m_paused = true;
        m_running = false;
        m_cv.notify_all();
    }
    m_thread.join();
    vekt::MutexLock lock(m_mutex);
    m_sockets.clear();
}

void SlaTcpSocketMonitor::threadLoop() {
    for (;;) {
        {
            vekt::MutexLock lock(m_mutex);
            if (!m_running) return;
        }
        poll();
        selectServer();
        waitForNextPoll();
    }
}

void SlaTcpSocketMonitor::resumePolling() {
    vekt::MutexLock lock(m_mutex);
    const bool wasPaused = m_paused;
    m_paused = false;
    if (wasPaused) m_cv.notify_all();
}

void SlaTcpSocketMonitor::waitForNextPoll() {
    vekt::MutexLock lock(m_mutex);
    // The flags are tested under the same hold as the wait, so a notification sent between
    // the test and the wait cannot be lost.
    if (m_paused) {
        // No time-out: only resumePolling or the destructor ends a pause.
        while (m_paused && m_running) m_cv.wait(m_mutex);
    } else if (m_pollIntervalMs >= 1 && m_running) {
        m_cv.wait_for(m_mutex, std::chrono::milliseconds(m_pollIntervalMs));
    }
}

void SlaTcpSocketMonitor::poll() {
    vekt::MutexLock lock(m_mutex);
    if (m_paused) return;
    android::net::SockDiag diag;  // its destructor closes the sockets
    if (!diag.open()) {
        ALOGE("Error opening sock diag for polling TCP socket info");
        return;
    }
    const Clock::time_point now = Clock::now();
    // The reader runs on this thread while the query (and m_mutex) is held.
    const int ret = diag.getLiveTcpInfos(
        [this, now](const inet_diag_msg* msg, const tcp_info_ext* info, unsigned int length) {
            m_mutex.assertHeld();
            updateSocketStats(now, msg, info, length);
        });
    if (ret != 0) {
        ALOGE("Failed to poll TCP socket info: %s", strerror(-ret));
        return;
    }
    // Whatever this poll did not report has closed.
    for (auto it = m_sockets.begin(); it != m_sockets.end();) {
        if (it->second.lastSeen < now) {
            it = m_sockets.erase(it);
        } else {
            ++it;
        }
    }
    m_lastPoll = now;
}

void SlaTcpSocketMonitor::updateSocketStats(Clock::time_point now, const inet_diag_msg* msg,
                                            const tcp_info_ext* info, unsigned int length) {
    if (msg == nullptr || static_cast<int32_t>(msg->idiag_uid) != m_gamingUid) return;

    char server[46] = {};
    inet_ntop(msg->idiag_family, msg->id.idiag_dst, server, sizeof(server));
    const uint32_t port = ntohs(msg->id.idiag_dport);
    if (strncmp(server, kMappedPrefix, strlen(kMappedPrefix)) == 0 || port == kHttpPort ||
        port == kHttpsPort) {
        return;
    }

    SlsSocket& entry = m_sockets[port];
    entry.sent_cnt = tcpInfoWord(info, length, kSegsOut);
    entry.recvCnt = tcpInfoWord(info, length, kSegsIn);
    entry.rttUs = tcpInfoWord(info, length, kRtt);
    entry.rcvOooPack = tcpInfoWord(info, length, kRcvOooPack);
    entry.lastAckRecv = tcpInfoWord(info, length, kLastAckRecv);
    entry.port = port;
    entry.uid = msg->idiag_uid;
    entry.lastSeen = now;
    memset(entry.server, 0, sizeof(entry.server));
    vekt::copyBounded(entry.server, sizeof(entry.server), server);
    ALOGI("map server is %s , port is %d,total sent_cnt %d", entry.server,
          static_cast<int>(entry.port), static_cast<int>(entry.sent_cnt));
}

void SlaTcpSocketMonitor::selectServer() {
    vekt::MutexLock lock(m_mutex);
    if (m_sockets.empty()) return;
    const SlsSocket* best = nullptr;
    for (const auto& entry : m_sockets) {
        if (best == nullptr || entry.second.sent_cnt >= best->sent_cnt) best = &entry.second;
    }
    Parameters* params = Parameters::instance();
    if (params->m_rttServer.get() == best->server) return;
    // The probe threads pick the new pair up at their next probe.
    params->setRttServerAndPort(best->server, static_cast<int32_t>(best->port));
}

std::unordered_map<uint64_t, SlaTcpSocketMonitor::SlsSocket> SlaTcpSocketMonitor::sockets() const {
    vekt::MutexLock lock(m_mutex);
    return m_sockets;
}

Clock::time_point SlaTcpSocketMonitor::lastPoll() const {
    vekt::MutexLock lock(m_mutex);
    return m_lastPoll;
}
