// Rate estimation over one interface's mapped statistics ring.
#pragma once

#include <stdint.h>

#include "aggregation/stats_file.h"

class SlaStatsData {
public:
    // mapping: the start of a readable 20480-byte statistics file (see stats_file.h).
    SlaStatsData(const void* mapping, bool isWifi);

    // Estimates the link's recent rate (1024 bit/s) from the newest samples. When
    // sampleCount is given it is set to the number of samples used. name is not used.
    uint32_t linkRateEstimate(uint32_t* sampleCount, const char* name);

    // The address only (for unmapping); the samples are read through file_.
    const void* mapping() const { return const_cast<const vekt::StatsFile*>(file_); }
    bool isWifi() const { return isWifi_; }

private:
    const volatile vekt::StatsFile* file_;  // the kernel writes it while we read
    bool isWifi_;
    const volatile vekt::StatsSample* cursor_ = nullptr;  // where the last estimate began
};
