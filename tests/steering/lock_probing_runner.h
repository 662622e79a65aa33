// A CommandRunner that starts nothing: it records each command line (arguments joined by
// one blank) together with which of the daemon's locks were held while it ran, and can be
// told to report chosen commands as impossible to start.
#pragma once

#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "config/parameters.h"
#include "steering/execnetd.h"
#include "steering/iptables_manager.h"

namespace vekt::test::steering {

struct ProbedCommand {
    std::string line;
    bool iptablesLocked;
    bool interfaceLocked;
};

class LockProbingRunner : public vekt::CommandRunner {
public:
    vekt::CommandResult run(const std::vector<std::string>& argv) override {
        std::string line;
        for (const std::string& arg : argv) line += (line.empty() ? "" : " ") + arg;
        ProbedCommand command{line, isLocked(iptablesMutex), isLocked(interfaceMutex)};
        std::lock_guard<std::mutex> lock(mutex_);
        commands_.push_back(command);
        vekt::CommandResult result;
        result.started = !(fails_ && fails_(line));
        result.output = output_;
        return result;
    }

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> out;
        for (const auto& c : commands_) out.push_back(c.line);
        return out;
    }
    std::vector<ProbedCommand> commands() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return commands_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        commands_.clear();
    }
    // Commands for which the predicate holds "could not be started".
    void failWhen(std::function<bool(const std::string&)> predicate) {
        std::lock_guard<std::mutex> lock(mutex_);
        fails_ = std::move(predicate);
    }
    // Output every started command "prints".
    void setOutput(std::string output) {
        std::lock_guard<std::mutex> lock(mutex_);
        output_ = std::move(output);
    }

private:
    // Asked from another thread: try_lock on a mutex the caller itself owns is undefined.
    static bool isLocked(std::mutex& m) {
        return std::async(std::launch::async,
                          [&m] {
                              if (!m.try_lock()) return true;
                              m.unlock();
                              return false;
                          })
            .get();
    }

    mutable std::mutex mutex_;
    std::vector<ProbedCommand> commands_;
    std::function<bool(const std::string&)> fails_;
    std::string output_;
};

}  // namespace vekt::test::steering
