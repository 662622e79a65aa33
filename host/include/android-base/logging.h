// Host stand-in for <android-base/logging.h>: LOG(severity) and PLOG(severity) streams.
// The tag is LOG_TAG where the including file defines it before the include.
#pragma once

#include <sstream>
#include <string>

namespace android {
namespace base {

enum LogSeverity { VERBOSE, DEBUG, INFO, WARNING, ERROR, FATAL_WITHOUT_ABORT, FATAL };

// One log statement: collects the stream and emits one line when destroyed.
class LogMessage {
public:
    LogMessage(LogSeverity severity, const char* tag, int error);
    ~LogMessage();
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;
    std::ostream& stream() { return buffer_; }

private:
    LogSeverity severity_;
    const char* tag_;
    int error_;  // errno to append for PLOG, -1 for LOG
    std::ostringstream buffer_;
};

}  // namespace base
}  // namespace android

#ifdef LOG_TAG
#define VEKT_BASE_LOG_TAG LOG_TAG
#else
#define VEKT_BASE_LOG_TAG nullptr
#endif

#define LOG(severity) \
    ::android::base::LogMessage(::android::base::severity, VEKT_BASE_LOG_TAG, -1).stream()
#define PLOG(severity) \
    ::android::base::LogMessage(::android::base::severity, VEKT_BASE_LOG_TAG, errno).stream()
