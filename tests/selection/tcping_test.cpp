// Tcping against real TCP servers on 127.0.0.1 (threads of this process on ephemeral ports),
// with the probe socket bound to "lo" as it is bound to a link on the device. No probe
// leaves the loopback interface.
#include "selection/tcping.h"

#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "base/socket_owner.h"
#include "support/parameters_fixture.h"

namespace {

using android::base::unique_fd;

constexpr int kRequestBytes = 58;
constexpr int kAnswerBytes = 60;

// A listening socket on 127.0.0.1 and an ephemeral port.
unique_fd listenOnLoopback(int backlog, uint16_t* port) {
    unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(addr);
    if (!fd.ok() || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(fd, backlog) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
        ADD_FAILURE() << "loopback listener: " << strerror(errno);
        return unique_fd();
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

// Serves one connection: either answers every 58-byte request with 60 bytes until the
// client closes, or accepts and closes at once. Gives up after a few seconds without a
// client so that a broken probe fails the test instead of hanging it.
class LoopbackServer {
public:
    enum class Mode { kAnswer, kAcceptAndClose };

    explicit LoopbackServer(Mode mode) : listener_(listenOnLoopback(1, &port_)) {
        thread_ = std::thread([this, mode] { serve(mode); });
    }
    ~LoopbackServer() { join(); }

    uint16_t port() const { return port_; }
    // Requests answered, once the connection is over.
    int answered() {
        join();
        return answered_.load();
    }

private:
    void join() {
        if (thread_.joinable()) thread_.join();
    }

    void serve(Mode mode) {
        pollfd pfd = {listener_.get(), POLLIN, 0};
        if (poll(&pfd, 1, 5000) != 1) return;
        unique_fd client(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
        if (!client.ok() || mode == Mode::kAcceptAndClose) return;
        timeval limit = {5, 0};
        setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        char request[kRequestBytes];
        char answer[kAnswerBytes];
        memset(answer, 'x', sizeof(answer));
        while (recv(client, request, sizeof(request), MSG_WAITALL) == kRequestBytes) {
            if (send(client, answer, sizeof(answer), MSG_NOSIGNAL) != kAnswerBytes) return;
            answered_.fetch_add(1);
        }
    }

    uint16_t port_ = 0;
    unique_fd listener_;
    std::atomic<int> answered_{0};
    std::thread thread_;
};

bool hasLineStartingWith(const vekt::host::LogCapture& log, const std::string& prefix) {
    for (const std::string& text : log.texts("SLM-Vekt-Tcping")) {
        if (text.compare(0, prefix.size(), prefix) == 0) return true;
    }
    return false;
}

class TcpingTest : public vekt::test::ParametersTest {
protected:
    // The record as the probe thread fills it: server and port from the settings.
    tcping_info probeTo(uint16_t port, const char* device = "lo") {
        params()->m_rttServerPort = port;
        server_ = params()->m_rttServer.get();
        tcping_info info = {};
        info.device = device;
        info.server = server_.c_str();
        info.probeCount = 1;
        info.minCapMs = params()->m_rttMinCapMs.load();
        info.port = static_cast<uint16_t>(params()->m_rttServerPort.load());
        return info;
    }

    std::string server_;
};

TEST_F(TcpingTest, AnsweringServerGivesTenExchangesAndTheKernelsSmoothedRtt) {
    ASSERT_EQ(params()->m_rttServer.get(), "127.0.0.1");  // the host build never probes out
    LoopbackServer server(LoopbackServer::Mode::kAnswer);
    tcping_info info = probeTo(server.port());
    constexpr int kOffsetMs = 7;

    const int rtt = Tcping::updateTcpingRtt(&info, kOffsetMs);

    EXPECT_EQ(server.answered(), 10);
    // Loopback's smoothed RTT is microseconds: 0 ms, well under the cap; the offset is added.
    EXPECT_GE(rtt, kOffsetMs);
    EXPECT_LE(rtt, kOffsetMs + info.minCapMs);
    EXPECT_EQ(info.rtt, rtt);
    EXPECT_EQ(info.sockfd, -1);
    EXPECT_EQ(info.serverAddr.sin_family, AF_INET);
    EXPECT_EQ(info.serverAddr.sin_port, htons(server.port()));
    EXPECT_EQ(info.serverAddr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_TRUE(log_.contains("TCPing cacla rtt is " + std::to_string(rtt) + ",device is lo"));
}

TEST_F(TcpingTest, ServerThatAcceptsAndClosesGivesNoExchangeAndMinusOne) {
    LoopbackServer server(LoopbackServer::Mode::kAcceptAndClose);
    tcping_info info = probeTo(server.port());
    info.rtt = 33;

    EXPECT_EQ(Tcping::updateTcpingRtt(&info, 7), -1);

    EXPECT_EQ(server.answered(), 0);
    EXPECT_EQ(info.rtt, 33);  // a failed probe leaves the last result
    EXPECT_EQ(info.sockfd, -1);
    // errno is ECONNRESET or 0 (the peer's FIN), depending on which reached us first.
    EXPECT_TRUE(hasLineStartingWith(log_, "recieve failed -1,device is lo(errno "));
    bool countedNone = false;
    for (const std::string& text : log_.texts("SLM-Vekt-Tcping")) {
        if (text.find(", errno count 0)") != std::string::npos) countedNone = true;
    }
    EXPECT_TRUE(countedNone);
}

// A listener whose accept queue is full drops every further SYN without an answer, which
// is a silent server without leaving loopback or needing a namespace: the probe's connect
// waits out its whole time-out.
TEST_F(TcpingTest, SilentServerCostsTheConnectTimeoutAndGivesMinusOne) {
    uint16_t port = 0;
    unique_fd listener = listenOnLoopback(0, &port);  // backlog 0: one queued connection
    ASSERT_TRUE(listener.ok());
    unique_fd filler(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(filler, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    pollfd queued = {listener.get(), POLLIN, 0};
    ASSERT_EQ(poll(&queued, 1, 2000), 1) << "the filler never reached the accept queue";

    tcping_info info = probeTo(port);
    const auto start = std::chrono::steady_clock::now();
    const int rtt = Tcping::updateTcpingRtt(&info, 0);
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);

    EXPECT_EQ(rtt, -1);
    EXPECT_GE(elapsed.count(), 450);
    EXPECT_LT(elapsed.count(), 2000);
    EXPECT_TRUE(hasLineStartingWith(log_, " retrying_poll : "));
    bool timedOut = false;
    for (const std::string& text : log_.texts("SLM-Vekt-Tcping")) {
        if (text.find(" retrying_poll timeout") != std::string::npos) timedOut = true;
    }
    EXPECT_TRUE(timedOut);
    EXPECT_TRUE(log_.contains("connect failed of client,device is lo!"));
    RecordProperty("silent_probe_ms", static_cast<int>(elapsed.count()));
}

TEST_F(TcpingTest, RefusedConnectionFailsAtOnceThroughThePendingError) {
    uint16_t port = 0;
    { unique_fd closed = listenOnLoopback(1, &port); }  // the port is free again, nobody listens
    tcping_info info = probeTo(port);

    EXPECT_EQ(Tcping::updateTcpingRtt(&info, 0), -1);

    bool pendingError = false;
    for (const std::string& text : log_.texts("SLM-Vekt-Tcping")) {
        if (text.find(" retrying_poll getsockopt failed") != std::string::npos) pendingError = true;
    }
    EXPECT_TRUE(pendingError);
    EXPECT_TRUE(log_.contains("connect failed of client,device is lo!"));
}

TEST_F(TcpingTest, MissingInterfaceFailsTheBindAndNeverConnects) {
    uint16_t port = 0;
    unique_fd listener = listenOnLoopback(1, &port);
    tcping_info info = probeTo(port, "vektnoif0");

    EXPECT_EQ(Tcping::updateTcpingRtt(&info, 0), -1);

    EXPECT_TRUE(log_.contains("Set interface vektnoif0 failed."));
    EXPECT_FALSE(hasLineStartingWith(log_, "connect failed"));
    EXPECT_EQ(info.sockfd, -1);
}

TEST_F(TcpingTest, ConnectWithTimeoutRestoresBlockingMode) {
    uint16_t port = 0;
    unique_fd listener = listenOnLoopback(1, &port);
    unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    const int ret = Tcping::connect_with_timeout(fd, reinterpret_cast<sockaddr*>(&addr),
                                                 sizeof(addr), timespec{0, 500000000L});

    EXPECT_GE(ret, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST(TcpingRandomString, FillsLengthMinusTwoLettersAndDigitsAndTheNul) {
    char buffer[60] = {};
    EXPECT_EQ(Tcping::genRandomString(60, buffer), 0);
    EXPECT_EQ(strlen(buffer), 58u);
    for (int i = 0; i < 58; ++i) {
        const char c = buffer[i];
        EXPECT_TRUE((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))
            << "position " << i << " holds " << static_cast<int>(c);
    }
    EXPECT_EQ(buffer[59], '\0');

    char shortBuffer[2] = {'?', '?'};
    EXPECT_EQ(Tcping::genRandomString(2, shortBuffer), 0);
    EXPECT_EQ(shortBuffer[0], '?');  // below 3 only the NUL is written
    EXPECT_EQ(shortBuffer[1], '\0');
}

}  // namespace
