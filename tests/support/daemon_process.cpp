#include "support/daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <sstream>

#include "support/emulation.h"
#include "support/netns.h"
#include "support/temp_root.h"

namespace vekt::test {

std::string binPath(const std::string& name) { return std::string(VEKT_BIN_DIR) + "/" + name; }

bool ChildProcess::start(const std::vector<std::string>& argv, const std::string& logPath,
                         bool privateNetNamespace) {
    const ExecArgs args(argv);
    pid_ = fork();
    if (pid_ < 0) return false;
    if (pid_ == 0) {
        // A test that is killed must not leave its daemon running (and holding a namespace).
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int out = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (out < 0) _exit(126);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        if (privateNetNamespace && !enterPrivateNetNamespace()) _exit(125);
        args.exec();
        _exit(127);
    }
    return true;
}

bool ChildProcess::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
        pid_ = -1;
        return false;
    }
    return true;
}

void ChildProcess::signal(int sig) {
    if (pid_ > 0) ::kill(pid_, sig);
}

int ChildProcess::wait(int timeoutMs) {
    for (int waited = 0; pid_ > 0; waited += 10) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (waited >= timeoutMs) return -1;
        usleep(10000);
    }
    return -1;
}

void ChildProcess::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

bool waitForText(const std::string& path, const std::string& text, int timeoutMs) {
    for (int waited = 0;; waited += 20) {
        if (readWholeFile(path).find(text) != std::string::npos) return true;
        if (waited >= timeoutMs) return false;
        usleep(20000);
    }
}

size_t countLines(const std::string& path, const std::string& text) {
    std::istringstream lines(readWholeFile(path));
    size_t count = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.find(text) != std::string::npos) ++count;
    }
    return count;
}

}  // namespace vekt::test
