// link_stage: the lab's user-space link impairment. The kernel here has no delaying queueing
// discipline, so a namespace's packet filter hands a link's packets to a netfilter queue and
// this stage gives each one back after the link's current delay, or drops it while the link
// is blackholed. Commands arrive on standard input, one a line, and take effect at once:
//   delay MS     hold every packet that arrives from now on for MS milliseconds
//   drop 1|0     drop every packet (the link stays up, nothing gets through) / stop dropping
// End of input ends the stage; packets still held are dropped with the queue.
//
//   link_stage QUEUE [DELAY_MS]
#include <arpa/inet.h>
#include <errno.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <deque>
#include <string>
#include <vector>

namespace {

int64_t nowMs() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

struct Link {
    nfq_q_handle* queue = nullptr;
    int delayMs = 0;
    bool dropping = false;
    struct Held {
        uint32_t id;
        int64_t dueMs;
    };
    // A delay change applies to new packets only, so a packet may fall due before an older
    // one; the release below walks the whole queue rather than assume order.
    std::deque<Held> held;
};

int takePacket(nfq_q_handle* queue, nfgenmsg*, nfq_data* packet, void* data) {
    auto* link = static_cast<Link*>(data);
    const nfqnl_msg_packet_hdr* header = nfq_get_msg_packet_hdr(packet);
    if (header == nullptr) return 0;
    const uint32_t id = ntohl(header->packet_id);
    if (link->dropping) return nfq_set_verdict(queue, id, NF_DROP, 0, nullptr);
    if (link->delayMs == 0) return nfq_set_verdict(queue, id, NF_ACCEPT, 0, nullptr);
    link->held.push_back({id, nowMs() + link->delayMs});
    return 0;
}

// Releases what is due; returns the ms until the next packet is (-1: none held).
int releaseDue(Link& link) {
    const int64_t now = nowMs();
    int64_t next = -1;
    for (auto it = link.held.begin(); it != link.held.end();) {
        if (it->dueMs <= now) {
            nfq_set_verdict(link.queue, it->id, link.dropping ? NF_DROP : NF_ACCEPT, 0, nullptr);
            it = link.held.erase(it);
        } else {
            if (next < 0 || it->dueMs - now < next) next = it->dueMs - now;
            ++it;
        }
    }
    return static_cast<int>(next);
}

// Applies one command line; false for one it does not know.
bool applyCommand(const std::string& line, Link& link) {
    int value = 0;
    if (sscanf(line.c_str(), "delay %d", &value) == 1 && value >= 0) {
        link.delayMs = value;
    } else if (sscanf(line.c_str(), "drop %d", &value) == 1) {
        link.dropping = value != 0;
    } else {
        return false;
    }
    fprintf(stderr, "link_stage: delay %d ms, %s\n", link.delayMs,
            link.dropping ? "dropping" : "passing");
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: link_stage QUEUE [DELAY_MS]\n");
        return 2;
    }
    Link link;
    link.delayMs = argc > 2 ? atoi(argv[2]) : 0;
    nfq_handle* library = nfq_open();
    if (library == nullptr) {
        fprintf(stderr, "link_stage: cannot open the queue socket: %s\n", strerror(errno));
        return 1;
    }
    link.queue = nfq_create_queue(library, static_cast<uint16_t>(atoi(argv[1])), &takePacket, &link);
    if (link.queue == nullptr || nfq_set_mode(link.queue, NFQNL_COPY_META, 0) != 0) {
        fprintf(stderr, "link_stage: cannot bind queue %s: %s\n", argv[1], strerror(errno));
        nfq_close(library);
        return 1;
    }
    fprintf(stderr, "link_stage: ready on queue %s, delay %d ms\n", argv[1], link.delayMs);

    const int queueFd = nfq_fd(library);
    std::vector<char> buffer(65536);
    std::string pending;
    for (bool open = true; open;) {
        struct pollfd events[2] = {{queueFd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (poll(events, 2, releaseDue(link)) < 0 && errno != EINTR) break;
        if (events[1].revents != 0) {
            char text[256];
            const ssize_t n = read(STDIN_FILENO, text, sizeof(text));
            if (n <= 0) break;
            pending.append(text, static_cast<size_t>(n));
            for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
                if (!applyCommand(pending.substr(0, end), link)) {
                    fprintf(stderr, "link_stage: unknown command \"%s\"\n",
                            pending.substr(0, end).c_str());
                }
                pending.erase(0, end + 1);
            }
        }
        if ((events[0].revents & POLLIN) == 0) continue;
        // Drain everything queued: at full link rate a packet at a time would fall behind.
        for (ssize_t n; (n = recv(queueFd, buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;) {
            nfq_handle_packet(library, buffer.data(), static_cast<int>(n));
        }
    }
    nfq_destroy_queue(link.queue);
    nfq_close(library);
    return 0;
}
