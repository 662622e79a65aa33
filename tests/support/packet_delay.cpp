#include "support/packet_delay.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <deque>
#include <future>
#include <vector>

#include "support/link_lab.h"

#ifdef VEKT_HAVE_NFQUEUE
#include <arpa/inet.h>
#include <errno.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <string.h>
#include <time.h>
#endif

namespace vekt::test {

#ifdef VEKT_HAVE_NFQUEUE
namespace {

int64_t nowMs() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// One bound queue: its delay and the packets it holds, oldest first. Every packet of a queue
// waits as long as every other, so the oldest is always the next one due.
struct HeldQueue {
    nfq_q_handle* handle = nullptr;
    int delayMs = 0;
    struct Held {
        uint32_t id;
        int64_t dueMs;
    };
    std::deque<Held> held;
};

int holdPacket(nfq_q_handle*, nfgenmsg*, nfq_data* packet, void* data) {
    auto* queue = static_cast<HeldQueue*>(data);
    const nfqnl_msg_packet_hdr* header = nfq_get_msg_packet_hdr(packet);
    if (header != nullptr) queue->held.push_back({ntohl(header->packet_id), nowMs() + queue->delayMs});
    return 0;
}

// Lets every packet that is due go on; returns the ms until the next one is (-1: none held).
int releaseDue(std::vector<HeldQueue>& queues) {
    int64_t next = -1;
    const int64_t now = nowMs();
    for (HeldQueue& queue : queues) {
        while (!queue.held.empty() && queue.held.front().dueMs <= now) {
            nfq_set_verdict(queue.handle, queue.held.front().id, NF_ACCEPT, 0, nullptr);
            queue.held.pop_front();
        }
        if (!queue.held.empty() && (next < 0 || queue.held.front().dueMs - now < next))
            next = queue.held.front().dueMs - now;
    }
    return static_cast<int>(next);
}

// The stage's thread: binds the queues in ns, reports, then holds and releases packets
// until the stop pipe becomes readable.
void serveQueues(int nsFd, std::map<uint16_t, int> delays, int stopFd,
                 std::promise<std::string> ready) {
    if (setns(nsFd, CLONE_NEWNET) != 0) {
        ready.set_value(std::string("cannot enter the namespace: ") + strerror(errno));
        return;
    }
    nfq_handle* library = nfq_open();
    if (library == nullptr) {
        ready.set_value(std::string("cannot open the queue socket: ") + strerror(errno));
        return;
    }
    std::vector<HeldQueue> queues(delays.size());
    std::string error;
    size_t index = 0;
    for (const auto& [number, delayMs] : delays) {
        HeldQueue& queue = queues[index++];
        queue.delayMs = delayMs;
        queue.handle = nfq_create_queue(library, number, &holdPacket, &queue);
        if (queue.handle == nullptr ||
            nfq_set_mode(queue.handle, NFQNL_COPY_META, 0) != 0) {
            error = "cannot bind queue " + std::to_string(number) + ": " + strerror(errno);
            break;
        }
    }
    const bool bound = error.empty();
    ready.set_value(error);

    const int queueFd = nfq_fd(library);
    std::vector<char> buffer(65536);
    while (bound) {
        struct pollfd events[2] = {{queueFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        const int waitMs = releaseDue(queues);
        if (poll(events, 2, waitMs) < 0 && errno != EINTR) break;
        if (events[1].revents != 0) break;
        if ((events[0].revents & POLLIN) == 0) continue;
        const ssize_t n = recv(queueFd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n > 0) nfq_handle_packet(library, buffer.data(), static_cast<int>(n));
    }
    for (HeldQueue& queue : queues) {
        if (queue.handle != nullptr) nfq_destroy_queue(queue.handle);
    }
    nfq_close(library);
}

}  // namespace

bool PacketDelayStage::available(std::string*) { return true; }

bool PacketDelayStage::start(const NetNamespace& ns, const std::map<uint16_t, int>& delayMsByQueue,
                             std::string* error) {
    int stopPipe[2];
    if (thread_.joinable() || pipe2(stopPipe, O_CLOEXEC) != 0) {
        *error = "already running, or no pipe";
        return false;
    }
    stopRead_.reset(stopPipe[0]);
    stopWrite_.reset(stopPipe[1]);
    std::promise<std::string> ready;
    std::future<std::string> result = ready.get_future();
    thread_ = std::thread(serveQueues, ns.fd(), delayMsByQueue, stopRead_.get(), std::move(ready));
    *error = result.get();
    if (!error->empty()) stop();
    return error->empty();
}

#else  // without the queue library the stage cannot run; tests that need it skip

bool PacketDelayStage::available(std::string* reason) {
    *reason = "built without libnetfilter-queue";
    return false;
}

bool PacketDelayStage::start(const NetNamespace&, const std::map<uint16_t, int>&,
                             std::string* error) {
    *error = "built without libnetfilter-queue";
    return false;
}

#endif

void PacketDelayStage::stop() {
    if (!thread_.joinable()) return;
    const char byte = 'x';
    (void)!write(stopWrite_.get(), &byte, 1);
    thread_.join();
}

}  // namespace vekt::test
