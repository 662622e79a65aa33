// One aggregated link's statistics view, rate history, current rate and ratio.
#pragma once

#include <stdint.h>

#include <deque>
#include <map>
#include <string>

class SlaStatsData;

// Sliding window of past rate estimates, oldest first, with their maximum.
struct linkHistory_t {
    std::deque<uint32_t> samples;
    uint32_t maxRate = 0;
};

// Owned by SlaStatsImpl::m_slaInterfaceMap (guarded by slaStatsMutex).
struct linkStatsWrapper_t {
    char name[128] = {};
    SlaStatsData* stats = nullptr;  // null when the statistics file could not be mapped
    linkHistory_t history;
    uint32_t rate = 0;         // rate used for this pass, 1024 bit/s
    uint32_t sampleCount = 0;  // samples the last estimate used
    float ratio = 0.0f;        // share of new connections, 0 to 1
    float previousRatio = 0.0f;
    float installedProbability = -1.0f;  // of this link's ratio rule when last written; -1 none
};

using SlaInterfaceMap = std::map<std::string, linkStatsWrapper_t*>;
