// Fuzzes the settings file: each input is a settings file's text, split into setting lines
// and applied to the settings singleton as at start-up, then read back the way the main
// loop and the statistics channel read it.
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "base/device_root.h"
#include "config/parameters.h"
#include "support/temp_root.h"
#include "vekt_host/log_capture.h"

namespace {

// A private device root, so neither the host's settings file nor its properties count, and
// log lines kept in memory instead of on standard error.
struct Harness {
    Harness() { vekt::host::setStderrEcho(false); }

    vekt::test::TempRoot root;
    vekt::ScopedDeviceRoot scopedRoot{root.dir()};
    vekt::host::LogCapture log;
};

Harness& harness() {
    static Harness instance;
    return instance;
}

// The built-in defaults; init() leaves the interface lines alone, they start empty.
void resetToDefaults(Parameters& params) {
    params.init();
    vekt::MutexLock lock(interfaceMutex);
    for (std::string& text : params.m_ifaceParams) text.clear();
}

// What the main loop and rate estimation read on every pass.
int64_t readNumbers(const Parameters& params) {
    int64_t sum = 0;
    for (OperId id : {SLA_ENABLED, WIFI_THRESHOLD, WAN_THRESHOLD, MINI_EST_INTERVAL,
                      MINI_STALE_INTERVAL, IDEAL_EST_WINDOW, MINI_RATE_WINDOW, UPDATE_PM_FREQ}) {
        sum += params.get(id);
    }
    return sum + params.m_estimatePackNum + params.m_minRatioChange +
           params.m_bestEstCacheSize + params.m_rttExitThreshold + params.m_numInterfaces;
}

// The two configuration lines of the statistics channel, in buffers sized as it sizes them.
size_t formatStatsLines(const Parameters& params) {
    std::vector<char> line(params.statsLineCapacity());
    size_t total = std::string(params.getStatsProtocols(line.data(), line.size())).size();
    total += std::string(params.getStatsPorts(line.data(), line.size())).size();
    return total;
}

// The interface lines, parsed as the registry parses them.
int parseInterfaceLines(Parameters& params) {
    int valid = 0;
    for (int i = 0; i < Parameters::kMaxInterfaces; ++i) {
        std::string text;
        {
            vekt::MutexLock lock(interfaceMutex);
            text = params.m_ifaceParams[i];
        }
        InterfaceInfo_t* info = params.parseInterfaceParams(text);
        valid += info != nullptr;
        free(info);
    }
    return valid;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness& h = harness();
    Parameters* params = Parameters::instance();
    // Every input starts from the built-in defaults, so one file's values never leak into
    // the next input's outcome.
    resetToDefaults(*params);
    params->fromVector(Parameters::settingLines(reinterpret_cast<const char*>(data), size));

    volatile int64_t sink = readNumbers(*params);
    sink = sink + static_cast<int64_t>(formatStatsLines(*params));
    sink = sink + parseInterfaceLines(*params);
    h.log.clear();
    return 0;
}
