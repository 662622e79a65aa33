// A CommandRunner that records each command line instead of starting a process.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "steering/execnetd.h"

namespace vekt::test {

class RecordingRunner : public CommandRunner {
public:
    CommandResult run(const std::vector<std::string>& argv) override {
        std::string line;
        for (const std::string& arg : argv) line += (line.empty() ? "" : " ") + arg;
        std::lock_guard<std::mutex> lock(mutex_);
        commands_.push_back(line);
        return {startable_ && !(fails_ && fails_(line)), ""};
    }

    // Command lines as run, arguments joined by one blank.
    std::vector<std::string> commands() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return commands_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        commands_.clear();
    }
    // false makes every command "impossible to start".
    void setStartable(bool startable) { startable_ = startable; }
    // Command lines for which the predicate holds cannot be started; null clears it.
    void failWhen(std::function<bool(const std::string&)> fails) {
        std::lock_guard<std::mutex> lock(mutex_);
        fails_ = std::move(fails);
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
    bool startable_ = true;
    std::function<bool(const std::string&)> fails_;
};

// Installs a RecordingRunner for the scope.
class ScopedRecordingRunner : public RecordingRunner {
public:
    ScopedRecordingRunner() : scope_(*this) {}

private:
    ScopedCommandRunner scope_;
};

}  // namespace vekt::test
