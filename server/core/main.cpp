// The daemon's entry: singletons in a fixed order, the control socket, the periodic
// evaluation loop until "vendor.sla.enabled" reads 2, the ordered shutdown, and then an
// endless idle so that init does not restart the service.
#define LOG_TAG "SLM-Vekt-daemon"

#include <log/log.h>
#include <stdio.h>
#include <unistd.h>

#include "aggregation/sla_stats_impl.h"
#include "config/parameters.h"
#include "control/control_socket.h"
#include "base/clock.h"
#include "base/device_root.h"
#include "core/daemon_args.h"
#include "core/main_loop.h"
#include "selection/smart_link_selection.h"
#include "status/status_counters.h"
#include "status/status_socket.h"
#include "steering/iptables_manager.h"

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

    vekt::statusCounters().startedAtNs = vekt::monotonicNs();
    ALOGI("Vekt (SLA+SLS) %s starting daemon", vekt::kVektVersion);
    Parameters* params = Parameters::instance();
    IptablesManager::instance();
    // The daemon runs on without a control channel if the thread cannot be created.
    createSocketThreads(params);
    // Read-only; the daemon runs on without it too.
    vekt::startStatusSocket();
    SlaStatsImpl* stats = SlaStatsImpl::instance();
    stats->enableSLA(true);
    SmartLinkSelection::Init();
    SmartLinkSelection::instance();

    // The body runs at least once, before the property is first looked at.
    while (vekt::runMainLoopPass(params, stats)) {
    }
    vekt::shutdownDaemon(stats);
    for (;;) sleep(600);
}
