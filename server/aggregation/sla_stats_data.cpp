// Rate estimation over one interface's statistics ring.
#define LOG_TAG "SLM-Vekt-SlaStatsData"

#include "aggregation/sla_stats_data.h"

#include <log/log.h>

#include "config/parameters.h"
#include "base/clock.h"

namespace {

using vekt::kStatsSampleCount;
using vekt::StatsSample;

// The kernel rewrites samples while we read them: copy each one field by field through the
// volatile view, then work only on the copy.
StatsSample readSample(const volatile vekt::StatsFile* file, uint32_t index) {
    const volatile StatsSample& slot = file->slots[index];
    StatsSample copy;
    copy.timeMs = slot.timeMs;
    copy.bytes = slot.bytes;
    copy.reserved = slot.reserved;
    copy.kind = slot.kind;
    copy.flag = slot.flag;
    return copy;
}

// Ring step backwards: sample 1 is preceded by sample 1279. index is always 1 … 1279.
uint32_t previousIndex(uint32_t index) { return index <= 1 ? kStatsSampleCount : index - 1; }

}  // namespace

SlaStatsData::SlaStatsData(const void* mapping, bool isWifi)
    : file_(static_cast<const volatile vekt::StatsFile*>(mapping)), isWifi_(isWifi) {}

uint32_t SlaStatsData::linkRateEstimate(uint32_t* sampleCount, const char* name) {
    (void)name;
    if (file_->header.magic != vekt::kStatsMagic) {
        ALOGE("SLA stat colletct is not ready");
        return 0;
    }
    if (sampleCount != nullptr) *sampleCount = 0;

    Parameters* params = Parameters::instance();
    const uint64_t stale = static_cast<uint32_t>(params->get(MINI_STALE_INTERVAL));
    const uint32_t window = static_cast<uint32_t>(params->get(IDEAL_EST_WINDOW));
    const uint32_t minWindow = static_cast<uint32_t>(params->get(MINI_RATE_WINDOW));
    const uint64_t byteCap = static_cast<uint32_t>(params->m_rateByteCap.load());

    const uint64_t now = vekt::toMs(vekt::wallTime()) + 1;

    // Bounds: the header index comes from the kernel. 0 stands for the last sample; anything
    // past the ring is logged and wrapped back into it, never used to read beyond the file.
    uint32_t index = file_->header.newest;
    if (index == 0) {
        index = kStatsSampleCount;
    } else if (index - 1 >= kStatsSampleCount) {
        ALOGE("%s:Index(%u) out of bound!", isWifi_ ? "WLAN" : "WWAN", index - 1);
        index = (index - 1) % kStatsSampleCount + 1;
    }
    cursor_ = &file_->slots[index];

    uint64_t bytes = 0;  // B: bytes of the samples taken
    uint32_t span = 0;   // T: milliseconds those samples cover
    uint32_t used = 0;
    // A ring whose samples are all fresh but carry no bytes or no time would let the walk
    // circle for ever. Each slot is visited at most once: one turn is all the ring holds.
    uint32_t visited = 1;
    const auto stepBack = [&visited](uint32_t* at) {
        if (visited >= kStatsSampleCount) return false;
        ++visited;
        *at = previousIndex(*at);
        return true;
    };

    for (;;) {
        const StatsSample current = readSample(file_, index);
        if (current.timeMs == 0) break;
        if (now > current.timeMs + stale) break;
        if (bytes >= byteCap) break;

        if (current.kind != vekt::kSampleKindClosing || current.flag != 0) {
            if (!stepBack(&index)) break;
            continue;
        }
        // The measurement runs from the previous sample that is not a step sample.
        uint32_t before = index;
        if (!stepBack(&before)) break;
        StatsSample previous = readSample(file_, before);
        bool exhausted = false;
        while (previous.kind == vekt::kSampleKindStep) {
            if (!stepBack(&before)) {
                exhausted = true;
                break;
            }
            previous = readSample(file_, before);
        }
        if (exhausted || previous.timeMs == 0) break;

        const uint32_t delta = static_cast<uint32_t>(current.timeMs - previous.timeMs);
        if (span + delta < window) {
            bytes += current.bytes;
            span += delta;
            ++used;
            index = before;
            continue;
        }
        // The last sample goes in only if that lands at least as close to the window as
        // leaving it out.
        if (span + delta - window <= window - span) {
            bytes += current.bytes;
            span += delta;
            ++used;
        }
        break;
    }
    if (sampleCount != nullptr) *sampleCount = used;

    const uint64_t scaled = bytes * 8000 / 1024;
    if (span >= minWindow || bytes > byteCap) {
        return span == 0 ? 0 : static_cast<uint32_t>(scaled / span);
    }
    return 0;
}
