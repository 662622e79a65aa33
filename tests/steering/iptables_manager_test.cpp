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
        for (const char* name : {"wlan0", "rmnet_data0", "wlan1", "ccmni0"})
            params()->UpdateInterface(name, true);
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
    EXPECT_EQ(runner_.commands(),
              concat({with(kM, {"-N tarn_SLM", "-F tarn_SLM", "-N tarn_SLA", "-F tarn_SLA",
                                "-N tarn_SLS", "-F tarn_SLS", "-N tarn_SLM_wapper",
                                "-F tarn_SLM_wapper", "-I tarn_SLM 1 -j tarn_SLS",
                                "-I tarn_SLM 2 -m state --state ESTABLISHED,RELATED -j CONNMARK "
                                "--restore-mark",
                                "-I tarn_SLM 3 -j tarn_SLA", "-D OUTPUT -j tarn_SLM_wapper",
                                "-A OUTPUT -j tarn_SLM_wapper"}),
                      with(kNat, {"-F " + kPost, "-N " + kPost, "-D POSTROUTING -j " + kPost,
                                  "-I POSTROUTING -j " + kPost})}));
    runner_.clear();
    IptablesManager::clean_SLM_iptables();
    // The links follow the fixed chains, in name order: selection chains first, then the
    // mark chains they jump to.
    Lines expected = concat(
        {with(kM, {"-D OUTPUT -j tarn_SLM_wapper"}),
         with(kNat, {"-D POSTROUTING -j " + kPost, "-F " + kPost, "-X " + kPost}),
         with(kM, {"-F tarn_SLM_wapper", "-X tarn_SLM_wapper", "-F tarn_SLM", "-X tarn_SLM",
                   "-F tarn_SLA", "-X tarn_SLA", "-F tarn_SLS", "-X tarn_SLS"})});
    const std::pair<std::string, std::string> links[] = {
        {"ccmni0", "0x800000"}, {"rmnet_data0", "0x400000"}, {"wlan0", "0x200000"},
        {"wlan1", "0x600000"}};
    for (const auto& [dev, mark] : links) {
        const std::string sls = "tarn_sls_" + dev, uid = "tarn_sls_uid_" + dev;
        expected = concat({expected, with(kM, {"-D tarn_SLS -j " + uid, "-F " + sls, "-F " + uid,
                                               "-X " + sls, "-X " + uid})});
    }
    for (const auto& [dev, mark] : links) expected = concat({expected, removeChains(dev, mark)});
    EXPECT_EQ(runner_.commands(), expected);
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

    // Each arrival builds the link's chains (a gate chain for a cellular link), then the
    // whitelist, then each per-interface whitelist refills the gates it serves: dual Wi-Fi
    // the slave Wi-Fi, the SLA list the unslaved cellular links; no link is a slave cellular
    // one, and a Wi-Fi link neither metered nor a slave none.
    for (const char* dev : {"wlan0", "rmnet_data0"})
        EXPECT_EQ(manager_->updateInterfaceIptables(dev, true), 0);
    EXPECT_EQ(manager_->updateInterfaceIptables("rmnet_data0", false), 0);
    const std::string w = "-A tarn_SLM_wapper ", uid = w + "-m owner --uid-owner ";
    const auto gate = [](const std::string& dev, const std::string& uid) {
        const std::string wrapper = "tarn_fw_" + dev + "_wrapper";
        return with(kM, {"-F " + wrapper,
                         "-A " + wrapper + " -m owner --uid-owner " + uid + " -j tarn_fw_" + dev});
    };
    const Lines whitelist = concat(
        {with(kM, {"-F tarn_SLM_wapper", w + "-d 192.168.1.1 -j RETURN", w + "-d 10.0.0.1 -j RETURN",
                   uid + "10020 -j tarn_SLM", uid + "10050 -j tarn_SLM", uid + "10030 -j tarn_SLM",
                   uid + "10040 -j tarn_SLM", uid + "10050 -j tarn_SLM"}),
         gate("wlan1", "10030"), gate("ccmni0", "10050"), gate("rmnet_data0", "10050")});
    EXPECT_EQ(runner_.commands(),
              concat({createChains("wlan0", "0x200000", false), whitelist,
                      createChains("rmnet_data0", "0x400000", true), whitelist,
                      removeChains("rmnet_data0", "0x400000")}));
}

TEST_F(IptablesManagerTest, RatioRulesGiveEachLinkItsShareOfWhatIsLeft) {
    struct Case {
        std::map<std::string, float> ratios;
        int dualWifi;
        Lines rules;   // "probability target" for each rule, the target without "tarn_fw_"
        Lines logged = {};  // each probability as computed, if a dual Wi-Fi mode overrode it
    };
    const Case cases[] = {
        {{{"wlan0", 0.5f}, {"wlan1", 0.5f}}, 0,  // the slave Wi-Fi behind its gate
         {"0.500000 wlan0", "1.000000 wlan1_wrapper"}},
        {{{"rmnet_data0", 0.3f}, {"wlan0", 0.7f}}, 0,  // metered links last, whatever the names
         {"0.700000 wlan0", "1.000000 rmnet_data0_wrapper"}},
        {{{"wlan0", 0.4f}, {"ccmni0", 0.3f}, {"rmnet_data0", 0.2f}}, 0,  // metered: given += ratio
         {"0.400000 wlan0", "0.500000 ccmni0_wrapper", "0.666667 rmnet_data0_wrapper"}},
        {{{"wlan0", 0.5f}, {"wlan1", 0.3f}, {"rmnet_data0", 0.2f}}, 1,  // all to the selected
         {"1.000000 wlan0", "0.000000 wlan1_wrapper", "0.000000 rmnet_data0_wrapper"},
         {"0.500000", "1.000000", "0.000000"}},
        {{{"wlan0", 0.5f}, {"wlan1", 0.3f}, {"rmnet_data0", 0.2f}}, 2,  // all to the slave
         {"0.000000 wlan0", "1.000000 wlan1_wrapper", "0.000000 rmnet_data0_wrapper"},
         {"0.500000", "0.300000", "0.000000"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rules.front());
        runner_.clear();
        log_.clear();
        params()->setDoubleWifiSelectStatus(c.dualWifi);
        EXPECT_EQ(setRatios(c.ratios), 0);
        Lines rules = {kM + "-F tarn_SLA"}, logged;
        for (const std::string& rule : c.rules) {
            if (c.logged.empty()) logged.push_back("Updated Ratio: " + rule.substr(0, 8));
            rules.push_back(kM + "-A tarn_SLA -p tcp -m state --state NEW -m statistic --mode "
                                 "random --probability " +
                            rule.substr(0, 8) + " -j tarn_fw_" + rule.substr(9));
        }
        EXPECT_EQ(runner_.commands(), rules);
        Lines texts;  // without the runner's echo of each command
        for (const std::string& text : log_.texts("SLM-Vekt-iptablesManager"))
            if (text.rfind("SEND SLA NDC COMMAND", 0) != 0) texts.push_back(text);
        EXPECT_EQ(texts, c.logged.empty() ? logged : with("Updated Ratio: ", c.logged));
    }
    EXPECT_EQ(runner_.unlocked, 0);
}

// A command that cannot start ("" below: every one) fails the operation with its log lines,
// except those expected to fail harmlessly: creating a chain that exists and flushing chains
// about to go fail on a rerun or a missing chain.
TEST_F(IptablesManagerTest, FailedCommandsFailTheOperationUnlessHarmless) {
    const std::string rmnet = " FWMARK tables for interface rmnet_data0 ";
    const std::pair<std::function<int()>, std::string> operations[] = {
        {[&] { return manager_->create_SLM_FWMARK_chain_for_iface(link("rmnet_data0")); },
         "create_SLM_FWMARK_chain_for_iface Failue when creating" + rmnet},
        {[&] { return manager_->remove_SLM_FWMARK_chain_for_iface(link("rmnet_data0")); },
         "remove_SLM_FWMARK_chain_for_iface Failure when creating" + rmnet},
        {[&] { return manager_->cleanup_SLM_iptables_FWMARK_chains(); },
         "cleanup_SLM_iptables_FWMARK_chains Failure when cleaning FWMARK tables for all "
         "interfaces "},
        {[&] { return setRatios({{"wlan0", 1.0f}}); },
         "set_SLA_ratio_iptables Failure when setting SLA Ratios "},
    };
    struct Case {
        const char* failing;  // a piece of the command lines that fail
        int operation;
        int result;
    };
    for (const Case& c : {Case{"", 0, -1}, {"", 1, -1}, {"", 2, -1}, {"", 3, -1},
                          {" -N tarn_fw_", 0, 0}, {" -F tarn_fw_rmnet_data0_wrapper", 0, -1},
                          {" -F tarn_", 1, 0},  // tarn_SLA, the gate chain, the mark chain
                          {" -X tarn_fw_rmnet_data0_wrapper", 1, -1}}) {
        const auto& [operation, failure] = operations[c.operation];
        SCOPED_TRACE(failure + "with '" + c.failing + "' failing");
        runner_.clear();
        log_.clear();
        runner_.failWhen([piece = std::string(c.failing)](const std::string& line) {
            return line.find(piece) != std::string::npos;
        });
        EXPECT_EQ(operation(), c.result);
        const Lines logged = log_.texts("SLM-Vekt-iptablesManager");
        if (c.result == 0) continue;
        ASSERT_FALSE(logged.empty());
        EXPECT_EQ(logged.back(), failure);
        if (*c.failing == '\0') {  // the first command failed
            EXPECT_EQ(logged.front(), "SEND SLA NDC COMMAND - FAIL  " + runner_.commands()[0] + " ");
        }
    }
    runner_.failWhen(nullptr);
}

}  // namespace
}  // namespace vekt::test
