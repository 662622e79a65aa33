#include "steering/rule_commands.h"

#include <log/log.h>
#include <stdarg.h>
#include <stdio.h>

#include <string>

#include "base/text.h"
#include "steering/execnetd.h"

namespace vekt {
namespace {

// Every command the manager builds fits in 511 characters (interface names, marks and
// tables are at most 127 each).
constexpr size_t kCommandSize = 512;

int vrunCommand(const char* format, va_list args) {
    char line[kCommandSize];
    vsnprintf(line, sizeof(line), format, args);
    return execnetd(line);
}

}  // namespace

ChainName joinBounded(const char* head, const char* tail) {
    ChainName chain;
    copyBounded(chain.text, sizeof(chain.text), (std::string(head) + tail).c_str());
    return chain;
}

int runCommand(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int result = vrunCommand(format, args);
    va_end(args);
    return result;
}

int sequenceResult(int status, const char* failureFormat, ...) {
    if (status == 0) return 0;
    char line[kCommandSize];
    va_list args;
    va_start(args, failureFormat);
    vsnprintf(line, sizeof(line), failureFormat, args);
    va_end(args);
    __android_log_write(ANDROID_LOG_ERROR, "SLM-Vekt-iptablesManager", line);
    return -1;
}

void runCommandUncounted(const char* format, ...) {
    va_list args;
    va_start(args, format);
    (void)vrunCommand(format, args);
    va_end(args);
}

}  // namespace vekt
