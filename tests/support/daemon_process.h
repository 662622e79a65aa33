// Runs the real `vekt` binary under a test root inside a private network namespace, with
// its log lines (standard error) collected in <root>/vekt.log.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vekt::test {

std::string binPath(const std::string& name);  // build/bin/<name>

class ChildProcess {
public:
    ChildProcess() = default;
    // Takes charge of a child forked elsewhere: it is killed and reaped like one started here.
    explicit ChildProcess(pid_t adopted) : pid_(adopted) {}
    void adopt(pid_t adopted) {
        kill();
        pid_ = adopted;
    }
    ~ChildProcess() { kill(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts argv[0] with its output in logPath; in a private network namespace when asked.
    bool start(const std::vector<std::string>& argv, const std::string& logPath,
               bool privateNetNamespace);
    pid_t pid() const { return pid_; }
    bool running();
    // Sends a signal to the child only (never to anything this test did not start).
    void signal(int sig);
    // Waits for the child to end; returns its exit status or -1 on timeout.
    int wait(int timeoutMs);
    void kill();

private:
    pid_t pid_ = -1;
};

// Polls a log file until a line containing text appears; true when it did in time.
bool waitForText(const std::string& path, const std::string& text, int timeoutMs);
// Number of lines of a log file that contain text.
size_t countLines(const std::string& path, const std::string& text);

}  // namespace vekt::test
