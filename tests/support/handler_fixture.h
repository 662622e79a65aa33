// Base fixture for tests that drive the command handlers: Parameters stored for the
// handlers, the rule manager built, every command recorded instead of run, no socket of the
// machine destroyed, and the singletons the handlers create torn down after each test.
#pragma once

#include <string.h>

#include <algorithm>
#include <string>

#include "aggregation/sla_stats_impl.h"
#include "control/command_handlers.h"
#include "control/control_socket.h"
#include "monitors/double_wifi_monitor.h"
#include "monitors/rssi_state_monitor.h"
#include "monitors/sla_tcp_socket_monitor.h"
#include "selection/smart_link_selection.h"
#include "steering/iptables_manager.h"
#include "support/no_socket_destruction.h"
#include "support/parameters_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {

class HandlerTest : public ParametersTest {
protected:
    void SetUp() override {
        resetHandlerStateForTest();
        gParams = params();
        IptablesManager::instance();
        runner_.clear();
    }

    void TearDown() override {
        gParams = nullptr;
        // The monitors go before selection: the RSSI monitor writes into its trackers.
        DoubleWifiMonitor::finalize();
        RssiStateMonitor::finalize();
        SlaTcpSocketMonitor::finalize();
        SmartLinkSelection::finalize();
        IptablesManager::clean_SLM_iptables();
        SlaStatsImpl::finalize();
        resetHandlerStateForTest();
    }

    // Hands one record to the handlers, as the socket thread does. A text of 1024 bytes or
    // more fills the whole field, unterminated, as a client may send it.
    void send(int32_t id, const std::string& text) {
        msg_t msg = {id, static_cast<int32_t>(text.size()), {}};
        memcpy(msg.message, text.data(), std::min(text.size(), sizeof(msg.message)));
        handleMessage(msg);
    }

    ScopedRecordingRunner runner_;
    ScopedNoSocketDestruction noSocketDestruction_;
};

}  // namespace vekt::test
