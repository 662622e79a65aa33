// A process-wide seam: the object the daemon uses for one system concern (the command
// runner, the clocks, the socket factory), which a test may replace for a scope. The
// default is the real thing; installing is an atomic swap, so a test can install before the
// code under test starts its threads and remove it after they are joined.
#pragma once

#include <atomic>

namespace vekt {

template <typename Interface>
class Seam {
public:
    explicit constexpr Seam(Interface& real) : real_(real) {}

    Interface& get() const {
        Interface* installed = installed_.load(std::memory_order_acquire);
        return installed != nullptr ? *installed : real_;
    }
    Interface& real() const { return real_; }

    // Returns what was installed before.
    Interface* install(Interface* replacement) {
        return installed_.exchange(replacement, std::memory_order_acq_rel);
    }

private:
    Interface& real_;
    std::atomic<Interface*> installed_{nullptr};
};

// Test-only: installs a replacement into a seam for the scope, restoring the previous one.
template <typename Interface>
class ScopedSeamOverride {
public:
    ScopedSeamOverride(Seam<Interface>& seam, Interface& replacement)
        : seam_(seam), previous_(seam.install(&replacement)) {}
    ~ScopedSeamOverride() { seam_.install(previous_); }
    ScopedSeamOverride(const ScopedSeamOverride&) = delete;
    ScopedSeamOverride& operator=(const ScopedSeamOverride&) = delete;

private:
    Seam<Interface>& seam_;
    Interface* previous_;
};

}  // namespace vekt
