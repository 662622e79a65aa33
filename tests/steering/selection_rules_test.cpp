// The selection chains that steer the gaming UIDs, and the per-interface UID whitelists.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/command_handlers.h"
#include "control/control_socket.h"
#include "steering/iptables_manager.h"
#include "selection/smart_link_selection.h"
#include "support/no_socket_destruction.h"
#include "support/parameters_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kM = "/system/bin/iptables-wrapper-1.0 -w -t mangle ";

class SelectionRulesTest : public ParametersTest {
  protected:
    void SetUp() override {
        params()->UpdateInterfaceMode("1");
        // rmnet_data1 is the second cellular link of its family, so a slave; wlan1 likewise.
        for (const char* name : {"wlan0", "rmnet_data0", "wlan1", "rmnet_data1"})
            params()->UpdateInterface(name, true);
        manager_ = IptablesManager::instance();
        runner_.clear();
        log_.clear();
    }
    void TearDown() override {
        gParams = nullptr;
        SmartLinkSelection::finalize();
        IptablesManager::clean_SLM_iptables();
        resetHandlerStateForTest();
    }
    InterfaceInfo_t* link(const char* name) {
        MutexLock lock(interfaceMutex);
        return params()->m_interfaceInfoMap.at(name);
    }
    // The command lines that name chain (and so belong to its interface).
    Lines naming(const std::string& chain) const {
        Lines lines;
        for (const std::string& line : runner_.commands())
            if (line.find(chain) != std::string::npos) lines.push_back(line);
        return lines;
    }

    ScopedRecordingRunner runner_;
    ScopedNoSocketDestruction noSocketDestruction_;
    IptablesManager* manager_ = nullptr;
};

TEST_F(SelectionRulesTest, SelectionChainsSendTheGamingUidsToTheMarkChainButNotTheirDns) {
    params()->m_gamingUidList.set({"10020", "10050"});
    EXPECT_EQ(manager_->create_SLS_iptables_UID_for_interface(link("wlan0")), 0);
    EXPECT_EQ(manager_->set_SLS_interface("wlan0"), 0);
    EXPECT_EQ(manager_->remove_SLS_iptables_UID_for_interface(link("wlan0")), 0);
    const std::string sls = "tarn_sls_wlan0", uid = "tarn_sls_uid_wlan0";
    EXPECT_EQ(runner_.commands(),
              (Lines{kM + "-N " + sls, kM + "-F " + sls,
                     kM + "-A " + sls + " -p udp ! --dport 53 -j tarn_fw_wlan0",
                     kM + "-A " + sls + " -p tcp -j tarn_fw_wlan0", kM + "-A " + sls + " -j ACCEPT",
                     kM + "-N " + uid, kM + "-F " + uid,
                     kM + "-A " + uid + " -m owner --uid-owner 10020 -j " + sls,
                     kM + "-A " + uid + " -m owner --uid-owner 10050 -j " + sls, kM + "-F tarn_SLS",
                     kM + "-A tarn_SLS -j " + uid, kM + "-D tarn_SLS -j " + uid, kM + "-F " + sls,
                     kM + "-F " + uid, kM + "-X " + sls, kM + "-X " + uid}));
    // The switch and the removal keep their command texts' double blank after the tool.
    EXPECT_TRUE(
        log_.contains("SEND SLA NDC COMMAND - PASS  /system/bin/iptables-wrapper-1.0  "
                      "-w -t mangle -A tarn_SLS -j tarn_sls_uid_wlan0"));
    EXPECT_TRUE(
        log_.contains("SEND SLA NDC COMMAND - PASS  /system/bin/iptables-wrapper-1.0  "
                      "-w -t mangle -D tarn_SLS -j tarn_sls_uid_wlan0"));

    // With no gaming UID the UID chain is made empty: selection steers nothing.
    params()->m_gamingUidList.set({});
    runner_.clear();
    manager_->create_SLS_iptables_UID_for_interface(link("wlan0"));
    EXPECT_EQ(naming("--uid-owner"), Lines{});
}

TEST_F(SelectionRulesTest, FailuresAreCountedPerInterfaceAndLogged) {
    runner_.failWhen([](const std::string& line) {
        return line.find("-F tarn_sls_uid_rmnet_data0") != std::string::npos;
    });
    EXPECT_EQ(manager_->setup_SLS_iptables_UID_chains(), -1);
    EXPECT_TRUE(
        log_.contains("create_SLS_iptables_UID_for_interface Failue when creating UID "
                      "tables for interface rmnet_data0 "));
    EXPECT_TRUE(log_.contains(
        "setup_SLS_iptables_UID_chains Creating UID chain for interface rmnet_data0 failed"));
    EXPECT_TRUE(log_.contains(
        "setup_SLS_iptables_UID_chains Failure when creating SLS UID tables for all interfaces "));
    // Every interface was served, in name order, the failed one included.
    Lines created;
    for (const std::string& line : runner_.commands())
        if (line.rfind(kM + "-N tarn_sls_uid_", 0) == 0) created.push_back(line.substr(kM.size()));
    EXPECT_EQ(created, (Lines{"-N tarn_sls_uid_rmnet_data0", "-N tarn_sls_uid_rmnet_data1",
                              "-N tarn_sls_uid_wlan0", "-N tarn_sls_uid_wlan1"}));
    runner_.failWhen([](const std::string& line) {
        return line.find("-X tarn_sls_wlan1") != std::string::npos;
    });
    EXPECT_EQ(manager_->cleanup_SLS_iptables_UID_chains(), -1);
    EXPECT_TRUE(log_.contains(
        "cleanup_SLS_iptables_UID_chains Remove UID chain for interface wlan1 failed"));
    EXPECT_TRUE(
        log_.contains("cleanup_SLS_iptables_UID_chains Failure when removing SLS UID tables for "
                      "all interfaces "));
}

TEST_F(SelectionRulesTest, EachWhitelistServesItsKindOfLinkAndAPrimaryWifiNone) {
    params()->m_slaUidList.set({"10001"});
    params()->m_dwUidList.set({"10002", "10003"});
    params()->m_ddUidList.set({"10004"});
    const auto gate = [](const std::string& dev, const Lines& uids) {
        Lines lines = {kM + "-F tarn_fw_" + dev + "_wrapper"};
        for (const std::string& uid : uids)
            lines.push_back(kM + "-A tarn_fw_" + dev + "_wrapper -m owner --uid-owner " + uid +
                            " -j tarn_fw_" + dev);
        return lines;
    };
    EXPECT_EQ(manager_->setup_sla_uid_whitelist(), 0);
    EXPECT_EQ(runner_.commands(), gate("rmnet_data0", {"10001"}));
    runner_.clear();
    EXPECT_EQ(manager_->setup_double_wlan_uid_whitelist(), 0);
    EXPECT_EQ(runner_.commands(), gate("wlan1", {"10002", "10003"}));
    runner_.clear();
    EXPECT_EQ(manager_->setup_double_data_uid_whitelist(), 0);
    EXPECT_EQ(runner_.commands(), gate("rmnet_data1", {"10004"}));
    EXPECT_EQ(naming("tarn_fw_wlan0"), Lines{});
    // A command that cannot start counts in the sum.
    runner_.setStartable(false);
    EXPECT_EQ(manager_->setup_double_wlan_uid_whitelist(), -3);
}

TEST_F(SelectionRulesTest, HandlersBuildAndRemoveTheChainsOfEveryInterface) {
    resetHandlerStateForTest();
    gParams = params();
    const auto send = [](int32_t id, const char* text) {
        msg_t msg = {id, 0, {}};
        snprintf(msg.message, sizeof(msg.message), "%s", text);
        handleMessage(msg);
    };
    send(MSG_DW_UID_WHITELIST, "10002");  // the whitelist handlers fill their wrapper chains
    EXPECT_EQ(naming("tarn_fw_wlan1_wrapper").size(), 2u);
    for (const auto& [start, stop] :
         {std::pair{MSG_START_SLS, MSG_STOP_SLS}, std::pair{MSG_VOIP, MSG_VOIP},
          std::pair{MSG_GAME_AI_MODE, MSG_GAME_AI_MODE}}) {
        SCOPED_TRACE(start);
        runner_.clear();
        send(start, "10123");
        for (const char* dev : {"rmnet_data0", "rmnet_data1", "wlan0", "wlan1"})
            EXPECT_EQ(naming(std::string("-N tarn_sls_uid_") + dev).size(), 1u) << dev;
        // An interface that comes or goes while selection runs gets or loses its chains.
        runner_.clear();
        manager_->updateInterfaceIptables("wlan1", true);
        EXPECT_EQ(naming("-N tarn_sls_uid_wlan1").size(), 1u);
        manager_->updateInterfaceIptables("wlan1", false);
        EXPECT_EQ(naming("-D tarn_SLS -j tarn_sls_uid_wlan1").size(), 1u);
        manager_->updateInterfaceIptables("wlan1", true);
        runner_.clear();
        send(start == MSG_START_SLS ? stop : start, start == MSG_START_SLS ? "" : "0");
        EXPECT_EQ(naming("-X tarn_sls_uid_").size(), 4u);
    }
}

}  // namespace
}  // namespace vekt::test
