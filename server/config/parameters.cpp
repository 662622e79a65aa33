// Parameters: creation, the settings file and the numeric settings.
#define LOG_TAG "SLM-Vekt-SlaParameters"

#include "config/parameters.h"

#include <cutils/properties.h>
#include <log/log.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#include <algorithm>
#include <iterator>

#include "base/device_root.h"
#include "base/singleton_slot.h"
#include "config/input_validation.h"

vekt::Mutex interfaceMutex(vekt::LockLevel::kInterface, "interfaceMutex");
vekt::Mutex rttServerMutex(vekt::LockLevel::kRttServer, "rttServerMutex");

namespace {

// Keys of the numeric slots 0 to 10, in slot order.
constexpr const char* kSlotKeys[] = {
    "SLAEnabled",        "wifi_threshold",         "wan_threshold",  "mini_est_interval",
    "mini_stale_interval", "ideal_est_window",     "mini_rate_window", "CellularSockAssignRate",
    "SockActiveTime",    "SockStaleTime",          "update_pm_freq",
};

struct IntKey {
    const char* key;
    std::atomic<int32_t> Parameters::*member;
};

constexpr IntKey kIntKeys[] = {
    {"estimate_pack_num", &Parameters::m_estimatePackNum},
    {"min_ratio_change", &Parameters::m_minRatioChange},
    {"best_est_cache_size", &Parameters::m_bestEstCacheSize},
    {"min_link_share", &Parameters::m_minLinkSharePercent},
    {"credit_best_rate", &Parameters::m_creditBestRate},
    {"init_wwan_percentage", &Parameters::m_initWwanPercentage},
    {"ping_period_ms", &Parameters::m_pingPeriodMs},
    {"rtt_noresponse_timeout_ms", &Parameters::m_rttNoResponseTimeoutMs},
    {"rtt_hist", &Parameters::m_rttHist},
    {"rtt_w2c_th_wifi_ms", &Parameters::m_rttW2cThWifiMs},
    {"rtt_w2c_th_c_ms", &Parameters::m_rttW2cThCMs},
    {"rtt_delta_ms", &Parameters::m_rttDeltaMs},
    {"rtt_c2w_th_wifi_ms", &Parameters::m_rttC2wThWifiMs},
    {"rtt_c2w_th_wifi_min_ms", &Parameters::m_rttC2wThWifiMinMs},
    {"rtt_c2w_th_c_ms", &Parameters::m_rttC2wThCMs},
    {"t_hyst_s", &Parameters::m_tHystS},
    {"min_game_ping_times", &Parameters::m_minGamePingTimes},
    {"ping_interval_ms", &Parameters::m_pingIntervalMs},
    {"alpha_percent", &Parameters::m_alphaPercent},
    {"n_hyst", &Parameters::m_nHyst},
    {"rtt_min_cap_ms", &Parameters::m_rttMinCapMs},
    {"gaming_poll_freq_cnt", &Parameters::m_gamingPollFreqCnt},
    {"num_interfaces", &Parameters::m_numInterfaces},
    {"rtt_entry_threshold", &Parameters::m_rttEntryThreshold},
    {"rtt_exit_threshold", &Parameters::m_rttExitThreshold},
};

struct TextKey {
    const char* key;
    vekt::SharedValue<std::string> Parameters::*member;
};

constexpr TextKey kTextKeys[] = {
    {"protocols", &Parameters::m_protocols},
    {"ports", &Parameters::m_ports},
    {"rtt_server", &Parameters::m_rttServer},
    {"gaming_white_list", &Parameters::m_gamingWhiteList},
};

constexpr const char* kInterfaceKeys[Parameters::kMaxInterfaces] = {
    "interface_0", "interface_1", "interface_2", "interface_3"};

vekt::SingletonSlot<Parameters>& slot() {
    static vekt::SingletonSlot<Parameters> instance(vekt::LockLevel::kParametersSingleton,
                                                    "Parameters singleton");
    return instance;
}

// Whether value, converted as every setting is, lies in the working range of key (keys
// without a range always do). A refusal is logged and the setting keeps its value.
bool inRange(const char* key, const char* value, const std::atomic<int32_t>& current) {
    const vekt::SettingRange* range = vekt::findSettingRange(key);
    if (range == nullptr) return true;
    // Converted wide first: a value beyond 32 bits must not wrap into the range.
    const long long wide = strtoll(value, nullptr, 10);
    if (wide >= range->min && wide <= range->max) return true;
    ALOGE("%s refused %s=%s: outside %d to %d, keeping %d", "setValue", key,
          vekt::printableText(value).c_str(), range->min, range->max, current.load());
    return false;
}

int32_t readEnableProperty() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(Parameters::kEnableProperty, value, "0");
    return atoi(value);
}

}  // namespace

Parameters* Parameters::instance() {
    return slot().getOrCreate([] {
        auto* params = new Parameters();
        params->populateSlaUidWhitelist();
        return params;
    });
}

void Parameters::destroyInstanceForTest() { delete slot().take(); }

Parameters::Parameters() {
    init();
    m_constructorValue = 48;
    readVektConfFile(vekt::DeviceRoot::map(kConfFile).c_str());
    initValidInterfaceMark();
}

Parameters::~Parameters() {
    // Only tests destroy the singleton; the daemon keeps it for the life of the process.
    vekt::MutexLock lock(interfaceMutex);
    for (auto& entry : m_interfaceInfoMap) free(entry.second);
    for (interfaceMark* slot : m_markPool) delete slot;
}

void Parameters::init() {
    for (auto& slot : m_settings) slot = 0;
    m_settings[SLA_ENABLED] = readEnableProperty();
    m_settings[WIFI_THRESHOLD] = 1600;
    m_settings[WAN_THRESHOLD] = 500;
    m_settings[MINI_EST_INTERVAL] = 1000;
    m_settings[MINI_STALE_INTERVAL] = 1500;
    m_settings[IDEAL_EST_WINDOW] = 500;
    m_settings[MINI_RATE_WINDOW] = 50;
    m_settings[CELLULAR_SOCK_ASSIGN_RATE] = 50;
    m_settings[SOCK_ACTIVE_TIME] = 2000;
    m_settings[UPDATE_PM_FREQ] = 500;
    m_settings[14] = 1;

    m_protocols.set("http,https");
    m_ports.set("80,443");
    m_estimatePackNum = 5;
    m_minRatioChange = 2;
    m_bestEstCacheSize = 0;
    m_minLinkSharePercent = 0;
    m_creditBestRate = 0;
    m_initWwanPercentage = 0;
    m_rttServer.set(VEKT_DEFAULT_RTT_SERVER);
    m_rttServerPort = 443;
    m_minGamePingTimes = 2;
    maxPingMiss = 5;
    m_pingIntervalMs = 1000;
    m_alphaPercent = 50;
    m_nHyst = 1;
    m_rttMinCapMs = 10;
    m_gamingPollFreqCnt = 5;
    m_numInterfaces = 0;
    m_rttEntryThreshold = 70;
    m_rttExitThreshold = 120;
    m_ratioPercent = 85;
    m_dominantPercent = 90;
    m_rateByteCap = 102400;
    m_interfaceMode.set("1");
    m_doubleWifiSelectStatus = 0;
}

void Parameters::readVektConfFile(const char* path) {
    // "e": close-on-exec, like every descriptor of the daemon.
    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        ALOGE("read vekt conf file failed!");
        return;
    }
    std::string text;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof(buffer), file)) > 0;) text.append(buffer, n);
    fclose(file);
    fromVector(settingLines(text.data(), text.size()));
}

std::vector<std::string> Parameters::settingLines(const char* text, size_t length) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < length) {
        const void* newline = memchr(text + start, '\n', length - start);
        size_t end = newline != nullptr ? static_cast<size_t>(static_cast<const char*>(newline) - text)
                                        : length;
        std::string line(text + start, end - start);
        start = end + 1;
        trim(line);
        if (line.empty() || line[0] == '#') continue;
        lines.push_back(line);
    }
    return lines;
}

void Parameters::fromVector(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        if (line.empty()) continue;
        size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        std::string key = line.substr(0, equals);
        std::string value = line.substr(equals + 1);
        trim(key);
        trim(value);
        setValue(key.c_str(), value.c_str());
    }
}

std::string& Parameters::trim(std::string& s) {
    // The character before "#" goes with the comment: settings files put a blank there, so
    // "key = 5 # note" keeps "5" while "key=5#note" loses the digit. A "#" in the first
    // place stays; the reader drops such lines as comments.
    size_t hash = s.find('#');
    if (hash != std::string::npos && hash >= 1) s.erase(hash - 1);
    size_t first = s.find_first_not_of(" \t");
    s.erase(0, first == std::string::npos ? s.size() : first);
    size_t last = s.find_last_not_of(" \t");
    s.erase(last == std::string::npos ? 0 : last + 1);
    return s;
}

int Parameters::setValue(const char* key, const char* value) {
    for (int slot = 0; slot <= UPDATE_PM_FREQ; ++slot) {
        if (strcmp(key, kSlotKeys[slot]) == 0) {
            if (inRange(key, value, m_settings[slot])) m_settings[slot] = atoi(value);
            return 1;
        }
    }
    for (const IntKey& entry : kIntKeys) {
        if (strcmp(key, entry.key) == 0) {
            if (inRange(key, value, this->*entry.member)) (this->*entry.member) = atoi(value);
            return 1;
        }
    }
    for (const TextKey& entry : kTextKeys) {
        if (strcmp(key, entry.key) == 0) {
            // The RTT server becomes a probe's destination address.
            if (entry.member == &Parameters::m_rttServer && !vekt::isValidGatewayAddress(value)) {
                vekt::logRefused(LOG_TAG, "setValue", "rtt_server address", value);
                return 1;
            }
            (this->*entry.member).set(value);
            return 1;
        }
    }
    for (int i = 0; i < kMaxInterfaces; ++i) {
        if (strcmp(key, kInterfaceKeys[i]) == 0) {
            vekt::MutexLock lock(interfaceMutex);
            m_ifaceParams[i] = value;
            return 1;
        }
    }
    return 0;
}

int32_t Parameters::get(OperId id) const {
    // Out-of-range ids, negative ones included, read as all-ones rather than past the array.
    if (id < 0 || id > OPER_ID_LAST) return static_cast<int32_t>(0xFFFFFFFF);
    return m_settings[id].load(std::memory_order_relaxed);
}

std::vector<Parameters::KeyedSetting> Parameters::keyedSettings() const {
    std::vector<KeyedSetting> settings;
    for (size_t slot = 0; slot < std::size(kSlotKeys); ++slot)
        settings.push_back({kSlotKeys[slot], false, get(static_cast<OperId>(slot)), {}});
    for (const IntKey& entry : kIntKeys)
        settings.push_back({entry.key, false, (this->*entry.member).load(), {}});
    for (const TextKey& entry : kTextKeys)
        settings.push_back({entry.key, true, 0, (this->*entry.member).get()});
    return settings;
}

int32_t Parameters::getSLAVendorProp() {
    int32_t value = readEnableProperty();
    m_settings[SLA_ENABLED] = value;
    return value;
}

char* Parameters::getStatsProtocols(char* buf, size_t size) const {
    snprintf(buf, size, "%s=%s", "protocols", m_protocols.snapshot()->c_str());
    return buf;
}

char* Parameters::getStatsPorts(char* buf, size_t size) const {
    snprintf(buf, size, "%s=%s", "ports", m_ports.snapshot()->c_str());
    return buf;
}

size_t Parameters::statsLineCapacity() const {
    // The longer of the two lines: its key, "=", the list and the NUL.
    return std::max(m_protocols.snapshot()->size(), m_ports.snapshot()->size()) + 32;
}

void Parameters::setDoubleWifiSelectStatus(int value) {
    if (m_doubleWifiSelectStatus.load() != value) m_doubleWifiSelectStatus.store(value);
}

void Parameters::setGamingRttServer(const char* server) {
    if (server != nullptr) m_rttServer.set(server);
}

void Parameters::setRttServerAndPort(const char* server, int32_t port) {
    vekt::MutexLock lock(rttServerMutex);
    setGamingRttServer(server);
    m_rttServerPort = port;
}

RttServerTarget Parameters::rttServerAndPort() const {
    vekt::MutexLock lock(rttServerMutex);
    return RttServerTarget{m_rttServer.get(), m_rttServerPort.load()};
}
