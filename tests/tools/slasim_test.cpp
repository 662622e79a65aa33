// slasim, the host stand-in for the kernel statistics module: its rate scripts, and the
// binary serving a device root, read back by the daemon's own code.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "aggregation/sla_stats_data.h"
#include "aggregation/sla_stats_impl.h"
#include "aggregation/stats_ring_fixture.h"
#include "slasim/rate_script.h"
#include "slasim/stats_ring.h"
#include "support/daemon_process.h"

namespace vekt::test {
namespace {

using slasim::RateScript;

TEST(RateScriptTest, ParsesSchedulesAndRefusesMalformedOnes) {
    // A script and its rate at given seconds.
    const std::pair<const char*, std::vector<std::pair<double, uint32_t>>> good[] = {
        {"1200", {{0, 1200}, {1e6, 1200}}},
        {"1200,5:3000,9.5:0", {{4.999, 1200}, {5, 3000}, {9.49, 3000}, {9.5, 0}}},
        {"2:700", {{1.9, 0}, {2, 700}}},  // nothing before the first time
        {"10000000", {{0, 10000000}}},
    };
    RateScript script;
    std::string error;
    for (const auto& [text, rates] : good) {
        ASSERT_TRUE(RateScript::parse(text, &script, &error)) << text << ": " << error;
        for (const auto& [at, rate] : rates) EXPECT_EQ(script.rateAt(at), rate) << text;
    }
    for (const char* bad : {"", "abc", "1200,", "1200,3000", "1200,5:3000,4:10", "1200,5:3000,5:9",
                            "-1", "10000001", "1e3", "5:", ":5", "1.5", "5:1:2", "99999999999"}) {
        error.clear();
        EXPECT_FALSE(RateScript::parse(bad, &script, &error)) << "accepted \"" << bad << "\"";
        EXPECT_FALSE(error.empty()) << bad;
    }
}

TEST(StatsRingWriterTest, AppendsForwardAndWrapsAfterSample1279) {
    std::vector<StatsFile> ring(1);
    slasim::StatsRingWriter writer(ring.data());
    writer.format();
    for (uint32_t bytes = 1; bytes <= kStatsSampleCount + 1; ++bytes) writer.append(kNow, bytes);
    EXPECT_EQ(ring[0].header.newest, 1u);
    EXPECT_EQ(ring[0].slots[1].bytes, kStatsSampleCount + 1);
    EXPECT_EQ(ring[0].slots[kStatsSampleCount].bytes, kStatsSampleCount);
}

class SlasimBinaryTest : public SlaStatsTest {
protected:
    std::string log() const { return root_.dir() + "/slasim.log"; }
    uint32_t newest(const std::string& name) const {
        const std::string bytes = readWholeFile(root_.path("/proc/sla/" + name + "_mmap"));
        StatsFileHeader header = {};
        if (bytes.size() == kStatsFileSize) memcpy(&header, bytes.data(), sizeof(header));
        return header.newest;
    }
    // The daemon's own view: map the ring and estimate, as each main-loop pass does.
    uint32_t estimate(const std::string& name, uint32_t* count) {
        void* mapping = impl_->getStatsMmap(name);
        if (mapping == nullptr) return 0;
        const uint32_t rate = SlaStatsData(mapping, true).linkRateEstimate(count, name.c_str());
        munmap(mapping, kStatsFileSize);
        return rate;
    }
    // Sends a command as the daemon does and waits for slasim to print it.
    bool send(const std::string& command) {
        return impl_->writeStatsConfFile(command.c_str()) == 0 && waitForText(log(), command, 3000);
    }

    ChildProcess slasim_;
};

TEST_F(SlasimBinaryTest, RingsFollowTheCommandsAndReadBackAtTheirRates) {
    ASSERT_TRUE(slasim_.start({binPath("slasim"), "--root", root_.dir(), "--interval", "20",
                               "wlan0=1000", "rmnet_data0=3000", "wlan1=500"},
                              log(), false));
    ASSERT_TRUE(waitForText(log(), "slasim: ready", 5000));
    ASSERT_TRUE(send("iface=wlan0") && send("iface=rmnet_data0"));
    usleep(100000);
    EXPECT_EQ(newest("wlan0"), 0u);  // named, but nothing is counted before enable=1
    ASSERT_TRUE(send("enable=1"));
    for (int i = 0; i < 500 && newest("rmnet_data0") <= 40; ++i) usleep(10000);
    ASSERT_GT(newest("rmnet_data0"), 40u);
    uint32_t count = 0;
    EXPECT_NEAR(estimate("wlan0", &count), 1000, 30);
    EXPECT_GE(count, 5u);
    EXPECT_NEAR(estimate("rmnet_data0", &count), 3000, 90);  // the byte cap ends this walk
    EXPECT_EQ(newest("wlan1"), 0u);                          // never named by iface=

    ASSERT_TRUE(send("enable=0"));
    const uint32_t stopped = newest("wlan0");
    usleep(100000);
    EXPECT_EQ(newest("wlan0"), stopped);

    slasim_.signal(SIGTERM);  // a clean exit that leaves nothing behind
    EXPECT_EQ(slasim_.wait(3000), 0);
    EXPECT_TRUE(std::filesystem::is_empty(root_.path("/proc/sla")));
}

}  // namespace
}  // namespace vekt::test
