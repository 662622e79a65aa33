#include "steering/iptables_manager.h"

#include <gtest/gtest.h>
#include <log/log.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "steering/lock_probing_runner.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using steering::LockProbingRunner;
using Lines = std::vector<std::string>;

const std::string kIpt = "/system/bin/iptables-wrapper-1.0";
const std::string kIp = "/system/bin/ip-wrapper-1.0";
const std::string kTag = "SLM-Vekt-iptablesManager";

const Lines kConstruction = {
    kIpt + " -w -t mangle -N tarn_SLM",
    kIpt + " -w -t mangle -F tarn_SLM",
    kIpt + " -w -t mangle -N tarn_SLA",
    kIpt + " -w -t mangle -F tarn_SLA",
    kIpt + " -w -t mangle -N tarn_SLS",
    kIpt + " -w -t mangle -F tarn_SLS",
    kIpt + " -w -t mangle -N tarn_SLM_wapper",
    kIpt + " -w -t mangle -F tarn_SLM_wapper",
    kIpt + " -w -t mangle -I tarn_SLM 1 -j tarn_SLS",
    kIpt +
        " -w -t mangle -I tarn_SLM 2 -m state --state ESTABLISHED,RELATED -j CONNMARK "
        "--restore-mark",
    kIpt + " -w -t mangle -I tarn_SLM 3 -j tarn_SLA",
    kIpt + " -w -t mangle -D OUTPUT -j tarn_SLM_wapper",
    kIpt + " -w -t mangle -A OUTPUT -j tarn_SLM_wapper",
    kIpt + " -w -t nat -F tarn_nat_POSTROUTING_SLM",
    kIpt + " -w -t nat -N tarn_nat_POSTROUTING_SLM",
    kIpt + " -w -t nat -D POSTROUTING -j tarn_nat_POSTROUTING_SLM",
    kIpt + " -w -t nat -I POSTROUTING -j tarn_nat_POSTROUTING_SLM",
};

const Lines kDestruction = {
    kIpt + " -w -t mangle -D OUTPUT -j tarn_SLM_wapper",
    kIpt + " -w -t nat -D POSTROUTING -j tarn_nat_POSTROUTING_SLM",
    kIpt + " -w -t nat -F tarn_nat_POSTROUTING_SLM",
    kIpt + " -w -t nat -X tarn_nat_POSTROUTING_SLM",
    kIpt + " -w -t mangle -F tarn_SLM_wapper",
    kIpt + " -w -t mangle -X tarn_SLM_wapper",
    kIpt + " -w -t mangle -F tarn_SLM",
    kIpt + " -w -t mangle -X tarn_SLM",
    kIpt + " -w -t mangle -F tarn_SLA",
    kIpt + " -w -t mangle -X tarn_SLA",
    kIpt + " -w -t mangle -F tarn_SLS",
    kIpt + " -w -t mangle -X tarn_SLS",
};

// Metered cellular link, second in the mark pool.
const Lines kCreateRmnet = {
    kIpt + " -w -t mangle -N tarn_fw_rmnet_data0",
    kIpt + " -w -t mangle -F tarn_fw_rmnet_data0",
    kIpt + " -w -t mangle -N tarn_fw_rmnet_data0_wrapper",
    kIpt + " -w -t mangle -F tarn_fw_rmnet_data0_wrapper",
    kIpt + " -w -t mangle -A tarn_fw_rmnet_data0 -j MARK --set-mark 0x400000/0x00E00000",
    kIpt + " -w -t mangle -A tarn_fw_rmnet_data0 -j CONNMARK --save-mark --ctmask 0x00E00000",
    kIpt + " -w -t mangle -A tarn_fw_rmnet_data0 -j ACCEPT",
    kIp + " -4 rule del fwmark 0x400000/0x0CE00000 prio 14999",
    kIp + " -4 rule add fwmark 0x400000/0x0CE00000 table rmnet_data0 prio 14999",
    kIpt + " -w -t nat -A tarn_nat_POSTROUTING_SLM -o rmnet_data0 -j MASQUERADE",
};
// Only the two chain creations may fail without failing the operation.
const std::vector<bool> kCreateRmnetCounted = {false, true, false, true, true,
                                               true,  true, true,  true, true};

// Primary Wi-Fi: no wrapper chain.
const Lines kCreateWlan0 = {
    kIpt + " -w -t mangle -N tarn_fw_wlan0",
    kIpt + " -w -t mangle -F tarn_fw_wlan0",
    kIpt + " -w -t mangle -A tarn_fw_wlan0 -j MARK --set-mark 0x200000/0x00E00000",
    kIpt + " -w -t mangle -A tarn_fw_wlan0 -j CONNMARK --save-mark --ctmask 0x00E00000",
    kIpt + " -w -t mangle -A tarn_fw_wlan0 -j ACCEPT",
    kIp + " -4 rule del fwmark 0x200000/0x0CE00000 prio 14999",
    kIp + " -4 rule add fwmark 0x200000/0x0CE00000 table wlan0 prio 14999",
    kIpt + " -w -t nat -A tarn_nat_POSTROUTING_SLM -o wlan0 -j MASQUERADE",
};

const Lines kRemoveRmnet = {
    kIpt + " -w -t mangle -F tarn_SLA",
    kIpt + " -w -t mangle -F tarn_fw_rmnet_data0_wrapper",
    kIpt + " -w -t mangle -X tarn_fw_rmnet_data0_wrapper",
    kIpt + " -w -t mangle -F tarn_fw_rmnet_data0",
    kIpt + " -w -t mangle -X tarn_fw_rmnet_data0",
    kIp + " -4 rule del fwmark 0x400000/0x0CE00000 prio 14999",
    kIpt + " -w -t nat -D tarn_nat_POSTROUTING_SLM -o rmnet_data0 -j MASQUERADE",
};
// Flushes never count: they empty chains that are about to be deleted.
const std::vector<bool> kRemoveCounted = {false, false, true, false, true, true, true};

// A Wi-Fi link without a wrapper chain still has the wrapper's name flushed and deleted.
const Lines kRemoveWlan0 = {
    kIpt + " -w -t mangle -F tarn_SLA",
    kIpt + " -w -t mangle -F tarn_fw_wlan0_wrapper",
    kIpt + " -w -t mangle -X tarn_fw_wlan0_wrapper",
    kIpt + " -w -t mangle -F tarn_fw_wlan0",
    kIpt + " -w -t mangle -X tarn_fw_wlan0",
    kIp + " -4 rule del fwmark 0x200000/0x0CE00000 prio 14999",
    kIpt + " -w -t nat -D tarn_nat_POSTROUTING_SLM -o wlan0 -j MASQUERADE",
};

Lines concat(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

std::string ratioRule(const std::string& probability, const std::string& chain) {
    return kIpt +
           " -w -t mangle -A tarn_SLA -p tcp -m state --state NEW -m statistic --mode random "
           "--probability " +
           probability + " -j " + chain;
}

// The statistics records handed to the ratio update, owned by the test.
class LinkSet {
public:
    void add(const std::string& name, float ratio) {
        auto link = std::make_unique<linkStatsWrapper_t>();
        copyBounded(link->name, sizeof(link->name), name.c_str());
        link->ratio = ratio;
        map[name] = link.get();
        owned_.push_back(std::move(link));
    }
    SlaInterfaceMap map;

private:
    std::vector<std::unique_ptr<linkStatsWrapper_t>> owned_;
};

class IptablesManagerTest : public ParametersTest {
protected:
    void SetUp() override {
        params();  // created first, as in the daemon; its own start-up lines are not ours
        manager_ = IptablesManager::instance();
        runner_.clear();
        log_.clear();
    }
    void TearDown() override { IptablesManager::clean_SLM_iptables(); }

    // Registers a link the way the control handlers do: wlan0 and rmnet_data0 take the pool
    // marks 0x200000 and 0x400000 when added in that order.
    InterfaceInfo_t* addLink(const char* name) {
        params()->UpdateInterface(name, true);
        std::lock_guard<std::mutex> lock(interfaceMutex);
        return params()->m_interfaceInfoMap[name];
    }
    InterfaceInfo_t* addMeteredLink(const char* name) {
        params()->UpdateInterfaceMode("1");
        return addLink(name);
    }

    int setRatios(LinkSet& links) {
        // The ratio evaluation calls in holding interfaceMutex (and the statistics lock).
        std::lock_guard<std::mutex> lock(interfaceMutex);
        return manager_->set_SLA_ratio_iptables(links.map);
    }

    std::vector<std::string> errors() const {
        std::vector<std::string> out;
        for (const auto& r : log_.records()) {
            if (r.priority == ANDROID_LOG_ERROR && r.tag == kTag) out.push_back(r.text);
        }
        return out;
    }

    LockProbingRunner runner_;
    ScopedCommandRunner scopedRunner_{runner_};
    IptablesManager* manager_ = nullptr;
};

TEST_F(IptablesManagerTest, BuildsTheSkeletonUnderTheLockAndRebuildsAfterClean) {
    IptablesManager::clean_SLM_iptables();
    runner_.clear();
    log_.clear();

    IptablesManager* again = IptablesManager::instance();
    EXPECT_EQ(runner_.lines(), kConstruction);
    EXPECT_EQ(IptablesManager::instance(), again);  // built once
    for (const auto& command : runner_.commands()) EXPECT_TRUE(command.iptablesLocked);

    // The exact command texts, as logged with the tool's device path.
    Lines passLines;
    for (const std::string& line : kConstruction) {
        passLines.push_back("SEND SLA NDC COMMAND - PASS  " + line);
    }
    EXPECT_EQ(log_.texts(kTag), passLines);
}

TEST_F(IptablesManagerTest, TeardownUnhooksFirstThenRemovesEachInterface) {
    addLink("wlan0");
    addMeteredLink("rmnet_data0");
    IptablesManager::clean_SLM_iptables();
    // Interfaces follow the fixed chains, in name order, each under the lock of its own.
    EXPECT_EQ(runner_.lines(), concat({kDestruction, kRemoveRmnet, kRemoveWlan0}));
    for (const auto& command : runner_.commands()) EXPECT_TRUE(command.iptablesLocked);

    // Clean twice is harmless, and the next instance starts from scratch.
    runner_.clear();
    IptablesManager::clean_SLM_iptables();
    EXPECT_TRUE(runner_.lines().empty());
    IptablesManager::instance();
    EXPECT_EQ(runner_.lines(), kConstruction);
}

TEST_F(IptablesManagerTest, MarkChainsOfCellularAndWifiLinks) {
    InterfaceInfo_t* wlan0 = addLink("wlan0");
    InterfaceInfo_t* rmnet = addMeteredLink("rmnet_data0");
    ASSERT_NE(rmnet, nullptr);
    ASSERT_TRUE(rmnet->metered);
    log_.clear();

    EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(rmnet), 0);
    EXPECT_EQ(runner_.lines(), kCreateRmnet);
    runner_.clear();
    EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(wlan0), 0);
    EXPECT_EQ(runner_.lines(), kCreateWlan0);
    runner_.clear();
    EXPECT_EQ(manager_->remove_SLM_FWMARK_chain_for_iface(rmnet), 0);
    EXPECT_EQ(runner_.lines(), kRemoveRmnet);
    runner_.clear();
    EXPECT_EQ(manager_->remove_SLM_FWMARK_chain_for_iface(wlan0), 0);
    EXPECT_EQ(runner_.lines(), kRemoveWlan0);

    for (const auto& command : runner_.commands()) EXPECT_TRUE(command.iptablesLocked);
    EXPECT_TRUE(errors().empty());

    // A null record is refused before any command.
    runner_.clear();
    EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(nullptr), -1);
    EXPECT_EQ(manager_->remove_SLM_FWMARK_chain_for_iface(nullptr), -1);
    EXPECT_TRUE(runner_.lines().empty());
    EXPECT_EQ(errors(),
              Lines({"create_SLM_FWMARK_chain_for_iface, Creating FWMARK Chain for a NULL iface",
                     "remove_SLM_FWMARK_chain_for_iface, Remove FWMARK Chain for a NULL iface"}));
}

TEST_F(IptablesManagerTest, WrapperChainForMeteredSlaveOrCellularNamedLinksOnly) {
    struct Case {
        const char* params;
        bool wrapper;
    };
    const Case cases[] = {
        {"wlan0,0,t,0x200000,1,0,0,0,ffffffffffff", false},
        {"wlan1,0,t,0x600000,0,0,0,1,ffffffffffff", true},   // slave Wi-Fi
        {"ccmni0,0,t,0x400000,0,0,0,0,ffffffffffff", true},  // unmetered, cellular name
        {"usb0,1,t,0x800000,0,0,0,0,ffffffffffff", true},    // metered, other name
        {"wwan0,1,t,0x800000,0,0,0,0,ffffffffffff", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.params);
        InterfaceInfo_t* info = params()->parseInterfaceParams(c.params);
        ASSERT_NE(info, nullptr);
        runner_.clear();
        EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(info), 0);
        std::string wrapper = kIpt + " -w -t mangle -N tarn_fw_" + info->name + "_wrapper";
        Lines lines = runner_.lines();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), wrapper), c.wrapper ? 1 : 0);
        EXPECT_EQ(lines.size(), c.wrapper ? 10u : 8u);
        free(info);
    }
}

TEST_F(IptablesManagerTest, OnlyCountedCommandsFailAnOperation) {
    addLink("wlan0");
    InterfaceInfo_t* rmnet = addMeteredLink("rmnet_data0");
    const std::string createFailure =
        "create_SLM_FWMARK_chain_for_iface Failue when creating FWMARK tables for interface "
        "rmnet_data0 ";
    const std::string removeFailure =
        "remove_SLM_FWMARK_chain_for_iface Failure when creating FWMARK tables for interface "
        "rmnet_data0 ";

    for (size_t i = 0; i < kCreateRmnet.size(); ++i) {
        SCOPED_TRACE(kCreateRmnet[i]);
        log_.clear();
        runner_.failWhen([&](const std::string& line) { return line == kCreateRmnet[i]; });
        int expected = kCreateRmnetCounted[i] ? -1 : 0;
        EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(rmnet), expected);
        EXPECT_EQ(log_.count(createFailure), kCreateRmnetCounted[i] ? 1u : 0u);
    }
    for (size_t i = 0; i < kRemoveRmnet.size(); ++i) {
        SCOPED_TRACE(kRemoveRmnet[i]);
        log_.clear();
        runner_.failWhen([&](const std::string& line) { return line == kRemoveRmnet[i]; });
        EXPECT_EQ(manager_->remove_SLM_FWMARK_chain_for_iface(rmnet), kRemoveCounted[i] ? -1 : 0);
        EXPECT_EQ(log_.count(removeFailure), kRemoveCounted[i] ? 1u : 0u);
    }
    // A failed command does not stop the sequence: nothing is rolled back or skipped.
    runner_.clear();
    runner_.failWhen([](const std::string&) { return true; });
    EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(rmnet), -1);
    EXPECT_EQ(runner_.lines(), kCreateRmnet);
}

TEST_F(IptablesManagerTest, CleanupWalksTheRegistryInNameOrder) {
    EXPECT_EQ(manager_->cleanup_SLM_iptables_FWMARK_chains(), 0);
    EXPECT_TRUE(runner_.lines().empty());

    addLink("wlan0");
    addMeteredLink("rmnet_data0");
    {
        std::lock_guard<std::mutex> lock(interfaceMutex);
        params()->m_interfaceInfoMap["ccmni9"];  // a record-less entry is skipped
    }
    EXPECT_EQ(manager_->cleanup_SLM_iptables_FWMARK_chains(), 0);
    EXPECT_EQ(runner_.lines(), concat({kRemoveRmnet, kRemoveWlan0}));
    for (const auto& command : runner_.commands()) {
        EXPECT_TRUE(command.interfaceLocked && command.iptablesLocked);
    }
    EXPECT_TRUE(errors().empty());

    // One interface failing fails the cleanup, but every interface is still tried.
    runner_.clear();
    runner_.failWhen([](const std::string& line) { return line == kRemoveWlan0.back(); });
    EXPECT_EQ(manager_->cleanup_SLM_iptables_FWMARK_chains(), -1);
    EXPECT_EQ(runner_.lines(), concat({kRemoveRmnet, kRemoveWlan0}));
    Lines expected = {
        "SEND SLA NDC COMMAND - FAIL  " + kRemoveWlan0.back() + " ",
        "remove_SLM_FWMARK_chain_for_iface Failure when creating FWMARK tables for interface "
        "wlan0 ",
        "cleanup_SLM_iptables_FWMARK_chains Cleanup FWMARK for interface wlan0 failed",
        "cleanup_SLM_iptables_FWMARK_chains Failure when cleaning FWMARK tables for all "
        "interfaces ",
    };
    EXPECT_EQ(errors(), expected);
}

TEST_F(IptablesManagerTest, WhitelistExcludesGatewaysThenAdmitsUidsListByList) {
    EXPECT_EQ(manager_->setup_slm_whitelist(), 0);
    EXPECT_EQ(runner_.lines(), Lines({kIpt + " -w -t mangle -F tarn_SLM_wapper"}));

    Parameters* p = params();
    p->m_wifiGatewayList = {"192.168.1.1", "10.0.0.1"};
    p->m_slaUidList = {"10050"};
    p->m_ddUidList = {"10040"};
    p->m_dwUidList = {"10030", "10031"};
    p->m_gamingUidList = {"10020", "10050"};
    const std::string uidRule = kIpt + " -w -t mangle -A tarn_SLM_wapper -m owner --uid-owner ";
    const Lines expected = {
        kIpt + " -w -t mangle -F tarn_SLM_wapper",
        kIpt + " -w -t mangle -A tarn_SLM_wapper -d 192.168.1.1 -j RETURN",
        kIpt + " -w -t mangle -A tarn_SLM_wapper -d 10.0.0.1 -j RETURN",
        uidRule + "10020 -j tarn_SLM",  // gaming
        uidRule + "10050 -j tarn_SLM",
        uidRule + "10030 -j tarn_SLM",  // dual Wi-Fi
        uidRule + "10031 -j tarn_SLM",
        uidRule + "10040 -j tarn_SLM",  // dual data
        uidRule + "10050 -j tarn_SLM",  // aggregation; a UID in two lists gets two rules
    };
    runner_.clear();
    EXPECT_EQ(manager_->setup_slm_whitelist(), 0);
    EXPECT_EQ(runner_.lines(), expected);
    for (const auto& command : runner_.commands()) EXPECT_FALSE(command.iptablesLocked);

    // The result is minus the number of commands that could not be started; nothing logged
    // beyond the runner's own lines.
    runner_.failWhen(
        [](const std::string& line) { return line.find("10050") != std::string::npos; });
    log_.clear();
    EXPECT_EQ(manager_->setup_slm_whitelist(), -2);
    EXPECT_EQ(errors().size(), 2u);
}

TEST_F(IptablesManagerTest, InterfaceArrivalAndDeparture) {
    // An unknown name issues nothing but leaves a record-less registry entry.
    EXPECT_EQ(manager_->updateInterfaceIptables("wlan7", true), 0);
    EXPECT_EQ(manager_->updateInterfaceIptables("wlan7", false), 0);
    EXPECT_TRUE(runner_.lines().empty());
    {
        std::lock_guard<std::mutex> lock(interfaceMutex);
        ASSERT_EQ(params()->m_interfaceInfoMap.count("wlan7"), 1u);
        EXPECT_EQ(params()->m_interfaceInfoMap["wlan7"], nullptr);
    }

    addLink("wlan0");
    params()->m_slaUidList = {"10050"};
    EXPECT_EQ(manager_->updateInterfaceIptables("wlan0", true), 0);
    Lines whitelist = {
        kIpt + " -w -t mangle -F tarn_SLM_wapper",
        kIpt + " -w -t mangle -A tarn_SLM_wapper -m owner --uid-owner 10050 -j tarn_SLM",
    };
    EXPECT_EQ(runner_.lines(), concat({kCreateWlan0, whitelist}));
    // The registry lock is not held across the commands (the main loop needs it meanwhile).
    for (const auto& command : runner_.commands()) EXPECT_FALSE(command.interfaceLocked);

    runner_.clear();
    EXPECT_EQ(manager_->updateInterfaceIptables("wlan0", false), 0);
    EXPECT_EQ(runner_.lines(), kRemoveWlan0);

    // Failures inside are logged by the operations but never change the result.
    runner_.failWhen([](const std::string&) { return true; });
    EXPECT_EQ(manager_->updateInterfaceIptables("wlan0", true), 0);
    EXPECT_EQ(manager_->updateInterfaceIptables("wlan0", false), 0);
}

TEST_F(IptablesManagerTest, EqualWifiRatiosGiveHalfThenAll) {
    addLink("wlan0");
    addLink("wlan1");  // slave Wi-Fi: its rule goes through its wrapper chain
    LinkSet links;
    links.add("wlan0", 0.5f);
    links.add("wlan1", 0.5f);
    log_.clear();
    EXPECT_EQ(setRatios(links), 0);
    EXPECT_EQ(runner_.lines(),
              Lines({kIpt + " -w -t mangle -F tarn_SLA", ratioRule("0.500000", "tarn_fw_wlan0"),
                     ratioRule("1.000000", "tarn_fw_wlan1_wrapper")}));
    EXPECT_EQ(
        log_.texts(),
        Lines({"SEND SLA NDC COMMAND - PASS  " + runner_.lines()[0], "Updated Ratio: 0.500000",
               "SEND SLA NDC COMMAND - PASS  " + runner_.lines()[1], "Updated Ratio: 1.000000",
               "SEND SLA NDC COMMAND - PASS  " + runner_.lines()[2]}));
    for (const auto& command : runner_.commands()) {
        EXPECT_TRUE(command.iptablesLocked && command.interfaceLocked);
    }
}

TEST_F(IptablesManagerTest, MeteredLinksComeAfterWifiAndGetTheRest) {
    addLink("wlan0");
    addMeteredLink("rmnet_data0");  // sorts first, but metered links are ruled last
    LinkSet links;
    links.add("rmnet_data0", 0.3f);
    links.add("wlan0", 0.7f);
    EXPECT_EQ(setRatios(links), 0);
    EXPECT_EQ(runner_.lines(),
              Lines({kIpt + " -w -t mangle -F tarn_SLA", ratioRule("0.700000", "tarn_fw_wlan0"),
                     ratioRule("1.000000", "tarn_fw_rmnet_data0_wrapper")}));
}

TEST_F(IptablesManagerTest, MeteredPassAddsRatiosNotProbabilities) {
    InterfaceInfo_t* wlan = params()->parseInterfaceParams("wlan0,0,t,0x200000,1,0,0,0,ff");
    InterfaceInfo_t* ccmni = params()->parseInterfaceParams("ccmni0,1,t,0x400000,0,0,0,0,ff");
    InterfaceInfo_t* rmnet = params()->parseInterfaceParams("rmnet_data0,1,t,0x600000,0,0,0,0,ff");
    ASSERT_TRUE(params()->addNewInterfacetoMap(wlan) && params()->addNewInterfacetoMap(ccmni) &&
                params()->addNewInterfacetoMap(rmnet));
    LinkSet links;
    links.add("wlan0", 0.4f);
    links.add("ccmni0", 0.3f);       // 0.3 / 0.6
    links.add("rmnet_data0", 0.2f);  // 0.2 / (1 - 0.4 - 0.3), not 0.2 / (1 - 0.4 - 0.5)
    EXPECT_EQ(setRatios(links), 0);
    EXPECT_EQ(runner_.lines(),
              Lines({kIpt + " -w -t mangle -F tarn_SLA", ratioRule("0.400000", "tarn_fw_wlan0"),
                     ratioRule("0.500000", "tarn_fw_ccmni0_wrapper"),
                     ratioRule("0.666667", "tarn_fw_rmnet_data0_wrapper")}));
}

TEST_F(IptablesManagerTest, DualWifiSendsEveryConnectionToTheSelectedSide) {
    addLink("wlan0");
    addLink("wlan1");
    addMeteredLink("rmnet_data0");
    LinkSet links;
    links.add("wlan0", 0.5f);
    links.add("wlan1", 0.3f);
    links.add("rmnet_data0", 0.2f);

    params()->setDoubleWifiSelectStatus(1);
    EXPECT_EQ(setRatios(links), 0);
    EXPECT_EQ(runner_.lines(),
              Lines({kIpt + " -w -t mangle -F tarn_SLA", ratioRule("1.000000", "tarn_fw_wlan0"),
                     ratioRule("0.000000", "tarn_fw_wlan1_wrapper"),
                     ratioRule("0.000000", "tarn_fw_rmnet_data0_wrapper")}));
    // The log shows the computed value before the override.
    EXPECT_EQ(log_.count("Updated Ratio: 0.500000"), 1u);

    runner_.clear();
    params()->setDoubleWifiSelectStatus(2);
    EXPECT_EQ(setRatios(links), 0);
    EXPECT_EQ(runner_.lines(),
              Lines({kIpt + " -w -t mangle -F tarn_SLA", ratioRule("0.000000", "tarn_fw_wlan0"),
                     ratioRule("1.000000", "tarn_fw_wlan1_wrapper"),
                     ratioRule("0.000000", "tarn_fw_rmnet_data0_wrapper")}));
}

TEST_F(IptablesManagerTest, RatioUpdateSkipsWhatItCannotRuleAndReportsFailure) {
    LinkSet empty;
    EXPECT_EQ(setRatios(empty), 0);
    EXPECT_EQ(runner_.lines(), Lines({kIpt + " -w -t mangle -F tarn_SLA"}));

    addLink("wlan0");
    LinkSet links;
    links.add("wlan0", 0.6f);
    links.add("wlan5", 0.4f);       // not registered: skipped, leaves a record-less entry
    links.map["ccmni3"] = nullptr;  // no statistics record: skipped
    runner_.clear();
    EXPECT_EQ(setRatios(links), 0);
    EXPECT_EQ(runner_.lines(),
              Lines({kIpt + " -w -t mangle -F tarn_SLA", ratioRule("0.600000", "tarn_fw_wlan0")}));
    {
        std::lock_guard<std::mutex> lock(interfaceMutex);
        EXPECT_EQ(params()->m_interfaceInfoMap.count("wlan5"), 1u);
        EXPECT_EQ(params()->m_interfaceInfoMap.count("ccmni3"), 0u);
    }

    // Any command that cannot be started fails the update, the flush included.
    for (const std::string& failing : runner_.lines()) {
        SCOPED_TRACE(failing);
        log_.clear();
        runner_.failWhen([failing](const std::string& line) { return line == failing; });
        EXPECT_EQ(setRatios(links), -1);
        EXPECT_EQ(errors(), Lines({"SEND SLA NDC COMMAND - FAIL  " + failing + " ",
                                   "set_SLA_ratio_iptables Failure when setting SLA Ratios "}));
    }
    runner_.failWhen([](const std::string&) { return false; });
}

// The manager against the test's recording wrapper tools: real processes, device paths
// mapped under the root, and no shell anywhere between an interface name and the tool.
class IptablesManagerToolsTest : public ParametersTest {
protected:
    void TearDown() override { IptablesManager::clean_SLM_iptables(); }
};

TEST_F(IptablesManagerToolsTest, CommandsReachTheWrapperToolsVerbatim) {
    root_.installRecordingWrappers();
    const std::string marker = root_.dir() + "/pwned";
    const std::string hostile = "wlan0;touch${IFS}" + marker + "|$(touch${IFS}" + marker + ")";
    InterfaceInfo_t* info = params()->parseInterfaceParams(hostile + ",0,`touch${IFS}" + marker +
                                                           "`,0x200000,1,0,0,0,ffffffffffff");
    ASSERT_NE(info, nullptr);
    ASSERT_TRUE(params()->addNewInterfacetoMap(info));

    IptablesManager* manager = IptablesManager::instance();
    EXPECT_EQ(manager->create_SLM_FWMARK_chain_for_iface(info), 0);
    IptablesManager::clean_SLM_iptables();

    std::string recorded = root_.recordedCommands();
    EXPECT_EQ(recorded.rfind("iptables -w -t mangle -N tarn_SLM\n", 0), 0u) << recorded;
    EXPECT_NE(recorded.find("ip -4 rule add fwmark 0x200000/0x0CE00000 table `touch${IFS}" +
                            marker + "` prio 14999\n"),
              std::string::npos)
        << recorded;
    EXPECT_NE(recorded.find("iptables -w -t nat -A tarn_nat_POSTROUTING_SLM -o " + hostile +
                            " -j MASQUERADE\n"),
              std::string::npos)
        << recorded;
    EXPECT_EQ(access(marker.c_str(), F_OK), -1);
    // Each command ran (17 + 12 fixed, 8 for the link, 7 to remove it) and none complained.
    EXPECT_EQ(std::count(recorded.begin(), recorded.end(), '\n'), 44);
    EXPECT_TRUE(
        log_.contains("SEND SLA NDC COMMAND - PASS  " + kIpt + " -w -t mangle -N tarn_SLM"));
    for (const auto& r : log_.records()) {
        if (r.tag == kTag) {
            EXPECT_NE(r.priority, ANDROID_LOG_ERROR) << r.text;
        }
    }
}

}  // namespace
}  // namespace vekt::test
