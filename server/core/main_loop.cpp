#define LOG_TAG "SLM-Vekt-daemon"

#include "core/main_loop.h"

#include <log/log.h>

#include "aggregation/sla_stats_impl.h"
#include "base/clock.h"
#include "config/parameters.h"
#include "control/control_socket.h"
#include "monitors/double_wifi_monitor.h"
#include "monitors/rssi_state_monitor.h"
#include "monitors/sla_tcp_socket_monitor.h"
#include "netlink/kill_sockets.h"
#include "selection/smart_link_selection.h"
#include "status/status_counters.h"
#include "status/status_socket.h"
#include "steering/iptables_manager.h"

namespace vekt {
namespace {

constexpr int32_t kStopValue = 2;

}  // namespace

bool runMainLoopPass(Parameters* params, SlaStatsImpl* stats) {
    stats->evalAndSetSLAInterfaceRatio();
    SmartLinkSelection::slsChooseInterface();
    countEvent(statusCounters().mainLoopPasses);
    sleepMs(params->get(MINI_EST_INTERVAL));
    return params->getSLAVendorProp() != kStopValue;
}

void shutdownDaemon(SlaStatsImpl* stats) {
    // The socket threads go first, so no command changes state during the cleanup and no
    // status client reads what the cleanup takes apart.
    stopStatusSocket();
    stopSocketThreads();
    ALOGE("Slm disabled, starting cleanup...\n");
    stats->enableSLA(false);
    // The games reconnect over the default route once the steering rules are gone.
    const auto gamingUids = Parameters::instance()->m_gamingUidList.snapshot();
    for (const std::string& uid : *gamingUids) killSocketsForUID(uid.c_str());
    // Only the control path creates the monitors, and it has stopped: their threads are
    // joined here rather than left running into the exit, the RSSI monitor's before the
    // selection whose trackers it writes.
    RssiStateMonitor::finalize();
    DoubleWifiMonitor::finalize();
    SlaTcpSocketMonitor::finalize();
    SmartLinkSelection::cleanup();
    IptablesManager::clean_SLM_iptables();
    SlaStatsImpl::finalize();
    ALOGI("Vekt exiting");
}

}  // namespace vekt
