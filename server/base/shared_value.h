// A value that one thread replaces while others read it: readers take an immutable
// snapshot and see either the whole old value or the whole new one, never a torn mix.
// Replacing costs one allocation; reading costs a reference count, so long-lived readers
// (probe threads, the monitors) can keep a snapshot as long as they like.
#pragma once

#include <memory>
#include <utility>

#include "base/mutex.h"

namespace vekt {

template <typename T>
class SharedValue {
public:
    SharedValue() : value_(std::make_shared<const T>()) {}
    explicit SharedValue(T initial) : value_(std::make_shared<const T>(std::move(initial))) {}
    SharedValue(const SharedValue&) = delete;
    SharedValue& operator=(const SharedValue&) = delete;

    // The current value, unchanged for as long as the snapshot is held.
    std::shared_ptr<const T> snapshot() const {
        MutexLock lock(mutex_);
        return value_;
    }
    // A copy of the current value.
    T get() const { return *snapshot(); }

    void set(T value) {
        auto replacement = std::make_shared<const T>(std::move(value));
        MutexLock lock(mutex_);
        value_.swap(replacement);
        // The old value is released after the lock, by whoever holds it last.
    }

    // Comparison with the current value, for the handlers that skip unchanged arguments.
    bool equals(const T& other) const { return *snapshot() == other; }

private:
    mutable Mutex mutex_{LockLevel::kLeaf, "SharedValue"};
    std::shared_ptr<const T> value_ GUARDED_BY(mutex_);
};

}  // namespace vekt
