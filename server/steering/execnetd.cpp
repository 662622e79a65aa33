// execnetd and the process runner under it.
//
// The wrapper tools are started directly (one process, exec'd), never through a shell: the
// command line is split at blanks into arguments, so an interface name or a UID can never
// be read as shell syntax. Standard output and standard error of the tool share one pipe,
// and everything the tool prints is logged as a failure report paired with its command.
#define LOG_TAG "SLM-Vekt-iptablesManager"

#include "steering/execnetd.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/device_root.h"
#include "status/status_counters.h"

extern char** environ;

namespace vekt {
namespace {

using android::base::unique_fd;

// fgets with a 1024-byte buffer hands out at most 1023 characters a read; log pieces keep
// that size so a long line of tool output becomes several log lines of a bounded length.
constexpr size_t kOutputPieceMax = 1023;

// A descriptor number above the standard streams, close-on-exec. When the daemon runs with
// its standard streams closed, pipe2 hands out 0 to 2, and the child's dup2 onto the same
// number would keep close-on-exec set and lose the descriptor at exec.
unique_fd aboveStandardStreams(int fd) {
    unique_fd owned(fd);
    if (fd > STDERR_FILENO || fd < 0) return owned;
    return unique_fd(fcntl(owned.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

// The child's descriptors: standard input from /dev/null, standard output and error into
// the one pipe, and nothing else of the daemon's, close-on-exec or not.
class SpawnFileActions {
public:
    explicit SpawnFileActions(int outWrite) {
        ok_ = posix_spawn_file_actions_init(&actions_) == 0;
        ok_ = ok_ && posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null",
                                                      O_RDONLY, 0) == 0;
        ok_ = ok_ && posix_spawn_file_actions_adddup2(&actions_, outWrite, STDOUT_FILENO) == 0;
        ok_ = ok_ && posix_spawn_file_actions_adddup2(&actions_, outWrite, STDERR_FILENO) == 0;
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
        ok_ = ok_ && posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1) == 0;
#endif
    }
    ~SpawnFileActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;

    bool ok() const { return ok_; }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
    bool ok_ = false;
};

// The tool starts with every signal at its default disposition (ignored ones included) and
// an empty signal mask, whatever the calling thread had.
class SpawnAttributes {
public:
    SpawnAttributes() {
        sigset_t all, none;
        sigfillset(&all);
        sigemptyset(&none);
        ok_ = posix_spawnattr_init(&attributes_) == 0;
        ok_ = ok_ && posix_spawnattr_setsigdefault(&attributes_, &all) == 0;
        ok_ = ok_ && posix_spawnattr_setsigmask(&attributes_, &none) == 0;
        ok_ = ok_ && posix_spawnattr_setflags(&attributes_,
                                              POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK) == 0;
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    bool ok() const { return ok_; }
    const posix_spawnattr_t* get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
    bool ok_ = false;
};

// Reads until every writer has closed the pipe (the tool and anything it left behind).
void readUntilEof(int fd, std::string& output) {
    char buffer[4096];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        output.append(buffer, static_cast<size_t>(n));
    }
}

void reap(pid_t pid) {
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

class ProcessRunner : public CommandRunner {
public:
    CommandResult run(const std::vector<std::string>& argv) override {
        CommandResult result;
        if (argv.empty()) return result;

        const std::string path = DeviceRoot::map(argv[0]);
        std::vector<char*> args;
        args.reserve(argv.size() + 1);
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);

        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return result;
        unique_fd outRead = aboveStandardStreams(fds[0]);
        unique_fd outWrite = aboveStandardStreams(fds[1]);
        if (!outRead.ok() || !outWrite.ok()) return result;

        SpawnFileActions actions(outWrite.get());
        SpawnAttributes attributes;
        if (!actions.ok() || !attributes.ok()) return result;
        // The C library's spawn shares our memory with the child until exec, as vfork does,
        // and reports a failed exec as its result, so an unexecutable tool is "not started".
        pid_t pid = -1;
        int error = posix_spawn(&pid, path.c_str(), actions.get(), attributes.get(), args.data(),
                                environ);
        // Only the child may hold the write end now, or end of file never comes.
        outWrite.reset();
        if (error != 0) return result;

        result.started = true;
        readUntilEof(outRead.get(), result.output);
        // Closed before waiting: a tool still writing then gets EPIPE instead of blocking.
        outRead.reset();
        reap(pid);
        return result;
    }
};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

Seam<CommandRunner>& commandRunnerSeam() {
    static ProcessRunner real;
    static Seam<CommandRunner> seam(real);
    return seam;
}

CommandRunner& processRunner() { return commandRunnerSeam().real(); }

CommandRunner& commandRunner() { return commandRunnerSeam().get(); }

std::vector<std::string> splitCommandLine(const std::string& command) {
    std::vector<std::string> argv;
    size_t i = 0;
    while (i < command.size()) {
        while (i < command.size() && isBlank(command[i])) ++i;
        size_t start = i;
        while (i < command.size() && !isBlank(command[i])) ++i;
        if (i > start) argv.emplace_back(command, start, i - start);
    }
    return argv;
}

}  // namespace vekt

int execnetd(const char* command) {
    const char* text = command != nullptr ? command : "";
    vekt::CommandResult result = vekt::commandRunner().run(vekt::splitCommandLine(text));
    vekt::countEvent(vekt::statusCounters().commandsRun);
    if (!result.started) {
        vekt::countEvent(vekt::statusCounters().commandsNotStarted);
        ALOGE("SEND SLA NDC COMMAND - FAIL  %s \n", text);
        return -1;
    }
    ALOGI("SEND SLA NDC COMMAND - PASS  %s\n", text);

    // The tools print nothing on success, so any output is a complaint. It is logged in
    // line-sized pieces, each followed by the command that caused it.
    const std::string& output = result.output;
    size_t start = 0;
    while (start < output.size()) {
        size_t newline = output.find('\n', start);
        size_t end = newline == std::string::npos ? output.size() : newline + 1;
        if (end - start > vekt::kOutputPieceMax) end = start + vekt::kOutputPieceMax;
        std::string piece = output.substr(start, end - start);
        ALOGE(" SLA EXECNETD FAIL - %s", piece.c_str());
        ALOGE(" SLA EXECNETD FAIL cmd - %s", text);
        start = end;
    }
    return 0;
}
