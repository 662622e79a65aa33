#include "steering/iptables_manager.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/parameters_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kM = "/system/bin/iptables-wrapper-1.0 -w -t mangle ";
const std::string kNat = "/system/bin/iptables-wrapper-1.0 -w -t nat ";
const std::string kRule = "/system/bin/ip-wrapper-1.0 -4 rule ";
const std::string kPost = "tarn_nat_POSTROUTING_SLM";

Lines concat(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// The commands of one tool and table: prefix + each argument text.
Lines with(const std::string& prefix, Lines args) {
    for (std::string& arg : args) arg = prefix + arg;
    return args;
}

const Lines kConstruction = concat(
    {with(kM,
          {"-N tarn_SLM", "-F tarn_SLM", "-N tarn_SLA", "-F tarn_SLA", "-N tarn_SLS", "-F tarn_SLS",
           "-N tarn_SLM_wapper", "-F tarn_SLM_wapper", "-I tarn_SLM 1 -j tarn_SLS",
           "-I tarn_SLM 2 -m state --state ESTABLISHED,RELATED -j CONNMARK --restore-mark",
           "-I tarn_SLM 3 -j tarn_SLA", "-D OUTPUT -j tarn_SLM_wapper",
           "-A OUTPUT -j tarn_SLM_wapper"}),
     with(kNat, {"-F tarn_nat_POSTROUTING_SLM", "-N tarn_nat_POSTROUTING_SLM",
                 "-D POSTROUTING -j tarn_nat_POSTROUTING_SLM",
                 "-I POSTROUTING -j tarn_nat_POSTROUTING_SLM"})});

const Lines kDestruction =
    concat({with(kM, {"-D OUTPUT -j tarn_SLM_wapper"}),
            with(kNat, {"-D POSTROUTING -j tarn_nat_POSTROUTING_SLM", "-F tarn_nat_POSTROUTING_SLM",
                        "-X tarn_nat_POSTROUTING_SLM"}),
            with(kM, {"-F tarn_SLM_wapper", "-X tarn_SLM_wapper", "-F tarn_SLM", "-X tarn_SLM",
                      "-F tarn_SLA", "-X tarn_SLA", "-F tarn_SLS", "-X tarn_SLS"})});

// A link's mark chain, with a gate chain in front of it for cellular links.
Lines createChains(const std::string& dev, const std::string& mark, bool gate) {
    const std::string c = "tarn_fw_" + dev;
    return concat(
        {{kM + "-N " + c, kM + "-F " + c},
         gate ? Lines{kM + "-N " + c + "_wrapper", kM + "-F " + c + "_wrapper"} : Lines{},
         {kM + "-A " + c + " -j MARK --set-mark " + mark + "/0x00E00000",
          kM + "-A " + c + " -j CONNMARK --save-mark --ctmask 0x00E00000",
          kM + "-A " + c + " -j ACCEPT", kRule + "del fwmark " + mark + "/0x0CE00000 prio 14999",
          kRule + "add fwmark " + mark + "/0x0CE00000 table " + dev + " prio 14999",
          kNat + "-A " + kPost + " -o " + dev + " -j MASQUERADE"}});
}

Lines removeChains(const std::string& dev, const std::string& mark) {
    const std::string c = "tarn_fw_" + dev;
    return concat({with(kM, {"-F tarn_SLA", "-F " + c + "_wrapper", "-X " + c + "_wrapper",
                             "-F " + c, "-X " + c}),
                   {kRule + "del fwmark " + mark + "/0x0CE00000 prio 14999",
                    kNat + "-D " + kPost + " -o " + dev + " -j MASQUERADE"}});
}

std::string ratioRule(const std::string& probability, const std::string& chain) {
    return kM +
           "-A tarn_SLA -p tcp -m state --state NEW -m statistic --mode random --probability " +
           probability + " -j " + chain;
}

// Also counts the commands run without iptablesMutex held. Asked from another thread:
// try_lock on a mutex the caller owns is undefined.
struct LockProbe : ScopedRecordingRunner {
    CommandResult run(const std::vector<std::string>& argv) override {
        unlocked += std::async(std::launch::async, [] {
                        if (!iptablesMutex.try_lock()) return false;
                        iptablesMutex.unlock();
                        return true;
                    }).get();
        return ScopedRecordingRunner::run(argv);
    }
    int unlocked = 0;
};

class IptablesManagerTest : public ParametersTest {
protected:
    void SetUp() override {
        // Registered as the control handlers do, taking the pool's marks in this order.
        params()->UpdateInterfaceMode("1");  // cellular links are metered
        for (const char* name : {"wlan0", "rmnet_data0", "wlan1", "ccmni0"}) {
            params()->UpdateInterface(name, true);
        }
        manager_ = IptablesManager::instance();
        runner_.clear();
        log_.clear();
    }
    void TearDown() override { IptablesManager::clean_SLM_iptables(); }

    InterfaceInfo_t* link(const char* name) {
        vekt::MutexLock lock(interfaceMutex);
        return params()->m_interfaceInfoMap.at(name);
    }
    int setRatios(const std::map<std::string, float>& ratios) {
        std::map<std::string, linkStatsWrapper_t> stats;
        SlaInterfaceMap map;
        for (const auto& [name, ratio] : ratios) {
            copyBounded(stats[name].name, sizeof(stats[name].name), name.c_str());
            stats[name].ratio = ratio;
            map[name] = &stats[name];
        }
        vekt::MutexLock lock(interfaceMutex);  // as every caller holds it
        return manager_->set_SLA_ratio_iptables(map);
    }

    LockProbe runner_;
    IptablesManager* manager_ = nullptr;
};

TEST_F(IptablesManagerTest, BuildsTheSkeletonAndTearsItDownHooksFirst) {
    IptablesManager::clean_SLM_iptables();
    runner_.clear();
    IptablesManager::instance();
    EXPECT_EQ(runner_.commands(), kConstruction);
    runner_.clear();
    IptablesManager::clean_SLM_iptables();
    // The links follow the fixed chains, in name order: selection chains first, then the
    // mark chains they jump to.
    const auto removeSelection = [](const std::string& dev) {
        const std::string sls = "tarn_sls_" + dev, uid = "tarn_sls_uid_" + dev;
        return with(kM, {"-D tarn_SLS -j " + uid, "-F " + sls, "-F " + uid, "-X " + sls,
                         "-X " + uid});
    };
    EXPECT_EQ(runner_.commands(),
              concat({kDestruction, removeSelection("ccmni0"), removeSelection("rmnet_data0"),
                      removeSelection("wlan0"), removeSelection("wlan1"),
                      removeChains("ccmni0", "0x800000"), removeChains("rmnet_data0", "0x400000"),
                      removeChains("wlan0", "0x200000"), removeChains("wlan1", "0x600000")}));
}

TEST_F(IptablesManagerTest, MarkChainsOfACellularAndAWifiLink) {
    EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(link("rmnet_data0")), 0);
    EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(link("wlan0")), 0);
    EXPECT_EQ(manager_->remove_SLM_FWMARK_chain_for_iface(link("rmnet_data0")), 0);
    EXPECT_EQ(manager_->remove_SLM_FWMARK_chain_for_iface(link("wlan0")), 0);
    EXPECT_EQ(runner_.commands(),
              concat({createChains("rmnet_data0", "0x400000", true),
                      createChains("wlan0", "0x200000", false),
                      removeChains("rmnet_data0", "0x400000"), removeChains("wlan0", "0x200000")}));
}

TEST_F(IptablesManagerTest, ArrivalBuildsChainsThenTheWhitelistAndUnknownNamesDoNothing) {
    params()->m_wifiGatewayList.set({"192.168.1.1", "10.0.0.1"});
    params()->m_gamingUidList.set({"10020", "10050"});
    params()->m_dwUidList.set({"10030"});
    params()->m_ddUidList.set({"10040"});
    params()->m_slaUidList.set({"10050"});  // a UID in two lists gets two rules
    EXPECT_EQ(manager_->updateInterfaceIptables("wlan7", true), 0);
    EXPECT_EQ(manager_->updateInterfaceIptables("wlan7", false), 0);
    EXPECT_TRUE(runner_.commands().empty());

    EXPECT_EQ(manager_->updateInterfaceIptables("wlan0", true), 0);
    EXPECT_EQ(manager_->updateInterfaceIptables("wlan0", false), 0);
    const std::string w = kM + "-A tarn_SLM_wapper ", uid = w + "-m owner --uid-owner ";
    const Lines whitelist = {kM + "-F tarn_SLM_wapper",   w + "-d 192.168.1.1 -j RETURN",
                             w + "-d 10.0.0.1 -j RETURN", uid + "10020 -j tarn_SLM",
                             uid + "10050 -j tarn_SLM",   uid + "10030 -j tarn_SLM",
                             uid + "10040 -j tarn_SLM",   uid + "10050 -j tarn_SLM"};
    // Then each per-interface whitelist refills the gates it serves: dual Wi-Fi the slave
    // Wi-Fi, the SLA list the unslaved cellular links; no link is a slave cellular one.
    const auto gate = [](const std::string& dev, const std::string& uid) {
        const std::string wrapper = "tarn_fw_" + dev + "_wrapper";
        return with(kM, {"-F " + wrapper,
                         "-A " + wrapper + " -m owner --uid-owner " + uid + " -j tarn_fw_" + dev});
    };
    EXPECT_EQ(runner_.commands(),
              concat({createChains("wlan0", "0x200000", false), whitelist, gate("wlan1", "10030"),
                      gate("ccmni0", "10050"), gate("rmnet_data0", "10050"),
                      removeChains("wlan0", "0x200000")}));
}

TEST_F(IptablesManagerTest, RatioRulesGiveEachLinkItsShareOfWhatIsLeft) {
    struct Case {
        std::map<std::string, float> ratios;
        int dualWifi;
        Lines rules;
        Lines logged;  // each probability as computed, before a dual Wi-Fi override
    };
    const Case cases[] = {
        {{{"wlan0", 0.5f}, {"wlan1", 0.5f}},  // the slave Wi-Fi behind its gate
         0,
         {ratioRule("0.500000", "tarn_fw_wlan0"), ratioRule("1.000000", "tarn_fw_wlan1_wrapper")},
         {"0.500000", "1.000000"}},
        {{{"rmnet_data0", 0.3f}, {"wlan0", 0.7f}},  // metered links last, whatever their names
         0,
         {ratioRule("0.700000", "tarn_fw_wlan0"),
          ratioRule("1.000000", "tarn_fw_rmnet_data0_wrapper")},
         {"0.700000", "1.000000"}},
        {{{"wlan0", 0.4f}, {"ccmni0", 0.3f}, {"rmnet_data0", 0.2f}},  // metered: given += ratio
         0,
         {ratioRule("0.400000", "tarn_fw_wlan0"), ratioRule("0.500000", "tarn_fw_ccmni0_wrapper"),
          ratioRule("0.666667", "tarn_fw_rmnet_data0_wrapper")},
         {"0.400000", "0.500000", "0.666667"}},
        {{{"wlan0", 0.5f}, {"wlan1", 0.3f}, {"rmnet_data0", 0.2f}},  // all to the selected Wi-Fi
         1,
         {ratioRule("1.000000", "tarn_fw_wlan0"), ratioRule("0.000000", "tarn_fw_wlan1_wrapper"),
          ratioRule("0.000000", "tarn_fw_rmnet_data0_wrapper")},
         {"0.500000", "1.000000", "0.000000"}},
        {{{"wlan0", 0.5f}, {"wlan1", 0.3f}, {"rmnet_data0", 0.2f}},  // all to the slave
         2,
         {ratioRule("0.000000", "tarn_fw_wlan0"), ratioRule("1.000000", "tarn_fw_wlan1_wrapper"),
          ratioRule("0.000000", "tarn_fw_rmnet_data0_wrapper")},
         {"0.500000", "0.300000", "0.000000"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rules.front());
        runner_.clear();
        log_.clear();
        params()->setDoubleWifiSelectStatus(c.dualWifi);
        EXPECT_EQ(setRatios(c.ratios), 0);
        EXPECT_EQ(runner_.commands(), concat({{kM + "-F tarn_SLA"}, c.rules}));
        Lines logged;  // without the runner's echo of each command
        for (const std::string& text : log_.texts("SLM-Vekt-iptablesManager"))
            if (text.rfind("SEND SLA NDC COMMAND", 0) != 0) logged.push_back(text);
        EXPECT_EQ(logged, with("Updated Ratio: ", c.logged));
    }
    EXPECT_EQ(runner_.unlocked, 0);
}

TEST_F(IptablesManagerTest, ACommandThatCannotStartFailsTheOperation) {
    const std::string rmnet = " FWMARK tables for interface rmnet_data0 ";
    const std::map<std::string, float> allToWlan0 = {{"wlan0", 1.0f}};
    const std::pair<std::function<int()>, std::string> cases[] = {
        {[&] { return manager_->create_SLM_FWMARK_chain_for_iface(link("rmnet_data0")); },
         "create_SLM_FWMARK_chain_for_iface Failue when creating" + rmnet},
        {[&] { return manager_->remove_SLM_FWMARK_chain_for_iface(link("rmnet_data0")); },
         "remove_SLM_FWMARK_chain_for_iface Failure when creating" + rmnet},
        {[&] { return manager_->cleanup_SLM_iptables_FWMARK_chains(); },
         "cleanup_SLM_iptables_FWMARK_chains Failure when cleaning FWMARK tables for all "
         "interfaces "},
        {[&] { return setRatios(allToWlan0); },
         "set_SLA_ratio_iptables Failure when setting SLA Ratios "},
    };
    runner_.setStartable(false);
    for (const auto& [operation, failure] : cases) {
        SCOPED_TRACE(failure);
        runner_.clear();
        log_.clear();
        EXPECT_EQ(operation(), -1);
        const Lines logged = log_.texts("SLM-Vekt-iptablesManager");
        ASSERT_FALSE(logged.empty());
        EXPECT_EQ(logged.front(), "SEND SLA NDC COMMAND - FAIL  " + runner_.commands().at(0) + " ");
        EXPECT_EQ(logged.back(), failure);
    }
}

TEST_F(IptablesManagerTest, CommandsExpectedToFailHarmlesslyDoNotCount) {
    // Creating a chain that exists and flushing chains about to go fail on a rerun or a
    // missing chain; only the commands after them decide the operation's result.
    auto failing = [&](const std::string& piece) {
        runner_.failWhen([piece](const std::string& line) {
            return line.find(piece) != std::string::npos;
        });
    };
    InterfaceInfo_t* rmnet = link("rmnet_data0");
    failing(" -N tarn_fw_");
    EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(rmnet), 0);
    failing(" -F tarn_fw_rmnet_data0_wrapper");
    EXPECT_EQ(manager_->create_SLM_FWMARK_chain_for_iface(rmnet), -1);
    failing(" -F tarn_");  // tarn_SLA, the wrapper chain and the mark chain
    EXPECT_EQ(manager_->remove_SLM_FWMARK_chain_for_iface(rmnet), 0);
    failing(" -X tarn_fw_rmnet_data0_wrapper");
    EXPECT_EQ(manager_->remove_SLM_FWMARK_chain_for_iface(rmnet), -1);
    runner_.failWhen(nullptr);
}

}  // namespace
}  // namespace vekt::test
