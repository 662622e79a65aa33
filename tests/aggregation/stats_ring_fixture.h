// Statistics rings built in memory, and a wall clock the tests set by hand.
#pragma once

#include <stdint.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include "aggregation/stats_file.h"
#include "core/clock.h"

namespace vekt::test {

class FixedClock : public vekt::Clock {
public:
    explicit FixedClock(uint64_t ms) : ms_(ms) {}
    struct timeval wallTime() const override {
        struct timeval tv;
        tv.tv_sec = static_cast<time_t>(ms_ / 1000);
        tv.tv_usec = static_cast<suseconds_t>((ms_ % 1000) * 1000);
        return tv;
    }
    void setMs(uint64_t ms) { ms_ = ms; }
    uint64_t ms() const { return ms_; }

private:
    uint64_t ms_;
};

inline void putSample(StatsFile* file, uint32_t k, uint64_t timeMs, uint32_t bytes,
                      uint8_t kind = 2, uint8_t flag = 0) {
    file->slots[k] = StatsSample{timeMs, bytes, 0, kind, flag};
}

// count closing samples of bytesEach, stepMs apart, the newest at slot newestIndex with time
// newestMs, going backwards (and wrapping) from there; the header points at the newest and
// the magic is set.
inline void fillSteady(StatsFile* file, uint32_t newestIndex, uint32_t count, uint64_t newestMs,
                       uint32_t stepMs, uint32_t bytesEach) {
    uint32_t k = newestIndex;
    for (uint32_t i = 0; i < count; ++i) {
        putSample(file, k, newestMs - static_cast<uint64_t>(i) * stepMs, bytesEach);
        k = k == 1 ? kStatsSampleCount : k - 1;
    }
    file->header.newest = newestIndex;
    file->header.magic = kStatsMagic;
}

// Bytes per sample that make a steady ring read as `rate` (1024 bit/s) at stepMs spacing.
constexpr uint32_t bytesForRate(uint32_t rate, uint32_t stepMs) {
    return rate * 128 * stepMs / 1000;
}

// A zero-filled 20480-byte ring in an anonymous mapping, followed by an inaccessible guard
// page: a read past the file's end faults instead of passing unnoticed.
class MemoryRing {
public:
    MemoryRing() {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        guardSize_ = page;
        void* base = mmap(nullptr, kStatsFileSize + guardSize_, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base == MAP_FAILED) return;
        base_ = static_cast<StatsFile*>(base);
        mprotect(reinterpret_cast<char*>(base) + kStatsFileSize, guardSize_, PROT_NONE);
    }
    ~MemoryRing() {
        if (base_ != nullptr) munmap(base_, kStatsFileSize + guardSize_);
    }
    MemoryRing(const MemoryRing&) = delete;
    MemoryRing& operator=(const MemoryRing&) = delete;

    bool ok() const { return base_ != nullptr; }
    StatsFile* file() { return base_; }
    const void* data() const { return base_; }

    // Hands the 20480-byte mapping to an owner that unmaps exactly that much (a statistics
    // record); the guard page goes now.
    void* release() {
        munmap(reinterpret_cast<char*>(base_) + kStatsFileSize, guardSize_);
        void* mapping = base_;
        base_ = nullptr;
        return mapping;
    }

    MemoryRing& ready() {
        base_->header.magic = kStatsMagic;
        return *this;
    }
    MemoryRing& newest(uint32_t index) {
        base_->header.newest = index;
        return *this;
    }
    MemoryRing& put(uint32_t k, uint64_t timeMs, uint32_t bytes, uint8_t kind = 2,
                    uint8_t flag = 0) {
        putSample(base_, k, timeMs, bytes, kind, flag);
        return *this;
    }
    MemoryRing& steady(uint32_t newestIndex, uint32_t count, uint64_t newestMs, uint32_t stepMs,
                       uint32_t bytesEach) {
        fillSteady(base_, newestIndex, count, newestMs, stepMs, bytesEach);
        return *this;
    }

private:
    StatsFile* base_ = nullptr;
    size_t guardSize_ = 0;
};

}  // namespace vekt::test
