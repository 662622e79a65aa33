#include "control/command_handlers.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <tuple>

#include "aggregation/sla_stats_impl.h"
#include "control/control_socket.h"
#include "steering/iptables_manager.h"
#include "support/handler_fixture.h"

namespace vekt::test {
namespace {

using Strings = std::vector<std::string>;

const std::string kIptables = "/system/bin/iptables-wrapper-1.0 -w -t mangle ";
const std::string kFlush = kIptables + "-F tarn_SLM_wapper";

class CommandHandlersTest : public HandlerTest {
protected:
    // The interfaces logged as removed or added since the last call, in order.
    Strings diffed() {
        Strings lines;
        for (const std::string& text : log_.texts())
            if (text.find("Interfaces is ") != std::string::npos) lines.push_back(text);
        log_.clear();
        return lines;
    }

};

TEST_F(CommandHandlersTest, InterfaceListsAreDiffedWithRemovalsFirst) {
    for (const char* name : {"wlan0", "rmnet_data0", "rmnet_data1"}) root_.publishStatsFile(name);
    send(MSG_UPDATE_INTERFACES, "wlan0");
    send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0");
    EXPECT_EQ(diffed(), (Strings{"add Interfaces is wlan0", "add Interfaces is rmnet_data0"}));
    send(MSG_BSSID, "aa:bb:cc:dd:ee:ff,");
    EXPECT_STREQ(params()->m_interfaceInfoMap["wlan0"]->bssid, "aabbccddeeff");

    // A replaced interface frees its mark before the new one takes it.
    send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data1");
    EXPECT_EQ(diffed(),
              (Strings{"remove Interfaces is rmnet_data0", "add Interfaces is rmnet_data1"}));
    ASSERT_NE(params()->m_interfaceInfoMap["rmnet_data1"], nullptr);
    EXPECT_STREQ(params()->m_interfaceInfoMap["rmnet_data1"]->fwmark, "0x400000");

    // The empty list removes everything, in the previous order, and adds nothing.
    send(MSG_UPDATE_INTERFACES, "");
    EXPECT_EQ(diffed(),
              (Strings{"remove Interfaces is wlan0", "remove Interfaces is rmnet_data1"}));
    EXPECT_TRUE(params()->m_interfaceInfoMap.empty());
    EXPECT_TRUE(SlaStatsImpl::instance()->m_slaInterfaceMap.empty());
}

TEST_F(CommandHandlersTest, ADroppedInterfaceTakesItsRulesAlongAndTheKeptOneIsLeftAlone) {
    for (const char* name : {"wlan0", "rmnet_data0"}) root_.publishStatsFile(name);
    send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0");
    runner_.clear();
    send(MSG_UPDATE_INTERFACES, "wlan0");
    // The ratio chain is emptied, as it may jump into the chains that go.
    const std::string chain = "tarn_fw_rmnet_data0";
    const std::string rule = "/system/bin/ip-wrapper-1.0 -4 rule ";
    const std::string nat = "/system/bin/iptables-wrapper-1.0 -w -t nat ";
    EXPECT_EQ(
        runner_.commands(),
        (Strings{kIptables + "-F tarn_SLA", kIptables + "-F " + chain + "_wrapper",
                 kIptables + "-X " + chain + "_wrapper", kIptables + "-F " + chain,
                 kIptables + "-X " + chain, rule + "del fwmark 0x400000/0x0CE00000 prio 14999",
                 nat + "-D tarn_nat_POSTROUTING_SLM -o rmnet_data0 -j MASQUERADE"}));
}

TEST_F(CommandHandlersTest, ListsAreRebuiltOnlyOnANewTextAndNullEmptiesAWhitelist) {
    const std::string uidRule =
        kIptables + "-A tarn_SLM_wapper -m owner --uid-owner 10123 -j tarn_SLM";
    const std::tuple<int32_t, SharedValue<Strings> Parameters::*, std::string, std::string> cases[] = {
        {MSG_SLA_UID_WHITELIST, &Parameters::m_slaUidList, "10123", uidRule},
        {MSG_DW_UID_WHITELIST, &Parameters::m_dwUidList, "10123", uidRule},
        {MSG_DD_UID_WHITELIST, &Parameters::m_ddUidList, "10123", uidRule},
        {MSG_WIFI_GATEWAY, &Parameters::m_wifiGatewayList, "192.168.1.1",
         kIptables + "-A tarn_SLM_wapper -d 192.168.1.1 -j RETURN"}};
    for (const auto& [id, list, text, rule] : cases) {
        SCOPED_TRACE(id);
        runner_.clear();
        send(id, text);
        EXPECT_EQ((params()->*list).get(), Strings{text});
        EXPECT_EQ(runner_.commands(), (Strings{kFlush, rule}));
        runner_.clear();
        send(id, text);
        EXPECT_TRUE(runner_.commands().empty());
        if (id == MSG_WIFI_GATEWAY) break;  // "NULL" is a whitelist's word
        send(id, "NULL");
        EXPECT_TRUE((params()->*list).get().empty());
        EXPECT_EQ(runner_.commands(), Strings{kFlush});
    }
}

TEST_F(CommandHandlersTest, WithoutParametersTextsAreRememberedButNothingActs) {
    gParams = nullptr;
    send(MSG_SLA_UID_WHITELIST, "10123");
    send(MSG_WIFI_GATEWAY, "192.168.1.1");
    send(MSG_UPDATE_INTERFACES, "wlan0");
    send(MSG_INTERFACE_MODE, "0");
    EXPECT_TRUE(runner_.commands().empty());
    EXPECT_TRUE(params()->m_interfaceInfoMap.empty());
    EXPECT_EQ(params()->m_interfaceMode.get(), "1");
    EXPECT_EQ(gPreInterfaceList, Strings{"wlan0"});
    // The same texts once Parameters is there are taken as already accepted.
    gParams = params();
    send(MSG_SLA_UID_WHITELIST, "10123");
    send(MSG_WIFI_GATEWAY, "192.168.1.1");
    EXPECT_TRUE(params()->m_slaUidList.get().empty());
    EXPECT_TRUE(params()->m_wifiGatewayList.get().empty());
}

TEST_F(CommandHandlersTest, ServiceRttIsComparedUnsignedAgainstTheExitThreshold) {
    // " 130ms": what a standard conversion accepts, is accepted.
    const std::pair<const char*, bool> cases[] = {
        {"120", false}, {"121", true}, {"-1", true}, {" 130ms", true}};
    for (const auto& [rtt, high] : cases) {
        params()->setServiceHighRtt(false);
        send(MSG_SERVICE_RTT, rtt);
        EXPECT_EQ(params()->isServiceHighRtt(), high) << rtt;
    }
}

TEST_F(CommandHandlersTest, GamingModesGuardEachOther) {
    send(MSG_START_SLS, "10123,10234");
    EXPECT_EQ(params()->m_gamingUidList.get(), (Strings{"10123", "10234"}));
    EXPECT_EQ(params()->m_rttServerPort, 443);
    send(MSG_GAME_AI_CHECK_RTT, "1");  // AI-mode checks need AI mode
    send(MSG_GAME_AI_MODE, "10999");   // and AI mode needs gaming off
    EXPECT_FALSE(params()->isGamingAiModeCheckRtt());
    EXPECT_EQ(params()->isGamingRunning(), 1);
    send(MSG_STOP_SLS, "");
    send(MSG_GAME_AI_MODE, "10999");
    EXPECT_EQ(params()->isGamingRunning(), 2);
    EXPECT_EQ(params()->maxPingMiss, 2);
    send(MSG_GAME_AI_CHECK_RTT, "1");
    send(MSG_GAME_AI_FAST_CHOOSE, "1");  // shares the flag: already on, nothing happens
    EXPECT_TRUE(params()->isGamingAiModeCheckRtt());
    EXPECT_FALSE(log_.contains("setGameAiModeFastChoose enable"));
    send(MSG_GAME_AI_FAST_CHOOSE, "0");
    EXPECT_FALSE(params()->isGamingAiModeCheckRtt());
    send(MSG_GAME_AI_MODE, "0");
    EXPECT_EQ(params()->isGamingRunning(), 0);
    EXPECT_EQ(params()->maxPingMiss, 5);
}

TEST_F(CommandHandlersTest, VoipModeFollowsItsFirstUid) {
    send(MSG_VOIP, "0,10123");  // a first UID of 0 is "off": nothing to switch off
    EXPECT_FALSE(params()->isVoipRunning());
    send(MSG_VOIP, "10123");
    send(MSG_VOIP, "10124");  // already on
    EXPECT_TRUE(params()->isVoipRunning());
    EXPECT_EQ(params()->m_gamingUidList.get(), Strings{"10123"});
    params()->setServiceHighRtt(true);
    send(MSG_VOIP, "0");
    EXPECT_FALSE(params()->isVoipRunning());
    EXPECT_FALSE(params()->isServiceHighRtt());
}

TEST_F(CommandHandlersTest, UnknownIdsAndUnterminatedTexts) {
    for (int32_t id : {0, 16, 99, -1}) send(id, "x");
    EXPECT_EQ(log_.count("unknow mesage!!!"), 4u);
    // A text filling all 1024 bytes is cut inside the record, not read past it.
    send(MSG_INTERFACE_MODE, std::string(kMsgTextSize, 'a'));
    EXPECT_EQ(params()->m_interfaceMode.get(), std::string(kMsgTextSize - 1, 'a'));
}

using CommandHandlersDeathTest = CommandHandlersTest;

TEST_F(CommandHandlersDeathTest, OverlongOrNonNumericTextsEndTheDaemonWithALogLine) {
    EXPECT_DEATH((host::setStderrEcho(true), send(MSG_WIFI_GATEWAY, std::string(64, '1'))),
                 "setWifiGateway argument of 64 characters exceeds the limit of 63, aborting");
    EXPECT_DEATH((host::setStderrEcho(true), setUidWhitelist(std::string(2048, '1').c_str())),
                 "setUidWhitelist argument of 2048 characters exceeds the limit of 2047, aborting");
    for (std::string rtt : {"fast", "99999999999"})
        EXPECT_DEATH((host::setStderrEcho(true), send(MSG_SERVICE_RTT, rtt)),
                     "updateSlsInterfacesRtt cannot convert \"" + rtt + "\" to a number, aborting");
}

}  // namespace
}  // namespace vekt::test
