// Kernel layout of one interface's statistics file "/proc/sla/<name>_mmap": a 16-byte
// header and a ring of 1279 16-byte samples, little-endian, exactly 20480 bytes.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace vekt {

constexpr uint32_t kStatsMagic = 0x6B717876;
constexpr size_t kStatsFileSize = 20480;
constexpr uint32_t kStatsSampleCount = 1279;  // samples 1 to 1279

constexpr uint8_t kSampleKindClosing = 2;  // closes a measurement
constexpr uint8_t kSampleKindStep = 1;     // stepped over by the estimator

struct StatsSample {
    uint64_t timeMs;  // wall clock, ms; 0 marks a slot never written
    uint32_t bytes;
    uint16_t reserved;
    uint8_t kind;
    uint8_t flag;  // a closing sample counts only while this is 0
};
static_assert(sizeof(StatsSample) == 16, "kernel sample layout");

struct StatsFileHeader {
    uint32_t magic;
    uint32_t reserved0;
    uint32_t newest;  // index of the newest sample, 1 to 1279; 0 means 1279
    uint32_t reserved1;
};
static_assert(sizeof(StatsFileHeader) == 16, "kernel header layout");

// slots[0] is unused (it is the header's place); sample k is slots[k], k = 1 … 1279.
union StatsFile {
    StatsFileHeader header;
    StatsSample slots[kStatsSampleCount + 1];
};
static_assert(sizeof(StatsFile) == kStatsFileSize, "kernel file layout");
static_assert(offsetof(StatsFileHeader, newest) == 8, "kernel header layout");

}  // namespace vekt
