// Fuzzes the statistics ring: each input fills one 20480-byte statistics file (zero-padded
// or cut), whose rate is estimated directly and then within one evaluation pass over two
// links, the fuzzed Wi-Fi link beside a cellular link with a steady ring.
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "aggregation/link_stats.h"
#include "aggregation/sla_stats_data.h"
#include "aggregation/sla_stats_impl.h"
#include "aggregation/stats_file.h"
#include "base/device_root.h"
#include "base/text.h"
#include "config/parameters.h"
#include "steering/iptables_manager.h"
#include "support/recording_runner.h"
#include "support/stats_rings.h"
#include "support/temp_root.h"
#include "vekt_host/log_capture.h"

namespace {

using vekt::StatsFile;

constexpr const char* kFuzzedLink = "wlan0";
constexpr const char* kSteadyLink = "rmnet_data0";

// A ring with an inaccessible page on either side, as a kernel mapping has no readable
// neighbours: a walk that leaves the 20480 bytes faults at once instead of reading on.
StatsFile* mapGuardedRing() {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t body = (vekt::kStatsFileSize + page - 1) / page * page;
    auto* base = static_cast<uint8_t*>(
        mmap(nullptr, body + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (base == MAP_FAILED || mprotect(base + page, body, PROT_READ | PROT_WRITE) != 0) {
        throw std::runtime_error("cannot map a statistics ring");
    }
    // The ring ends where the trailing guard page begins.
    return reinterpret_cast<StatsFile*>(base + page + body - vekt::kStatsFileSize);
}

// Private device root, recorded rule commands, a fixed wall clock, log lines in memory; two
// registered links whose records point at rings the harness owns for the process's life.
struct Harness {
    Harness() {
        vekt::host::setStderrEcho(false);
        Parameters* params = Parameters::instance();
        // A short history window, so idle passes go through the history as well.
        params->m_bestEstCacheSize = 3;
        IptablesManager::instance();
        vekt::test::fillSteady(steady, 40, 40, vekt::test::kNow - 10, 20,
                               vekt::test::bytesPer20Ms(800));
        fuzzedRecord = addLink(kFuzzedLink, fuzzed);
        steadyRecord = addLink(kSteadyLink, steady);
    }

    // Registers the link and gives the aggregation map a record over the ring, as a
    // successful mapping would.
    static linkStatsWrapper_t* addLink(const char* name, const StatsFile* ring) {
        Parameters::instance()->UpdateInterface(name, true);
        auto* record = new linkStatsWrapper_t();
        vekt::copyBounded(record->name, sizeof(record->name), name);
        record->stats = new SlaStatsData(ring, !vekt::isCellularName(name));
        SlaStatsImpl* impl = SlaStatsImpl::instance();
        vekt::MutexLock lock(slaStatsMutex);
        impl->m_slaInterfaceMap[name] = record;
        return record;
    }

    // Each input is measured from the same starting point, whatever the last one left.
    void resetRecords() {
        SlaStatsImpl* impl = SlaStatsImpl::instance();
        impl->m_lastRatioLogSec = 0;
        vekt::MutexLock lock(slaStatsMutex);
        for (linkStatsWrapper_t* record : {fuzzedRecord, steadyRecord}) {
            record->history = linkHistory_t();
            record->rate = record->sampleCount = 0;
            record->ratio = record->previousRatio = 0.0f;
        }
    }

    vekt::test::TempRoot root;
    vekt::ScopedDeviceRoot scopedRoot{root.dir()};
    vekt::host::LogCapture log;
    vekt::test::RecordingRunner runner;
    vekt::ScopedCommandRunner scopedRunner{runner};
    vekt::test::FixedClock clock;
    StatsFile* fuzzed = mapGuardedRing();
    StatsFile* steady = mapGuardedRing();
    linkStatsWrapper_t* fuzzedRecord = nullptr;
    linkStatsWrapper_t* steadyRecord = nullptr;
};

Harness& harness() {
    static Harness instance;
    return instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness& h = harness();
    auto* bytes = reinterpret_cast<uint8_t*>(h.fuzzed);
    const size_t used = std::min(size, vekt::kStatsFileSize);
    std::copy_n(data, used, bytes);
    std::fill(bytes + used, bytes + vekt::kStatsFileSize, 0);

    // Directly, as a cellular view (the other word of the index log line).
    uint32_t samples = 0;
    SlaStatsData(h.fuzzed, false).linkRateEstimate(&samples, kFuzzedLink);

    h.resetRecords();
    SlaStatsImpl::instance()->evalAndSetSLAInterfaceRatio();
    h.runner.clear();
    h.log.clear();
    return 0;
}
