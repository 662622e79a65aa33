#include <android-base/logging.h>
#include <log/log.h>
#include <string.h>

#include <cstdlib>

namespace android {
namespace base {
namespace {

int toPriority(LogSeverity severity) {
    switch (severity) {
        case VERBOSE: return ANDROID_LOG_VERBOSE;
        case DEBUG: return ANDROID_LOG_DEBUG;
        case INFO: return ANDROID_LOG_INFO;
        case WARNING: return ANDROID_LOG_WARN;
        case ERROR: return ANDROID_LOG_ERROR;
        case FATAL_WITHOUT_ABORT:
        case FATAL: return ANDROID_LOG_FATAL;
    }
    return ANDROID_LOG_INFO;
}

}  // namespace

LogMessage::LogMessage(LogSeverity severity, const char* tag, int error)
    : severity_(severity), tag_(tag), error_(error) {}

LogMessage::~LogMessage() {
    if (error_ >= 0) buffer_ << ": " << strerror(error_);
    __android_log_write(toPriority(severity_), tag_ ? tag_ : "vekt", buffer_.str().c_str());
    if (severity_ == FATAL) abort();
}

}  // namespace base
}  // namespace android
