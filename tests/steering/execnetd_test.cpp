#include "steering/execnetd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/device_root.h"
#include "steering/lock_probing_runner.h"
#include "support/temp_root.h"
#include "vekt_host/log_capture.h"

namespace vekt::test {
namespace {

using steering::LockProbingRunner;
using Lines = std::vector<std::string>;
const std::string kTag = "SLM-Vekt-iptablesManager";

// True when a child of this process has ended but was never reaped.
bool zombieChildExists() {
    siginfo_t info = {};
    if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0) return false;
    return info.si_pid != 0;
}

class ExecnetdTest : public ::testing::Test {
protected:
    ExecnetdTest() : scopedRoot_(root_.dir()) {}

    // An executable file at a device path under the root; a shell script by default.
    void installTool(const std::string& devicePath, const std::string& body,
                     const std::string& interpreter = "#!/bin/sh\n") {
        root_.writeFile(devicePath, interpreter + body);
        ASSERT_EQ(chmod(root_.path(devicePath).c_str(), 0755), 0);
    }

    std::vector<std::string> errorTexts() const {
        std::vector<std::string> out;
        for (const auto& r : log_.records()) {
            EXPECT_EQ(r.tag, kTag);
            if (r.priority == ANDROID_LOG_ERROR) out.push_back(r.text);
        }
        return out;
    }

    TempRoot root_;
    ScopedDeviceRoot scopedRoot_;
    vekt::host::LogCapture log_;
};

TEST(SplitCommandLineTest, BlanksSeparateAndNeverMakeEmptyArguments) {
    EXPECT_EQ(splitCommandLine("/system/bin/iptables-wrapper-1.0  -w -t mangle -F tarn_SLS"),
              Lines({"/system/bin/iptables-wrapper-1.0", "-w", "-t", "mangle", "-F", "tarn_SLS"}));
    EXPECT_EQ(splitCommandLine(" \t a\t\tb  "), Lines({"a", "b"}));
    EXPECT_EQ(splitCommandLine(""), Lines());
    EXPECT_EQ(splitCommandLine("   "), Lines());
    // Quotes and shell syntax are plain characters.
    EXPECT_EQ(splitCommandLine("x 'a b' \"c\" $(d) e;f"),
              Lines({"x", "'a", "b'", "\"c\"", "$(d)", "e;f"}));
}

TEST_F(ExecnetdTest, EveryLineOfOutputIsLoggedAsAFailurePairButTheResultIsZero) {
    installTool("/system/bin/complain", "echo 'chain exists'\necho 'bad rule' >&2\n");
    const std::string command = "/system/bin/complain -w -t mangle -N tarn_SLM";
    EXPECT_EQ(execnetd(command.c_str()), 0);

    auto records = log_.records();
    ASSERT_EQ(records.size(), 5u);
    // The command is logged with its device path, not the path under the root.
    EXPECT_EQ(records[0].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(records[0].text, "SEND SLA NDC COMMAND - PASS  " + command);
    // Standard output and error arrive in one stream, in the order written.
    EXPECT_EQ(errorTexts(),
              Lines({" SLA EXECNETD FAIL - chain exists", " SLA EXECNETD FAIL cmd - " + command,
                     " SLA EXECNETD FAIL - bad rule", " SLA EXECNETD FAIL cmd - " + command}));
    EXPECT_FALSE(zombieChildExists());

    // A quiet tool leaves only the PASS line, whatever its exit status.
    installTool("/system/bin/quiet", "exit 3\n");
    log_.clear();
    EXPECT_EQ(execnetd("/system/bin/quiet  -x"), 0);
    EXPECT_EQ(log_.texts(), Lines({"SEND SLA NDC COMMAND - PASS  /system/bin/quiet  -x"}));
}

TEST_F(ExecnetdTest, AToolThatCannotBeStartedFails) {
    root_.writeFile("/system/bin/not-executable", "#!/bin/sh\n");
    root_.writeFile("/system/bin/dir/placeholder", "");
    installTool("/system/bin/no-interpreter", "", "#!/nonexistent/sh\n");
    for (const std::string command :
         {"/system/bin/missing -w -t mangle -F tarn_SLA", "/system/bin/not-executable",
          "/system/bin/dir", "/system/bin/no-interpreter -x", ""}) {
        SCOPED_TRACE(command);
        log_.clear();
        EXPECT_EQ(execnetd(command.c_str()), -1);
        // Two blanks after FAIL and one at the end; the logger drops the line end.
        EXPECT_EQ(log_.texts(), Lines({"SEND SLA NDC COMMAND - FAIL  " + command + " "}));
        EXPECT_EQ(log_.records()[0].priority, ANDROID_LOG_ERROR);
        EXPECT_FALSE(zombieChildExists());
    }
}

TEST_F(ExecnetdTest, ShellSyntaxReachesTheToolAsPlainArguments) {
    const std::string args = root_.dir() + "/args";
    installTool("/system/bin/argdump",
                "for a in \"$@\"; do printf '[%s]\\n' \"$a\"; done > '" + args + "'\n");
    const std::string m = root_.dir() + "/pwned";
    const Lines hostile = {"wlan0;touch${IFS}" + m + "1",
                           "$(touch${IFS}" + m + "2)",
                           "`touch${IFS}" + m + "3`",
                           "a|touch${IFS}" + m + "4",
                           "x&&touch${IFS}" + m + "5",
                           ">" + m + "6",
                           "'q'",
                           "\"r\"",
                           "*",
                           "$IFS\\n"};
    std::string command = "/system/bin/argdump -o";
    for (const std::string& arg : hostile) command += " " + arg;
    EXPECT_EQ(execnetd(command.c_str()), 0);

    std::string expected = "[-o]\n";
    for (const std::string& arg : hostile) expected += "[" + arg + "]\n";
    EXPECT_EQ(readWholeFile(args), expected);
    for (char n = '1'; n <= '6'; ++n) EXPECT_EQ(access((m + n).c_str(), F_OK), -1) << n;
    EXPECT_TRUE(errorTexts().empty());
}

TEST_F(ExecnetdTest, LongOutputIsLoggedInPiecesOfAtMost1023Characters) {
    installTool("/system/bin/chatty", "head -c 2500 /dev/zero | tr '\\0' x\necho\nprintf tail\n");
    EXPECT_EQ(execnetd("/system/bin/chatty"), 0);
    const std::string cmd = " SLA EXECNETD FAIL cmd - /system/bin/chatty";
    EXPECT_EQ(errorTexts(), Lines({" SLA EXECNETD FAIL - " + std::string(1023, 'x'), cmd,
                                   " SLA EXECNETD FAIL - " + std::string(1023, 'x'), cmd,
                                   " SLA EXECNETD FAIL - " + std::string(454, 'x'), cmd,
                                   " SLA EXECNETD FAIL - tail", cmd}));
}

TEST_F(ExecnetdTest, PiecesEndAtEachLineEndOrAfter1023Characters) {
    LockProbingRunner runner;
    ScopedCommandRunner scoped(runner);
    const std::string cmd = " SLA EXECNETD FAIL cmd - /x";
    // A line of exactly 1023 characters leaves its line end for a piece of its own, as a
    // 1024-byte line buffer would.
    runner.setOutput(std::string(1023, 'a') + "\nb\n\nc");
    EXPECT_EQ(execnetd("/x"), 0);
    EXPECT_EQ(errorTexts(), Lines({" SLA EXECNETD FAIL - " + std::string(1023, 'a'), cmd,
                                   " SLA EXECNETD FAIL - ", cmd, " SLA EXECNETD FAIL - b", cmd,
                                   " SLA EXECNETD FAIL - ", cmd, " SLA EXECNETD FAIL - c", cmd}));
    // The whole line goes to the runner split at blanks.
    EXPECT_EQ(runner.lines(), Lines({"/x"}));
}

TEST_F(ExecnetdTest, TheToolStartsWithOnlyItsPipeAndDefaultSignals) {
    // A script lists its own descriptors; a tool run directly (grep, through a link) shows
    // the signal state it was started with, before any shell could change it.
    const std::string script = root_.path("/system/bin/fdlist");
    installTool("/system/bin/fdlist", "ls -l /proc/$$/fd\n");
    ASSERT_EQ(symlink("/bin/grep", root_.path("/system/bin/sigstate").c_str()), 0);

    // Descriptors this process opened without close-on-exec must not reach the tool.
    root_.writeFile("/leaky", "");
    int leakyFile = open(root_.path("/leaky").c_str(), O_RDONLY);
    int leakyPipe[2];
    ASSERT_GE(leakyFile, 0);
    ASSERT_EQ(pipe(leakyPipe), 0);
    // Neither may an ignored signal or this thread's blocked set.
    struct sigaction ignore = {}, previousUsr2, previousHup;
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGUSR2, &ignore, &previousUsr2);
    sigaction(SIGHUP, &ignore, &previousHup);
    sigset_t blocked, previousMask;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);

    CommandResult fds = processRunner().run({"/system/bin/fdlist"});
    CommandResult signals =
        processRunner().run({"/system/bin/sigstate", "-E", "^Sig(Blk|Ign):", "/proc/self/status"});

    pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    sigaction(SIGUSR2, &previousUsr2, nullptr);
    sigaction(SIGHUP, &previousHup, nullptr);
    close(leakyFile);
    close(leakyPipe[0]);
    close(leakyPipe[1]);

    ASSERT_TRUE(fds.started);
    std::istringstream lines(fds.output);
    std::string line, outputPipe;
    int seen = 0;
    while (std::getline(lines, line)) {
        size_t arrow = line.find(" -> ");
        if (arrow == std::string::npos) continue;  // the "total" line
        std::string target = line.substr(arrow + 4);
        std::string head = line.substr(0, arrow);
        int fd = std::stoi(head.substr(head.rfind(' ') + 1));
        ++seen;
        if (fd == 0) {
            EXPECT_EQ(target, "/dev/null");
        } else if (fd == 1 || fd == 2) {
            EXPECT_EQ(target.rfind("pipe:", 0), 0u) << line;
            if (outputPipe.empty()) outputPipe = target;
            EXPECT_EQ(target, outputPipe) << "standard output and error share one pipe";
        } else {
            // The shell keeps the script it reads open; nothing else may be there.
            EXPECT_EQ(target, script) << line;
        }
    }
    EXPECT_GE(seen, 3) << fds.output;

    ASSERT_TRUE(signals.started);
    EXPECT_EQ(signals.output, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    EXPECT_FALSE(zombieChildExists());
}

std::atomic<int> gSignalsSeen{0};
void countSignal(int) { ++gSignalsSeen; }

TEST_F(ExecnetdTest, SignalsDuringTheRunInterruptNothing) {
    installTool("/system/bin/slow", "echo $$\nsleep 0.3\necho done\n");
    // No SA_RESTART: every signal makes a blocking read or wait return EINTR.
    struct sigaction handler = {}, previous;
    handler.sa_handler = countSignal;
    sigaction(SIGUSR1, &handler, &previous);
    gSignalsSeen = 0;

    std::atomic<bool> running{true};
    pthread_t self = pthread_self();
    std::thread sender([&] {
        while (running) {
            pthread_kill(self, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    CommandResult result = processRunner().run({"/system/bin/slow"});
    running = false;
    sender.join();
    sigaction(SIGUSR1, &previous, nullptr);

    EXPECT_GT(gSignalsSeen.load(), 10);
    ASSERT_TRUE(result.started);
    std::istringstream out(result.output);
    pid_t pid = 0;
    std::string done;
    out >> pid >> done;
    EXPECT_EQ(done, "done") << result.output;
    // Reaped before run returned.
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(CommandRunnerSeamTest, ScopedRunnersNestAndRestore) {
    EXPECT_EQ(&commandRunner(), &processRunner());
    LockProbingRunner outer, inner;
    {
        ScopedCommandRunner a(outer);
        EXPECT_EQ(&commandRunner(), &outer);
        {
            ScopedCommandRunner b(inner);
            EXPECT_EQ(execnetd("/t  -a   b"), 0);
        }
        EXPECT_EQ(&commandRunner(), &outer);
    }
    EXPECT_EQ(&commandRunner(), &processRunner());
    EXPECT_EQ(inner.lines(), Lines({"/t -a b"}));
    EXPECT_TRUE(outer.lines().empty());
}

}  // namespace
}  // namespace vekt::test
