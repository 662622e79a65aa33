// The daemon's entry: singletons in a fixed order, the control socket, the periodic
// evaluation loop until "vendor.sla.enabled" reads 2, the ordered shutdown, and then an
// endless idle so that init does not restart the service.
#define LOG_TAG "SLM-Vekt-daemon"

#include <log/log.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "aggregation/sla_stats_impl.h"
#include "config/parameters.h"
#include "control/control_socket.h"
#include "core/daemon_args.h"
#include "core/device_root.h"
#include "steering/iptables_manager.h"

namespace {

constexpr int32_t kStopValue = 2;

void sleepMs(int32_t ms) {
    if (ms <= 0) return;
    struct timespec delay = {ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&delay, &delay) != 0) {
    }
}

}  // namespace

int main(int argc, char** argv) {
    vekt::DaemonArgs args;
    std::string error;
    if (!vekt::parseDaemonArgs(argc, argv, args, error)) {
        fprintf(stderr, "vekt: %s\n%s", error.c_str(), vekt::kDaemonUsage);
        return 2;
    }
    if (args.help) {
        fputs(vekt::kDaemonUsage, stdout);
        return 0;
    }
    vekt::DeviceRoot::set(args.root);

    ALOGI("Vekt (SLA+SLS) 3.0.4.5 starting daemon");
    Parameters* params = Parameters::instance();
    IptablesManager::instance();
    // The daemon runs on without a control channel if the thread cannot be created.
    createSocketThreads(params);
    SlaStatsImpl* stats = SlaStatsImpl::instance();
    stats->enableSLA(true);
    // pending: link selection is initialised here.

    // The body runs at least once, before the property is first looked at.
    do {
        stats->evalAndSetSLAInterfaceRatio();
        // pending: link selection chooses the best link.
        sleepMs(params->get(MINI_EST_INTERVAL));
    } while (params->getSLAVendorProp() != kStopValue);

    // The socket thread goes first, so no command changes state during the cleanup.
    stopSocketThreads();
    ALOGE("Slm disabled, starting cleanup...\n");
    stats->enableSLA(false);
    // pending: destroy the sockets of every gaming UID, then clean up link selection.
    IptablesManager::clean_SLM_iptables();
    SlaStatsImpl::finalize();
    ALOGI("Vekt exiting");
    for (;;) sleep(600);
}
