// Writer side of one interface's statistics ring, kept the way the kernel module keeps it:
// samples go forward through slots 1 … 1279 and wrap, and each new sample becomes visible
// only when the header index moves to it.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>

#include "aggregation/stats_file.h"

namespace slasim {

class StatsRingWriter {
public:
    // memory: vekt::kStatsFileSize writable bytes, already holding a formatted ring (or
    // zeros, for format()).
    explicit StatsRingWriter(void* memory)
        : file_(static_cast<volatile vekt::StatsFile*>(memory)) {}

    // An empty ring: no samples, index 0 (which reads as sample 1279, never written), magic
    // set last so no reader trusts a half-made file.
    void format() {
        for (uint32_t k = 1; k <= vekt::kStatsSampleCount; ++k) clearSlot(k);
        file_->header.reserved0 = 0;
        file_->header.reserved1 = 0;
        file_->header.newest = 0;
        std::atomic_thread_fence(std::memory_order_release);
        file_->header.magic = vekt::kStatsMagic;
    }

    // Writes the slot after the newest one, then publishes it. A reader that meets the slot
    // mid-write sees time stamp 0 there and stops, as at any unwritten slot.
    void append(uint64_t timeMs, uint32_t bytes, uint8_t kind = vekt::kSampleKindClosing,
                uint8_t flag = 0) {
        const uint32_t next = nextIndex(newest());
        volatile vekt::StatsSample& slot = file_->slots[next];
        slot.timeMs = 0;
        std::atomic_thread_fence(std::memory_order_release);
        slot.bytes = bytes;
        slot.reserved = 0;
        slot.kind = kind;
        slot.flag = flag;
        std::atomic_thread_fence(std::memory_order_release);
        slot.timeMs = timeMs;
        std::atomic_thread_fence(std::memory_order_release);
        file_->header.newest = next;
    }

    // Index of the newest sample, 1 … 1279 (an empty ring reads as 1279).
    uint32_t newest() const {
        const uint32_t index = file_->header.newest;
        return index == 0 || index > vekt::kStatsSampleCount ? vekt::kStatsSampleCount : index;
    }

    static uint32_t nextIndex(uint32_t index) { return index % vekt::kStatsSampleCount + 1; }

private:
    void clearSlot(uint32_t k) {
        volatile vekt::StatsSample& slot = file_->slots[k];
        slot.timeMs = 0;
        slot.bytes = 0;
        slot.reserved = 0;
        slot.kind = 0;
        slot.flag = 0;
    }

    volatile vekt::StatsFile* file_;
};

// One ring as a file "<dir>/<iface>_mmap", shared-mapped for writing. The file appears under
// its name only complete: it is made and formatted under a temporary name, then renamed.
// Destruction unmaps it and removes the name.
class RingFile {
public:
    static std::unique_ptr<RingFile> create(const std::string& path, std::string* error) {
        const std::string temp = path + ".tmp";
        unlink(temp.c_str());
        int fd = open(temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0) return fail(error, "create " + temp, -1);
        if (ftruncate(fd, static_cast<off_t>(vekt::kStatsFileSize)) != 0) {
            return fail(error, "size " + temp, fd, temp);
        }
        void* memory =
            mmap(nullptr, vekt::kStatsFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (memory == MAP_FAILED) return fail(error, "map " + temp, fd, temp);
        close(fd);
        StatsRingWriter(memory).format();
        if (rename(temp.c_str(), path.c_str()) != 0) {
            std::string reason = "rename to " + path + ": " + strerror(errno);
            munmap(memory, vekt::kStatsFileSize);
            unlink(temp.c_str());
            if (error != nullptr) *error = reason;
            return nullptr;
        }
        return std::unique_ptr<RingFile>(new RingFile(path, memory));
    }

    ~RingFile() {
        munmap(memory_, vekt::kStatsFileSize);
        unlink(path_.c_str());
    }
    RingFile(const RingFile&) = delete;
    RingFile& operator=(const RingFile&) = delete;

    StatsRingWriter& writer() { return writer_; }
    const std::string& path() const { return path_; }

private:
    RingFile(std::string path, void* memory)
        : path_(std::move(path)), memory_(memory), writer_(memory) {}

    static std::unique_ptr<RingFile> fail(std::string* error, const std::string& what, int fd,
                                          const std::string& cleanup = "") {
        if (error != nullptr) *error = what + ": " + strerror(errno);
        if (fd >= 0) close(fd);
        if (!cleanup.empty()) unlink(cleanup.c_str());
        return nullptr;
    }

    std::string path_;
    void* memory_;
    StatsRingWriter writer_;
};

}  // namespace slasim
