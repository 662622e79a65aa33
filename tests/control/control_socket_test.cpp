// The control socket over real Unix sockets under a test root, with the socket thread
// running in this process. Records use ids no handler knows, so a handled record shows as
// its "recv msg" line (and "unknow mesage!!!").
#include "control/control_socket.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "control/msg.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using android::base::unique_fd;
using Lines = std::vector<std::string>;

const char kCreated[] = "Created socket success with '/dev/socket/vekt', sockfd=";

bool eventually(const std::function<bool()>& condition, int timeoutMs = 5000) {
    for (int waited = 0; !condition(); waited += 5) {
        if (waited >= timeoutMs) return false;
        usleep(5000);
    }
    return true;
}

msg_t record(int32_t id, int32_t length, const std::string& text) {
    msg_t msg;
    memset(&msg, 0, sizeof(msg));
    msg.id = id;
    msg.length = length;
    memcpy(msg.message, text.data(), std::min(text.size(), sizeof(msg.message)));
    return msg;
}

std::string recvLine(int32_t id, int32_t length, const std::string& text) {
    return "recv msg: msg.id=" + std::to_string(id) + ", msg.length=" + std::to_string(length) +
           ", msg.message=[" + text + "]";
}

bool sendAll(int fd, const void* data, size_t size) {
    return send(fd, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

// True once the peer has read all that this end wrote.
bool readByPeer(int fd) {
    return eventually([fd] {
        int queued = -1;
        return ioctl(fd, SIOCOUTQ, &queued) == 0 && queued == 0;
    });
}

// The system call the socket thread is blocked in (from /proc), -1 when it is running and
// -2 when there is no socket thread. Signalling the thread only while it is parked in
// accept or epoll_wait keeps the tests deterministic.
long socketThreadSyscall() {
    std::error_code ignored;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
        std::string comm, call;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        if (comm != "vekt-socket") continue;
        std::ifstream(task.path() / "syscall") >> call;
        return call.empty() || call == "running" ? -1 : strtol(call.c_str(), nullptr, 10);
    }
    return -2;
}
bool inAccept() {
    long call = socketThreadSyscall();
    return call == SYS_accept4 || call == SYS_accept;
}
bool inEpollWait() {
    long call = socketThreadSyscall();
#ifdef SYS_epoll_wait
    if (call == SYS_epoll_wait) return true;
#endif
    return call == SYS_epoll_pwait;
}

class ControlSocketTest : public ParametersTest {
protected:
    void TearDown() override {
        if (gSocketThread != kNoSocketThread && socketThreadSyscall() != -2) stopWithClient();
        gParams = nullptr;
    }

    std::string socketFile() const { return root_.path("/dev/socket/vekt"); }

    unique_fd connectClient() {
        unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path), "%s", socketFile().c_str());
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            ADD_FAILURE() << "connect: " << strerror(errno);
            fd.reset();
        }
        return fd;
    }

    pthread_t startThread() {
        pthread_t thread = createSocketThreads(params());
        EXPECT_NE(thread, kNoSocketThread);
        EXPECT_TRUE(eventually(inAccept)) << "socket thread is not waiting in accept";
        return thread;
    }

    // A client that the thread has accepted and waits on.
    unique_fd servedClient() {
        unique_fd client = connectClient();
        EXPECT_TRUE(eventually(inEpollWait)) << "socket thread is not waiting on the client";
        return client;
    }

    // A connection made while the thread replaces its socket dies with the old one, so
    // connect until the thread serves one; a stop without that would be lost for good.
    void stopWithClient() {
        unique_fd client;
        for (int attempt = 0; attempt < 20 && !inEpollWait(); ++attempt) {
            if (!eventually(inAccept, 1000)) continue;
            client = connectClient();
            eventually(inEpollWait, 500);
        }
        ASSERT_TRUE(inEpollWait()) << "no client is served; not stopping";
        EXPECT_EQ(stopSocketThreads(), 0);
    }

    Lines withPrefix(const std::string& prefix) const {
        Lines lines;
        for (const std::string& text : log_.texts("SLM-Vekt-VektSocket-Server")) {
            if (text.rfind(prefix, 0) == 0) lines.push_back(text);
        }
        return lines;
    }
    bool logged(const std::string& text) {
        return eventually([&] { return log_.contains(text); });
    }
};

TEST_F(ControlSocketTest, CreatesAWorldWritableSocketInPlaceOfAStaleOne) {
    {  // left behind by an earlier run: bound, then its owner went away
        unique_fd stale(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path), "%s", socketFile().c_str());
        ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    unique_fd fd(createSocket("/dev/socket/vekt"));
    ASSERT_TRUE(fd.ok());
    EXPECT_EQ(log_.texts(), Lines{kCreated + std::to_string(fd.get())});  // the device path
    struct stat info = {};
    ASSERT_EQ(stat(socketFile().c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0666u);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    ASSERT_EQ(listen(fd, 2), 0);
    EXPECT_TRUE(connectClient().ok());
}

TEST_F(ControlSocketTest, CreateSocketFailuresLogTheirCause) {
    EXPECT_EQ(createSocket(nullptr), -1);
    ASSERT_EQ(mkdir(socketFile().c_str(), 0755), 0);  // cannot be unlinked
    root_.writeFile("/dev/socket/vekt/keep", "x");
    EXPECT_EQ(createSocket("/dev/socket/vekt"), -1);
    std::filesystem::remove_all(root_.path("/dev/socket"));
    EXPECT_EQ(createSocket("/dev/socket/vekt"), -1);
    EXPECT_EQ(log_.texts(),
              (Lines{"NULL params",
                     "Failed to unlink old socket '/dev/socket/vekt', error=Is a directory",
                     "Failed to bind socket '/dev/socket/vekt', error=No such file or directory"}));
}

TEST_F(ControlSocketTest, StartsTheThreadAndStopsItWhileAClientIsConnected) {
    pthread_t thread = startThread();
    EXPECT_EQ(gSocketThread, thread);
    EXPECT_EQ(gParams.load(), params());
    EXPECT_TRUE(log_.contains(
        "create handle thread(thread id=" + std::to_string(static_cast<unsigned long>(thread)) +
        ") for handle msg"));

    unique_fd client = servedClient();
    EXPECT_GE(gEpollFd.load(), 1);
    EXPECT_EQ(stopSocketThreads(), 0);
    EXPECT_EQ(gSocketThread, kNoSocketThread);
    EXPECT_EQ(gEpollFd.load(), -1);
    EXPECT_EQ(socketThreadSyscall(), -2);
    EXPECT_TRUE(log_.contains("Received signal " + std::to_string(SIGUSR1)));
    EXPECT_TRUE(log_.contains("socket Thread exit"));
    char byte;
    EXPECT_EQ(recv(client, &byte, 1, 0), 0);  // the thread closed the connection
}

TEST_F(ControlSocketTest, TheHandlerOnlyNotesTheSignalAndTheSocketThreadLogsIt) {
    // The stop may land while the thread is inside the logger (or malloc); the handler
    // must not log itself, or it could deadlock the thread that is about to be joined.
    signal_handler(SIGUSR1);
    EXPECT_TRUE(log_.texts().empty());

    startThread();
    unique_fd client = servedClient();
    EXPECT_FALSE(log_.contains("Received signal " + std::to_string(SIGUSR1)));
    EXPECT_EQ(stopSocketThreads(), 0);
    // The noted signal and the stop's own one make one line, before the thread's last.
    const Lines lines = log_.texts("SLM-Vekt-VektSocket-Server");
    const auto received =
        std::find(lines.begin(), lines.end(), "Received signal " + std::to_string(SIGUSR1));
    ASSERT_NE(received, lines.end());
    EXPECT_EQ(std::count(lines.begin(), lines.end(), *received), 1);
    EXPECT_EQ(std::find(lines.begin(), lines.end(), "socket Thread exit"), received + 1);
}

TEST_F(ControlSocketTest, LengthAbove1023IsDroppedAndAnyOtherLengthPasses) {
    startThread();
    unique_fd client = servedClient();
    const std::string longest(1023, 'x');
    msg_t tooLong = record(100, 1024, "dropped");
    ASSERT_TRUE(sendAll(client, &tooLong, sizeof(tooLong)));
    ASSERT_TRUE(readByPeer(client));  // read and dropped before the next one comes
    msg_t kept[2] = {record(101, 1023, longest), record(102, -5, "negative")};
    ASSERT_TRUE(sendAll(client, kept, sizeof(kept)));

    ASSERT_TRUE(logged(recvLine(102, -5, "negative")));
    EXPECT_EQ(withPrefix("recv msg"),
              (Lines{recvLine(101, 1023, longest), recvLine(102, -5, "negative")}));
    EXPECT_EQ(log_.count("unknow mesage!!!"), 2u);  // both reached the handlers
}

TEST_F(ControlSocketTest, RecordsOfOneWriteAreHandledInOrderAndTextsEndInsideTheRecord) {
    startThread();
    unique_fd client = servedClient();
    // The first text fills all 1024 bytes without a terminator: it is cut at the last
    // byte, and nothing behind the record in the thread's memory reaches the log.
    msg_t records[3] = {record(100, 1023, std::string(kMsgTextSize, 'A')), record(101, 6, "second"),
                        record(102, 5, "third")};
    ASSERT_TRUE(sendAll(client, records, sizeof(records)));
    ASSERT_TRUE(logged(recvLine(102, 5, "third")));
    EXPECT_EQ(withPrefix("recv msg"),
              (Lines{recvLine(100, 1023, std::string(kMsgTextSize - 1, 'A')),
                     recvLine(101, 6, "second"), recvLine(102, 5, "third")}));
}

TEST_F(ControlSocketTest, ANewClientIsServedAfterTheFirstHangsUp) {
    startThread();
    {
        unique_fd first = servedClient();
        msg_t msg = record(100, 5, "first");
        ASSERT_TRUE(sendAll(first, &msg, sizeof(msg)));
        ASSERT_TRUE(logged(recvLine(100, 5, "first")));
    }
    ASSERT_TRUE(logged("socket EPOLLHUP error, retry create socket"));
    ASSERT_TRUE(eventually([&] { return withPrefix(kCreated).size() == 2 && inAccept(); }));
    unique_fd second = servedClient();
    msg_t msg = record(101, 6, "second");
    ASSERT_TRUE(sendAll(second, &msg, sizeof(msg)));
    EXPECT_TRUE(logged(recvLine(101, 6, "second")));
}

TEST_F(ControlSocketTest, AStopWithoutAClientIsLostUntilTheThreadIsStoppedWithOne) {
    pthread_t thread = startThread();
    std::atomic<bool> stopped{false};
    int stopResult = -2;
    std::thread stopper([&] {
        stopResult = stopSocketThreads();
        stopped = true;
    });
    // The signal only interrupts accept; the thread makes a new socket and waits again
    // while the stopper waits in pthread_join.
    EXPECT_TRUE(logged("accept fail, error=Interrupted system call"));
    EXPECT_TRUE(eventually([&] { return withPrefix(kCreated).size() == 2 && inAccept(); }));
    // A client's epoll descriptor overwrites the stop flag: the thread serves it.
    unique_fd client = servedClient();
    EXPECT_GE(gEpollFd.load(), 1);
    msg_t msg = record(100, 6, "served");
    EXPECT_TRUE(sendAll(client, &msg, sizeof(msg)));
    EXPECT_TRUE(logged(recvLine(100, 6, "served")));
    EXPECT_FALSE(stopped);

    // Stopping again with the client connected ends the thread and releases the first
    // call (repeated by hand: a second join of one thread is not allowed).
    while (!stopped) {
        if (inEpollWait()) {
            int epollFd = gEpollFd.exchange(-1);
            if (epollFd >= 1) close(epollFd);
            pthread_kill(thread, SIGUSR1);
        }
        usleep(10000);
    }
    stopper.join();
    EXPECT_EQ(stopResult, 0);
    EXPECT_TRUE(log_.contains("socket Thread exit"));
}

TEST_F(ControlSocketTest, WithoutASocketTheThreadEndsAndStopDoesNotHang) {
    EXPECT_EQ(stopSocketThreads(), -1);  // no thread yet
    EXPECT_TRUE(log_.contains("pthread kill error"));

    std::filesystem::remove_all(root_.path("/dev/socket"));
    ASSERT_NE(createSocketThreads(params()), kNoSocketThread);
    ASSERT_TRUE(logged("create socket failed"));
    ASSERT_TRUE(eventually([] { return socketThreadSyscall() == -2; }));
    EXPECT_FALSE(log_.contains("socket Thread exit"));  // it ends without a word
    stopSocketThreads();
    EXPECT_EQ(gSocketThread, kNoSocketThread);
}

}  // namespace
}  // namespace vekt::test
