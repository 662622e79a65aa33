// The control socket thread and its framing. See control_socket.h for the stop protocol.
#define LOG_TAG "SLM-Vekt-VektSocket-Server"

#include "control/control_socket.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <log/log.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "control/command_handlers.h"
#include "control/msg.h"
#include "base/device_root.h"

using android::base::unique_fd;

std::atomic<Parameters*> gParams{nullptr};
pthread_t gSocketThread = kNoSocketThread;
std::atomic<int> gEpollFd{-1};

namespace {

constexpr int kListenBacklog = 2;
// Records with a longer text than this are dropped, and end a drain.
constexpr int32_t kMaxTextLength = static_cast<int32_t>(kMsgTextSize) - 1;
// Named so that `ps -T` (and the tests) can tell the socket thread apart.
constexpr const char* kThreadName = "vekt-socket";

static_assert(sizeof(sockaddr_un) == 110, "the peer address buffer is one Unix address");

// The signal that signal_handler caught and the socket thread has not logged yet, 0 for
// none. A lock-free atomic is the only state a handler may touch.
std::atomic<int> gReceivedSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "written from a signal handler");

// Logs the line for a caught signal on the socket thread, once its blocking call returned.
// errno is kept for the caller, which reports the failure of that call.
void logReceivedSignal() {
    int savedErrno = errno;
    int sig = gReceivedSignal.exchange(0);
    if (sig != 0) ALOGI("Received signal %d\n", sig);
    errno = savedErrno;
}

// Swaps the shared epoll descriptor out and closes it. The exchange makes sure that the
// socket thread (on a restart) and stopSocketThreads never both close the same descriptor.
void closeSharedEpollFd() {
    int fd = gEpollFd.exchange(-1);
    if (fd != -1) close(fd);
}

enum class ServeResult { kRestart, kStop };

// One record off the connection; a non-blocking read, so an empty queue ends a drain.
ssize_t receiveRecord(int connFd, msg_t* buffer) {
    return recvfrom(connFd, buffer, sizeof(*buffer), MSG_DONTWAIT, nullptr, nullptr);
}

// Serves the connected client until it hangs up, the wait fails, or a stop is seen.
//
// A read is taken as one whole record whatever its byte count; a short read leaves the
// rest of the buffer as the previous record left it (it is zeroed per connection only), so
// the client must write each record as one 1032-byte block carrying its own terminator.
ServeResult serveConnection(int connFd, msg_t* recvBuf, msg_t* copyBuf) {
    for (;;) {
        struct epoll_event event = {};
        int ready = epoll_wait(gEpollFd.load(), &event, 1, -1);
        if (ready == -1) {
            logReceivedSignal();
            // SIGUSR1 from stopSocketThreads lands here; the next wait then runs on the
            // descriptor it closed and fails with another error, with the flag at -1.
            if (errno == EINTR) continue;
            if (gEpollFd.load() == -1) return ServeResult::kStop;
            ALOGE("epoll_wait error");
            return ServeResult::kRestart;
        }
        if (ready == 0) continue;
        // A hang-up wins over data that came with it: the connection is done.
        if (event.events & EPOLLHUP) {
            ALOGE("socket EPOLLHUP error, retry create socket");
            epoll_ctl(gEpollFd.load(), EPOLL_CTL_DEL, connFd, nullptr);
            return ServeResult::kRestart;
        }
        if (!(event.events & EPOLLIN)) continue;

        ssize_t received = receiveRecord(connFd, recvBuf);
        if (received < 1) continue;
        if (recvBuf->length > kMaxTextLength) continue;  // dropped without a word
        // Edge-triggered: drain every whole record that is already queued.
        do {
            if (gEpollFd.load() == -1) break;
            // Bounds: the text is the client's; its last byte is always our terminator,
            // so neither the log nor a handler can run past the record.
            recvBuf->message[kMsgTextSize - 1] = '\0';
            ALOGI("recv msg: msg.id=%d, msg.length=%d, msg.message=[%s]\n", recvBuf->id,
                  recvBuf->length, recvBuf->message);
            memcpy(copyBuf, recvBuf, sizeof(*copyBuf));
            handleMessage(*copyBuf);
            received = receiveRecord(connFd, recvBuf);
        } while (received >= 1 && recvBuf->length <= kMaxTextLength);
    }
}

}  // namespace

// The stop can arrive while the socket thread is anywhere, inside a log call or malloc of
// a command handler included, and the logger is not async-signal-safe (it formats, takes
// locks and allocates): logging here could deadlock the thread that stopSocketThreads then
// joins. The handler only notes the signal; the thread logs it when its call returns.
void signal_handler(int sig) { gReceivedSignal.store(sig); }

int createSocket(const char* name) {
    if (name == nullptr) {
        ALOGE("NULL params\n");
        return -1;
    }
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.ok()) {
        ALOGE("Failed to open socket '%s', error=%s\n", name, strerror(errno));
        return -1;
    }
    // The address names the file under the device root; the logs keep the device path,
    // cut like the address field cuts it.
    const std::string file = vekt::DeviceRoot::map(name);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", file.c_str());
    char shownPath[sizeof(address.sun_path)];
    snprintf(shownPath, sizeof(shownPath), "%s", name);

    if (unlink(address.sun_path) != 0 && errno != ENOENT) {
        ALOGE("Failed to unlink old socket '%s', error=%s\n", name, strerror(errno));
        return -1;
    }
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0) {
        // World read-write on purpose: the platform service runs under its own user.
        (void)chmod(address.sun_path, 0666);
        ALOGI("Created socket success with '%s', sockfd=%d\n", shownPath, fd.get());
        return fd.release();
    }
    ALOGE("Failed to bind socket '%s', error=%s\n", name, strerror(errno));
    (void)unlink(address.sun_path);
    return -1;
}

void* socketThreadHandle(void* /*unused*/) {
    (void)pthread_setname_np(pthread_self(), kThreadName);
    // The buffers live as long as the thread: a short read keeps the previous record's
    // tail, which is part of the framing (see serveConnection).
    msg_t recvBuf;
    msg_t copyBuf;
    memset(&recvBuf, 0, sizeof(recvBuf));
    memset(&copyBuf, 0, sizeof(copyBuf));
    struct sockaddr_un peer = {};
    unique_fd listenFd;
    unique_fd connFd;

    for (;;) {
        // (Re)start: everything of the last client goes, and the socket is made afresh.
        closeSharedEpollFd();
        listenFd.reset();
        connFd.reset();
        int created = createSocket(kControlSocketPath);
        if (created < 0) {
            ALOGE("create socket failed\n");
            return nullptr;
        }
        listenFd.reset(created);
        (void)listen(listenFd, kListenBacklog);
        memset(&recvBuf, 0, sizeof(recvBuf));

        socklen_t peerLength = sizeof(peer);
        int accepted =
            accept4(listenFd, reinterpret_cast<struct sockaddr*>(&peer), &peerLength, SOCK_CLOEXEC);
        if (accepted < 0) {
            logReceivedSignal();
            ALOGE("accept fail, error=%s\n", strerror(errno));
            continue;
        }
        connFd.reset(accepted);

        // A fresh epoll descriptor also clears a stop flag left from before this client.
        gEpollFd.store(epoll_create1(EPOLL_CLOEXEC));
        struct epoll_event interest = {};
        interest.events = EPOLLIN | EPOLLET;
        interest.data.fd = connFd;
        if (epoll_ctl(gEpollFd.load(), EPOLL_CTL_ADD, connFd, &interest) != 0) {
            ALOGE("epoll_ctl error");
            continue;
        }
        if (serveConnection(connFd, &recvBuf, &copyBuf) == ServeResult::kStop) break;
    }

    logReceivedSignal();
    ALOGI("socket Thread exit");
    closeSharedEpollFd();
    connFd.reset();
    listenFd.reset();
    return nullptr;
}

pthread_t createSocketThreads(Parameters* params) {
    struct sigaction action = {};
    action.sa_handler = signal_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the stop relies on EINTR
    if (sigaction(SIGUSR1, &action, nullptr) != 0) {
        ALOGE("sigaction error");
        return kNoSocketThread;
    }
    // pthread_create reports failure as a positive number, which this test lets pass; the
    // id then stays kNoSocketThread, which stopSocketThreads knows not to signal.
    pthread_t thread = kNoSocketThread;
    int result = pthread_create(&thread, nullptr, socketThreadHandle, nullptr);
    if (result < 0) {
        ALOGE("create thread fail, error=%s", strerror(errno));
        return kNoSocketThread;
    }
    ALOGI("create handle thread(thread id=%lu) for handle msg\n",
          static_cast<unsigned long>(thread));
    gParams.store(params);
    gSocketThread = thread;
    return thread;
}

int stopSocketThreads() {
    // Descriptor 0 is deliberately left alone: only 1 and above count as an epoll instance.
    int epollFd = gEpollFd.load();
    while (epollFd >= 1 && !gEpollFd.compare_exchange_weak(epollFd, -1)) {
    }
    if (epollFd >= 1) close(epollFd);

    const pthread_t thread = gSocketThread;
    // Signalling an id that names no thread is undefined; treat it as a failed kill.
    int killed = thread == kNoSocketThread ? ESRCH : pthread_kill(thread, SIGUSR1);
    if (killed == 0) {
        int joined = pthread_join(thread, nullptr);
        gSocketThread = kNoSocketThread;
        return joined;
    }
    ALOGE("pthread kill error");
    // Some C libraries say ESRCH for a thread that has ended (socket creation failed) but
    // was never joined; joining it cannot block and reclaims it.
    if (killed == ESRCH && thread != kNoSocketThread) {
        (void)pthread_join(thread, nullptr);
        gSocketThread = kNoSocketThread;
    }
    return -1;
}
