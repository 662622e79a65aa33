// The statistics channel under a test root: the command FIFO, the mapped statistics files
// and the VoIP state file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "aggregation/sla_stats_data.h"
#include "aggregation/sla_stats_impl.h"
#include "aggregation/stats_ring_fixture.h"

namespace vekt::test {
namespace {

using Commands = std::vector<std::string>;
using std::chrono::milliseconds;

// The commands written to the module's FIFO since the last call, each a text and its NUL.
Commands drain(int fifo) {
    std::string bytes;
    char buffer[4096];
    for (ssize_t n; (n = read(fifo, buffer, sizeof(buffer))) > 0;) bytes.append(buffer, n);
    Commands commands;
    for (size_t start = 0, nul; (nul = bytes.find('\0', start)) != std::string::npos;
         start = nul + 1) {
        commands.push_back(bytes.substr(start, nul - start));
    }
    return commands;
}

class SlaChannelTest : public SlaStatsTest {
protected:
    const linkStatsWrapper_t* record(const char* name) { return impl_->m_slaInterfaceMap.at(name); }
};

TEST_F(SlaChannelTest, ConcurrentFirstCallsCreateOneInstance) {
    // main creates the instance only once the control-socket thread runs: a command can race it.
    SlaStatsImpl::finalize();
    std::atomic<bool> go{false};
    std::vector<SlaStatsImpl*> seen(8);
    std::vector<std::thread> callers;
    for (SlaStatsImpl*& instance : seen) {
        callers.emplace_back([&go, &instance] {
            while (!go) std::this_thread::yield();
            instance = SlaStatsImpl::instance();
        });
    }
    go = true;
    for (std::thread& caller : callers) caller.join();
    impl_ = SlaStatsImpl::instance();
    for (SlaStatsImpl* instance : seen) EXPECT_EQ(instance, impl_);
}

TEST_F(SlaChannelTest, EnablingSendsTheSettingsEachInterfaceAndEnable) {
    const std::string path = root_.path(SlaStatsImpl::kConfigFile);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(impl_->writeStatsConfFile("enable=1"), -1);      // no reader: fails, never blocks
    const int fifo = open(path.c_str(), O_RDWR | O_NONBLOCK);  // the module's end
    EXPECT_TRUE(impl_->enableSLA(true));
    EXPECT_EQ(drain(fifo), (Commands{"protocols=http,https", "ports=80,443", "enable=1"}));

    for (const char* name : {"wlan0", "rmnet_data0"}) {
        params()->UpdateInterface(name, true);
        root_.publishStatsFile(name);
    }
    EXPECT_TRUE(impl_->enableSLA(true));
    EXPECT_EQ(drain(fifo), (Commands{"protocols=http,https", "ports=80,443", "iface=rmnet_data0",
                                     "iface=wlan0", "enable=1"}));
    ASSERT_TRUE(record("wlan0")->stats && record("rmnet_data0")->stats);
    EXPECT_TRUE(record("wlan0")->stats->isWifi());
    EXPECT_FALSE(record("rmnet_data0")->stats->isWifi());

    EXPECT_TRUE(impl_->enableSLA(false));
    EXPECT_EQ(drain(fifo), Commands{"enable=0"});
    EXPECT_TRUE(impl_->m_slaInterfaceMap.empty());
    close(fifo);
}

TEST_F(SlaChannelTest, StatisticsFileThatAppearsLateIsMappedAtTheSecondTry) {
    params()->UpdateInterface("wlan0", true);
    std::thread module([this] {
        std::this_thread::sleep_for(milliseconds(200));
        root_.publishStatsFile("wlan0");
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(impl_->initMmap());
    const auto elapsed = std::chrono::steady_clock::now() - start;
    module.join();
    // The first look created an empty file, and an empty file is never mapped.
    EXPECT_GE(elapsed, milliseconds(500));
    EXPECT_LT(elapsed, milliseconds(1000));
    EXPECT_NE(record("wlan0")->stats, nullptr);
}

TEST_F(SlaChannelTest, StatisticsFileThatNeverAppearsLeavesARecordWithoutStatistics) {
    params()->UpdateInterface("wlan0", true);
    ASSERT_EQ(rmdir(root_.path("/proc/sla").c_str()), 0);  // nothing can be opened there
    EXPECT_FALSE(impl_->initMmap());
    EXPECT_EQ(record("wlan0")->stats, nullptr);  // the record is there all the same
}

TEST_F(SlaChannelTest, VoipStateSplitsAtTheFirstCommaWithinTheCallersBuffers) {
    // text, buffer sizes, length read, address and port then
    const std::tuple<const char*, size_t, size_t, int, const char*, const char*> cases[] = {
        {"16777343,20480", 32, 32, 14, "16777343", "20480"},
        {"3232235777,5060,x\n", 32, 32, 18, "3232235777", "5060,x\n"},
        {"1,345678901234567890123", 32, 32, 20, "1", "345678901234567890"},  // 20 bytes read
        {"16777343,20480", 4, 3, 14, "167", "20"},
        {"1,2", 32, 32, 3, "before", "before"},  // under 4 bytes: untouched
        {"16777343", 32, 32, 8, "before", "before"},
    };
    for (const auto& [text, addressSize, portSize, length, address, port] : cases) {
        SCOPED_TRACE(text);
        root_.writeFile(SlaStatsImpl::kVoipStateFile, text);
        std::string addressOut = "before" + std::string(28, '\0');
        std::string portOut = addressOut;
        addressOut[addressSize] = portOut[portSize] = '#';  // just past what may be written
        EXPECT_EQ(impl_->getSlaVoipState(&addressOut[0], addressSize, &portOut[0], portSize),
                  length);
        EXPECT_STREQ(addressOut.c_str(), address);
        EXPECT_STREQ(portOut.c_str(), port);
        EXPECT_EQ(std::string({addressOut[addressSize], portOut[portSize]}), "##");
    }
}

}  // namespace
}  // namespace vekt::test
