// What a hostile client of the world-writable control socket (or a broken settings file)
// can send: each piece is refused with one line, nothing is created outside the statistics
// directory, no client text reaches a tool except as one whole validated argument, and the
// next record is served as usual.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <regex>

#include "support/handler_fixture.h"
#include "support/no_sleep.h"

namespace vekt::test {
namespace {

using Strings = std::vector<std::string>;

bool exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

class HostileInputTest : public HandlerTest {
protected:
    // Every argument of every command run so far, one by one.
    Strings arguments() const {
        Strings all;
        for (const std::string& line : runner_.commands())
            for (const std::string& arg : splitCommandLine(line)) all.push_back(arg);
        return all;
    }

    // Log lines that contain text (the capture's own count wants whole lines).
    size_t logged(const std::string& text) const {
        size_t n = 0;
        for (const std::string& line : log_.texts()) n += line.find(text) != std::string::npos;
        return n;
    }

    Strings registered() {
        MutexLock lock(interfaceMutex);
        Strings names;
        for (const auto& entry : params()->m_interfaceInfoMap)
            if (entry.second != nullptr) names.push_back(entry.first);
        return names;
    }

    ScopedNoSleep noSleep_;
};

TEST_F(HostileInputTest, InterfaceNamesThatAreNoNamesAreRefusedBeforeTheyBecomePathsOrArguments) {
    const std::string escape = "../../../../../../../../tmp/vekt-escape-" + std::to_string(getpid());
    const std::string longName(117, 'x');  // "_mmap" would no longer fit a 128-byte path
    const std::string overlong(200, 'y');  // once kept registered after its removal
    send(MSG_UPDATE_INTERFACES, escape + "," + longName + ",eth0 -o lo -j ACCEPT," + overlong);
    for (const std::string& piece : {escape, std::string("eth0 -o lo -j ACCEPT")})
        EXPECT_TRUE(log_.contains("updateInterfaces refused interface name \"" + piece + "\""));
    EXPECT_EQ(logged("updateInterfaces refused interface name"), 4u);
    EXPECT_FALSE(exists("/tmp/vekt-escape-" + std::to_string(getpid()) + "_mmap"));
    EXPECT_FALSE(exists(root_.path("/tmp")));
    EXPECT_TRUE(registered().empty());
    EXPECT_TRUE(runner_.commands().empty());

    // The next list is served as usual, and the refused names are not "removed" from it.
    send(MSG_UPDATE_INTERFACES, "wlan0");
    EXPECT_EQ(registered(), Strings{"wlan0"});
    EXPECT_FALSE(log_.contains("remove Interfaces is"));
    MutexLock lock(interfaceMutex);
    EXPECT_STREQ(params()->m_interfaceInfoMap["wlan0"]->fwmark, "0x200000");
}

TEST_F(HostileInputTest, UidsAndGatewaysReachRulesOnlyAsOneValidatedArgument) {
    send(MSG_SLA_UID_WHITELIST, "1 -X,-j,10123");
    send(MSG_WIFI_GATEWAY, "0/0 -j ACCEPT");
    send(MSG_START_SLS, "10124 -j ACCEPT,10125");
    EXPECT_EQ(params()->m_slaUidList.get(), Strings{"10123"});
    EXPECT_EQ(params()->m_gamingUidList.get(), Strings{"10125"});
    EXPECT_TRUE(params()->m_wifiGatewayList.get().empty());
    EXPECT_TRUE(log_.contains("populateSlaUidWhitelist refused UID \"1 -X\""));
    EXPECT_TRUE(log_.contains("populateSlaUidWhitelist refused UID \"-j\""));
    EXPECT_TRUE(log_.contains("populateWifiGateway refused gateway address \"0/0 -j ACCEPT\""));
    EXPECT_TRUE(log_.contains("populateGamingUids refused UID \"10124 -j ACCEPT\""));
    send(MSG_STOP_SLS, "");

    // VoIP and gaming AI mode take their UIDs the same way, and so does the kernel module.
    root_.writeFile("/proc/sla/.keep", "");
    send(MSG_VOIP, "10126,10127 -X");
    EXPECT_EQ(params()->m_gamingUidList.get(), Strings{"10126"});
    send(MSG_VOIP, "0");
    send(MSG_GAME_AI_MODE, "10128,-j ACCEPT");
    EXPECT_EQ(params()->m_gamingUidList.get(), Strings{"10128"});
    EXPECT_EQ(logged("populateGamingUids refused UID"), 3u);

    const std::regex ownerRule(".* --uid-owner [0-9]+ -j tarn_SLM");
    const std::regex returnRule(".* -d [0-9.]+ -j RETURN");
    for (const std::string& line : runner_.commands()) {
        if (line.find("--uid-owner") != std::string::npos) {
            EXPECT_TRUE(std::regex_match(line, ownerRule)) << line;
        }
        EXPECT_EQ(line.find(" -d "), std::string::npos) << line;
        EXPECT_FALSE(std::regex_match(line, returnRule)) << line;
    }
    const Strings args = arguments();
    for (const char* hostile : {"-X", "ACCEPT", "0/0"})
        EXPECT_EQ(std::count(args.begin(), args.end(), hostile), 0) << hostile;
}

TEST_F(HostileInputTest, AFifoInPlaceOfAStatisticsFileDoesNotHoldTheControlThread) {
    ASSERT_EQ(mkfifo(root_.path("/proc/sla/wlan0_mmap").c_str(), 0600), 0);
    auto handled = std::async(std::launch::async, [this] { send(MSG_UPDATE_INTERFACES, "wlan0"); });
    ASSERT_EQ(handled.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_TRUE(log_.contains("mmap file /proc/sla/wlan0_mmap is not a regular file"));
    EXPECT_EQ(registered(), Strings{"wlan0"});  // registered; it just has no statistics
    // Nor does a link pointing out of the directory get followed.
    ASSERT_EQ(symlink("/tmp", root_.path("/proc/sla/rmnet_data0_mmap").c_str()), 0);
    send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0");
    EXPECT_EQ(logged("open mmap file failed:"), 3u);  // three tries, none followed it
}

TEST_F(HostileInputTest, SettingsThatCannotWorkKeepTheirDefaults) {
    root_.writeConf(
        "mini_est_interval = 99999999999999\n"
        "best_est_cache_size = 2000000000\n"
        "ping_interval_ms = -5\n"
        "rtt_server = 127.0.0.1 -j X\n"
        "min_ratio_change = 150\n");
    Parameters::destroyInstanceForTest();
    Parameters* p = params();
    EXPECT_EQ(p->get(MINI_EST_INTERVAL), 1000);
    EXPECT_EQ(p->m_bestEstCacheSize, 0);
    EXPECT_EQ(p->m_pingIntervalMs, 1000);
    EXPECT_EQ(p->m_rttServer.get(), VEKT_DEFAULT_RTT_SERVER);
    EXPECT_EQ(p->m_minRatioChange, 150);  // unusual, but it has a meaning: never rewrite
    EXPECT_TRUE(log_.contains(
        "setValue refused mini_est_interval=99999999999999: outside 1 to 60000, keeping 1000"));
    EXPECT_EQ(logged("setValue refused ping_interval_ms=-5: outside 1 to 60000"), 1u);
    EXPECT_EQ(logged("setValue refused best_est_cache_size=2000000000"), 1u);
    EXPECT_TRUE(log_.contains("setValue refused rtt_server address \"127.0.0.1 -j X\""));
    root_.writeConf("mini_est_interval = 0\n");
    Parameters::destroyInstanceForTest();
    EXPECT_EQ(params()->get(MINI_EST_INTERVAL), 1000);
}

TEST_F(HostileInputTest, AStatisticsFileTruncatedUnderItsMappingEndsOnlyThatMeasurement) {
    root_.publishStatsFile("wlan0");
    send(MSG_UPDATE_INTERFACES, "wlan0");
    SlaStatsImpl* stats = SlaStatsImpl::instance();
    stats->evalAndSetSLAInterfaceRatio();
    ASSERT_EQ(truncate(root_.path("/proc/sla/wlan0_mmap").c_str(), 0), 0);
    stats->evalAndSetSLAInterfaceRatio();
    EXPECT_TRUE(log_.contains(
        "evalAndSetSLAInterfaceRatio statistics file of wlan0 is shorter than its mapping"));
    send(MSG_UPDATE_INTERFACES, "wlan0,rmnet_data0");
    EXPECT_EQ(registered(), (Strings{"rmnet_data0", "wlan0"}));
}

}  // namespace
}  // namespace vekt::test
