// Fuzzes the control protocol: each input is one 1032-byte record (zero-padded or cut),
// handed to handleMessage as the socket thread would hand it over. State carries over from
// input to input, as it does between the records of one client, and is reset now and then.
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <string>

#include "aggregation/stats_file.h"
#include "base/clock.h"
#include "base/device_root.h"
#include "config/parameters.h"
#include "control/command_handlers.h"
#include "control/control_socket.h"
#include "control/msg.h"
#include "monitors/double_wifi_monitor.h"
#include "monitors/rssi_state_monitor.h"
#include "monitors/sla_tcp_socket_monitor.h"
#include "selection/smart_link_selection.h"
#include "steering/iptables_manager.h"
#include "support/netns.h"
#include "support/no_sleep.h"
#include "support/no_socket_destruction.h"
#include "support/recording_runner.h"
#include "support/temp_root.h"
#include "vekt_host/log_capture.h"

namespace {

namespace fs = std::filesystem;

// Interfaces whose statistics files exist, so the usual names reach a mapped ring.
constexpr const char* kPublished[] = {"wlan0", "wlan1", "rmnet_data0", "rmnet_data1"};
// Inputs between two resets of the handler state and of the statistics folder.
constexpr size_t kResetPeriod = 1000;

// Everything the handlers touch, set up once for the fuzzing process: a private device
// root and network namespace, recorded commands (no process is started), no sleeping and
// log lines kept in memory instead of on standard error.
struct Harness {
    Harness() {
        vekt::host::setStderrEcho(false);
        isolateNetwork();
        publishStatsFiles();
        gParams = Parameters::instance();
        IptablesManager::instance();
    }

    // Handlers that switch links destroy the sockets of a UID, and a text that is no number
    // means UID 0: whatever the handlers grow into, they run in a network namespace of
    // their own wherever one can be made.
    static void isolateNetwork() {
        if (!vekt::test::enterPrivateNetNamespace()) {
            fprintf(stderr, "control_record: no private network namespace (%s); the host's "
                    "is used\n", strerror(errno));
        }
    }

    void publishStatsFiles() const {
        for (const char* name : kPublished) root.publishStatsFile(name);
    }

    // Statistics files are opened with the create flag, so every fuzzed name leaves an empty
    // file behind: drop those and start over from a fresh handler state.
    void reset() {
        updateInterfaces("");
        // Probe threads and trackers the gaming handlers started go with the selection, and
        // the monitors' threads with the monitors.
        RssiStateMonitor::finalize();
        DoubleWifiMonitor::finalize();
        SlaTcpSocketMonitor::finalize();
        SmartLinkSelection::finalize();
        resetHandlerStateForTest();
        std::error_code ignored;
        fs::remove_all(root.path("/proc/sla"), ignored);
        fs::create_directories(root.path("/proc/sla"), ignored);
        publishStatsFiles();
    }

    vekt::test::TempRoot root;
    vekt::ScopedDeviceRoot scopedRoot{root.dir()};
    vekt::host::LogCapture log;
    vekt::test::RecordingRunner runner;
    vekt::ScopedCommandRunner scopedRunner{runner};
    vekt::test::ScopedNoSleep noSleep;
    // Belt and braces to the namespace: no netlink socket, so no socket is ever destroyed.
    vekt::test::ScopedNoSocketDestruction noSocketDestruction;
    size_t inputs = 0;
};

Harness& harness() {
    static Harness instance;
    return instance;
}

// Whether strtol takes the text as an int32, the way the RTT handler requires.
bool convertsToInt32(const char* text) {
    errno = 0;
    char* end = nullptr;
    const long value = strtol(text, &end, 10);
    return end != text && errno != ERANGE && value >= INT_MIN && value <= INT_MAX;
}

// Records on which the daemon ends itself by design: the client broke the protocol's
// limits. Ending there is the daemon's answer, not a bug, so these are not handed over.
bool endsTheDaemon(const msg_t& msg) {
    const size_t length = strlen(msg.message);
    switch (msg.id) {
        case MSG_WIFI_GATEWAY: return length >= kGatewayTextSize;
        case MSG_SERVICE_RTT: return !convertsToInt32(msg.message);
        case MSG_SLA_UID_WHITELIST:
        case MSG_DW_UID_WHITELIST:
        case MSG_DD_UID_WHITELIST:
            // A record's text cannot reach this limit; kept with its siblings should the
            // record ever grow.
            return length >= kWhitelistTextSize;
        default: return false;
    }
}

// A name becomes a path under the device root, opened with the create flag. The daemon
// refuses names with "/", but that check is under test here: a text that could climb out
// of the root ("../") is kept from the file system of the fuzzing host all the same.
bool couldLeaveTheDeviceRoot(const msg_t& msg) {
    return msg.id == MSG_UPDATE_INTERFACES && strstr(msg.message, "../") != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness& h = harness();
    msg_t msg = {};
    std::copy_n(data, std::min(size, sizeof(msg)), reinterpret_cast<uint8_t*>(&msg));
    // The handler terminates its copy the same way; the checks must see the same text.
    msg.message[kMsgTextSize - 1] = '\0';
    if (endsTheDaemon(msg) || couldLeaveTheDeviceRoot(msg)) return 0;

    handleMessage(msg);
    // Both keep every line; the fuzzing process must stay bounded.
    h.runner.clear();
    h.log.clear();
    if (++h.inputs % kResetPeriod == 0) h.reset();
    return 0;
}
