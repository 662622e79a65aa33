// vektctl: its argument checking as a pure function, and the tool as a process, against a
// socket of the test's own and against the real daemon in a private network namespace.
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "control/control_socket.h"
#include "base/device_root.h"
#include "support/daemon_process.h"
#include "support/netns.h"
#include "support/temp_root.h"
#include "vektctl/vektctl_args.h"

namespace vekt::test {
namespace {

using Args = std::vector<std::string>;
using android::base::unique_fd;

// What vektctl makes of a command line: "ID:TEXT" for the record it sends, or its refusal.
std::string outcome(const Args& args) {
    vektctl::Request request;
    std::string error;
    if (!vektctl::parseCommandLine(args, request, error)) return error;
    return std::to_string(request.id) + ":" + request.text;
}

TEST(VektctlArgsTest, AcceptsNamedAndNumericFormsAndRefusesWhatWouldHarmTheDaemon) {
    const std::string a1023(1023, 'a'), ones63(63, '1');
    std::vector<std::pair<Args, std::string>> cases = {
        {{"--root", "/r", "rtt", "-1"}, "12:-1"},  // after the command, a leading "-" is text
        {{"game-stop"}, "10:"},
        {{"7", "NULL"}, "7:NULL"},
        {{"interfaces", a1023}, "1:" + a1023},
        {{"wifi-gateway", ones63}, "4:" + ones63},
        {{"--raw", "77", a1023 + "a"}, "text of 1024 bytes does not fit a record (at most 1023)"},
        {{"4", ones63 + "1"}, "gateway text of 64 characters is too long (at most 63)"},
        {{"launch", "x"}, "unknown command \"launch\""},
        {{"--raw", "99999999999"}, "id 99999999999 is not a 32-bit number"},
        {{}, "no command given"},
        {{"--root"}, "--root needs a directory"},
        {{"--bogus", "rtt", "1"}, "unknown option --bogus"},
        {{"sla-uids"}, "sla-uids needs its argument: UID[,UID...]|NULL"},
        {{"rtt", "1", "2"}, "unexpected argument \"2\" (quote a text with blanks)"}};
    ASSERT_EQ(vektctl::commands().size(), 15u);
    for (int id = 1; id <= 15; ++id)
        cases.push_back({{vektctl::commands()[id - 1].name, "1"}, std::to_string(id) + ":1"});
    for (std::string rtt : {"130", "-1", "+5", "2147483647"})
        cases.push_back({{"rtt", rtt}, "12:" + rtt});
    for (std::string id : {"0", "16", "-1"}) {
        cases.push_back({{"--raw", id, "x"}, id + ":x"});
        cases.push_back({{id, "x"}, "id " + id + " is outside 1..15 (--raw sends it anyway)"});
    }
    for (std::string rtt : {"abc", "", "12abc", " 12", "2147483648", "-"}) {
        const std::string refusal =
            "rtt needs a decimal number of milliseconds, not \"" + rtt + "\"";
        cases.push_back({{"rtt", rtt}, refusal});
        cases.push_back({{"--raw", "12", rtt}, refusal});  // --raw only widens the ids
    }
    for (const auto& [args, expected] : cases) EXPECT_EQ(outcome(args), expected);
    std::string error;
    for (int32_t id : {2, 5, 7})
        EXPECT_FALSE(vektctl::checkText(id, std::string(2048, '1'), error));
}

// ---- the tool as a process ----

class VektctlProcessTest : public ::testing::Test {
protected:
    int run(Args args) {
        args.insert(args.begin(), {binPath("vektctl"), "--root", root_.dir()});
        ChildProcess tool;
        return tool.start(args, root_.dir() + "/vektctl.out", false) ? tool.wait(15000) : -1;
    }

    TempRoot root_;
};

bool readable(int fd, int timeoutMs) {
    struct pollfd entry = {fd, POLLIN, 0};
    return poll(&entry, 1, timeoutMs) == 1;
}

TEST_F(VektctlProcessTest, ARecordDiscardedUnreadIsSentAgainOnAFreshConnection) {
    // The test plays a daemon that throws its listening socket away while vektctl's
    // connection still waits in the backlog, as the daemon does between two clients.
    ScopedDeviceRoot scope(root_.dir());
    unique_fd first(createSocket(kControlSocketPath));
    ASSERT_EQ(listen(first, 2), 0);
    ChildProcess tool;
    ASSERT_TRUE(tool.start({binPath("vektctl"), "--root", root_.dir(), "--raw", "99", "again"},
                           root_.dir() + "/vektctl.out", false));
    ASSERT_TRUE(readable(first, 5000));  // connected
    usleep(100 * 1000);                  // and, most likely, written
    first.reset();                       // discards the connection and its record
    unique_fd second(createSocket(kControlSocketPath));
    ASSERT_EQ(listen(second, 2), 0);
    ASSERT_TRUE(readable(second, 5000));
    unique_fd conn(accept4(second, nullptr, nullptr, SOCK_CLOEXEC));
    msg_t msg;
    ASSERT_EQ(recv(conn, &msg, sizeof(msg), MSG_WAITALL), static_cast<ssize_t>(sizeof(msg)));
    EXPECT_EQ(msg.id, 99);
    EXPECT_STREQ(msg.message, "again");
    EXPECT_EQ(tool.wait(5000), 0);
    char more;
    EXPECT_EQ(recv(conn, &more, 1, 0), 0);  // one record, then vektctl hung up
    EXPECT_FALSE(readable(second, 0));      // and made no other connection
}

TEST_F(VektctlProcessTest, TheDaemonHandlesEachRecordOnceAndRefusalsSendNothing) {
    VEKT_REQUIRE_NETNS();
    const std::string log = root_.dir() + "/vekt.log";
    const std::string created = "Created socket success with '/dev/socket/vekt'";
    root_.installRecordingWrappers();
    ChildProcess daemon;
    ASSERT_TRUE(daemon.start({binPath("vekt"), "--root", root_.dir()}, log, true));
    ASSERT_TRUE(waitForText(log, created, 5000)) << readWholeFile(log);

    for (const Args& args : {Args{"rtt", "abc"}, Args{"wifi-gateway", std::string(64, '1')},
                             Args{"sla-uids", std::string(2048, '1')}, Args{"16", "x"}})
        EXPECT_EQ(run(args), 1) << args[0];
    // Back to back: each run races the daemon's re-creation of the socket after the last.
    for (int i = 0; i < 10; ++i) EXPECT_EQ(run({"--raw", "99", std::to_string(i)}), 0);

    // The tenth re-creation of the socket: the daemon is through with all (and saw no other).
    for (int waited = 0; countLines(log, created) < 11 && waited < 15000; waited += 50)
        usleep(50000);
    EXPECT_EQ(countLines(log, created), 11u) << readWholeFile(log);
    EXPECT_EQ(countLines(log, "recv msg:"), 10u);  // each of these lines once:
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(waitForText(log, "99, msg.length=1, msg.message=[" + std::to_string(i), 0));
}

}  // namespace
}  // namespace vekt::test
