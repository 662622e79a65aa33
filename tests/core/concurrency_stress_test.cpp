// The control thread replaces lists, settings and interfaces over and over while other
// threads read them and the main loop evaluates. Meant for the ThreadSanitizer build, where
// any unguarded access shows up as a report; elsewhere it checks that nothing deadlocks.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "aggregation/sla_stats_impl.h"
#include "base/clock.h"
#include "control/command_handlers.h"
#include "control/control_socket.h"
#include "core/main_loop.h"
#include "steering/iptables_manager.h"
#include "selection/smart_link_selection.h"
#include "support/no_socket_destruction.h"
#include "support/parameters_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {
namespace {

struct NoSleep : Sleeper {
    void sleepMs(int64_t) override {}
};

msg_t record(int32_t id, const std::string& text) {
    msg_t msg = {id, static_cast<int32_t>(text.size()), {}};
    memcpy(msg.message, text.data(), std::min(text.size(), sizeof(msg.message) - 1));
    return msg;
}

class ConcurrencyStressTest : public ParametersTest {
protected:
    void TearDown() override {
        gParams = nullptr;
        SmartLinkSelection::finalize();
        IptablesManager::clean_SLM_iptables();
        SlaStatsImpl::finalize();
        resetHandlerStateForTest();
    }

    ScopedRecordingRunner runner_;
    ScopedNoSocketDestruction noSocketDestruction_;
    NoSleep noSleep_;
    ScopedSeamOverride<Sleeper> sleepScope_{sleeperSeam(), noSleep_};
};

TEST_F(ConcurrencyStressTest, ControlChangesRaceReadersAndTheMainLoopWithoutHarm) {
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) root_.publishStatsFile(name);
    resetHandlerStateForTest();
    gParams = params();
    IptablesManager::instance();
    SlaStatsImpl* stats = SlaStatsImpl::instance();

    constexpr int kRounds = 1000;  // seven commands a round: thousands of changes
    std::atomic<bool> done{false};
    std::thread control([&] {
        for (int i = 0; i < kRounds; ++i) {
            const std::string uid = std::to_string(10000 + i % 7);
            handleMessage(record(MSG_UPDATE_INTERFACES,
                                 i % 2 ? "wlan0,rmnet_data0" : "wlan0,wlan1,rmnet_data0"));
            handleMessage(record(MSG_SLA_UID_WHITELIST, uid + ",10001"));
            handleMessage(record(MSG_INTERFACE_MODE, i % 3 ? "1" : "0"));
            handleMessage(record(MSG_WIFI_GATEWAY, "192.168.1." + std::to_string(i % 9)));
            handleMessage(record(MSG_BSSID, "aa:bb:cc:dd:ee:0" + std::to_string(i % 10) + ","));
            handleMessage(record(i % 2 ? MSG_START_SLS : MSG_STOP_SLS, uid));
            handleMessage(record(MSG_VOIP, i % 4 ? "0" : uid));
            runner_.clear();
        }
        handleMessage(record(MSG_UPDATE_INTERFACES, ""));
        done = true;
    });
    std::thread reader([&] {
        size_t seen = 0;
        while (!done) {
            Parameters* p = params();
            seen += p->m_slaUidList.snapshot()->size() + p->m_gamingUidList.get().size() +
                    p->m_wifiGatewayList.get().size() + p->m_rttServer.get().size() +
                    p->getGamingUids().size() + p->m_ifaceList.get().size() +
                    p->statsLineCapacity() + static_cast<size_t>(p->get(MINI_EST_INTERVAL));
            MutexLock registry(interfaceMutex);
            for (const auto& entry : p->m_interfaceInfoMap)
                if (entry.second != nullptr) seen += strlen(entry.second->bssid);
        }
        EXPECT_GT(seen, 0u);
    });
    int passes = 0;
    while (!done) {
        EXPECT_TRUE(runMainLoopPass(params(), stats));
        ++passes;
    }
    control.join();
    reader.join();
    EXPECT_GT(passes, 0);
    // Every record is gone; a name looked up while it was being removed may have left a
    // record-less entry, which every reader skips.
    MutexLock registry(interfaceMutex);
    for (const auto& entry : params()->m_interfaceInfoMap) EXPECT_EQ(entry.second, nullptr);
}

}  // namespace
}  // namespace vekt::test
