#include "control/command_handlers.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>

#include "aggregation/sla_stats_impl.h"
#include "aggregation/stats_file.h"
#include "control/control_socket.h"
#include "steering/iptables_manager.h"
#include "support/parameters_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {
namespace {

using Strings = std::vector<std::string>;

msg_t record(int32_t id, const std::string& text) {
    msg_t msg = {};
    msg.id = id;
    msg.length = static_cast<int32_t>(text.size());
    memcpy(msg.message, text.data(), std::min(text.size(), sizeof(msg.message)));
    return msg;
}

class CommandHandlersTest : public ParametersTest {
protected:
    void SetUp() override {
        resetHandlerStateForTest();
        gParams = params();
        IptablesManager::instance();
        runner_.clear();
    }

    void TearDown() override {
        gParams = nullptr;
        IptablesManager::clean_SLM_iptables();
        SlaStatsImpl::finalize();
        resetHandlerStateForTest();
    }

    // A statistics file as the kernel module publishes it, so mapping takes no retries.
    void publishStats(const std::string& name) {
        std::string file(kStatsFileSize, '\0');
        uint32_t magic = kStatsMagic;
        memcpy(file.data(), &magic, sizeof(magic));
        root_.writeFile("/proc/sla/" + name + "_mmap", file);
    }

    void send(int32_t id, const std::string& text) { handleMessage(record(id, text)); }

    Strings logged(const std::string& prefix) {
        Strings out;
        for (const std::string& text : log_.texts("SLM-Vekt-VektSocket-Server")) {
            if (text.rfind(prefix, 0) == 0) out.push_back(text.substr(prefix.size()));
        }
        return out;
    }

    bool ran(const std::string& command) {
        Strings commands = runner_.commands();
        return std::find(commands.begin(), commands.end(), command) != commands.end();
    }

    ScopedRecordingRunner runner_;
};

TEST_F(CommandHandlersTest, InterfaceListIsDiffedAgainstThePreviousOne) {
    for (const char* name : {"wlan0", "rmnet_data0"}) publishStats(name);
    send(MSG_UPDATE_INTERFACES, "wlan0");
    send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0");
    EXPECT_EQ(logged("add Interfaces is "), (Strings{"wlan0", "rmnet_data0"}));
    EXPECT_TRUE(logged("remove Interfaces is ").empty());
    EXPECT_EQ(params()->m_interfaceInfoMap.size(), 2u);
    EXPECT_EQ(gPreInterfaceList, (Strings{"wlan0", "rmnet_data0"}));

    // The empty list removes everything, in the previous order, and adds nothing.
    log_.clear();
    send(MSG_UPDATE_INTERFACES, "");
    EXPECT_EQ(logged("remove Interfaces is "), (Strings{"wlan0", "rmnet_data0"}));
    EXPECT_TRUE(logged("add Interfaces is ").empty());
    EXPECT_TRUE(params()->m_interfaceInfoMap.empty());
    EXPECT_TRUE(gPreInterfaceList.empty());
    EXPECT_TRUE(SlaStatsImpl::instance()->m_slaInterfaceMap.empty());
}

TEST_F(CommandHandlersTest, ARemovedInterfaceFreesItsMarkBeforeTheNewOneTakesOne) {
    for (const char* name : {"wlan0", "rmnet_data0", "rmnet_data1"}) publishStats(name);
    send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0");
    runner_.clear();
    send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data1");

    Strings commands = runner_.commands();
    auto position = [&](const std::string& command) {
        return std::find(commands.begin(), commands.end(), command) - commands.begin();
    };
    std::string removal = "/system/bin/ip-wrapper-1.0 -4 rule del fwmark 0x400000/0x0CE00000 prio 14999";
    std::string addition =
        "/system/bin/ip-wrapper-1.0 -4 rule add fwmark 0x400000/0x0CE00000 table rmnet_data1 prio 14999";
    ASSERT_TRUE(ran(removal));
    ASSERT_TRUE(ran(addition));
    EXPECT_LT(position(removal), position(addition));
    ASSERT_NE(params()->m_interfaceInfoMap["rmnet_data1"], nullptr);
    EXPECT_STREQ(params()->m_interfaceInfoMap["rmnet_data1"]->fwmark, "0x400000");
    EXPECT_FALSE(params()->m_interfaceInfoMap["rmnet_data1"]->slave);
}

TEST_F(CommandHandlersTest, WhitelistIgnoresAnUnchangedTextAndEmptiesOnNull) {
    send(MSG_SLA_UID_WHITELIST, "10123,10234");
    EXPECT_EQ(params()->m_slaUidList, (Strings{"10123", "10234"}));
    EXPECT_TRUE(ran("/system/bin/iptables-wrapper-1.0 -w -t mangle -A tarn_SLM_wapper -m owner "
                    "--uid-owner 10234 -j tarn_SLM"));

    runner_.clear();
    send(MSG_SLA_UID_WHITELIST, "10123,10234");
    EXPECT_TRUE(runner_.commands().empty());

    send(MSG_SLA_UID_WHITELIST, "NULL");
    EXPECT_TRUE(params()->m_slaUidList.empty());
    EXPECT_EQ(runner_.commands(),
              (Strings{"/system/bin/iptables-wrapper-1.0 -w -t mangle -F tarn_SLM_wapper"}));

    send(MSG_DW_UID_WHITELIST, "10555");
    send(MSG_DD_UID_WHITELIST, "10666,1234567");
    EXPECT_EQ(params()->m_dwUidList, Strings{"10555"});
    EXPECT_EQ(params()->m_ddUidList, Strings{"10666"});
}

TEST_F(CommandHandlersTest, WithoutParametersTextsAreRememberedButNothingActs) {
    gParams = nullptr;
    send(MSG_SLA_UID_WHITELIST, "10123");
    send(MSG_WIFI_GATEWAY, "192.168.1.1");
    send(MSG_UPDATE_INTERFACES, "wlan0");
    send(MSG_INTERFACE_MODE, "0");
    EXPECT_TRUE(runner_.commands().empty());
    EXPECT_TRUE(params()->m_slaUidList.empty());
    EXPECT_TRUE(params()->m_interfaceInfoMap.empty());
    EXPECT_EQ(params()->m_interfaceMode, "1");
    EXPECT_EQ(gPreInterfaceList, Strings{"wlan0"});

    // The same texts once Parameters is there are taken as already accepted.
    gParams = params();
    send(MSG_SLA_UID_WHITELIST, "10123");
    send(MSG_WIFI_GATEWAY, "192.168.1.1");
    EXPECT_TRUE(params()->m_slaUidList.empty());
    EXPECT_TRUE(params()->m_wifiGatewayList.empty());
}

TEST_F(CommandHandlersTest, GatewayRulesAreRebuiltOnlyWhenTheGatewayChanges) {
    send(MSG_WIFI_GATEWAY, "192.168.1.1");
    EXPECT_EQ(runner_.commands(),
              (Strings{"/system/bin/iptables-wrapper-1.0 -w -t mangle -F tarn_SLM_wapper",
                       "/system/bin/iptables-wrapper-1.0 -w -t mangle -A tarn_SLM_wapper -d "
                       "192.168.1.1 -j RETURN"}));
    runner_.clear();
    send(MSG_WIFI_GATEWAY, "192.168.1.1");
    EXPECT_TRUE(runner_.commands().empty());
}

TEST_F(CommandHandlersTest, ModeAndBssidReachTheRegistry) {
    publishStats("rmnet_data0");
    publishStats("wlan0");
    send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0");
    send(MSG_INTERFACE_MODE, "0");
    EXPECT_FALSE(params()->m_interfaceInfoMap["rmnet_data0"]->metered);
    send(MSG_BSSID, "aa:bb:cc:dd:ee:ff,");
    EXPECT_STREQ(params()->m_interfaceInfoMap["wlan0"]->bssid, "aabbccddeeff");
}

TEST_F(CommandHandlersTest, ServiceRttIsComparedUnsignedAgainstTheExitThreshold) {
    send(MSG_SERVICE_RTT, "120");
    EXPECT_FALSE(params()->isServiceHighRtt());
    EXPECT_TRUE(log_.contains("update Sls Interfaces Rtt is 120 "));
    send(MSG_SERVICE_RTT, "121");
    EXPECT_TRUE(params()->isServiceHighRtt());
    params()->setServiceHighRtt(false);
    send(MSG_SERVICE_RTT, "-1");
    EXPECT_TRUE(params()->isServiceHighRtt());
    send(MSG_SERVICE_RTT, " 130ms");  // what a standard conversion accepts, is accepted
    EXPECT_TRUE(log_.contains("update Sls Interfaces Rtt is  130ms "));
}

TEST_F(CommandHandlersTest, GamingModesGuardEachOther) {
    send(MSG_START_SLS, "10123,10234");
    EXPECT_EQ(params()->isGamingRunning(), 1);
    EXPECT_EQ(params()->m_gamingUidList, (Strings{"10123", "10234"}));
    EXPECT_EQ(params()->m_rttServerPort, 443);

    send(MSG_GAME_AI_CHECK_RTT, "1");  // AI-mode checks need AI mode
    send(MSG_GAME_AI_MODE, "10999");   // and AI mode needs gaming off
    EXPECT_FALSE(params()->isGamingAiModeCheckRtt());
    EXPECT_EQ(params()->isGamingRunning(), 1);

    send(MSG_STOP_SLS, "");
    EXPECT_EQ(params()->isGamingRunning(), 0);
    EXPECT_EQ(params()->getGamingUids(), "10123,10234");  // stop keeps the UID text

    send(MSG_GAME_AI_MODE, "10999");
    EXPECT_EQ(params()->isGamingRunning(), 2);
    EXPECT_EQ(params()->m_nHyst, 2);
    EXPECT_EQ(params()->maxPingMiss, 2);
    send(MSG_GAME_AI_CHECK_RTT, "1");
    send(MSG_GAME_AI_FAST_CHOOSE, "1");  // shares the flag: already on, nothing happens
    EXPECT_TRUE(params()->isGamingAiModeCheckRtt());
    EXPECT_TRUE(log_.contains("setGameAiModeCheckRtt enable"));
    EXPECT_FALSE(log_.contains("setGameAiModeFastChoose enable"));
    send(MSG_GAME_AI_FAST_CHOOSE, "0");
    EXPECT_FALSE(params()->isGamingAiModeCheckRtt());
    EXPECT_TRUE(log_.contains("setGameAiModeFastChoose disable"));

    send(MSG_GAME_AI_MODE, "0");
    EXPECT_TRUE(log_.contains("setGameAiModeEnable disable"));
    EXPECT_EQ(params()->isGamingRunning(), 0);
    EXPECT_EQ(params()->m_nHyst, 1);
    EXPECT_EQ(params()->maxPingMiss, 5);
}

TEST_F(CommandHandlersTest, VoipModeFollowsItsFirstUid) {
    send(MSG_VOIP, "0,10123");  // a first UID of 0 is "off": nothing to switch off
    EXPECT_FALSE(params()->isVoipRunning());
    send(MSG_VOIP, "10123");
    EXPECT_TRUE(params()->isVoipRunning());
    EXPECT_EQ(params()->m_gamingUidList, Strings{"10123"});
    send(MSG_VOIP, "10124");  // already on
    EXPECT_EQ(params()->m_gamingUidList, Strings{"10123"});
    params()->setServiceHighRtt(true);
    send(MSG_VOIP, "0");
    EXPECT_FALSE(params()->isVoipRunning());
    EXPECT_FALSE(params()->isServiceHighRtt());
}

TEST_F(CommandHandlersTest, UnknownIdsAndUnterminatedTexts) {
    for (int32_t id : {0, 16, 99, -1}) send(id, "x");
    EXPECT_EQ(log_.count("unknow mesage!!!"), 4u);

    // A text filling all 1024 bytes is cut inside the record, not read past it.
    msg_t msg = record(MSG_INTERFACE_MODE, std::string(kMsgTextSize, 'a'));
    handleMessage(msg);
    EXPECT_EQ(params()->m_interfaceMode, std::string(kMsgTextSize - 1, 'a'));
}

using CommandHandlersDeathTest = CommandHandlersTest;

TEST_F(CommandHandlersDeathTest, OverlongAcceptedTextsEndTheDaemonWithALogLine) {
    EXPECT_DEATH(
        {
            host::setStderrEcho(true);
            send(MSG_WIFI_GATEWAY, std::string(64, '1'));
        },
        "setWifiGateway argument of 64 characters exceeds the limit of 63, aborting");
    EXPECT_DEATH(
        {
            host::setStderrEcho(true);
            setUidWhitelist(std::string(2048, '1').c_str());
        },
        "setUidWhitelist argument of 2048 characters exceeds the limit of 2047, aborting");
}

TEST_F(CommandHandlersDeathTest, NonNumericServiceRttEndsTheDaemonWithALogLine) {
    EXPECT_DEATH(
        {
            host::setStderrEcho(true);
            send(MSG_SERVICE_RTT, "fast");
        },
        "updateSlsInterfacesRtt cannot convert \"fast\" to a number, aborting");
    EXPECT_DEATH(
        {
            host::setStderrEcho(true);
            send(MSG_SERVICE_RTT, "99999999999");
        },
        "updateSlsInterfacesRtt cannot convert \"99999999999\" to a number, aborting");
}

}  // namespace
}  // namespace vekt::test
