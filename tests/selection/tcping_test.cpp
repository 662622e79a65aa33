// Tcping against real TCP servers on 127.0.0.1 (threads of this process on ephemeral ports),
// with the probe socket bound to "lo" as it is bound to a link on the device. No probe
// leaves the loopback interface.
#include "selection/tcping.h"

#include <android-base/unique_fd.h>
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

#include "support/emulation.h"
#include "support/parameters_fixture.h"

namespace {

using android::base::unique_fd;

sockaddr_in loopbackAddress(uint16_t port) {
    return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

// A listening socket on 127.0.0.1 and an ephemeral port.
unique_fd listenOnLoopback(int backlog, uint16_t* port) {
    unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = loopbackAddress(0);
    socklen_t length = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), length) != 0 || listen(fd, backlog) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
        ADD_FAILURE() << "loopback listener: " << strerror(errno);
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

// Serves one connection: answers every 58-byte request with 60 bytes until the client
// closes, or (answer false) accepts and closes at once. Gives up after 5 s without a client,
// so that a broken probe fails the test instead of hanging it.
struct LoopbackServer {
    explicit LoopbackServer(bool answer) {
        thread = std::thread([this, answer] {
            pollfd pfd = {listener.get(), POLLIN, 0};
            if (poll(&pfd, 1, 5000) != 1) return;
            unique_fd client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            const timeval limit = {5, 0};
            setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
            char request[58], reply[60] = {};
            while (answer && recv(client, request, 58, MSG_WAITALL) == 58 &&
                   send(client, reply, 60, MSG_NOSIGNAL) == 60) {
                ++answered;
            }
        });
    }
    ~LoopbackServer() { finish(); }
    // Requests answered, once the connection is over.
    int finish() {
        if (thread.joinable()) thread.join();
        return answered;
    }

    uint16_t port = 0;
    unique_fd listener = listenOnLoopback(1, &port);
    std::atomic<int> answered{0};
    std::thread thread;
};

class TcpingTest : public vekt::test::ParametersTest {
  protected:
    // Runs a probe as the probe thread fills its record: server and port from the settings.
    int probe(uint16_t port, int offsetMs = 0, const char* device = "lo") {
        server_ = params()->m_rttServer.get();
        info_ = {0, {}, device, server_.c_str(), 1, params()->m_rttMinCapMs, info_.rtt, port};
        return Tcping::updateTcpingRtt(&info_, offsetMs);
    }
    // Whether a Tcping log line holds text.
    bool logged(const std::string& text) const {
        for (const std::string& line : log_.texts("SLM-Vekt-Tcping")) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }

    std::string server_;
    tcping_info info_ = {};
};

TEST_F(TcpingTest, AnsweringServerGivesTenExchangesAndTheKernelsSmoothedRtt) {
    VEKT_REQUIRE_KERNEL(vekt::test::tcpInfoMissing());
    ASSERT_EQ(params()->m_rttServer.get(), "127.0.0.1");  // the host build never probes out
    LoopbackServer server(true);
    const int rtt = probe(server.port, 7);

    EXPECT_EQ(server.finish(), 10);
    // Loopback's smoothed RTT is microseconds: 0 ms, well under the cap; the offset is added.
    EXPECT_GE(rtt, 7);
    EXPECT_LE(rtt, 7 + info_.minCapMs);
    EXPECT_EQ(info_.rtt, rtt);
    EXPECT_EQ(info_.sockfd, -1);
    const sockaddr_in expected = loopbackAddress(server.port);
    EXPECT_EQ(memcmp(&info_.serverAddr, &expected, sizeof(expected)), 0);
    EXPECT_TRUE(logged("TCPing cacla rtt is " + std::to_string(rtt) + ",device is lo"));
}

TEST_F(TcpingTest, ServerThatAcceptsAndClosesGivesNoExchangeAndMinusOne) {
    LoopbackServer server(false);
    info_.rtt = 33;
    EXPECT_EQ(probe(server.port, 7), -1);
    EXPECT_EQ(server.finish(), 0);
    EXPECT_EQ(info_.rtt, 33);  // a failed probe leaves the last result
    EXPECT_EQ(info_.sockfd, -1);
    // errno is ECONNRESET or 0 (the peer's FIN), depending on which reached us first.
    EXPECT_TRUE(logged("recieve failed -1,device is lo(errno "));
    EXPECT_TRUE(logged(", errno count 0)"));
}

// A listener whose accept queue is full drops every further SYN without an answer, which
// is a silent server without leaving loopback or needing a namespace: the probe's connect
// waits out its whole time-out.
TEST_F(TcpingTest, SilentServerCostsTheConnectTimeoutAndGivesMinusOne) {
    uint16_t port = 0;
    unique_fd listener = listenOnLoopback(0, &port);  // backlog 0: one queued connection
    unique_fd filler(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in addr = loopbackAddress(port);
    ASSERT_EQ(connect(filler, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
    pollfd queued = {listener.get(), POLLIN, 0};
    ASSERT_EQ(poll(&queued, 1, 2000), 1) << "the filler never reached the accept queue";

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(probe(port), -1);
    const auto elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now() - start)
                               .count();
    EXPECT_GE(elapsedMs, 450);
    EXPECT_LT(elapsedMs, 2000);
    EXPECT_TRUE(logged(" retrying_poll : ") && logged(" retrying_poll timeout"));
    EXPECT_TRUE(logged("connect failed of client,device is lo!"));
    RecordProperty("silent_probe_ms", static_cast<int>(elapsedMs));
}

TEST_F(TcpingTest, RefusedConnectionFailsAtOnceAndAMissingInterfaceNeverConnects) {
    uint16_t port = 0;
    listenOnLoopback(1, &port);  // closed at once: the port is free again, nobody listens
    EXPECT_EQ(probe(port), -1);
    EXPECT_TRUE(logged(" retrying_poll getsockopt failed"));  // the pending error
    EXPECT_TRUE(logged("connect failed of client,device is lo!"));

    log_.clear();
    unique_fd listener = listenOnLoopback(1, &port);
    EXPECT_EQ(probe(port, 0, "vektnoif0"), -1);
    EXPECT_TRUE(logged("Set interface vektnoif0 failed."));
    EXPECT_FALSE(logged("connect failed"));
    EXPECT_EQ(info_.sockfd, -1);
}

TEST_F(TcpingTest, ConnectWithTimeoutRestoresBlockingMode) {
    uint16_t port = 0;
    unique_fd listener = listenOnLoopback(1, &port);
    unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in addr = loopbackAddress(port);
    EXPECT_GE(Tcping::connect_with_timeout(fd, reinterpret_cast<const sockaddr*>(&addr),
                                           sizeof(addr), timespec{0, 500000000L}),
              0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST(TcpingRandomString, FillsLengthMinusTwoLettersAndDigitsAndTheNul) {
    char buffer[61] = "????????????????????????????????????????????????????????????";
    EXPECT_EQ(Tcping::genRandomString(60, buffer), 0);
    // 58 letters and digits; the byte before the NUL at 59 is left as it was.
    EXPECT_EQ(strspn(buffer, "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"),
              58u);
    EXPECT_EQ(std::string(buffer + 58), "?");
    char shortBuffer[2] = {'?', '?'};
    EXPECT_EQ(Tcping::genRandomString(2, shortBuffer), 0);
    EXPECT_EQ(shortBuffer[0], '?');  // below 3 only the NUL is written
    EXPECT_EQ(shortBuffer[1], '\0');
}

}  // namespace
