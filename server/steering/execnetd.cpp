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
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "core/device_root.h"

namespace vekt {
namespace {

using android::base::unique_fd;

// fgets with a 1024-byte buffer hands out at most 1023 characters a read; log pieces keep
// that size so a long line of tool output becomes several log lines of a bounded length.
constexpr size_t kOutputPieceMax = 1023;
// Exit status of a child whose exec failed (the parent learns the errno through the pipe).
constexpr int kExecFailedStatus = 127;
// Stack of the child until exec: a few frames and the 4 KiB directory buffer below, with
// ample room for sanitizer builds. Pages are only touched as used.
constexpr size_t kChildStackSize = 256 * 1024;
// Last-resort bound when descriptors must be closed one by one.
constexpr int kCloseLoopLimit = 65536;

// Everything the child needs, prepared before it starts. The child shares the parent's
// memory until exec (see startChild), so it only reads this, and only async-signal-safe
// calls are made there.
struct ChildSetup {
    const char* path;   // the file to execute (device path mapped under the root)
    char* const* argv;  // argv[0] keeps the device path
    int outWrite;       // becomes standard output and standard error
    int reportWrite;    // close-on-exec: carries the exec errno back, or nothing
    int nullRead;       // becomes standard input; -1 when /dev/null could not be opened
};

// Returns the child's exit status after telling the parent why it could not exec.
int report(int reportFd, int error) {
    // A 4-byte write to a pipe is atomic; nothing useful can be done if it fails.
    ssize_t ignored = write(reportFd, &error, sizeof(error));
    (void)ignored;
    return kExecFailedStatus;
}

// Closes every descriptor from 3 upwards except keep, by walking /proc/self/fd with the raw
// getdents64 call (opendir would allocate). Returns false when /proc cannot be read.
bool closeListedDescriptors(int keep) {
    int dir = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return false;
    // Kernel layout: struct linux_dirent64 {u64 ino; s64 off; u16 reclen; u8 type; name[]}.
    alignas(8) char buffer[4096];
    for (;;) {
        long length = syscall(SYS_getdents64, dir, buffer, sizeof(buffer));
        if (length <= 0) break;
        for (long offset = 0; offset < length;) {
            const char* entry = buffer + offset;
            uint16_t recordLength;
            memcpy(&recordLength, entry + 16, sizeof(recordLength));
            // Bounds: a record shorter than its header or past the data ends the walk.
            if (recordLength < 20 || offset + recordLength > length) {
                offset = length;
                break;
            }
            const char* name = entry + 19;
            int fd = 0;
            bool numeric = name[0] != '\0';
            for (const char* c = name; *c != '\0' && c < entry + recordLength; ++c) {
                if (*c < '0' || *c > '9') {
                    numeric = false;
                    break;
                }
                fd = fd * 10 + (*c - '0');
            }
            if (numeric && fd > 2 && fd != keep && fd != dir) close(fd);
            offset += recordLength;
        }
    }
    close(dir);
    return true;
}

// Leaves the child with 0, 1, 2 and keep only, whatever the rest of the process opened
// without close-on-exec.
void closeDescriptorsFrom3Except(int keep) {
#ifdef __NR_close_range
    bool ok = true;
    if (keep > 3) ok = syscall(__NR_close_range, 3u, static_cast<unsigned>(keep - 1), 0u) == 0;
    if (ok && syscall(__NR_close_range, static_cast<unsigned>(keep + 1), ~0u, 0u) == 0) return;
#endif
    // Kernels before close_range: list the open descriptors, or failing that close blindly.
    if (closeListedDescriptors(keep)) return;
    struct rlimit limit;
    int top = kCloseLoopLimit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < static_cast<rlim_t>(top)) {
        top = static_cast<int>(limit.rlim_cur);
    }
    for (int fd = 3; fd < top; ++fd) {
        if (fd != keep) close(fd);
    }
}

// The child's side: returns only when exec failed, with the status the child exits with.
int runChild(const ChildSetup& setup) {
    // Lift the kept descriptors above 2 first, so the dup2 calls below cannot overwrite one
    // of them (pipe2 hands out 0-2 when the daemon runs with standard streams closed).
    int reportFd = fcntl(setup.reportWrite, F_DUPFD_CLOEXEC, 3);
    if (reportFd < 0) return report(setup.reportWrite, errno);
    int out = fcntl(setup.outWrite, F_DUPFD_CLOEXEC, 3);
    if (out < 0) return report(reportFd, errno);
    int input = setup.nullRead >= 0 ? fcntl(setup.nullRead, F_DUPFD_CLOEXEC, 3) : -1;

    // dup2 onto another number clears close-on-exec on the copy.
    if (input >= 0) {
        if (dup2(input, STDIN_FILENO) < 0) return report(reportFd, errno);
    } else {
        close(STDIN_FILENO);
    }
    if (dup2(out, STDOUT_FILENO) < 0 || dup2(out, STDERR_FILENO) < 0) {
        return report(reportFd, errno);
    }
    closeDescriptorsFrom3Except(reportFd);

    // The parent blocked every signal before the child was created, so no handler of the
    // daemon can run here. The tool starts with default dispositions (ignored ones
    // included) and an empty mask.
    struct sigaction defaultAction = {};
    defaultAction.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        struct sigaction current;
        if (sigaction(sig, nullptr, &current) != 0) continue;
        if (current.sa_handler == SIG_DFL) continue;
        sigaction(sig, &defaultAction, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);

    execv(setup.path, setup.argv);
    return report(reportFd, errno);
}

int childEntry(void* setup) { return runChild(*static_cast<const ChildSetup*>(setup)); }

// Starts the child the way vfork does: it shares our memory and this thread waits until it
// has exec'd or exited, so nothing of the daemon's address space is copied (fork would
// copy the page tables of every thread's memory for a process that execs at once). The
// child runs on a stack of its own, so it cannot disturb this frame. Returns the pid, or -1.
pid_t startChild(ChildSetup& setup) {
    void* stack = mmap(nullptr, kChildStackSize, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED) return -1;
    char* stackTop = static_cast<char*>(stack) + kChildStackSize;  // stacks grow down
    pid_t pid = clone(childEntry, stackTop, CLONE_VM | CLONE_VFORK | SIGCHLD, &setup);
    int cloneError = errno;
    munmap(stack, kChildStackSize);
    errno = cloneError;
    return pid;
}

ssize_t readRetrying(int fd, void* buffer, size_t size) {
    for (;;) {
        ssize_t n = read(fd, buffer, size);
        if (n >= 0 || errno != EINTR) return n;
    }
}

// Reads until every writer has closed the pipe (the tool and anything it left behind).
void readUntilEof(int fd, std::string& output) {
    char buffer[4096];
    for (;;) {
        ssize_t n = readRetrying(fd, buffer, sizeof(buffer));
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

        std::string path = DeviceRoot::map(argv[0]);
        std::vector<char*> args;
        args.reserve(argv.size() + 1);
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);

        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return result;
        unique_fd outRead(fds[0]), outWrite(fds[1]);
        if (pipe2(fds, O_CLOEXEC) != 0) return result;
        unique_fd reportRead(fds[0]), reportWrite(fds[1]);
        unique_fd nullRead(open("/dev/null", O_RDONLY | O_CLOEXEC));

        ChildSetup setup{path.c_str(), args.data(), outWrite.get(), reportWrite.get(),
                         nullRead.get()};
        // Blocked while the child starts so that no signal handler of the daemon (the
        // control thread takes SIGUSR1) ever runs in the child, on shared memory.
        sigset_t all, previous;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
        pid_t pid = startChild(setup);
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);

        // Only the child may hold the write ends now, or end of file never comes.
        outWrite.reset();
        reportWrite.reset();
        nullRead.reset();
        if (pid < 0) return result;

        int execError = 0;
        ssize_t reported = readRetrying(reportRead.get(), &execError, sizeof(execError));
        if (reported == 0) {
            result.started = true;
            readUntilEof(outRead.get(), result.output);
        }
        // Closed before waiting: a tool still writing then gets EPIPE instead of blocking.
        outRead.reset();
        reap(pid);
        return result;
    }
};

std::atomic<CommandRunner*> gInstalledRunner{nullptr};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

CommandRunner& processRunner() {
    static ProcessRunner runner;
    return runner;
}

CommandRunner& commandRunner() {
    CommandRunner* installed = gInstalledRunner.load();
    return installed != nullptr ? *installed : processRunner();
}

ScopedCommandRunner::ScopedCommandRunner(CommandRunner& runner)
    : previous_(gInstalledRunner.exchange(&runner)) {}

ScopedCommandRunner::~ScopedCommandRunner() { gInstalledRunner.store(previous_); }

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
    if (!result.started) {
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
