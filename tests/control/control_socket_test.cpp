// The control socket over real Unix sockets under a test root, its thread in this process.
// Records use ids no handler knows: a handled one logs "recv msg" and "unknow mesage!!!".
#include "control/control_socket.h"

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/epoll.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "control/msg.h"
#include "support/control_client.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using android::base::unique_fd;
using Lines = std::vector<std::string>;

const std::string kReceived = "Received signal " + std::to_string(SIGUSR1);

bool eventually(const std::function<bool()>& condition, int timeoutMs = 5000) {
    for (int waited = 0; !condition(); waited += 5) {
        if (waited >= timeoutMs) return false;
        usleep(5000);
    }
    return true;
}

std::string recvLine(int32_t id, int32_t length, const std::string& text) {
    return "recv msg: msg.id=" + std::to_string(id) + ", msg.length=" + std::to_string(length) +
           ", msg.message=[" + text + "]";
}

// The system call a thread of this process (by name) is blocked in, -1 while it runs, -2
// without such a thread.
long blockedCall(const std::string& threadName) {
    std::error_code ignored;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
        std::string comm, call;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        if (comm != threadName) continue;
        std::ifstream(task.path() / "syscall") >> call;
        return call.empty() || call == "running" ? -1 : strtol(call.c_str(), nullptr, 10);
    }
    return -2;
}

// The numbers the kernel shows for a thread blocked in accept4 and in epoll_wait, measured on
// a thread of this test that makes the same calls as the socket thread. <sys/syscall.h> would
// do natively, but under a user-mode emulator the kernel reports the host's numbers.
struct BlockingCalls {
    long accept = -1;
    long epollWait = -1;
};

long measureBlockedCall(const std::function<void()>& block, const std::function<void()>& release) {
    std::thread blocked([&] {
        pthread_setname_np(pthread_self(), "vekt-measure");
        block();
    });
    // The same number three reads in a row: under an emulator the thread passes through
    // calls of the emulator's own (futex) on its way into the blocking one.
    long call = -1;
    for (int waited = 0, same = 0; waited < 5000 && same < 3; waited += 5) {
        const long now = blockedCall("vekt-measure");
        same = now >= 0 && now == call ? same + 1 : 1;
        call = now;
        usleep(5000);
    }
    release();
    blocked.join();
    return call;
}

const BlockingCalls& blockingCalls() {
    static const BlockingCalls calls = [] {
        BlockingCalls measured;
        int pair[2];
        unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        auto* raw = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener, raw, length) != 0 || listen(listener, 1) != 0 ||
            getsockname(listener, raw, &length) != 0) {
            return measured;
        }
        measured.accept = measureBlockedCall(
            [&] { close(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)); },
            [&] {
                unique_fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
                connect(client, raw, length);
            });
        unique_fd epoll(epoll_create1(EPOLL_CLOEXEC));
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return measured;
        unique_fd waited(pair[0]), waker(pair[1]);
        epoll_event event = {EPOLLIN, {}};
        epoll_ctl(epoll, EPOLL_CTL_ADD, waited, &event);
        measured.epollWait = measureBlockedCall(
            [&] { epoll_wait(epoll, &event, 1, -1); }, [&] { send(waker, "x", 1, 0); });
        return measured;
    }();
    return calls;
}

// Clients connect, and stops are sent, only while the socket thread waits in accept or
// epoll_wait.
bool blockedIn(long call) { return call >= 0 && blockedCall("vekt-socket") == call; }
bool inAccept() { return blockedIn(blockingCalls().accept); }
bool inEpollWait() { return blockedIn(blockingCalls().epollWait); }

class ControlSocketTest : public ParametersTest {
protected:
    void TearDown() override {
        if (gSocketThread != kNoSocketThread && blockedCall("vekt-socket") != -2) {
            // A stop takes effect only while a client is served, and must not meet a hang-up:
            // the test's own clients are gone, so the thread returns to accept (a stop that
            // met its hang-up would be lost there), and a fresh client is served to the end.
            if (eventually(inAccept)) {
                ControlClient client = servedClient();
                stopSocketThreads();
            } else {
                ADD_FAILURE() << "the socket thread did not return to accept";
            }
        }
        gParams = nullptr;
    }

    std::string socketFile() const { return root_.path(kControlSocketPath); }

    void startThread() {
        createSocketThreads(params());
        ASSERT_TRUE(eventually(inAccept)) << "socket thread is not waiting in accept";
    }

    // A client that the thread has accepted and waits on.
    ControlClient servedClient() {
        ControlClient client;
        EXPECT_TRUE(eventually(inAccept) && client.connect(socketFile()) &&
                    eventually(inEpollWait));
        return client;
    }

    bool logged(const std::string& text) {
        return eventually([&] { return log_.contains(text); });
    }
};

TEST_F(ControlSocketTest, FramesRecordsAndServesOneClientAfterTheOther) {
    close(createSocket(kControlSocketPath));  // stale: bound, then its owner went away
    startThread();
    struct stat info = {};
    stat(socketFile().c_str(), &info);
    EXPECT_EQ(info.st_mode, S_IFSOCK | 0666u);  // world-writable: the platform service's user
    unique_fd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));  // for raw records
    struct sockaddr_un address = {AF_UNIX, {}};
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", socketFile().c_str());
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_TRUE(eventually(inEpollWait));

    msg_t tooLong = {100, 1024, "dropped"};
    ASSERT_EQ(send(client, &tooLong, sizeof(tooLong), 0), ssize_t(sizeof(tooLong)));
    ASSERT_TRUE(eventually([&] {  // read (and dropped) before the next write comes
        int queued = -1;
        return ioctl(client, SIOCOUTQ, &queued) == 0 && queued == 0;
    }));
    // A text filling all 1024 bytes without a terminator is cut at its last byte, not over-read.
    msg_t kept[2] = {{101, 1023, {}}, {102, -5, "second"}};
    memset(kept[0].message, 'A', kMsgTextSize);
    ASSERT_EQ(send(client, kept, sizeof(kept), 0), ssize_t(sizeof(kept)));
    ASSERT_TRUE(logged(recvLine(102, -5, "second")));
    Lines handled;
    for (const std::string& line : log_.texts())
        if (line.rfind("recv msg", 0) == 0) handled.push_back(line);
    EXPECT_EQ(handled,
              (Lines{recvLine(101, 1023, std::string(1023, 'A')), recvLine(102, -5, "second")}));
    EXPECT_EQ(log_.count("unknow mesage!!!"), 2u);  // both reached the handlers

    client.reset();  // the next client is served once this one hangs up
    ASSERT_TRUE(logged("socket EPOLLHUP error, retry create socket"));
    ControlClient next = servedClient();
    ASSERT_TRUE(next.send(103, "next"));
    EXPECT_TRUE(logged(recvLine(103, 4, "next")));
}

TEST_F(ControlSocketTest, StopWithAClientEndsTheThreadWhichLogsTheNotedSignal) {
    // The handler only notes the signal (it may land inside the logger); the thread logs it.
    signal_handler(SIGUSR1);
    EXPECT_EQ(stopSocketThreads(), -1);  // no thread yet
    startThread();
    EXPECT_EQ(gParams.load(), params());
    ControlClient client = servedClient();
    EXPECT_FALSE(log_.contains(kReceived));

    EXPECT_EQ(stopSocketThreads(), 0);
    EXPECT_EQ(gSocketThread, kNoSocketThread);
    // The noted signal and the stop's own make one line, just before the thread's last.
    const Lines lines = log_.texts();
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()), (Lines{kReceived, "socket Thread exit"}));
    EXPECT_EQ(log_.count(kReceived), 1u);
}

TEST_F(ControlSocketTest, AStopWithoutAClientIsLost) {
    startThread();
    const pthread_t thread = gSocketThread;
    std::atomic<bool> stopped{false};
    std::thread stopper([&] { stopped = stopSocketThreads() == 0; });
    // The signal only interrupts accept; the thread makes a new socket and serves a client.
    EXPECT_TRUE(logged("accept fail, error=Interrupted system call"));
    ControlClient client = servedClient();
    EXPECT_FALSE(stopped);
    // The caller waits in pthread_join for a stop with a client (by hand: one join per thread).
    close(gEpollFd.exchange(-1));
    pthread_kill(thread, SIGUSR1);
    stopper.join();
    EXPECT_TRUE(stopped);
}

}  // namespace
}  // namespace vekt::test
