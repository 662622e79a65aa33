// Link aggregation over real links: the daemon runs in a phone namespace with two veth links
// to a peer namespace, loads its rules into the real packet filter there, and the new TCP
// connections of a steered UID leave over both links in the proportions of the probability
// rules it installed, each one completing over the link it left on.
#include <gtest/gtest.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "control/msg.h"
#include "support/control_client.h"
#include "support/daemon_process.h"
#include "support/link_lab.h"
#include "support/netfilter_wrappers.h"
#include "support/temp_root.h"

namespace vekt::test {
namespace {

constexpr uid_t kTestUid = 10123;
constexpr uint16_t kServerPort = 7077;
constexpr int kConnections = 40;

struct RatioRule {
    double probability = -1.0;
    std::string target;
};

// The rules of tarn_SLA in iptables-save text, in chain order.
std::vector<RatioRule> ratioRules(const std::string& save) {
    std::vector<RatioRule> rules;
    std::istringstream lines(save);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("-A tarn_SLA ", 0) != 0) continue;
        RatioRule rule;
        size_t at = line.find("--probability ");
        if (at != std::string::npos) rule.probability = atof(line.c_str() + at + 14);
        at = line.find(" -j ");
        if (at != std::string::npos) rule.target = line.substr(at + 4);
        rules.push_back(rule);
    }
    return rules;
}

// Rewrites of the ratio chain so far: each one starts with a flush.
size_t ratioRewrites(const std::string& commandLog) {
    size_t rewrites = 0;
    for (const ForwardedCommand& command : readForwardedCommands(commandLog)) {
        if (command.line == "iptables -w -t mangle -F tarn_SLA") ++rewrites;
    }
    return rewrites;
}

struct Scenario {
    std::vector<std::string> links;  // first: the main table's link; second: the added one
    std::vector<std::pair<int, std::string>> commands;
    std::string secondTarget;  // the chain that the second link's ratio rule jumps to
    double firstShare;         // the first link's share that the rates give
};

class AggregationRealLinksTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string missing;
        if (!canRunOnRealLinks(&tools_, &missing)) GTEST_SKIP() << missing;
    }

    std::string log() const { return root_.dir() + "/vekt.log"; }
    std::string iptablesSave() const { return lab_.phone().run({tools_.iptablesSave}); }

    // The lab, slasim with the first link at 1000 and the second at 800, and the daemon in
    // the phone namespace with the scenario's commands sent over one client.
    void startAggregation(const Scenario& scenario) {
        std::string error;
        ASSERT_TRUE(lab_.build(tools_.ip, scenario.links, defaultRouteTables(), &error)) << error;
        ASSERT_TRUE(server_.start(lab_.peer(), kServerPort));
        commandLog_ = installForwardingWrappers(root_, tools_);
        root_.writeConf("mini_est_interval = 100  # ten passes a second: rules within one\n");
        root_.setProperty("vendor.sla.enabled", "1");
        ASSERT_TRUE(slasim_.start({binPath("slasim"), "--root", root_.dir(),
                                   scenario.links[0] + "=1000", scenario.links[1] + "=800"},
                                  root_.dir() + "/slasim.log", false));
        ASSERT_TRUE(waitForText(root_.dir() + "/slasim.log", "slasim: ready", 5000));
        // nsenter fails rather than run the daemon anywhere but in the phone namespace.
        ASSERT_TRUE(vekt_.start(daemonInside(lab_.phone(), root_.dir()), log(), false));
        ASSERT_TRUE(client_.connect(root_.path("/dev/socket/vekt"))) << readWholeFile(log());
        for (const auto& [id, text] : scenario.commands) ASSERT_TRUE(client_.send(id, text));
    }

    // The ratio rules once both links have one and no rewrite came for half a second: the
    // first estimates climb over a few passes, and a connection that arrives while a
    // rewrite has flushed the chain would go unsteered.
    std::vector<RatioRule> waitForSettledRatioRules(const std::string& secondTarget) {
        EXPECT_TRUE(waitForText(commandLog_, "-j " + secondTarget, 10000))
            << readWholeFile(commandLog_) << readWholeFile(log());
        size_t seen = ratioRewrites(commandLog_);
        for (int quietMs = 0, waitedMs = 0; quietMs < 500 && waitedMs < 10000; waitedMs += 50) {
            usleep(50 * 1000);
            const size_t rewrites = ratioRewrites(commandLog_);
            quietMs = rewrites == seen ? quietMs + 50 : 0;
            seen = rewrites;
        }
        return ratioRules(iptablesSave());
    }

    // The rules settle, the test UID's connections spread over both links and complete.
    // (That a stop takes the rules along is the packet-filter test's.)
    void aggregateAndConnect(const Scenario& scenario) {
        const std::string& first = scenario.links[0];
        const std::string& second = scenario.links[1];
        startAggregation(scenario);
        if (HasFatalFailure()) return;

        const std::vector<RatioRule> rules = waitForSettledRatioRules(scenario.secondTarget);
        ASSERT_EQ(rules.size(), 2u) << iptablesSave() << readWholeFile(commandLog_);
        EXPECT_EQ(rules[0].target, "tarn_fw_" + first);
        EXPECT_EQ(rules[1].target, scenario.secondTarget);
        // The rates fix the shares; a test whose second link got next to nothing would prove
        // little, so the rules must be the ones the rates call for.
        EXPECT_NEAR(rules[0].probability, scenario.firstShare, 0.03);
        EXPECT_NEAR(rules[1].probability, 1.0, 0.01);

        // The random rules run in chain order: the first link takes p0 of the new connections,
        // the second p1 of the rest, and whatever both leave goes unmarked, over the main
        // table's link, which is the first one as well.
        const double secondShare = (1.0 - rules[0].probability) * rules[1].probability;
        const std::map<std::string, double> shares = {{first, 1.0 - secondShare},
                                                      {second, secondShare}};
        const size_t rewritesBefore = ratioRewrites(commandLog_);
        const std::map<std::string, LinkCounters> before = lab_.counters();

        std::string error;
        const std::vector<std::string> answers =
            connectManyAs(lab_.phone(), kTestUid, VethLab::kServerAddress, kServerPort,
                          kConnections, 15000, &error);
        EXPECT_TRUE(error.empty()) << error;
        const std::map<std::string, LinkCounters> after = lab_.counters();
        EXPECT_EQ(ratioRewrites(commandLog_), rewritesBefore)
            << "the rules changed while the connections ran\n"
            << readWholeFile(commandLog_);

        // Each answer is the source address that the server saw: the phone's address on the
        // link the connection left on, put there by the daemon's masquerading. The peer drops
        // anything from an address that does not belong to the link it arrives on, and it
        // answers over the link of that address; so an answer also proves that the whole
        // exchange went both ways over that one link.
        EXPECT_EQ(server_.sources(), answers);
        std::map<std::string, int> perLink;
        for (const std::string& answer : answers) {
            if (answer == lab_.phoneAddress(first))
                ++perLink[first];
            else if (answer == lab_.phoneAddress(second))
                ++perLink[second];
            else if (!answer.empty())
                ADD_FAILURE() << "a connection came from " << answer;
        }

        // Binomial counts: within four standard deviations of n·share, and at least one.
        // With n = 40 and shares of 0.375 / 0.625 (or 0.44 / 0.56) a correct daemon misses
        // that about 3 times in 100000 runs. It fails a link left out or all connections on
        // one link (15 off where 12.2 is allowed); shares a few points apart are the ratio
        // unit tests' job, not this one's.
        for (const auto& [link, share] : shares) {
            const double expected = kConnections * share;
            const double deviation = sqrt(kConnections * share * (1.0 - share));
            EXPECT_NEAR(perLink[link], expected, 4.0 * deviation)
                << link << " with the installed probabilities " << rules[0].probability << ", "
                << rules[1].probability;
            EXPECT_GE(perLink[link], 1) << link;
            // Each connection sends at least its SYN, its request and its closing FIN over its
            // link, and receives at least the SYN-ACK and the answer there.
            EXPECT_GE(after.at(link).txPackets - before.at(link).txPackets, 3u * perLink[link])
                << link;
            EXPECT_GE(after.at(link).rxPackets - before.at(link).rxPackets, 2u * perLink[link])
                << link;
        }
        printf("  %s %d / %s %d of %d connections; shares %.3f / %.3f\n", first.c_str(),
               perLink[first], second.c_str(), perLink[second], kConnections, shares.at(first),
               shares.at(second));
    }

    // Destroyed in reverse order: client, daemon and slasim go before the namespaces.
    VethLab lab_;
    SourceAddressServer server_;
    NetfilterTools tools_;
    TempRoot root_;
    std::string commandLog_;
    ChildProcess slasim_;
    ChildProcess vekt_;
    ControlClient client_;
};

// Wi-Fi alone cannot carry the load (1000 under the 1600 threshold), so it keeps 1000 / 1600
// of the new connections and the metered cellular link, whose wrapper chain admits the
// whitelisted UID, takes the rest.
TEST_F(AggregationRealLinksTest, WifiAndMeteredCellularBothCarryConnections) {
    const std::string uid = std::to_string(kTestUid);
    aggregateAndConnect({{"wlan0", "rmnet_data0"},
                         {{MSG_INTERFACE_MODE, "1"},
                          {MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0"},
                          {MSG_SLA_UID_WHITELIST, uid}},
                         "tarn_fw_rmnet_data0_wrapper",
                         1000.0 / 1600.0});
}

// Two Wi-Fi links share by their rates, 1000 / 1800 to the first; the second is a slave,
// reached through its wrapper chain, which admits the UIDs of the dual Wi-Fi whitelist.
TEST_F(AggregationRealLinksTest, TwoWifiLinksWithASlaveBothCarryConnections) {
    const std::string uid = std::to_string(kTestUid);
    aggregateAndConnect({{"wlan0", "wlan1"},
                         {{MSG_INTERFACE_MODE, "1"},
                          {MSG_UPDATE_INTERFACES, "wlan0,wlan1"},
                          {MSG_SLA_UID_WHITELIST, uid},
                          {MSG_DW_UID_WHITELIST, uid}},
                         "tarn_fw_wlan1_wrapper",
                         1000.0 / 1800.0});
}

}  // namespace
}  // namespace vekt::test
