// Cost of the aggregation engine's per-pass work: one evaluation over four links with full
// statistics rings and stable ratios (no rule rewrite), next to one rate estimate.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <mutex>
#include <string>

#include "aggregation/sla_stats_data.h"
#include "aggregation/sla_stats_impl.h"
#include "aggregation/stats_file.h"
#include "config/interface_info.h"
#include "config/parameters.h"
#include "base/device_root.h"
#include "steering/execnetd.h"
#include "steering/iptables_manager.h"
#include "support/stats_rings.h"
#include "support/temp_root.h"
#include "vekt_host/log_capture.h"

namespace {

using vekt::test::bytesPer20Ms;
using vekt::test::kNow;

// Nothing is ever started: a rewrite during warm-up costs no process.
class NullRunner : public vekt::CommandRunner {
public:
    vekt::CommandResult run(const std::vector<std::string>&) override { return {true, ""}; }
};

// A full ring: all 1279 slots written, 20 ms apart, the newest 5 ms before now. rate is in
// 1024 bit/s. Mapped, not allocated: finalize unmaps it like a statistics file.
void* makeRing(uint32_t rate, uint32_t newest) {
    void* memory = mmap(nullptr, vekt::kStatsFileSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) abort();
    vekt::test::fillSteady(static_cast<vekt::StatsFile*>(memory), newest, vekt::kStatsSampleCount,
                           kNow - 5, 20, bytesPer20Ms(rate));
    return memory;
}

struct Setup {
    Setup() : runnerOverride(runner) {
        vekt::host::setStderrEcho(false);
        vekt::DeviceRoot::set(root.dir());
        Parameters* params = Parameters::instance();
        SlaStatsImpl* impl = SlaStatsImpl::instance();
        const struct {
            const char* name;
            uint32_t rate;
        } links[] = {{"wlan0", 900}, {"wlan1", 400}, {"rmnet_data0", 700}, {"rmnet_data1", 600}};
        uint32_t newest = 17;
        for (const auto& link : links) {
            params->UpdateInterface(link.name, true);
            auto* record = new linkStatsWrapper_t();
            vekt::copyBounded(record->name, sizeof(record->name), link.name);
            record->stats =
                new SlaStatsData(makeRing(link.rate, newest), !vekt::isCellularName(link.name));
            newest += 300;  // each ring wraps at a different place
            vekt::MutexLock lock(slaStatsMutex);
            impl->m_slaInterfaceMap[link.name] = record;
        }
        // Settle the ratios; from here on every pass finds nothing to rewrite.
        for (int i = 0; i < 3; ++i) impl->evalAndSetSLAInterfaceRatio();
    }
    ~Setup() {
        SlaStatsImpl::finalize();
        IptablesManager::clean_SLM_iptables();
        Parameters::destroyInstanceForTest();
        vekt::DeviceRoot::set("");
    }

    vekt::test::TempRoot root;
    vekt::test::FixedClock clock;
    NullRunner runner;
    vekt::ScopedCommandRunner runnerOverride;
};

void BM_EvaluationPassFourLinks(benchmark::State& state) {
    Setup setup;
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    for (auto _ : state) {
        if (impl->evalAndSetSLAInterfaceRatio()) {
            state.SkipWithError("the ratios moved: a pass rewrote the rules");
            break;
        }
    }
}
BENCHMARK(BM_EvaluationPassFourLinks)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_LinkRateEstimate(benchmark::State& state) {
    Setup setup;
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    SlaStatsData* data = impl->m_slaInterfaceMap.at("wlan0")->stats;
    uint32_t count = 0;
    for (auto _ : state) benchmark::DoNotOptimize(data->linkRateEstimate(&count, "wlan0"));
    state.counters["samples"] = count;
}
BENCHMARK(BM_LinkRateEstimate)->Repetitions(9)->ReportAggregatesOnly(true);

// The worst case: a window and stale limit wider than the ring, so the walk covers it all.
void BM_LinkRateEstimateWholeRing(benchmark::State& state) {
    Setup setup;
    Parameters::instance()->setValue("ideal_est_window", "100000");
    Parameters::instance()->setValue("mini_stale_interval", "100000");
    Parameters::instance()->m_rateByteCap = 0x7fffffff;
    SlaStatsData* data = SlaStatsImpl::instance()->m_slaInterfaceMap.at("wlan0")->stats;
    uint32_t count = 0;
    for (auto _ : state) benchmark::DoNotOptimize(data->linkRateEstimate(&count, "wlan0"));
    state.counters["samples"] = count;
}
BENCHMARK(BM_LinkRateEstimateWholeRing)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
