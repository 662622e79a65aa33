// A user-space delay stage for links that need a round-trip time of their own (this kernel
// has no delaying queueing discipline): a namespace's packet filter hands packets to netfilter
// queues, and the stage gives each one back after the delay configured for its queue.
#pragma once

#include <android-base/unique_fd.h>
#include <stdint.h>

#include <map>
#include <string>
#include <thread>

namespace vekt::test {

class NetNamespace;

class PacketDelayStage {
  public:
    PacketDelayStage() = default;
    ~PacketDelayStage() { stop(); }
    PacketDelayStage(const PacketDelayStage&) = delete;
    PacketDelayStage& operator=(const PacketDelayStage&) = delete;

    // Whether this build has the queue library; when not, reason says so, for GTEST_SKIP.
    static bool available(std::string* reason);

    // Serves the queues of ns given as queue number -> delay in ms. The stage's own thread
    // enters ns, so the rest of this process stays where it is. Returns once the queues are
    // bound, false with the reason in *error.
    bool start(const NetNamespace& ns, const std::map<uint16_t, int>& delayMsByQueue,
               std::string* error);
    // Ends the thread. Packets still held are dropped with the queues, as a link that
    // disappears drops them.
    void stop();

  private:
    android::base::unique_fd stopRead_;
    android::base::unique_fd stopWrite_;
    std::thread thread_;
};

}  // namespace vekt::test
