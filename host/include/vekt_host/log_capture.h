// In-process view of the log for tests: while a LogCapture lives, every log line of the
// process (any thread) is also recorded as (priority, tag, text).
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace vekt::host {

struct LogRecord {
    int priority;
    std::string tag;
    std::string text;  // the formatted message, one trailing newline dropped
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const;
    // Texts logged under tag, in order; every tag when tag is empty.
    std::vector<std::string> texts(const std::string& tag = "") const;
    bool contains(const std::string& text) const;
    size_t count(const std::string& text) const;
    void clear();

    void add(LogRecord record);  // called by the logger

private:
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
};

// Standard error echo can be switched off for noisy tests (it is on by default).
void setStderrEcho(bool on);

}  // namespace vekt::host
