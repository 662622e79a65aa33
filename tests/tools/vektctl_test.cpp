// vektctl: its argument checking as a pure function, and the tool as a process, against a
// socket of the test's own and against the real daemon in a private network namespace.
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <set>

#include "support/daemon_process.h"
#include "support/netns.h"
#include "support/temp_root.h"
#include "vektctl/vektctl_args.h"

namespace vekt::test {
namespace {

using Args = std::vector<std::string>;
using android::base::unique_fd;

vektctl::Request parsed(const Args& args) {
    vektctl::Request request;
    std::string error;
    EXPECT_TRUE(vektctl::parseCommandLine(args, request, error)) << error;
    return request;
}

// Why a command line is refused; empty when it is accepted.
std::string refusal(const Args& args) {
    vektctl::Request request;
    std::string error;
    return vektctl::parseCommandLine(args, request, error) ? std::string() : error;
}

TEST(VektctlArgsTest, NamedAndNumericForms) {
    std::set<std::string> names;
    for (size_t i = 0; i < vektctl::commands().size(); ++i) {
        const vektctl::CommandInfo& command = vektctl::commands()[i];
        EXPECT_EQ(command.id, static_cast<int32_t>(i + 1));
        EXPECT_EQ(parsed({command.name, "1"}).id, command.id);
        EXPECT_NE(vektctl::usage().find(command.name), std::string::npos);
        names.insert(command.name);
    }
    EXPECT_EQ(names.size(), 15u);
    EXPECT_EQ(parsed({"interfaces", "wlan0,rmnet_data0"}).text, "wlan0,rmnet_data0");
    EXPECT_EQ(parsed({"game-stop"}).text, "");  // takes no text
    EXPECT_EQ(parsed({"7", "NULL"}).id, 7);
    // Options come first; after the command a leading "-" is text.
    vektctl::Request request = parsed({"--root", "/r", "rtt", "-1"});
    EXPECT_EQ(request.root, "/r");
    EXPECT_EQ(request.text, "-1");
    EXPECT_TRUE(parsed({"--help"}).help);

    for (const char* id : {"0", "16", "-1"}) {
        EXPECT_EQ(refusal({id, "x"}),
                  std::string("id ") + id + " is outside 1..15 (--raw sends it anyway)");
        EXPECT_EQ(std::to_string(parsed({"--raw", id, "x"}).id), id);
    }
    EXPECT_EQ(refusal({"launch", "x"}), "unknown command \"launch\"");
    EXPECT_EQ(refusal({"--raw", "99999999999"}), "id 99999999999 is not a 32-bit number");
    EXPECT_EQ(refusal({}), "no command given");
    EXPECT_EQ(refusal({"--root"}), "--root needs a directory");
    EXPECT_EQ(refusal({"--bogus", "rtt", "1"}), "unknown option --bogus");
    EXPECT_EQ(refusal({"sla-uids"}), "sla-uids needs its argument: UID[,UID...]|NULL");
    EXPECT_EQ(refusal({"rtt", "1", "2"}), "unexpected argument \"2\" (quote a text with blanks)");
}

TEST(VektctlArgsTest, RefusesTextsThatWouldEndOrAbortTheDaemon) {
    EXPECT_EQ(refusal({"interfaces", std::string(1023, 'a')}), "");
    EXPECT_EQ(refusal({"--raw", "77", std::string(1024, 'a')}),
              "text of 1024 bytes does not fit a record (at most 1023)");
    EXPECT_EQ(refusal({"wifi-gateway", std::string(63, '1')}), "");
    EXPECT_EQ(refusal({"4", std::string(64, '1')}),
              "gateway text of 64 characters is too long (at most 63)");
    std::string error;
    for (int32_t id : {2, 5, 7})
        EXPECT_FALSE(vektctl::checkText(id, std::string(2048, '1'), error));

    for (const char* rtt : {"130", "-1", "+5", "2147483647"}) EXPECT_EQ(refusal({"rtt", rtt}), "");
    for (const char* rtt : {"abc", "", "12abc", " 12", "2147483648", "-"}) {
        EXPECT_EQ(refusal({"rtt", rtt}),
                  std::string("rtt needs a decimal number of milliseconds, not \"") + rtt + "\"");
        EXPECT_NE(refusal({"--raw", "12", rtt}), "");  // --raw only widens the ids
    }

    msg_t msg = vektctl::makeRecord(4, "192.168.1.1");
    EXPECT_EQ(msg.id, 4);
    EXPECT_EQ(msg.length, 11);
    EXPECT_EQ(std::string(msg.message, kMsgTextSize), "192.168.1.1" + std::string(1013, '\0'));
}

// ---- the tool as a process ----

struct ToolRun {
    int status;
    std::string output;  // standard output and standard error
};

class VektctlProcessTest : public ::testing::Test {
protected:
    ToolRun vektctl(const Args& args, bool withRoot = true) {
        std::string out = root_.dir() + "/vektctl-" + std::to_string(runs_++) + ".out";
        Args argv = {binPath("vektctl")};
        if (withRoot) argv.insert(argv.end(), {"--root", root_.dir()});
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess tool;
        if (!tool.start(argv, out, false)) return {-1, "cannot start vektctl"};
        int status = tool.wait(15000);
        return {status, readWholeFile(out)};
    }

    TempRoot root_;
    int runs_ = 0;
};

unique_fd listenAt(const std::string& path) {
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, 2) != 0) {
        fd.reset();
    }
    return fd;
}

bool readable(int fd, int timeoutMs) {
    struct pollfd entry = {fd, POLLIN, 0};
    return poll(&entry, 1, timeoutMs) == 1;
}

TEST_F(VektctlProcessTest, HelpAndFailuresWithoutADaemon) {
    ToolRun help = vektctl({"--help"}, false);
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output, vektctl::usage());

    ToolRun refused = vektctl({"rtt", "fast"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output,
              "vektctl: rtt needs a decimal number of milliseconds, not \"fast\"\n"
              "run 'vektctl --help' for the commands\n");

    ToolRun noDaemon = vektctl({"interfaces", "wlan0"});
    EXPECT_EQ(noDaemon.status, 1);
    EXPECT_EQ(noDaemon.output, "vektctl: cannot connect to " + root_.path("/dev/socket/vekt") +
                                   ": No such file or directory\n");
}

TEST_F(VektctlProcessTest, ARecordDiscardedUnreadIsSentAgainOnAFreshConnection) {
    // The test plays a daemon that throws its listening socket away while vektctl's
    // connection still waits in the backlog, as the daemon does between two clients.
    const std::string path = root_.path("/dev/socket/vekt");
    unique_fd first = listenAt(path);
    ASSERT_TRUE(first.ok());
    ChildProcess tool;
    const std::string out = root_.dir() + "/vektctl.out";
    ASSERT_TRUE(tool.start({binPath("vektctl"), "--root", root_.dir(), "--raw", "99", "again"}, out,
                           false));
    ASSERT_TRUE(readable(first, 5000));  // connected
    usleep(100 * 1000);                  // and, most likely, written
    first.reset();                       // discards the connection and its record
    unique_fd second = listenAt(path);
    ASSERT_TRUE(readable(second, 5000));
    unique_fd conn(accept4(second, nullptr, nullptr, SOCK_CLOEXEC));
    msg_t msg;
    ASSERT_EQ(recv(conn, &msg, sizeof(msg), MSG_WAITALL), static_cast<ssize_t>(sizeof(msg)));
    EXPECT_EQ(msg.id, 99);
    EXPECT_STREQ(msg.message, "again");
    EXPECT_EQ(tool.wait(5000), 0) << readWholeFile(out);
    char more;
    EXPECT_EQ(recv(conn, &more, 1, 0), 0);  // one record, then vektctl hung up
    EXPECT_FALSE(readable(second, 0));      // and made no other connection
}

TEST_F(VektctlProcessTest, TheDaemonHandlesEachRecordOnceAndRefusalsSendNothing) {
    VEKT_REQUIRE_NETNS();
    const std::string log = root_.dir() + "/vekt.log";
    const std::string created = "Created socket success with '/dev/socket/vekt'";
    auto recvLine = [](int id, const std::string& text) {
        return "I SLM-Vekt-VektSocket-Server: recv msg: msg.id=" + std::to_string(id) +
               ", msg.length=" + std::to_string(text.size()) + ", msg.message=[" + text + "]";
    };
    root_.installRecordingWrappers();
    ChildProcess daemon;
    ASSERT_TRUE(daemon.start({binPath("vekt"), "--root", root_.dir()}, log, true));
    ASSERT_TRUE(waitForText(log, created, 5000)) << readWholeFile(log);

    for (const Args& args :
         {Args{"rtt", "abc"}, Args{"wifi-gateway", std::string(64, '1')},
          Args{"sla-uids", std::string(2048, '1')}, Args{"launch"}, Args{"16", "x"}}) {
        EXPECT_EQ(vektctl(args).status, 1) << args[0];
    }
    // Back to back: each run races the daemon's re-creation of the socket after the last.
    for (int i = 0; i < 10; ++i) EXPECT_EQ(vektctl({"--raw", "99", std::to_string(i)}).status, 0);
    EXPECT_EQ(vektctl({"rtt", "130"}).status, 0);
    EXPECT_EQ(vektctl({"interfaces", "wlan0"}).status, 0);

    // Twelve connections, each hung up after its record: the twelfth re-creation shows
    // that the daemon is through with all of them (and saw no other connection).
    for (int waited = 0; countLines(log, created) < 13 && waited < 15000; waited += 50) {
        usleep(50 * 1000);
    }
    std::string text = readWholeFile(log);
    EXPECT_EQ(countLines(log, created), 13u) << text;
    EXPECT_EQ(countLines(log, "recv msg:"), 12u) << text;
    size_t last = 0;
    for (int i = 0; i < 10; ++i) {
        size_t at = text.find(recvLine(99, std::to_string(i)));
        EXPECT_TRUE(at != std::string::npos && at > last) << i << " missing or out of order";
        last = at;
    }
    EXPECT_GT(text.find(recvLine(12, "130")), last);
    EXPECT_NE(text.find(recvLine(1, "wlan0")), std::string::npos);
    EXPECT_EQ(countLines(log, "E SLM-Vekt-VektSocket-Server: unknow mesage!!!"), 10u);
}

}  // namespace
}  // namespace vekt::test
