#include "base/worker.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>

#include "base/clock.h"
#include "base/socket_owner.h"

namespace vekt::test {
namespace {

using Clock = std::chrono::steady_clock;

TEST(WorkerTest, AStopEndsALongWaitAtOnceAndJoins) {
    std::atomic<int> rounds{0};
    const auto begin = Clock::now();
    {
        Worker worker("vekt-test");
        ASSERT_TRUE(worker.start([&](Worker& self) {
            while (self.waitFor(60000)) ++rounds;
        }));
        EXPECT_FALSE(worker.start([](Worker&) {}));  // one thread per worker
        // A wake ends the current round early without stopping (the first may come before
        // the worker waits, so it is repeated until a round has ended).
        while (rounds.load() == 0) {
            worker.wake();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }  // the destructor stops and joins, without waiting out the minute
    EXPECT_GE(rounds.load(), 1);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
}

TEST(WorkerTest, APausedWorkerWaitsUntilResumedOrStopped) {
    Worker worker("vekt-test");
    worker.pause();
    std::atomic<int> rounds{0};
    worker.start([&](Worker& self) {
        while (self.waitWhilePaused()) {
            ++rounds;
            self.pause();  // one round per resume
        }
    });
    EXPECT_EQ(rounds.load(), 0);
    worker.resume();
    while (rounds.load() == 0) std::this_thread::yield();
    worker.stop();
    EXPECT_EQ(rounds.load(), 1);
    EXPECT_FALSE(worker.started());
}

// Hands out one end of a socketpair where the code asks for a kernel socket.
struct PairFactory : SocketFactory {
    android::base::unique_fd open(int, int, int) override { return std::move(end); }
    android::base::unique_fd end;
};

TEST(SocketOwnerTest, TakesItsSocketFromTheInstalledFactory) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    android::base::unique_fd peer(ends[1]);
    PairFactory factory;
    factory.end.reset(ends[0]);
    ScopedSeamOverride<SocketFactory> scope(socketFactorySeam(), factory);

    SocketOwner owner;
    ASSERT_TRUE(owner.open(AF_NETLINK, SOCK_DGRAM, 0));
    EXPECT_EQ(owner.waitReadable(10), 0);
    ASSERT_EQ(::send(peer, "kernel", 6, 0), 6);
    EXPECT_EQ(owner.waitReadable(1000), 1);
    char buffer[16];
    EXPECT_EQ(owner.receive(buffer, sizeof(buffer)), 6);
    EXPECT_EQ(owner.send("ack", 3), 3);
    EXPECT_FALSE(owner.open(AF_NETLINK, SOCK_DGRAM, 0));  // the factory has no end left
}

}  // namespace
}  // namespace vekt::test
