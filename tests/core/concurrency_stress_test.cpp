// The control thread replaces lists, settings and interfaces over and over while other
// threads read them and the main loop evaluates. Meant for the ThreadSanitizer build, where
// any unguarded access shows up as a report; elsewhere it checks that nothing deadlocks.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/main_loop.h"
#include "support/handler_fixture.h"
#include "support/no_sleep.h"

namespace vekt::test {
namespace {

class ConcurrencyStressTest : public HandlerTest {
protected:
    ScopedNoSleep noSleep_;
};

TEST_F(ConcurrencyStressTest, ControlChangesRaceReadersAndTheMainLoopWithoutHarm) {
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) root_.publishStatsFile(name);
    SlaStatsImpl* stats = SlaStatsImpl::instance();

    constexpr int kRounds = 1000;  // seven commands a round: thousands of changes
    std::atomic<bool> done{false};
    std::thread control([&] {
        for (int i = 0; i < kRounds; ++i) {
            const std::string uid = std::to_string(10000 + i % 7);
            send(MSG_UPDATE_INTERFACES, i % 2 ? "wlan0,rmnet_data0" : "wlan0,wlan1,rmnet_data0");
            send(MSG_SLA_UID_WHITELIST, uid + ",10001");
            send(MSG_INTERFACE_MODE, i % 3 ? "1" : "0");
            send(MSG_WIFI_GATEWAY, "192.168.1." + std::to_string(i % 9));
            send(MSG_BSSID, "aa:bb:cc:dd:ee:0" + std::to_string(i % 10) + ",");
            send(i % 2 ? MSG_START_SLS : MSG_STOP_SLS, uid);
            send(MSG_VOIP, i % 4 ? "0" : uid);
            runner_.clear();
        }
        send(MSG_UPDATE_INTERFACES, "");
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
