#include "base/mapped_read.h"

#include <setjmp.h>
#include <signal.h>

#include <mutex>

namespace vekt {
namespace {

// Where a fault of this thread jumps back to; null outside readMappedFile.
thread_local sigjmp_buf* tRecovery = nullptr;

void onBusError(int sig, siginfo_t*, void*) {
    if (tRecovery != nullptr) siglongjmp(*tRecovery, 1);
    // A fault of someone else's: on return the access faults again and, with the default
    // disposition, ends the process as it would have without us.
    signal(sig, SIG_DFL);
}

void installHandlerOnce() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        struct sigaction action = {};
        action.sa_sigaction = onBusError;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigaction(SIGBUS, &action, nullptr);
    });
}

}  // namespace

bool readMappedFileRaw(void (*read)(void*), void* context) {
    installHandlerOnce();
    sigjmp_buf recovery;
    if (sigsetjmp(recovery, 1) != 0) {
        tRecovery = nullptr;
        return false;
    }
    tRecovery = &recovery;
    read(context);
    tRecovery = nullptr;
    return true;
}

}  // namespace vekt
