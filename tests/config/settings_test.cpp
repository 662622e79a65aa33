#include <gtest/gtest.h>
#include <log/log.h>

#include <sstream>

#include "support/parameters_fixture.h"
#include "support/temp_root.h"

namespace vekt::test {
namespace {

class SettingsTest : public ParametersTest {};

TEST_F(SettingsTest, DefaultsWithoutSettingsFile) {
    Parameters* p = params();
    EXPECT_TRUE(log_.contains("read vekt conf file failed!"));
    EXPECT_EQ(p->get(MINI_EST_INTERVAL), 1000);
    EXPECT_EQ(p->get(WIFI_THRESHOLD), 1600);
    EXPECT_EQ(p->get(WAN_THRESHOLD), 500);
    EXPECT_EQ(p->get(static_cast<OperId>(14)), 1);
    EXPECT_EQ(p->get(SOCK_STALE_TIME), 0);
    EXPECT_EQ(p->m_ports.get(), "80,443");
    EXPECT_EQ(p->m_protocols.get(), "http,https");
    EXPECT_EQ(p->m_rttServer.get(), VEKT_DEFAULT_RTT_SERVER);
    EXPECT_EQ(p->m_rttServerPort, 443);
    EXPECT_EQ(p->maxPingMiss, 5);
    EXPECT_EQ(p->m_nHyst, 1);
    EXPECT_EQ(p->m_rttExitThreshold, 120);
    EXPECT_EQ(p->m_rateByteCap, 102400);
    EXPECT_EQ(p->m_interfaceMode.get(), "1");
    // Ids past the table, negative ones included, read all ones rather than past the array.
    EXPECT_EQ(static_cast<uint32_t>(p->get(static_cast<OperId>(29))), 0xFFFFFFFFu);
    EXPECT_EQ(static_cast<uint32_t>(p->get(static_cast<OperId>(-1))), 0xFFFFFFFFu);
}

TEST_F(SettingsTest, EnablePropertyIsReadAtStartAndOnEveryCall) {
    root_.setProperty("vendor.sla.enabled", "1\nrest");
    EXPECT_EQ(params()->get(SLA_ENABLED), 1);
    root_.setProperty("vendor.sla.enabled", "2");
    EXPECT_EQ(params()->getSLAVendorProp(), 2);
    EXPECT_EQ(params()->get(SLA_ENABLED), 2);
    root_.setProperty("vendor.sla.enabled", "junk");
    EXPECT_EQ(params()->getSLAVendorProp(), 0);
}

// The file a device installs: every line is taken, and it leaves the probe server and the
// game list to the build (no loopback server, no example UID on a phone).
TEST_F(SettingsTest, TheDevicesSettingsFileIsAcceptedAndLeavesTheBuildsServer) {
    const std::string deviceFile = readWholeFile(std::string(VEKT_SOURCE_DIR) + "/etc/vekt.conf");
    std::istringstream lines(deviceFile);
    for (std::string line; std::getline(lines, line);) {
        line = Parameters::trim(line);
        EXPECT_NE(line.substr(0, line.find_first_of(" =")), "rtt_server") << line;
    }
    root_.writeConf(deviceFile);
    Parameters* p = params();
    for (const auto& record : log_.records())
        EXPECT_LT(record.priority, ANDROID_LOG_WARN) << record.text;
    EXPECT_EQ(p->m_rttServer.get(), VEKT_DEFAULT_RTT_SERVER);
    EXPECT_EQ(p->m_gamingWhiteList.get(), "");
    EXPECT_EQ(p->get(MINI_EST_INTERVAL), 1000);
}

TEST(TrimTest, CommentCutDropsTheCharacterBeforeTheHash) {
    std::string a = "ping_interval_ms = 800    # a comment";
    EXPECT_EQ(Parameters::trim(a), "ping_interval_ms = 800");
    std::string b = "ping_interval_ms=800#x";
    EXPECT_EQ(Parameters::trim(b), "ping_interval_ms=80");
    std::string c = "# whole line";
    EXPECT_EQ(Parameters::trim(c), "# whole line");
    std::string d = " \t key = v \t";
    EXPECT_EQ(Parameters::trim(d), "key = v");
    std::string e = " #";
    EXPECT_EQ(Parameters::trim(e), "");
    std::string f = "\t \t";
    EXPECT_EQ(Parameters::trim(f), "");
}

TEST_F(SettingsTest, SettingsFileQuirks) {
    root_.writeConf(
        "# Vekt settings\n"
        "ping_interval_ms = 800   # probe period\n"
        "alpha_percent=40#x\n"
        "rtt_server=\n"
        "=5\n"
        "no equals sign here\n"
        "unknown_key = 7\n"
        "mini_est_interval = 250\n"
        "mini_est_interval = 300\n"
        "protocols = a=b\n"
        "wan_threshold = 12abc\n"
        "wifi_threshold = abc\n"
        "   SockStaleTime\t=\t-4000\n"
        "interface_2 = wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff\n");
    Parameters* p = params();
    EXPECT_FALSE(log_.contains("read vekt conf file failed!"));
    EXPECT_EQ(p->m_pingIntervalMs, 800);
    EXPECT_EQ(p->m_alphaPercent, 4);  // the digit before "#" went with the comment
    // An empty server cannot be probed: refused, the default stays.
    EXPECT_EQ(p->m_rttServer.get(), VEKT_DEFAULT_RTT_SERVER);
    EXPECT_TRUE(log_.contains("setValue refused rtt_server address \"\""));
    EXPECT_EQ(p->get(MINI_EST_INTERVAL), 300);  // a repeated key takes the later value
    EXPECT_EQ(p->m_protocols.get(), "a=b");           // further "=" belong to the value
    EXPECT_EQ(p->get(WAN_THRESHOLD), 12);
    EXPECT_EQ(p->get(WIFI_THRESHOLD), 0);
    EXPECT_EQ(p->get(SOCK_STALE_TIME), -4000);
    EXPECT_EQ(p->m_ifaceParams[2], "wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff");
}

TEST_F(SettingsTest, LinesEndAtNewlinesAndTheLastNeedsNone) {
    root_.writeConf("wan_threshold = 7\n\n  \n#x\nmini_est_interval = 250");
    Parameters* p = params();
    EXPECT_EQ(p->get(WAN_THRESHOLD), 7);
    EXPECT_EQ(p->get(MINI_EST_INTERVAL), 250);
}

TEST_F(SettingsTest, SetValueReportsKnownKeysOnly) {
    Parameters* p = params();
    EXPECT_EQ(p->setValue("t_hyst_s", "10"), 1);
    EXPECT_EQ(p->m_tHystS, 10);
    EXPECT_EQ(p->setValue("update_pm_freq", "7"), 1);
    EXPECT_EQ(p->get(UPDATE_PM_FREQ), 7);
    EXPECT_EQ(p->setValue("T_HYST_S", "3"), 0);  // keys are case-sensitive
    EXPECT_EQ(p->setValue("", "5"), 0);
    EXPECT_EQ(p->m_tHystS, 10);
}

TEST_F(SettingsTest, StatsConfigLinesAreBounded) {
    Parameters* p = params();
    char buffer[64];
    EXPECT_STREQ(p->getStatsProtocols(buffer, sizeof(buffer)), "protocols=http,https");
    EXPECT_STREQ(p->getStatsPorts(buffer, sizeof(buffer)), "ports=80,443");
    p->m_ports.set(std::string(500, '9'));
    char small[16];
    EXPECT_STREQ(p->getStatsPorts(small, sizeof(small)), "ports=999999999");
}

}  // namespace
}  // namespace vekt::test
