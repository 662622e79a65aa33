// Parameters: the process-wide settings-and-state singleton. It holds every tunable number
// and text of the daemon (read once from the settings file, changed later only by control
// commands), the runtime flags shared between the control handlers and the workers, the
// UID lists, the interface list and the interface registry.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/shared_value.h"
#include "config/interface_info.h"

// Guards Parameters::m_interfaceInfoMap and the records in it (a reader holds it for as
// long as it uses a record: removal frees the record at once), the mark pool and the
// interface parameter texts. Its place in the daemon's lock order is in base/mutex.h.
extern vekt::Mutex interfaceMutex;

// Serialises changes of the RTT server and its port, which the probes use as one pair: a
// writer that changes both holds it across both, and a reader takes both under it. Its
// place in the lock order is in base/mutex.h.
extern vekt::Mutex rttServerMutex ACQUIRED_AFTER(interfaceMutex);

// Numeric settings slots, read with Parameters::get. Slots 11 to 28 are reserved.
enum OperId : int32_t {
    SLA_ENABLED = 0,
    WIFI_THRESHOLD = 1,
    WAN_THRESHOLD = 2,
    MINI_EST_INTERVAL = 3,
    MINI_STALE_INTERVAL = 4,
    IDEAL_EST_WINDOW = 5,
    MINI_RATE_WINDOW = 6,
    CELLULAR_SOCK_ASSIGN_RATE = 7,
    SOCK_ACTIVE_TIME = 8,
    SOCK_STALE_TIME = 9,
    UPDATE_PM_FREQ = 10,
    OPER_ID_LAST = 28,
};

// Where the RTT probes connect to.
struct RttServerTarget {
    std::string server;
    int32_t port;
};

class Parameters {
public:
    static constexpr int kSettingSlots = 29;
    static constexpr int kMaxInterfaces = 4;
    static constexpr const char* kConfFile = "/vendor/etc/sla/vekt.conf";
    static constexpr const char* kEnableProperty = "vendor.sla.enabled";

    // Creates the singleton on first use, whatever thread asks first.
    static Parameters* instance();
    // Test-only: drops the singleton so the next instance() builds a fresh one.
    static void destroyInstanceForTest();

    // ---- settings ----
    void init();
    void readVektConfFile(const char* path);
    // The setting lines of a settings file's text: each line trimmed, blank lines and
    // comments dropped. A pure function over the bytes; NUL bytes are kept as text.
    static std::vector<std::string> settingLines(const char* text, size_t length);
    void fromVector(const std::vector<std::string>& lines);
    static std::string& trim(std::string& s);
    int setValue(const char* key, const char* value);
    int32_t get(OperId id) const;
    int32_t getSLAVendorProp();
    // Every keyed setting in force, named as in the settings file, in the key table's order.
    // The interface_N lines are left out: the registry holds what they became.
    struct KeyedSetting {
        std::string key;
        bool isText;
        int32_t number;  // when !isText
        std::string text;  // when isText
    };
    std::vector<KeyedSetting> keyedSettings() const;
    // "protocols=<list>" and "ports=<list>", bounded by size; return buf.
    char* getStatsProtocols(char* buf, size_t size) const;
    char* getStatsPorts(char* buf, size_t size) const;
    // The lengths of the "protocols=" and "ports=" lines, for sizing their buffers.
    size_t statsLineCapacity() const;

    // ---- flags ----
    int isGamingRunning() const { return m_gamingRunning.load(); }
    void setGamingRunning(int value) { m_gamingRunning.store(value); }
    bool isServiceHighRtt() const { return m_serviceHighRtt.load(); }
    void setServiceHighRtt(bool value) { m_serviceHighRtt.store(value); }
    bool isGamingAiModeCheckRtt() const { return m_gamingAiModeCheckRtt.load(); }
    void setGamingAiModeCheckRtt(bool value) { m_gamingAiModeCheckRtt.store(value); }
    bool isVoipRunning() const { return m_voipRunning.load(); }
    void setVoipRunning(bool value) { m_voipRunning.store(value); }
    bool isGamingConnectStatus() const { return m_gamingConnectStatus.load(); }
    void setGamingConnectStatus(bool value) { m_gamingConnectStatus.store(value); }
    bool isDWMonitorStatus() const { return m_dwMonitorStatus.load(); }
    void setDWMonitorStatus(bool value) { m_dwMonitorStatus.store(value); }
    int getDoubleWifiSelectStatus() const { return m_doubleWifiSelectStatus.load(); }
    void setDoubleWifiSelectStatus(int value);
    std::string getGamingUids() const { return m_gamingUids.get(); }
    void setGamingRttServer(const char* server);
    // The RTT server and its port, written and read as one pair under rttServerMutex.
    void setRttServerAndPort(const char* server, int32_t port) EXCLUDES(rttServerMutex);
    RttServerTarget rttServerAndPort() const EXCLUDES(rttServerMutex);

    // ---- UID lists ----
    void setuidwhitelist(const char* text);
    void setDWUidWhitelist(const char* text);
    void setDDUidWhitelist(const char* text);
    void setGamingUids(const char* text);
    void populateSlaUidWhitelist();
    void populateDWUidWhitelist();
    void populateDDUidWhitelist();
    void populateGamingUids();

    // ---- interface registry and mark pool ----
    void initValidInterfaceMark() EXCLUDES(interfaceMutex);
    std::string getValidInterfaceMark(const char* name) EXCLUDES(interfaceMutex);
    void releaseValidInterfaceMark(const char* name) EXCLUDES(interfaceMutex);
    std::string getMeteredInterfaceSlaveStatus() EXCLUDES(interfaceMutex);
    InterfaceInfo_t* parseInterfaceParams(const std::string& params);
    int validateInterfaceParams(InterfaceInfo_t* info);
    int addNewInterfacetoMap(InterfaceInfo_t* info) EXCLUDES(interfaceMutex);
    int delOldInterfacetoMap(const char* name) EXCLUDES(interfaceMutex);

    // ---- interface list and link state ----
    void UpdateInterface(const char* name, bool add) EXCLUDES(interfaceMutex);
    void populatIfaceslist(const char* names) EXCLUDES(interfaceMutex);
    void UpdateInterfaceMode(const char* mode) EXCLUDES(interfaceMutex);
    void UpdateInterfaceBssid(const char* text) EXCLUDES(interfaceMutex);
    void populateWifiGateway(const char* text);

    // ---- state (names as the rest of the daemon knows them) ----
    // Texts and lists are replaced whole by the control-socket thread and read from any
    // thread as snapshots (see base/shared_value.h).
    using StringList = std::vector<std::string>;
    vekt::SharedValue<StringList> m_gamingUidList;
    vekt::SharedValue<StringList> m_slaUidList;
    vekt::SharedValue<StringList> m_dwUidList;
    vekt::SharedValue<StringList> m_ddUidList;
    vekt::SharedValue<StringList> m_ifaceList;
    vekt::SharedValue<StringList> m_wifiGatewayList;
    std::map<std::string, InterfaceInfo_t*> m_interfaceInfoMap GUARDED_BY(interfaceMutex);

    vekt::SharedValue<std::string> m_protocols;
    vekt::SharedValue<std::string> m_ports;
    std::atomic<int32_t> m_estimatePackNum{0};
    std::atomic<int32_t> m_minRatioChange{0};
    std::atomic<int32_t> m_bestEstCacheSize{0};
    // Share of new connections, in percent, below which no aggregated link falls; 0 (the
    // default) leaves the shares exactly as the rates give them.
    std::atomic<int32_t> m_minLinkSharePercent{0};
    // 1: every pass credits a link with the best rate of its history window, not only an
    // idle pass; 0 (the default) keeps the history for idle passes alone.
    std::atomic<int32_t> m_creditBestRate{0};
    std::atomic<int32_t> m_initWwanPercentage{0};

    vekt::SharedValue<std::string> m_gamingUids;
    // One pair for the probes: change both with rttServerMutex held (setRttServerAndPort),
    // and read both through rttServerAndPort().
    vekt::SharedValue<std::string> m_rttServer;
    std::atomic<int32_t> m_rttServerPort{0};

    // RTT block
    std::atomic<int32_t> m_pingPeriodMs{0};
    std::atomic<int32_t> m_rttNoResponseTimeoutMs{0};
    std::atomic<int32_t> m_rttHist{0};
    std::atomic<int32_t> m_rttW2cThWifiMs{0};
    std::atomic<int32_t> m_rttW2cThCMs{0};
    std::atomic<int32_t> m_rttDeltaMs{0};
    std::atomic<int32_t> m_rttC2wThWifiMs{0};
    std::atomic<int32_t> m_rttC2wThWifiMinMs{0};
    std::atomic<int32_t> m_rttC2wThCMs{0};
    std::atomic<int32_t> m_tHystS{0};
    std::atomic<int32_t> m_minGamePingTimes{0};
    std::atomic<int32_t> maxPingMiss{0};  // misses before a link counts as failed
    // probing block
    std::atomic<int32_t> m_pingIntervalMs{0};
    std::atomic<int32_t> m_alphaPercent{0};
    std::atomic<int32_t> m_nHyst{0};
    std::atomic<int32_t> m_rttMinCapMs{0};
    std::atomic<int32_t> m_gamingPollFreqCnt{0};

    vekt::SharedValue<std::string> m_gamingWhiteList;
    vekt::SharedValue<std::string> m_slaUidWhitelist;
    vekt::SharedValue<std::string> m_dwUidWhitelist;
    vekt::SharedValue<std::string> m_ddUidWhitelist;
    std::string m_ifaceParams[kMaxInterfaces] GUARDED_BY(interfaceMutex);
    std::atomic<int32_t> m_numInterfaces{0};
    std::atomic<int32_t> m_rttEntryThreshold{0};
    std::atomic<int32_t> m_rttExitThreshold{0};
    std::atomic<int32_t> m_ratioPercent{0};     // rewritten by every ratio calculation
    std::atomic<int32_t> m_dominantPercent{0};  // rewritten by every ratio calculation
    std::atomic<int32_t> m_rateByteCap{0};
    std::atomic<int32_t> m_constructorValue{0};  // fixed at 48 by the constructor
    vekt::SharedValue<std::string> m_interfaceMode;
    std::vector<interfaceMark*> m_markPool GUARDED_BY(interfaceMutex);

private:
    Parameters();
    ~Parameters();
    Parameters(const Parameters&) = delete;
    Parameters& operator=(const Parameters&) = delete;

    void populateUidList(const vekt::SharedValue<std::string>& text,
                         vekt::SharedValue<StringList>& list, const char* variant,
                         const char* entryText, bool limitLength);

    std::atomic<int32_t> m_settings[kSettingSlots];
    std::atomic<int32_t> m_gamingRunning{0};
    std::atomic<bool> m_serviceHighRtt{false};
    std::atomic<bool> m_gamingAiModeCheckRtt{false};
    std::atomic<bool> m_gamingConnectStatus{false};
    std::atomic<bool> m_voipRunning{false};
    std::atomic<bool> m_dwMonitorStatus{false};
    std::atomic<int32_t> m_doubleWifiSelectStatus{0};

};
