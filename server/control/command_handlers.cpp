// The control commands. All run on the socket thread and take no lock of their own: the
// registry operations of Parameters take interfaceMutex, the rule and statistics operations
// take theirs, and settings and lists are replaced as whole snapshots (see
// base/shared_value.h), so the main loop and the workers read them safely meanwhile.
//
// The monitors are created and finalised here: the dual Wi-Fi monitor by its own command,
// the RSSI monitor together with gaming, gaming AI mode and VoIP. Finalising a monitor
// waits for a round in progress (and, for the RSSI monitor, for the gaming sockets to be
// destroyed) but never for the sleep between rounds, which the stop cuts short.
#define LOG_TAG "SLM-Vekt-VektSocket-Server"

#include "control/command_handlers.h"

#include <errno.h>
#include <log/log.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <climits>

#include "aggregation/sla_stats_impl.h"
#include "config/parameters.h"
#include "base/text.h"
#include "config/input_validation.h"
#include "control/control_socket.h"
#include "monitors/double_wifi_monitor.h"
#include "monitors/rssi_state_monitor.h"
#include "monitors/sla_tcp_socket_monitor.h"
#include "selection/smart_link_selection.h"
#include "steering/iptables_manager.h"

std::vector<std::string> gCurInterfaceList;
std::vector<std::string> gPreInterfaceList;

namespace {

// Last accepted arguments. Their sizes are the client's limits: a longer argument is a
// client fault that ends the daemon (see copyAcceptedText).
char gWifiGateway[kGatewayTextSize];
char gSlaUidWhitelist[kWhitelistTextSize];
char gDWUidWhitelist[kWhitelistTextSize];
char gDDUidWhitelist[kWhitelistTextSize];

constexpr int kProbePort = 443;

// Stores an accepted argument. A text that does not fit means the client broke the
// protocol's limits; the daemon ends here, loudly, rather than truncate state it would
// then compare against.
void copyAcceptedText(char* dest, size_t size, const char* text, const char* handler) {
    size_t length = strlen(text);
    if (length >= size) {
        ALOGE("%s argument of %zu characters exceeds the limit of %zu, aborting", handler,
              length, size - 1);
        abort();
    }
    memcpy(dest, text, length + 1);
}

// Points the RTT probes at the built-in server on the probe port.
void setRttTarget(Parameters* params) {
    params->setRttServerAndPort(VEKT_DEFAULT_RTT_SERVER, kProbePort);
}

// What gaming, VoIP and gaming AI mode do first: the probes aim at the built-in server,
// the client's UIDs become the gaming list, and the link counts as connected.
void adoptGamingUids(Parameters* params, const char* uids) {
    setRttTarget(params);
    params->setGamingUids(uids);
    params->populateGamingUids();
    params->setGamingConnectStatus(true);
}

// Probe threads for every registered interface, idle until all exist, then measuring.
// fastChoose first rates cellular above Wi-Fi, so that a choice is made before the first
// Wi-Fi measurement.
void startProbing(bool fastChoose = false) {
    SmartLinkSelection* selection = SmartLinkSelection::instance();
    selection->initPingThreads();
    if (fastChoose) selection->setNetworkLevel();
    selection->threadStop();
    selection->createRttThreads();
    selection->threadResume();
}

// Every probe thread joined and every tracker released.
void stopProbing() {
    SmartLinkSelection* selection = SmartLinkSelection::instance();
    selection->threadStop();
    selection->threadDestory();
    selection->destoryPingThreads();
}

// The gaming UIDs enter the steering tree, and each interface gets their selection chains.
void steerGamingUids() {
    IptablesManager* iptables = IptablesManager::instance();
    iptables->setup_slm_whitelist();
    iptables->setup_SLS_iptables_UID_chains();
}

// The whitelist commands share one shape; they differ in the stored copy and in which
// Parameters list they rebuild.
struct WhitelistVariant {
    char* accepted;
    void (Parameters::*set)(const char*);
    void (Parameters::*populate)();
    int (IptablesManager::*setupRules)();
};

void applyWhitelist(const WhitelistVariant& variant, const char* text, const char* handler) {
    if (strcmp(text, variant.accepted) == 0) return;
    copyAcceptedText(variant.accepted, kWhitelistTextSize, text, handler);
    IptablesManager* iptables = IptablesManager::instance();
    Parameters* params = gParams;
    if (iptables == nullptr || params == nullptr) return;
    (params->*variant.set)(strcmp(text, "NULL") == 0 ? "" : text);
    (params->*variant.populate)();
    iptables->setup_slm_whitelist();
    (iptables->*variant.setupRules)();
}

bool contains(const std::vector<std::string>& list, const std::string& name) {
    for (const std::string& entry : list) {
        if (entry == name) return true;
    }
    return false;
}

// Base-10 conversion that accepts what a standard integer conversion accepts (leading
// blanks, a sign, digits, anything after them ignored) and ends the daemon on the rest:
// the client must send a number, and a daemon that guessed would steer on a wrong RTT.
int32_t parseRttOrDie(const char* text) {
    errno = 0;
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (end == text || errno == ERANGE || value < INT_MIN || value > INT_MAX) {
        ALOGE("%s cannot convert \"%s\" to a number, aborting", "updateSlsInterfacesRtt", text);
        abort();
    }
    return static_cast<int32_t>(value);
}

std::vector<std::string> validInterfaceNames(const char* text) {
    std::vector<std::string> names;
    for (std::string& name : vekt::splitList(text)) {
        if (vekt::isValidInterfaceName(name)) {
            names.push_back(std::move(name));
        } else {
            vekt::logRefused(LOG_TAG, "updateInterfaces", "interface name", name);
        }
    }
    return names;
}

std::string joinList(const std::vector<std::string>& pieces) {
    std::string joined;
    for (const std::string& piece : pieces) joined += (joined.empty() ? "" : ",") + piece;
    return joined;
}

// The UIDs of a text as the kernel module's "voip_uid=" line carries them: only pieces
// that are UIDs reach the module.
std::string validUidText(const char* text, const char* handler) {
    std::vector<std::string> uids;
    for (const std::string& piece : vekt::splitList(text)) {
        if (vekt::isValidUid(piece)) {
            uids.push_back(piece);
        } else {
            vekt::logRefused(LOG_TAG, handler, "UID", piece);
        }
    }
    return joinList(uids);
}

}  // namespace

void resetHandlerStateForTest() {
    gCurInterfaceList.clear();
    gPreInterfaceList.clear();
    gWifiGateway[0] = '\0';
    gSlaUidWhitelist[0] = '\0';
    gDWUidWhitelist[0] = '\0';
    gDDUidWhitelist[0] = '\0';
}

void handleMessage(msg_t msg) {
    // The record is a copy; whatever the client sent, its text ends inside it.
    msg.message[kMsgTextSize - 1] = '\0';
    const char* text = msg.message;
    Parameters* params = gParams;

    switch (msg.id) {
        case MSG_UPDATE_INTERFACES: updateInterfaces(text); break;
        case MSG_SLA_UID_WHITELIST: setUidWhitelist(text); break;
        case MSG_INTERFACE_MODE:
            if (params != nullptr) params->UpdateInterfaceMode(text);
            break;
        case MSG_WIFI_GATEWAY: setWifiGateway(text); break;
        case MSG_DW_UID_WHITELIST: setDWUidWhitelist(text); break;
        case MSG_DW_MONITOR: setDoubleWifiMonitor(text); break;
        case MSG_DD_UID_WHITELIST: setDDUidWhitelist(text); break;
        case MSG_BSSID:
            if (params != nullptr) params->UpdateInterfaceBssid(text);
            break;
        case MSG_START_SLS: StartSlsServer(text); break;
        case MSG_STOP_SLS: StopSlsServer(); break;
        case MSG_VOIP: setVoipStatus(text); break;
        case MSG_SERVICE_RTT: updateSlsInterfacesRtt(text); break;
        case MSG_GAME_AI_MODE: setGameAiModeEnable(text); break;
        case MSG_GAME_AI_CHECK_RTT: setGameAiModeCheckRtt(text); break;
        case MSG_GAME_AI_FAST_CHOOSE: setGameAiModeFastChoose(text); break;
        default: ALOGE("unknow mesage!!!"); break;
    }
}

void updateInterfaces(const char* text) {
    gCurInterfaceList.clear();
    if (text == nullptr) return;
    // A name the kernel would not take is refused here, before it can become a tool argument
    // or a path; the list goes on without it, now and as the previous list.
    const std::vector<std::string> names = validInterfaceNames(text);
    gCurInterfaceList = names;

    for (const std::string& name : gPreInterfaceList) {
        if (contains(gCurInterfaceList, name)) continue;
        ALOGI("remove Interfaces is %s", name.c_str());
        removeInterfaces(name.c_str());
    }
    for (const std::string& name : gCurInterfaceList) {
        if (contains(gPreInterfaceList, name)) continue;
        ALOGI("add Interfaces is %s", name.c_str());
        addInterfaces(name.c_str());
    }

    gPreInterfaceList.clear();
    for (const std::string& name : names) {
        gPreInterfaceList.push_back(name);
        ALOGI("preinterfacelist is %s", name.c_str());
    }
}

int addInterfaces(const char* name) {
    Parameters* params = gParams;
    if (params == nullptr) return -1;
    params->UpdateInterface(name, true);
    SlaStatsImpl::instance()->updateSlaInterfacemap(name, true);
    IptablesManager::instance()->updateInterfaceIptables(name, true);
    if (SmartLinkSelection::isInstance()) {
        SmartLinkSelection::instance()->updateSlsInterfacemap(name, true);
    }
    return 0;
}

int removeInterfaces(const char* name) {
    Parameters* params = gParams;
    if (params == nullptr) return -1;
    // Rules go first, while the record they are built from still exists.
    IptablesManager::instance()->updateInterfaceIptables(name, false);
    params->UpdateInterface(name, false);
    SlaStatsImpl::instance()->updateSlaInterfacemap(name, false);
    if (SmartLinkSelection::isInstance()) {
        SmartLinkSelection::instance()->updateSlsInterfacemap(name, false);
    }
    return 0;
}

void setUidWhitelist(const char* text) {
    applyWhitelist({gSlaUidWhitelist, &Parameters::setuidwhitelist,
                    &Parameters::populateSlaUidWhitelist, &IptablesManager::setup_sla_uid_whitelist},
                   text, "setUidWhitelist");
}

void setDWUidWhitelist(const char* text) {
    applyWhitelist({gDWUidWhitelist, &Parameters::setDWUidWhitelist,
                    &Parameters::populateDWUidWhitelist,
                    &IptablesManager::setup_double_wlan_uid_whitelist},
                   text, "setDWUidWhitelist");
}

void setDDUidWhitelist(const char* text) {
    applyWhitelist({gDDUidWhitelist, &Parameters::setDDUidWhitelist,
                    &Parameters::populateDDUidWhitelist,
                    &IptablesManager::setup_double_data_uid_whitelist},
                   text, "setDDUidWhitelist");
}

void setWifiGateway(const char* text) {
    if (strcmp(text, gWifiGateway) == 0) return;
    copyAcceptedText(gWifiGateway, kGatewayTextSize, text, "setWifiGateway");
    Parameters* params = gParams;
    if (params == nullptr) return;
    IptablesManager* iptables = IptablesManager::instance();
    params->populateWifiGateway(text);
    iptables->setup_slm_whitelist();
}

void setDoubleWifiMonitor(const char* text) {
    Parameters* params = gParams;
    if (params == nullptr) return;
    int on = atoi(text);
    if (on == 0 && params->isDWMonitorStatus()) {
        DoubleWifiMonitor::finalize();
    } else if (on == 1 && !params->isDWMonitorStatus()) {
        DoubleWifiMonitor::instance();
    }
}

void StartSlsServer(const char* text) {
    Parameters* params = gParams;
    if (params == nullptr || params->isGamingRunning() != 0) return;
    adoptGamingUids(params, text);
    steerGamingUids();
    startProbing();
    RssiStateMonitor::instance();
    SlaTcpSocketMonitor::instance()->resumePolling();
    params->setGamingRunning(1);
}

void StopSlsServer() {
    Parameters* params = gParams;
    if (params == nullptr || params->isGamingRunning() == 0) return;
    SlaTcpSocketMonitor::finalize();
    params->setServiceHighRtt(false);
    params->setGamingUids(nullptr);
    stopProbing();
    IptablesManager::instance()->cleanup_SLS_iptables_UID_chains();
    params->setGamingRunning(0);
    RssiStateMonitor::finalize();
}

void setVoipStatus(const char* text) {
    Parameters* params = gParams;
    if (params == nullptr) return;
    // The UID list itself is the switch: a first UID that is a non-zero number means on.
    bool on = atoi(text) != 0;
    if (on && !params->isVoipRunning()) {
        adoptGamingUids(params, text);
        // The gaming list holds the UIDs that passed validation (refusals are logged there).
        SlaStatsImpl::instance()->enableSlaVoipState(
            true, joinList(params->m_gamingUidList.get()).c_str());
        steerGamingUids();
        startProbing();
        RssiStateMonitor::instance();
        params->setVoipRunning(true);
    } else if (!on && params->isVoipRunning()) {
        SlaStatsImpl::instance()->enableSlaVoipState(false,
                                                     validUidText(text, "setVoipStatus").c_str());
        params->setVoipRunning(false);
        params->setServiceHighRtt(false);
        params->setGamingUids(nullptr);
        params->setGamingConnectStatus(false);
        stopProbing();
        IptablesManager::instance()->cleanup_SLS_iptables_UID_chains();
        RssiStateMonitor::finalize();
    }
}

void updateSlsInterfacesRtt(const char* text) {
    Parameters* params = gParams;
    if (params == nullptr) return;
    int32_t rtt = parseRttOrDie(text);
    // Compared unsigned on purpose: a negative report counts as high.
    if (static_cast<uint32_t>(rtt) > static_cast<uint32_t>(params->m_rttExitThreshold.load()) &&
        !params->isServiceHighRtt()) {
        SmartLinkSelection* selection = SmartLinkSelection::instance();
        selection->threadResume();
        selection->createRttThreads();
        params->setServiceHighRtt(true);
    }
    ALOGI("update Sls Interfaces Rtt is %s ", text);
}

void setGameAiModeEnable(const char* text) {
    Parameters* params = gParams;
    if (params == nullptr) return;
    bool on = atoi(text) != 0;
    if (on && params->isGamingRunning() == 0) {
        ALOGI("setGameAiModeEnable enable");
        adoptGamingUids(params, text);
        // AI mode reacts faster: two switches per window, two misses fail a link.
        params->m_nHyst = 2;
        params->maxPingMiss = 2;
        params->setGamingAiModeCheckRtt(false);
        steerGamingUids();
        params->setGamingRunning(2);
        RssiStateMonitor::instance();
        // Probing waits for id 14 or 15; the monitor learns the game's server meanwhile.
        SlaTcpSocketMonitor::instance()->resumePolling();
    } else if (!on && params->isGamingRunning() == 2) {
        ALOGI("setGameAiModeEnable disable");
        SlaTcpSocketMonitor::finalize();
        if (params->isGamingAiModeCheckRtt()) stopProbing();
        params->setGamingAiModeCheckRtt(false);
        params->setGamingUids(nullptr);
        params->m_nHyst = 1;
        params->maxPingMiss = 5;
        params->setGamingRunning(0);
        RssiStateMonitor::finalize();
        IptablesManager::instance()->cleanup_SLS_iptables_UID_chains();
    }
}

namespace {

// Ids 14 and 15 share the AI-mode checking flag, so one of them enabling while the other
// already did changes nothing.
void setAiModeChecking(const char* text, const char* enableLog, const char* disableLog,
                       bool fastChoose) {
    Parameters* params = gParams;
    if (params == nullptr || params->isGamingRunning() != 2) return;
    int value = atoi(text);
    if (value == 1 && !params->isGamingAiModeCheckRtt()) {
        __android_log_write(ANDROID_LOG_INFO, LOG_TAG, enableLog);
        startProbing(fastChoose);
        params->setGamingAiModeCheckRtt(true);
    } else if (value == 0 && params->isGamingAiModeCheckRtt()) {
        __android_log_write(ANDROID_LOG_INFO, LOG_TAG, disableLog);
        stopProbing();
        params->setGamingAiModeCheckRtt(false);
    }
}

}  // namespace

void setGameAiModeCheckRtt(const char* text) {
    setAiModeChecking(text, "setGameAiModeCheckRtt enable", "setGameAiModeCheckRtt disable",
                      false);
}

void setGameAiModeFastChoose(const char* text) {
    setAiModeChecking(text, "setGameAiModeFastChoose enable", "setGameAiModeFastChoose disable",
                      true);
}
