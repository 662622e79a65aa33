// The daemon's whole rule set against the real packet filter: the daemon in a private
// network namespace, wrapper tools that forward to the real iptables and ip, and the
// namespace's tables read back with iptables-save and ip rule, built and torn down again.
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "control/msg.h"
#include "support/control_client.h"
#include "support/daemon_process.h"
#include "support/netfilter_wrappers.h"
#include "support/netns.h"
#include "support/temp_root.h"

namespace vekt::test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

// iptables-save text split by table: the chain names declared and the rules of each chain,
// each rule without its "-A CHAIN " head, in chain order.
struct SavedTable {
    std::vector<std::string> chains;
    std::map<std::string, std::vector<std::string>> rules;
};

std::map<std::string, SavedTable> parseSave(const std::string& text) {
    std::map<std::string, SavedTable> tables;
    SavedTable* table = nullptr;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind('*', 0) == 0) {
            table = &tables[line.substr(1)];
        } else if (table != nullptr && line.rfind(':', 0) == 0) {
            table->chains.push_back(line.substr(1, line.find(' ') - 1));
        } else if (table != nullptr && line.rfind("-A ", 0) == 0) {
            size_t end = line.find(' ', 3);
            std::string chain = line.substr(3, end - 3);
            table->rules[chain].push_back(end == std::string::npos ? "" : line.substr(end + 1));
        }
    }
    return tables;
}

// The entries that start with prefix: the daemon's chains ("tarn_") or, over `ip rule`'s
// lines, the policy-routing rules at its priority ("14999:").
std::vector<std::string> startingWith(const std::vector<std::string>& entries,
                                      const std::string& prefix) {
    std::vector<std::string> found;
    for (const std::string& entry : entries)
        if (entry.rfind(prefix, 0) == 0) found.push_back(entry);
    return found;
}
std::vector<std::string> routingRules(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return startingWith(lines, "14999:");
}

// The rule set is built with commands that may be rejected without harm, and only those
// may be. Each entry holds for one phase: start-up (until the teardown begins) or teardown.
struct HarmlessFailure {
    bool teardown;
    const char* command;  // regular expression over the whole logged command
};
const HarmlessFailure kHarmlessFailures[] = {
    // Start-up: a chain created again over an earlier run's (flushed next and reused); hooks
    // deleted before they are added, so a restart never doubles them; the nat chain flushed
    // before it is created; an earlier run's routing rule for the mark dropped before the
    // new one is added.
    {false, R"(iptables -w -t (mangle|nat) -N \S+)"},
    {false, "iptables -w -t mangle -D OUTPUT -j tarn_SLM_wapper"},
    {false, "iptables -w -t nat -D POSTROUTING -j tarn_nat_POSTROUTING_SLM"},
    {false, "iptables -w -t nat -F tarn_nat_POSTROUTING_SLM"},
    {false, R"(ip -4 rule del fwmark 0x[0-9a-f]+/0x0CE00000 prio 14999)"},
    // Teardown: the per-interface removals run after the fixed chains are gone (their flush
    // of the ratio chain and their delete in the nat chain find nothing); removal treats
    // every link as gated, but a Wi-Fi link neither metered nor a slave has no gate; and
    // selection chains exist only while selection, gaming or VoIP runs, none here.
    {true, "iptables -w -t mangle -F tarn_SLA"},
    {true, R"(iptables -w -t nat -D tarn_nat_POSTROUTING_SLM -o \S+ -j MASQUERADE)"},
    {true, "iptables -w -t mangle -[FX] tarn_fw_wlan0_wrapper"},
    {true, R"(iptables -w -t mangle -D tarn_SLS -j tarn_sls_uid_\S+)"},
    {true, R"(iptables -w -t mangle -[FX] tarn_sls_(uid_)?\S+)"},
};

// Rejected commands that are not in the list above, "STATUS COMMAND" each. The teardown
// starts with the second removal of the OUTPUT hook (the first is the start-up's own).
std::vector<std::string> unexpectedFailures(const std::vector<ForwardedCommand>& commands) {
    std::vector<std::string> failures;
    int outputHookRemovals = 0;
    for (const ForwardedCommand& command : commands) {
        if (command.line == "iptables -w -t mangle -D OUTPUT -j tarn_SLM_wapper") {
            ++outputHookRemovals;
        }
        const bool teardown = outputHookRemovals >= 2;
        if (command.status == 0) continue;
        bool harmless = false;
        for (const HarmlessFailure& allowed : kHarmlessFailures) {
            harmless = harmless || (allowed.teardown == teardown &&
                                    std::regex_match(command.line, std::regex(allowed.command)));
        }
        if (!harmless) failures.push_back(std::to_string(command.status) + " " + command.line);
    }
    return failures;
}

class NetfilterRulesTest : public ::testing::Test {
protected:
    void SetUp() override {
        VEKT_REQUIRE_NETNS();
        std::string missing;
        if (!findNetfilterTools(&tools_, &missing)) GTEST_SKIP() << "needs" << missing;
        commandLog_ = installForwardingWrappers(root_, tools_);
        root_.writeConf("mini_est_interval = 200\n");
        root_.setProperty("vendor.sla.enabled", "1");
        ASSERT_TRUE(slasim_.start(
            {binPath("slasim"), "--root", root_.dir(), "wlan0=1200", "rmnet_data0=800"},
            root_.dir() + "/slasim.log", false));
        ASSERT_TRUE(waitForText(root_.dir() + "/slasim.log", "slasim: ready", 5000));
    }

    std::string log() const { return root_.dir() + "/vekt.log"; }

    // Hands the daemon both links, rmnet_data0 metered, over a client that stays connected
    // (a stop takes effect only while one is).
    void addLinks() {
        client_ = ControlClient();
        ASSERT_TRUE(client_.connect(root_.path("/dev/socket/vekt"))) << readWholeFile(log());
        ASSERT_TRUE(client_.send(MSG_INTERFACE_MODE, "1"));
        ASSERT_TRUE(client_.send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0"));
    }

    std::string inDaemonNamespace(const std::vector<std::string>& argv) {
        int status = -1;
        std::string text = runInNetNamespaceOf(vekt_.pid(), argv, &status);
        EXPECT_EQ(status, 0) << argv[0] << ": " << text;
        return text;
    }
    std::string iptablesSave() { return inDaemonNamespace({tools_.iptablesSave}); }
    std::string ipRule() { return inDaemonNamespace({tools_.ip, "rule"}); }

    // Waits until this daemon wrote ratio rules and the ratio chain holds one for each link
    // (a rewrite flushes it first, so a read may fall between flush and rules); returns
    // that iptables-save text.
    std::string waitForRatioRules() {
        EXPECT_TRUE(waitForText(commandLog_, "-j tarn_fw_rmnet_data0_wrapper", 10000))
            << readWholeFile(commandLog_) << readWholeFile(log());
        std::string save;
        for (int waited = 0; waited < 5000; waited += 50) {
            save = iptablesSave();
            if (parseSave(save)["mangle"].rules["tarn_SLA"].size() == 2) break;
            usleep(50 * 1000);
        }
        return save;
    }

    // The tree of two links: skeleton, hooks once each, mark chains, masquerading, routing
    // rules matching the marks, and ratio rules (unmetered link first).
    void expectFullRuleSet(const std::string& saveText, const std::string& ipRuleText) {
        std::map<std::string, SavedTable> save = parseSave(saveText);
        SavedTable& mangle = save["mangle"];
        SavedTable& nat = save["nat"];
        EXPECT_THAT(startingWith(mangle.chains, "tarn_"),
                    UnorderedElementsAre("tarn_SLM", "tarn_SLA", "tarn_SLS", "tarn_SLM_wapper",
                                         "tarn_fw_wlan0", "tarn_fw_rmnet_data0",
                                         "tarn_fw_rmnet_data0_wrapper"))
            << saveText;
        EXPECT_THAT(startingWith(nat.chains, "tarn_"), ElementsAre("tarn_nat_POSTROUTING_SLM")) << saveText;
        EXPECT_THAT(mangle.rules["OUTPUT"], ElementsAre("-j tarn_SLM_wapper"));
        EXPECT_THAT(nat.rules["POSTROUTING"], ElementsAre("-j tarn_nat_POSTROUTING_SLM"));
        EXPECT_THAT(mangle.rules["tarn_SLM"],
                    ElementsAre("-j tarn_SLS",
                                AllOf(HasSubstr("--state RELATED,ESTABLISHED"),
                                      HasSubstr("-j CONNMARK --restore-mark")),
                                "-j tarn_SLA"));
        EXPECT_THAT(nat.rules["tarn_nat_POSTROUTING_SLM"],
                    UnorderedElementsAre("-o wlan0 -j MASQUERADE", "-o rmnet_data0 -j MASQUERADE"));

        // Each link's mark chain, and a routing rule that sends its mark to its table.
        std::vector<std::string> routes;
        for (const auto& [name, table] : {std::pair{"wlan0", "1001"}, {"rmnet_data0", "1002"}}) {
            const std::vector<std::string>& rules = mangle.rules[std::string("tarn_fw_") + name];
            EXPECT_THAT(rules, ElementsAre(MatchesRegex("-j MARK --set-xmark 0x[0-9a-f]+/0xe00000"),
                                           AllOf(HasSubstr("-j CONNMARK --save-mark"),
                                                 HasSubstr("--ctmask 0xe00000")),
                                           "-j ACCEPT"))
                << name;
            if (rules.empty()) continue;
            const size_t at = rules[0].find("0x");
            const std::string mark = rules[0].substr(at, rules[0].find('/') - at);
            routes.push_back("14999:\tfrom all fwmark " + mark + "/0xce00000 lookup " + table);
        }
        ASSERT_EQ(routes.size(), 2u);
        EXPECT_NE(routes[0].substr(0, routes[0].find('/')),  // the marks differ
                  routes[1].substr(0, routes[1].find('/')));
        EXPECT_THAT(routingRules(ipRuleText), UnorderedElementsAre(routes[0], routes[1]))
            << ipRuleText;
        const std::string ratio =
            "-p tcp -m state --state NEW -m statistic --mode random "
            "--probability [01]\\.[0-9]+ -j ";
        EXPECT_THAT(mangle.rules["tarn_SLA"],
                    ElementsAre(MatchesRegex(ratio + "tarn_fw_wlan0"),
                                MatchesRegex(ratio + "tarn_fw_rmnet_data0_wrapper")))
            << saveText;
    }

    // Stops the daemon (the client is still connected), then nothing of its own may remain.
    void stopAndExpectNothingLeft() {
        root_.setProperty("vendor.sla.enabled", "2");
        ASSERT_TRUE(waitForText(log(), "Vekt exiting", 5000)) << readWholeFile(log());
        // The daemon idles for good now and keeps the namespace alive until it is killed.
        // No chain of its own, so no hook either.
        const std::string save = iptablesSave();
        EXPECT_THAT(save, Not(HasSubstr("tarn_"))) << save;
        EXPECT_THAT(routingRules(ipRule()), IsEmpty());
        EXPECT_THAT(unexpectedFailures(readForwardedCommands(commandLog_)), IsEmpty())
            << readWholeFile(commandLog_);
    }

    NetfilterTools tools_;
    TempRoot root_;
    std::string commandLog_;
    ChildProcess slasim_;
    ChildProcess vekt_;
    ControlClient client_;
};

// A daemon that died without its cleanup left the whole tree behind; the next one in the
// same namespace must reuse it without doubling a hook, a routing rule or a masquerade.
TEST_F(NetfilterRulesTest, TheWholeTreeLoadsIsRebuiltOnceOverAKilledRunAndGoesAtStop) {
    ASSERT_TRUE(vekt_.start({binPath("vekt"), "--root", root_.dir()}, log(), true));
    addLinks();
    const std::string firstSave = waitForRatioRules();  // before ip rule is read
    expectFullRuleSet(firstSave, ipRule());
    EXPECT_THAT(unexpectedFailures(readForwardedCommands(commandLog_)), IsEmpty())
        << readWholeFile(commandLog_);
    const std::string nsenter = "/usr/bin/nsenter";
    if (access(nsenter.c_str(), X_OK) != 0) {
        stopAndExpectNothingLeft();
        GTEST_SKIP() << "the restart needs " << nsenter;
    }
    // The namespace outlives the killed daemon through this descriptor; the next daemon
    // enters it through nsenter, which fails rather than run it anywhere else.
    const std::string nsPath = "/proc/" + std::to_string(vekt_.pid()) + "/ns/net";
    android::base::unique_fd ns(open(nsPath.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(ns.ok());
    vekt_.kill();
    client_.close();
    root_.writeFile("/netfilter.log", "");  // judge the second run's commands on their own
    ASSERT_TRUE(vekt_.start(
        {nsenter, "--net=/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(ns.get()),
         binPath("vekt"), "--root", root_.dir()},
        log(), false));
    addLinks();
    const std::string save = waitForRatioRules();
    ns.reset();  // the second daemon holds the namespace from here on
    expectFullRuleSet(save, ipRule());
    stopAndExpectNothingLeft();
}

}  // namespace
}  // namespace vekt::test
