// The one place where the daemon runs a wrapper-tool command line.
#pragma once

#include <string>
#include <vector>

#include "base/seam.h"

// Runs one complete command line (tool path first, arguments separated by blanks) and
// waits for it. Returns 0 when the process could be started, -1 when it could not; the
// tool's exit status is not looked at. Any output (standard output and error merged) is
// logged as failure lines paired with the command. Lines are logged under the tag
// "SLM-Vekt-iptablesManager".
int execnetd(const char* command);

namespace vekt {

struct CommandResult {
    bool started = false;  // the process could be started
    std::string output;    // standard output and standard error, merged, in order
};

// Seam under execnetd: starts argv directly (never through a shell) and collects its
// merged output. Tests install their own to record command lines without processes.
class CommandRunner {
public:
    virtual ~CommandRunner() = default;
    virtual CommandResult run(const std::vector<std::string>& argv) = 0;
};

// The process runner: starts argv[0], mapped under the device root, as one process (no
// shell), with standard input on /dev/null and no other descriptor of the daemon. started
// is false when the process could not be created or its exec failed.
CommandRunner& processRunner();
// The runner execnetd uses: the one installed by ScopedCommandRunner, else processRunner().
CommandRunner& commandRunner();

Seam<CommandRunner>& commandRunnerSeam();

// Test-only: installs a runner for the scope.
class ScopedCommandRunner : public ScopedSeamOverride<CommandRunner> {
public:
    explicit ScopedCommandRunner(CommandRunner& runner)
        : ScopedSeamOverride(commandRunnerSeam(), runner) {}
};

// Splits a command line at blanks; runs of blanks make no empty argument.
std::vector<std::string> splitCommandLine(const std::string& command);

}  // namespace vekt
