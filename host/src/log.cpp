// Android log on the host: one threadtime line per call on standard error
// ("MM-DD HH:MM:SS.mmm  PID  TID L TAG: message"), and a copy to any live LogCapture.
#include <log/log.h>

#include <stdarg.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "vekt_host/log_capture.h"

namespace vekt::host {
namespace {

std::mutex& captureMutex() {
    static std::mutex m;
    return m;
}

std::vector<LogCapture*>& captures() {
    static std::vector<LogCapture*> list;
    return list;
}

std::atomic<bool> gStderrEcho{true};

char priorityLetter(int prio) {
    switch (prio) {
        case ANDROID_LOG_VERBOSE: return 'V';
        case ANDROID_LOG_DEBUG: return 'D';
        case ANDROID_LOG_INFO: return 'I';
        case ANDROID_LOG_WARN: return 'W';
        case ANDROID_LOG_ERROR: return 'E';
        case ANDROID_LOG_FATAL: return 'F';
        default: return '?';
    }
}

void writeLine(int prio, const char* tag, const std::string& text) {
    {
        std::lock_guard<std::mutex> lock(captureMutex());
        for (LogCapture* capture : captures()) capture->add({prio, tag ? tag : "", text});
    }
    if (!gStderrEcho.load(std::memory_order_relaxed)) return;

    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm local;
    localtime_r(&tv.tv_sec, &local);
    // One fprintf per line so lines of different threads do not interleave.
    fprintf(stderr, "%02d-%02d %02d:%02d:%02d.%03ld %5d %5ld %c %s: %s\n", local.tm_mon + 1,
            local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
            static_cast<long>(tv.tv_usec / 1000), getpid(), static_cast<long>(syscall(SYS_gettid)),
            priorityLetter(prio), tag ? tag : "", text.c_str());
}

}  // namespace

LogCapture::LogCapture() {
    std::lock_guard<std::mutex> lock(captureMutex());
    captures().push_back(this);
}

LogCapture::~LogCapture() {
    std::lock_guard<std::mutex> lock(captureMutex());
    auto& list = captures();
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
}

std::vector<LogRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

std::vector<std::string> LogCapture::texts(const std::string& tag) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> out;
    for (const auto& r : records_) {
        if (tag.empty() || r.tag == tag) out.push_back(r.text);
    }
    return out;
}

bool LogCapture::contains(const std::string& text) const { return count(text) > 0; }

size_t LogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::count_if(records_.begin(), records_.end(),
                         [&](const LogRecord& r) { return r.text == text; });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
}

void LogCapture::add(LogRecord record) {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(std::move(record));
}

void setStderrEcho(bool on) { gStderrEcho.store(on, std::memory_order_relaxed); }

}  // namespace vekt::host

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
    std::string line = text ? text : "";
    if (!line.empty() && line.back() == '\n') line.pop_back();
    vekt::host::writeLine(prio, tag, line);
    return 1;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    int needed = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(needed > 0 ? static_cast<size_t>(needed) : 0, '\0');
    if (needed > 0) vsnprintf(text.data(), text.size() + 1, fmt, args);
    va_end(args);
    return __android_log_write(prio, tag, text.c_str());
}
