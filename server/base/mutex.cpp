#include "base/mutex.h"

#include <stdio.h>
#include <stdlib.h>

namespace vekt {
namespace {

#ifdef VEKT_LOCK_ORDER_CHECK
// The locks this thread holds, in the order taken. Deep nesting is a fault of its own: the
// daemon never holds more than four locks at once.
constexpr int kMaxHeld = 16;
thread_local const Mutex* tHeld[kMaxHeld];
thread_local int tHeldCount = 0;

[[noreturn]] void die(const char* what, const Mutex& mutex, const Mutex* held) {
    // Straight to standard error: the logger takes a lock of its own, and the process ends.
    if (held != nullptr) {
        fprintf(stderr, "vekt: lock order violated: %s %s (level %d) while holding %s (level %d)\n",
                what, mutex.name(), static_cast<int>(mutex.level()), held->name(),
                static_cast<int>(held->level()));
    } else {
        fprintf(stderr, "vekt: lock order violated: %s %s\n", what, mutex.name());
    }
    fflush(stderr);
    abort();
}

void noteAcquiring(const Mutex& mutex) {
    for (int i = 0; i < tHeldCount; ++i) {
        if (tHeld[i]->level() >= mutex.level()) die("taking", mutex, tHeld[i]);
    }
    if (tHeldCount == kMaxHeld) die("too many locks held when taking", mutex, nullptr);
}

void noteAcquired(const Mutex& mutex) { tHeld[tHeldCount++] = &mutex; }

void noteReleased(const Mutex& mutex) {
    // Locks are usually released in reverse order, but need not be.
    for (int i = tHeldCount - 1; i >= 0; --i) {
        if (tHeld[i] != &mutex) continue;
        for (int j = i; j + 1 < tHeldCount; ++j) tHeld[j] = tHeld[j + 1];
        --tHeldCount;
        return;
    }
    die("releasing", mutex, nullptr);
}
#else
void noteAcquiring(const Mutex&) {}
void noteAcquired(const Mutex&) {}
void noteReleased(const Mutex&) {}
#endif

}  // namespace

bool lockOrderChecked() {
#ifdef VEKT_LOCK_ORDER_CHECK
    return true;
#else
    return false;
#endif
}

void Mutex::lock() {
    noteAcquiring(*this);
    mutex_.lock();
    noteAcquired(*this);
}

void Mutex::unlock() {
    noteReleased(*this);
    mutex_.unlock();
}

bool Mutex::try_lock() {
    // A try cannot deadlock, so it may go against the order; it still counts as held.
    if (!mutex_.try_lock()) return false;
    noteAcquired(*this);
    return true;
}

}  // namespace vekt
