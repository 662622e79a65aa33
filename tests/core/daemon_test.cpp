// The real daemon binary under a test root, in a private network namespace.
#include <gtest/gtest.h>
#include <signal.h>

#include "core/daemon_args.h"
#include "support/daemon_process.h"
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

    TempRoot root_;
    ChildProcess vekt_;
};

TEST_F(DaemonLifecycleTest, RunsItsLoopUntilThePropertyReadsTwoThenIdles) {
    root_.writeConf("mini_est_interval = 100\n");
    root_.setProperty("vendor.sla.enabled", "0");  // 0 at start still runs the daemon
    ASSERT_TRUE(startDaemon());
    ASSERT_TRUE(waitForText(log(), "Vekt (SLA+SLS) 3.0.4.5 starting daemon", 5000));
    usleep(500 * 1000);
    EXPECT_FALSE(waitForText(log(), "Vekt exiting", 0));
    EXPECT_TRUE(vekt_.running());

    root_.setProperty("vendor.sla.enabled", "2");
    ASSERT_TRUE(waitForText(log(), "Vekt exiting", 3000)) << readWholeFile(log());
    EXPECT_EQ(countLines(log(), "E SLM-Vekt-daemon: Slm disabled, starting cleanup..."), 1u);
    // Setting the property back changes nothing: the process idles and stays alive.
    root_.setProperty("vendor.sla.enabled", "1");
    usleep(300 * 1000);
    EXPECT_TRUE(vekt_.running());
    EXPECT_EQ(countLines(log(), "Vekt exiting"), 1u);
}

TEST_F(DaemonLifecycleTest, WithoutSettingsFileLogsTheFailureAndUsesTheDefaultInterval) {
    root_.setProperty("vendor.sla.enabled", "2");  // the loop body still runs once
    ASSERT_TRUE(startDaemon());
    ASSERT_TRUE(waitForText(log(), "Vekt exiting", 5000)) << readWholeFile(log());
    std::string text = readWholeFile(log());
    EXPECT_NE(text.find("E SLM-Vekt-SlaParameters: read vekt conf file failed!"), std::string::npos);
    EXPECT_LT(text.find("starting daemon"), text.find("read vekt conf file failed!"));
    EXPECT_TRUE(vekt_.running());
}

}  // namespace
}  // namespace vekt::test
