// SlaStatsImpl: the per-pass rate measurement and the ratio calculation that decides each
// link's share of new connections.
#define LOG_TAG "SLM-Vekt-SlaStatsImpl"

#include <log/log.h>
#include <math.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "aggregation/sla_stats_data.h"
#include "aggregation/sla_stats_impl.h"
#include "config/parameters.h"
#include "base/clock.h"
#include "base/mapped_read.h"
#include "steering/iptables_manager.h"

namespace {

constexpr time_t kRatioLogPeriodSec = 6;

// Interface names appear in the ratio log only in this rotated form (printable codes 32 to
// 127 turned by 17 places), so the periodic ratio lines do not carry them in clear.
std::string shiftedName(const char* name) {
    std::string shifted;
    for (const char* c = name; *c != '\0'; ++c) {
        int code = static_cast<unsigned char>(*c);
        shifted.push_back(static_cast<char>(code + 17 <= 127 ? code + 17 : code - 79));
    }
    return shifted;
}

// The registry record of a name; like the registry's own subscript, a miss leaves an empty
// entry behind, which every reader skips.
InterfaceInfo_t* registryRecord(Parameters* params, const char* name) REQUIRES(interfaceMutex) {
    return params->m_interfaceInfoMap[name];
}

// Only links with a mapped statistics file take part in measuring and sharing.
bool takesPart(const linkStatsWrapper_t* record) {
    return record != nullptr && record->stats != nullptr;
}

// Calls visit(record, info) for each link that takes part and is registered, in name order.
template <typename Visit>
void forEachRegisteredLink(SlaInterfaceMap& map, Parameters* params, Visit visit)
    REQUIRES(interfaceMutex, slaStatsMutex) {
    for (auto& entry : map) {
        linkStatsWrapper_t* record = entry.second;
        if (!takesPart(record)) continue;
        const InterfaceInfo_t* info = registryRecord(params, record->name);
        if (info == nullptr) continue;
        visit(*record, *info);
    }
}

// A share is measured from the traffic a link carries, and a link carries traffic in
// proportion to its share: a link that goes quiet while another is busy measures near zero,
// gets next to no new connections and so never shows its rate again. With a floor, every link
// that may take connections at this stage (all of them when cellular helps, the Wi-Fi links
// when Wi-Fi carries the load alone) keeps at least floorPercent of them; what the raised
// links gain is taken from the links above the floor, in proportion to their excess.
void applyShareFloor(SlaInterfaceMap& map, Parameters* params, SLA_ratio_calc_process stage,
                     int32_t floorPercent) REQUIRES(interfaceMutex, slaStatsMutex) {
    std::vector<linkStatsWrapper_t*> eligible;
    float total = 0.0f;
    forEachRegisteredLink(map, params, [&](linkStatsWrapper_t& record, const InterfaceInfo_t& info) {
        total += record.ratio;
        if (stage == 1 || (stage == 0 && !info.metered)) eligible.push_back(&record);
    });
    if (floorPercent <= 0 || eligible.empty()) return;
    const float floor = std::min(static_cast<float>(floorPercent) / 100.0f,
                                 1.0f / static_cast<float>(eligible.size()));
    float excessAboveFloor = 0.0f;
    for (linkStatsWrapper_t* record : eligible) {
        if (record->ratio < floor) {
            total += floor - record->ratio;
            record->ratio = floor;
        } else {
            excessAboveFloor += record->ratio - floor;
        }
    }
    if (total <= 1.0f || excessAboveFloor <= 0.0f) return;
    const float scale = (total - 1.0f) / excessAboveFloor;
    for (linkStatsWrapper_t* record : eligible) {
        if (record->ratio > floor) record->ratio -= (record->ratio - floor) * scale;
    }
}

}  // namespace

uint32_t SlaStatsImpl::getMaxLinkRateFromHistory(linkHistory_t& history, uint32_t rate,
                                                 Parameters* params) {
    const int32_t window = params->m_bestEstCacheSize.load();
    if (window <= 0) return rate;
    if (history.samples.size() < static_cast<size_t>(window)) {
        history.samples.push_back(rate);
        if (rate > history.maxRate) history.maxRate = rate;
        return history.maxRate;
    }
    const uint32_t removed = history.samples.front();
    history.samples.pop_front();
    history.samples.push_back(rate);
    if (removed != history.maxRate || history.maxRate == 0) {
        if (rate > history.maxRate) history.maxRate = rate;
        return history.maxRate;
    }
    // The maximum just left the window: find the new one among what is left.
    history.maxRate = *std::max_element(history.samples.begin(), history.samples.end());
    return history.maxRate;
}

bool SlaStatsImpl::evalAndSetSLAInterfaceRatio() {
    Parameters* params = Parameters::instance();
    const int64_t wifiThreshold = params->get(WIFI_THRESHOLD);
    const int64_t wanThreshold = params->get(WAN_THRESHOLD);
    const int64_t packNum = params->m_estimatePackNum.load();
    const bool creditBestRate = params->m_creditBestRate.load() != 0;

    uint32_t cellSum = 0;
    uint32_t wifiSum = 0;
    uint32_t wifiMax = 0;
    uint32_t wifiCount = 0;
    uint32_t cellCount = 0;
    {
        vekt::MutexLock interfaceLock(interfaceMutex);
        vekt::MutexLock statsLock(slaStatsMutex);
        forEachRegisteredLink(m_slaInterfaceMap, params, [&](linkStatsWrapper_t& record,
                                                            const InterfaceInfo_t& info) {
            uint32_t rate = 0;
            const bool readable = vekt::readMappedFile([&record, &rate] {
                rate = record.stats->linkRateEstimate(&record.sampleCount, record.name);
            });
            if (!readable) {
                // The file shrank under its mapping: no measurement this pass.
                ALOGE("%s statistics file of %s is shorter than its mapping",
                      "evalAndSetSLAInterfaceRatio", record.name);
                rate = 0;
                record.sampleCount = 0;
            }
            if (static_cast<int64_t>(record.sampleCount) < packNum) rate = 0;
            if (info.metered && static_cast<int64_t>(rate) < wanThreshold) rate = 0;
            record.rate = rate;
            // An idle pass credits the link with the best rate it showed within the window;
            // with credit_best_rate, so does a pass that measured less than that best. A
            // link's share is what it carries, and it carries in proportion to its share, so
            // a link measured below its capacity would otherwise stay there.
            const uint32_t best = getMaxLinkRateFromHistory(record.history, rate, params);
            if (record.rate == 0 || creditBestRate) record.rate = std::max(record.rate, best);

            if (info.metered) {
                cellSum += record.rate;
                ++cellCount;
            } else {
                wifiSum += record.rate;
                wifiMax = std::max(wifiMax, record.rate);
                ++wifiCount;
            }
        });
    }

    const SLA_ratio_calc_process stage =
        ((wifiCount < 2 || cellCount > 0) && static_cast<int64_t>(wifiSum) <= wifiThreshold) ? 1
                                                                                             : 0;
    if (!calcSlaRatios(stage, static_cast<float>(cellSum), static_cast<float>(wifiSum),
                       static_cast<float>(wifiMax))) {
        return false;
    }
    // The daemon's one lock order: interfaceMutex, slaStatsMutex, then (inside) iptablesMutex.
    vekt::MutexLock interfaceLock(interfaceMutex);
    vekt::MutexLock statsLock(slaStatsMutex);
    return IptablesManager::instance()->set_SLA_ratio_iptables(m_slaInterfaceMap) == 0;
}

bool SlaStatsImpl::calcSlaRatios(SLA_ratio_calc_process stage, float cellSum, float wifiSum,
                                 float wifiMax) {
    Parameters* params = Parameters::instance();
    const float wifiThreshold = static_cast<float>(params->get(WIFI_THRESHOLD));
    const int32_t minRatioChange = params->m_minRatioChange.load();

    int n = 0;  // unmetered links taking part
    {
        vekt::MutexLock interfaceLock(interfaceMutex);
        vekt::MutexLock statsLock(slaStatsMutex);
        forEachRegisteredLink(m_slaInterfaceMap, params,
                              [&n](linkStatsWrapper_t&, const InterfaceInfo_t& info) {
                                  if (!info.metered) ++n;
                              });
    }

    const time_t now = vekt::wallTime().tv_sec;
    bool logPass = false;
    if (now - m_lastRatioLogSec >= kRatioLogPeriodSec) {
        m_lastRatioLogSec = now;
        logPass = true;
    }

    bool dominated = false;
    if (n > 0) {
        params->m_dominantPercent = 95 - 5 * n;
        params->m_ratioPercent = 90 - 5 * n;
        dominated =
            wifiSum != 0 && n != 1 && static_cast<float>(95 - 5 * n) / 100.0f < wifiMax / wifiSum;
    } else {
        params->m_ratioPercent = 85;
        params->m_dominantPercent = 90;
    }
    const float ratioShare = static_cast<float>(params->m_ratioPercent.load()) / 100.0f;

    vekt::MutexLock interfaceLock(interfaceMutex);
    vekt::MutexLock statsLock(slaStatsMutex);
    if (m_slaInterfaceMap.empty()) return false;

    std::map<std::string, float> previousRatios;
    float remaining = 1.0f;
    int zeroCount = 0;
    forEachRegisteredLink(m_slaInterfaceMap, params, [&](linkStatsWrapper_t& record,
                                                        const InterfaceInfo_t& info) {
        previousRatios[record.name] = record.ratio;

        const float rate = static_cast<float>(record.rate);
        float share = 0.0f;   // what this link takes from the remainder
        float stored = 0.0f;  // what it keeps as its ratio
        if (stage == 0) {
            if (dominated) {
                share = rate == wifiMax ? ratioShare : (1.0f - ratioShare) / (n - 1);
            } else {
                share = wifiSum != 0 ? rate / wifiSum : 0.0f;
            }
            // Cellular gets nothing while Wi-Fi carries the load, yet its part still leaves
            // the remainder.
            stored = info.metered ? 0.0f : share;
        } else if (stage == 1) {
            if (!info.metered) {
                share = wifiThreshold != 0 ? rate / wifiThreshold : 0.0f;
            } else if (cellSum != 0 && wifiThreshold != 0) {
                share = (1.0f - wifiSum / wifiThreshold) * (rate / cellSum);
            }
            stored = share;
        } else {
            ALOGE("%s unexpected behavior in calc ratio", "calcSlaRatios");
            ++zeroCount;
            return;
        }
        remaining -= share;
        record.ratio = stored;
        if (share == 0) ++zeroCount;
    });

    const bool allIdle = wifiSum == 0 && cellSum == 0;
    std::vector<const linkStatsWrapper_t*> unregistered;  // left out of the change and the log
    for (auto& entry : m_slaInterfaceMap) {
        linkStatsWrapper_t* record = entry.second;
        if (!takesPart(record) || record->rate != 0 || zeroCount == 0 || remaining <= 0) continue;
        if (allIdle) {
            const InterfaceInfo_t* info = registryRecord(params, record->name);
            if (info == nullptr) {
                unregistered.push_back(record);
                continue;
            }
            record->ratio = info->metered || n == 0 ? 0.0f : remaining / n;
        } else {
            record->ratio = remaining / zeroCount;
        }
    }
    if (stage == 0 || stage == 1) {
        applyShareFloor(m_slaInterfaceMap, params, stage, params->m_minLinkSharePercent.load());
    }

    float change = 0.0f;
    for (auto& entry : m_slaInterfaceMap) {
        linkStatsWrapper_t* record = entry.second;
        if (!takesPart(record) || std::count(unregistered.begin(), unregistered.end(), record) != 0)
            continue;
        auto previous = previousRatios.find(record->name);
        const float oldRatio = previous == previousRatios.end() ? 0.0f : previous->second;
        change += fabsf(oldRatio - record->ratio);
        if (logPass) {
            ALOGI("%s SLA_RATIO oldRatio = %f, new ratio = %f, LRE = %u, iterf = %s",
                  "calcSlaRatios", oldRatio, record->ratio, record->rate,
                  shiftedName(record->name).c_str());
        }
    }
    // Half the summed movement is the share of new connections that would change link.
    return 0.5f * change > static_cast<float>(minRatioChange) / 100.0f;
}
