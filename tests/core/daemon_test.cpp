// The real daemon binary under a test root, in a private network namespace.
#include <gtest/gtest.h>
#include <signal.h>

#include "core/daemon_args.h"
#include "support/control_client.h"
#include "support/daemon_process.h"
#include "support/emulation.h"
#include "support/netns.h"
#include "support/temp_root.h"

namespace vekt::test {
namespace {

TEST(DaemonArgsTest, ParsesRootAndHelpAndRefusesUnknownArguments) {
    DaemonArgs args;
    std::string error;
    const char* ok[] = {"vekt", "--root", "/tmp/x", "--help"};
    ASSERT_TRUE(parseDaemonArgs(4, ok, args, error));
    EXPECT_EQ(args.root, "/tmp/x");
    EXPECT_TRUE(args.help);

    DaemonArgs other;
    const char* missing[] = {"vekt", "--root"};
    EXPECT_FALSE(parseDaemonArgs(2, missing, other, error));
    const char* unknown[] = {"vekt", "--bogus"};
    EXPECT_FALSE(parseDaemonArgs(2, unknown, other, error));
    EXPECT_EQ(error, "unknown argument: --bogus");
}

TEST(DaemonBinaryTest, UnknownArgumentPrintsUsageAndExitsWithTwo) {
    TempRoot root;
    ChildProcess vekt;
    std::string log = root.dir() + "/vekt.log";
    ASSERT_TRUE(vekt.start({binPath("vekt"), "--frobnicate"}, log, false));
    EXPECT_EQ(vekt.wait(5000), 2);
    EXPECT_NE(readWholeFile(log).find("usage: vekt"), std::string::npos);
}

class DaemonLifecycleTest : public ::testing::Test {
protected:
    void SetUp() override { VEKT_REQUIRE_NETNS(); }

    bool startDaemon() {
        return vekt_.start({binPath("vekt"), "--root", root_.dir()}, log(), true);
    }
    std::string log() const { return root_.dir() + "/vekt.log"; }

    // Shutdown stops the socket thread, and that stop only takes effect while a client is
    // connected: without one the signal merely interrupts accept and the daemon waits for
    // the thread for good. So the tests, like the platform service on a device, keep a
    // client connected; it sends one record (an id no handler knows) and waits until the
    // daemon handled it, so it is accepted and served when the property goes to 2.
    bool connectServedClient() {
        return client_.connect(root_.path("/dev/socket/vekt")) && client_.send(99, "hello") &&
               waitForText(log(), "msg.id=99, msg.length=5, msg.message=[hello]", 5000);
    }

    TempRoot root_;
    ChildProcess vekt_;
    ControlClient client_;
};

TEST_F(DaemonLifecycleTest, RunsItsLoopUntilThePropertyReadsTwoThenIdlesUntilReplaced) {
    root_.writeConf("mini_est_interval = 100\n");
    root_.setProperty("vendor.sla.enabled", "0");  // 0 at start still runs the daemon
    ASSERT_TRUE(startDaemon());
    ASSERT_TRUE(waitForText(log(), "Vekt (SLA+SLS) 3.0.4.5 starting daemon", 5000));
    usleep(500 * 1000);
    EXPECT_FALSE(waitForText(log(), "Vekt exiting", 0));
    EXPECT_TRUE(vekt_.running());

    ASSERT_TRUE(connectServedClient()) << readWholeFile(log());
    root_.setProperty("vendor.sla.enabled", "2");
    ASSERT_TRUE(waitForText(log(), "Vekt exiting", 3000)) << readWholeFile(log());
    EXPECT_EQ(countLines(log(), "E SLM-Vekt-daemon: Slm disabled, starting cleanup..."), 1u);
    std::string text = readWholeFile(log());  // the socket thread ends before the cleanup
    EXPECT_LT(text.find("I SLM-Vekt-VektSocket-Server: socket Thread exit"),
              text.find("Slm disabled, starting cleanup..."));
    // Setting the property back changes nothing: the process idles and stays alive.
    root_.setProperty("vendor.sla.enabled", "1");
    usleep(300 * 1000);
    EXPECT_TRUE(vekt_.running());
    EXPECT_EQ(countLines(log(), "Vekt exiting"), 1u);

    // So init's service definition restarts it on 1: the idle process is killed (it holds
    // nothing) and a new one comes up over the old socket file and serves clients again.
    vekt_.kill();
    ASSERT_TRUE(startDaemon());
    ASSERT_TRUE(waitForText(log(), "Created socket success", 5000));
    client_.close();
    ASSERT_TRUE(connectServedClient()) << readWholeFile(log());
    EXPECT_EQ(countLines(log(), "starting daemon"), 2u);
    EXPECT_TRUE(vekt_.running());
}

TEST_F(DaemonLifecycleTest, AStopResetsEachGamingUidsSocketsInListOrderBeforeItEnds) {
    VEKT_REQUIRE_KERNEL(sockDiagMissing());
    root_.writeConf("mini_est_interval = 100\n");
    ASSERT_TRUE(startDaemon());
    ASSERT_TRUE(connectServedClient()) << readWholeFile(log());
    ASSERT_TRUE(client_.send(9, "10123,10124"));  // gaming UIDs
    ASSERT_TRUE(waitForText(log(), "SLS GAMING Demo UID = 10124", 3000)) << readWholeFile(log());
    root_.setProperty("vendor.sla.enabled", "2");
    ASSERT_TRUE(waitForText(log(), "Vekt exiting", 3000)) << readWholeFile(log());
    const std::string text = readWholeFile(log());
    const size_t first = text.find("SLA_GAMING destroying UDP sockets: 10123");
    const size_t second = text.find("SLA_GAMING destroying UDP sockets: 10124");
    EXPECT_LT(text.find("Slm disabled, starting cleanup..."), first);
    EXPECT_LT(first, second);
    EXPECT_LT(second, text.find("Vekt exiting"));
}

TEST_F(DaemonLifecycleTest, WithoutSettingsFileLogsTheFailureAndUsesTheDefaultInterval) {
    root_.setProperty("vendor.sla.enabled", "2");  // the loop body still runs once
    ASSERT_TRUE(startDaemon());
    ASSERT_TRUE(connectServedClient()) << readWholeFile(log());  // within the 1000 ms pass
    ASSERT_TRUE(waitForText(log(), "Vekt exiting", 5000)) << readWholeFile(log());
    std::string text = readWholeFile(log());
    EXPECT_NE(text.find("E SLM-Vekt-SlaParameters: read vekt conf file failed!"), std::string::npos);
    EXPECT_LT(text.find("starting daemon"), text.find("read vekt conf file failed!"));
    EXPECT_TRUE(vekt_.running());
}

TEST_F(DaemonLifecycleTest, AStopWithoutAConnectedClientIsLostAndCleanupNeverStarts) {
    root_.writeConf("mini_est_interval = 100\n");
    ASSERT_TRUE(startDaemon());
    const std::string created = "Created socket success with '/dev/socket/vekt'";
    ASSERT_TRUE(waitForText(log(), created, 5000)) << readWholeFile(log());
    root_.setProperty("vendor.sla.enabled", "2");
    // The stop signal only interrupts accept; the thread makes a new socket and waits.
    ASSERT_TRUE(waitForText(
        log(), "E SLM-Vekt-VektSocket-Server: accept fail, error=Interrupted system call", 3000))
        << readWholeFile(log());
    for (int waited = 0; countLines(log(), created) < 2 && waited < 3000; waited += 20) {
        usleep(20 * 1000);
    }
    EXPECT_EQ(countLines(log(), created), 2u);
    // A client that connects later is served as usual, and the main thread keeps waiting.
    ASSERT_TRUE(connectServedClient()) << readWholeFile(log());
    EXPECT_FALSE(waitForText(log(), "Slm disabled, starting cleanup...", 500));
    EXPECT_FALSE(waitForText(log(), "socket Thread exit", 0));
    EXPECT_TRUE(vekt_.running());
}

}  // namespace
}  // namespace vekt::test
