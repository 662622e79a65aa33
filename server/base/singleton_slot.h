// Where a singleton lives: created exactly once, whatever thread asks first, and taken out
// again by its finalize(). The fast path is one atomic load; creation runs under the
// slot's own mutex, whose level in the lock order depends on what creation does.
#pragma once

#include <atomic>

#include "base/mutex.h"

namespace vekt {

template <typename T>
class SingletonSlot {
public:
    SingletonSlot(LockLevel level, const char* name) : mutex_(level, name) {}
    SingletonSlot(const SingletonSlot&) = delete;
    SingletonSlot& operator=(const SingletonSlot&) = delete;

    // The instance, or null when there is none.
    T* get() const { return instance_.load(std::memory_order_acquire); }

    // The instance, created by create() (which returns it fully built) if there is none.
    template <typename Create>
    T* getOrCreate(Create create) {
        T* existing = get();
        if (existing != nullptr) return existing;
        MutexLock lock(mutex_);
        existing = instance_.load(std::memory_order_relaxed);
        if (existing == nullptr) {
            existing = create();
            instance_.store(existing, std::memory_order_release);
        }
        return existing;
    }

    // Takes the instance out of the slot; the caller destroys it.
    T* take() {
        MutexLock lock(mutex_);
        return instance_.exchange(nullptr, std::memory_order_acq_rel);
    }

private:
    Mutex mutex_;
    std::atomic<T*> instance_{nullptr};
};

}  // namespace vekt
