// SlaTcpSocketMonitor: learns the game's own server for the RTT probes of gaming AI mode.
// Once a second it lists the live TCP sockets through sock_diag, keeps statistics per remote
// port for the sockets of the gaming UID, and makes the remote end that has sent the most
// segments the RTT server.
#pragma once

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <thread>
#include <unordered_map>

#include "base/mutex.h"
#include "netlink/sock_diag_wire.h"

class SlaTcpSocketMonitor {
  public:
    // One remote port's statistics, from the last socket reported for it.
    struct SlsSocket {
        uint32_t sent_cnt;  // tcpi_segs_out
        uint32_t recvCnt;   // tcpi_segs_in
        char server[46];    // remote address as text
        uint32_t port;      // remote port, host order
        uint32_t uid;
        uint32_t rttUs;        // tcpi_rtt
        uint32_t rcvOooPack;   // tcpi_rcv_ooopack
        uint32_t lastAckRecv;  // tcpi_last_ack_recv, ms
        // The poll that last updated it.
        std::chrono::steady_clock::time_point lastSeen;
    };

    // Created once (see monitor_slot.h); the polling thread starts paused.
    static SlaTcpSocketMonitor* instance();
    static void finalize();

    SlaTcpSocketMonitor(const SlaTcpSocketMonitor&) = delete;
    SlaTcpSocketMonitor& operator=(const SlaTcpSocketMonitor&) = delete;

    void resumePolling() EXCLUDES(m_mutex);
    void poll() EXCLUDES(m_mutex);
    void waitForNextPoll() EXCLUDES(m_mutex);
    void updateSocketStats(std::chrono::steady_clock::time_point now, const inet_diag_msg* msg,
                           const tcp_info_ext* info, unsigned int length) REQUIRES(m_mutex);
    void selectServer() EXCLUDES(m_mutex);

    // The lock that updateSocketStats needs, for callers that feed it sockets as poll does.
    vekt::Mutex& mutex() RETURN_CAPABILITY(m_mutex) { return m_mutex; }
    // What the map holds, and when the last poll succeeded (the epoch before the first).
    std::unordered_map<uint64_t, SlsSocket> sockets() const EXCLUDES(m_mutex);
    std::chrono::steady_clock::time_point lastPoll() const EXCLUDES(m_mutex);

    // The polling thread's name, as `ps -T` shows it.
    static constexpr const char* kThreadName = "SocketMonitor";

  private:
    SlaTcpSocketMonitor();
    ~SlaTcpSocketMonitor();

    void threadLoop() EXCLUDES(m_mutex);

    // The monitor comes first in the lock order: a poll holds it throughout, and a change
    // of server takes rttServerMutex under it.
    mutable vekt::Mutex m_mutex{vekt::LockLevel::kMonitor, "SlaTcpSocketMonitor"};
    std::condition_variable_any m_cv;
    std::thread m_thread;
    int64_t m_pollIntervalMs GUARDED_BY(m_mutex) = 1000;
    std::chrono::steady_clock::time_point m_lastPoll GUARDED_BY(m_mutex){};
    bool m_paused GUARDED_BY(m_mutex) = true;
    bool m_running GUARDED_BY(m_mutex) = true;
    int32_t m_gamingUid GUARDED_BY(m_mutex) = 0;
    std::unordered_map<uint64_t, SlsSocket> m_sockets GUARDED_BY(m_mutex);
};
