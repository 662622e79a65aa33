#include "steering/execnetd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/emulation.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using Lines = std::vector<std::string>;

// True when a child of this process has ended but was never reaped.
bool zombieChildExists() {
    siginfo_t info = {};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

// Tools are the test's own scripts at device paths under its root.
class ExecnetdTest : public ParametersTest {
protected:
    void installTool(const std::string& devicePath, const std::string& body) {
        root_.writeFile(devicePath, "#!/bin/sh\n" + body);
        ASSERT_EQ(chmod(root_.path(devicePath).c_str(), 0755), 0);
    }
};

TEST_F(ExecnetdTest, EachOutputLineIsAFailurePairAndShellSyntaxIsAPlainArgument) {
    // Prints its first argument on standard output, its second on standard error.
    installTool("/system/bin/argdump", "printf '%s\\n' \"$1\"\nprintf '%s\\n' \"$2\" >&2\n");
    const std::string marker = root_.dir() + "/pwned", touch = "touch${IFS}" + marker;
    const std::string ifname =
        "wlan0;" + touch + "|$(" + touch + ")`" + touch + "`&&>" + marker + "'q'\"r\"*";
    const std::string command = "/system/bin/argdump  -o  " + ifname;  // blank runs separate once
    EXPECT_EQ(execnetd(command.c_str()), 0);
    // Logged with the device path; both streams in the order written.
    const std::string cmd = " SLA EXECNETD FAIL cmd - " + command;
    EXPECT_EQ(log_.texts(),
              Lines({"SEND SLA NDC COMMAND - PASS  " + command, " SLA EXECNETD FAIL - -o", cmd,
                     " SLA EXECNETD FAIL - " + ifname, cmd}));
    EXPECT_EQ(log_.records().at(1).priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(access(marker.c_str(), F_OK), -1) << "the name was run as shell code";
    EXPECT_FALSE(zombieChildExists());
}

TEST_F(ExecnetdTest, AMissingToolFails) {
    VEKT_REQUIRE_KERNEL(spawnFailureMissing());
    EXPECT_EQ(execnetd("/system/bin/missing -w -t mangle -F tarn_SLA"), -1);
    EXPECT_EQ(
        log_.texts(),
        Lines({"SEND SLA NDC COMMAND - FAIL  /system/bin/missing -w -t mangle -F tarn_SLA "}));
    EXPECT_FALSE(zombieChildExists());
}

TEST_F(ExecnetdTest, NoDescriptorOfTheProcessLeaksIntoTheTool) {
    installTool("/system/bin/fdlist", "ls -l /proc/$$/fd\n");
    root_.writeFile("/leaky", "");
    int leaky = open(root_.path("/leaky").c_str(), O_RDONLY);  // without close-on-exec
    ASSERT_GE(leaky, 0);
    CommandResult listing = processRunner().run({"/system/bin/fdlist"});
    close(leaky);
    ASSERT_TRUE(listing.started);
    EXPECT_NE(listing.output.find(" -> /dev/null"), std::string::npos) << listing.output;
    EXPECT_EQ(listing.output.find(root_.path("/leaky")), std::string::npos) << listing.output;
}

}  // namespace
}  // namespace vekt::test
