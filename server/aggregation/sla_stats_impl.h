// SlaStatsImpl drives the kernel statistics channel (the command file "/proc/sla/config",
// one mapped statistics file per interface, the VoIP state file) and runs the per-pass
// rate estimation and ratio calculation of link aggregation.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <string>

#include "aggregation/link_stats.h"
#include "base/mutex.h"
#include "config/parameters.h"

// Guards insertions into and the clearing of m_slaInterfaceMap, and the records in it.
// Comes after interfaceMutex and before iptablesMutex (see base/mutex.h).
extern vekt::Mutex slaStatsMutex ACQUIRED_AFTER(interfaceMutex);

// Stage of the ratio calculation: 0 Wi-Fi carries the load alone; 1 cellular links get
// the part Wi-Fi cannot carry.
typedef uint32_t SLA_ratio_calc_process;

class SlaStatsImpl {
public:
    static constexpr const char* kConfigFile = "/proc/sla/config";
    static constexpr const char* kVoipStateFile = "/proc/sla/sla_voip_state";

    // Creates the singleton on first use, whatever thread asks first.
    static SlaStatsImpl* instance();
    static void finalize();

    int writeStatsConfFile(const char* line);
    bool enableSLA(bool enable);
    bool initMmap() EXCLUDES(interfaceMutex, slaStatsMutex);
    void* getStatsMmap(std::string name);
    void freeMmap() EXCLUDES(slaStatsMutex);
    bool updateSlaInterfacemap(const char* name, bool add);
    int enableSlaVoipState(bool on, const char* uid);
    // Fills address and port (bounded by their sizes, terminated) from the VoIP state file
    // "address,port"; a text under 4 bytes or without a comma leaves both untouched.
    // Returns the number of bytes read or -1.
    int getSlaVoipState(char* address, size_t addressSize, char* port, size_t portSize);

    // One measurement and ratio pass; true when the ratio rules were rewritten.
    bool evalAndSetSLAInterfaceRatio() EXCLUDES(interfaceMutex, slaStatsMutex);
    bool calcSlaRatios(SLA_ratio_calc_process stage, float cellSum, float wifiSum,
                       float wifiMax) EXCLUDES(interfaceMutex, slaStatsMutex);
    uint32_t getMaxLinkRateFromHistory(linkHistory_t& history, uint32_t rate,
                                       Parameters* params);

    // Guarded by slaStatsMutex. Owns its records, each record its SlaStatsData and the
    // mapping under it: all three go when the entry leaves the map.
    SlaInterfaceMap m_slaInterfaceMap GUARDED_BY(slaStatsMutex);
    time_t m_lastRatioLogSec = 0;  // wall-clock seconds of the last ratio log

private:
    SlaStatsImpl() = default;
    ~SlaStatsImpl();
    SlaStatsImpl(const SlaStatsImpl&) = delete;
    SlaStatsImpl& operator=(const SlaStatsImpl&) = delete;

};
