// slasim, the host stand-in for the kernel statistics module: its ring writer, rate scripts
// and command stream, and the binary serving a device root read back by the daemon's code.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "aggregation/sla_stats_data.h"
#include "aggregation/sla_stats_impl.h"
#include "aggregation/stats_ring_fixture.h"
#include "slasim/rate_script.h"
#include "slasim/stats_ring.h"
#include "steering/iptables_manager.h"
#include "support/daemon_process.h"
#include "support/parameters_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {
namespace {

using slasim::ByteBudget;
using slasim::CommandStream;
using slasim::RateScript;
using slasim::RingFile;
using slasim::StatsRingWriter;

constexpr uint64_t kNow = 1700000000000ULL;

TEST(StatsRingWriterTest, FormatsAnEmptyRingAndAppendsForwardWithWrap) {
    MemoryRing ring;
    ASSERT_TRUE(ring.ok());
    memset(ring.file(), 0xAB, kStatsFileSize);
    StatsRingWriter writer(ring.file());
    writer.format();
    EXPECT_EQ(ring.file()->header.magic, kStatsMagic);
    EXPECT_EQ(ring.file()->header.newest, 0u);  // reads as sample 1279, never written
    EXPECT_EQ(ring.file()->slots[1279].timeMs, 0u);
    EXPECT_EQ(ring.file()->slots[1].kind, 0);

    writer.append(kNow, 1234);
    EXPECT_EQ(ring.file()->header.newest, 1u);
    const StatsSample& first = ring.file()->slots[1];
    EXPECT_EQ(first.timeMs, kNow);
    EXPECT_EQ(first.bytes, 1234u);
    EXPECT_EQ(first.kind, kSampleKindClosing);
    EXPECT_EQ(first.flag, 0);

    for (uint32_t i = 1; i < kStatsSampleCount; ++i) writer.append(kNow + i, i);
    EXPECT_EQ(ring.file()->header.newest, 1279u);
    writer.append(kNow + 5000, 7, kSampleKindStep, 1);
    EXPECT_EQ(ring.file()->header.newest, 1u);  // back to the start of the ring
    EXPECT_EQ(ring.file()->slots[1].timeMs, kNow + 5000);
    EXPECT_EQ(ring.file()->slots[1].kind, kSampleKindStep);
    EXPECT_EQ(ring.file()->slots[1].flag, 1);
}

TEST(RateScriptTest, ParsesConstantRatesAndSchedules) {
    RateScript script;
    std::string error;
    ASSERT_TRUE(RateScript::parse("1200", &script, &error)) << error;
    EXPECT_EQ(script.rateAt(0), 1200u);
    EXPECT_EQ(script.rateAt(1e6), 1200u);

    ASSERT_TRUE(RateScript::parse("1200,5:3000,9.5:0", &script, &error)) << error;
    EXPECT_EQ(script.rateAt(4.999), 1200u);
    EXPECT_EQ(script.rateAt(5), 3000u);
    EXPECT_EQ(script.rateAt(9.49), 3000u);
    EXPECT_EQ(script.rateAt(9.5), 0u);

    ASSERT_TRUE(RateScript::parse("2:700", &script, &error)) << error;
    EXPECT_EQ(script.rateAt(1.9), 0u);  // nothing before the first time
    EXPECT_EQ(script.rateAt(2), 700u);
}

TEST(RateScriptTest, RefusesMalformedScripts) {
    RateScript script;
    std::string error;
    for (const char* bad : {"", "abc", "1200,", "1200,3000", "1200,5:3000,4:10", "1200,5:3000,5:9",
                            "-1", "10000001", "1e3", "5:", ":5", "1.5", "5:1:2", "99999999999"}) {
        EXPECT_FALSE(RateScript::parse(bad, &script, &error)) << "accepted \"" << bad << "\"";
        EXPECT_FALSE(error.empty());
    }
    EXPECT_TRUE(RateScript::parse("10000000", &script, &error));
}

TEST(RateScriptTest, ByteBudgetCarriesFractionsSoTotalsAreExact) {
    ByteBudget budget;
    uint64_t total = 0;
    for (int i = 0; i < 1000; ++i) total += budget.take(1, 1);  // 0.128 bytes each
    EXPECT_EQ(total, 128u);
    total = 0;
    for (int i = 0; i < 1000; ++i) total += budget.take(1000, 7);
    EXPECT_EQ(total, 1000u * 128 * 7);
    EXPECT_EQ(budget.take(10000000, 1000 * 1000), UINT32_MAX);  // capped, not wrapped
}

TEST(CommandStreamTest, SplitsOnNulAcrossReadsAndDropsOverlongTexts) {
    CommandStream stream;
    stream.feed("enable=0\0ifa", 12);
    stream.feed("ce=wlan0\0", 9);
    EXPECT_EQ(stream.take(), (std::vector<std::string>{"enable=0", "iface=wlan0"}));
    EXPECT_TRUE(stream.take().empty());

    std::string overlong(CommandStream::kMaxCommand + 10, 'x');
    overlong.push_back('\0');
    overlong += std::string("enable=1") + '\0';
    stream.feed(overlong.data(), overlong.size());
    EXPECT_EQ(stream.take(), (std::vector<std::string>{"enable=1"}));
}

TEST(RingFileTest, AppearsOnlyCompleteAndIsRemovedAgain) {
    TempRoot root;
    const std::string path = root.path("/proc/sla/wlan0_mmap");
    std::string error;
    {
        std::unique_ptr<RingFile> ring = RingFile::create(path, &error);
        ASSERT_NE(ring, nullptr) << error;
        struct stat info = {};
        ASSERT_EQ(stat(path.c_str(), &info), 0);
        EXPECT_EQ(info.st_size, static_cast<off_t>(kStatsFileSize));
        EXPECT_NE(access((path + ".tmp").c_str(), F_OK), 0);
        ring->writer().append(kNow, 99);
        const std::string bytes = readWholeFile(path);
        ASSERT_EQ(bytes.size(), kStatsFileSize);
        StatsFileHeader header;
        memcpy(&header, bytes.data(), sizeof(header));
        EXPECT_EQ(header.magic, kStatsMagic);
        EXPECT_EQ(header.newest, 1u);  // written through the shared mapping
    }
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(RingFile::create(root.path("/missing/wlan0_mmap"), &error), nullptr);
    EXPECT_NE(error.find("No such file or directory"), std::string::npos);
}

// ---- the binary ----

bool waitFor(const std::function<bool()>& condition, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

class SlasimBinaryTest : public ParametersTest {
protected:
    void SetUp() override {
        SlaStatsImpl::finalize();
        impl_ = SlaStatsImpl::instance();
    }
    void TearDown() override {
        if (slasim_.pid() > 0) {
            slasim_.signal(SIGTERM);
            slasim_.wait(3000);
        }
        SlaStatsImpl::finalize();
    }

    bool start(std::vector<std::string> args) {
        args.insert(args.begin(), {binPath("slasim"), "--root", root_.dir(), "--interval", "20"});
        return slasim_.start(args, log(), false) && waitForText(log(), "slasim: ready", 5000);
    }
    std::string log() const { return root_.dir() + "/slasim.log"; }
    std::string ring(const std::string& name) const {
        return root_.path("/proc/sla/" + name + "_mmap");
    }

    StatsFile readRing(const std::string& name) const {
        StatsFile file = {};
        const std::string bytes = readWholeFile(ring(name));
        if (bytes.size() == sizeof(file)) memcpy(&file, bytes.data(), sizeof(file));
        return file;
    }
    uint32_t newest(const std::string& name) const { return readRing(name).header.newest; }

    // The daemon's own view: map the ring and estimate, as each main-loop pass does.
    uint32_t estimate(const std::string& name, uint32_t* count) {
        void* mapping = impl_->getStatsMmap(name);
        if (mapping == nullptr) return 0;
        SlaStatsData data(mapping, true);
        const uint32_t rate = data.linkRateEstimate(count, name.c_str());
        munmap(mapping, kStatsFileSize);
        return rate;
    }

    // Sends a command as the daemon does and waits for slasim to print it.
    bool send(const std::string& command) {
        const size_t seen = countLines(log(), command);
        return impl_->writeStatsConfFile(command.c_str()) == 0 &&
               waitFor([&] { return countLines(log(), command) > seen; }, 3000);
    }

    SlaStatsImpl* impl_ = nullptr;
    ChildProcess slasim_;
};

TEST_F(SlasimBinaryTest, ScriptedRingsReadBackNearTheirRates) {
    ASSERT_TRUE(start({"--enabled", "wlan0=1000", "rmnet_data0=3000"}));
    struct stat info = {};
    ASSERT_EQ(stat(root_.path("/proc/sla/config").c_str(), &info), 0);
    EXPECT_TRUE(S_ISFIFO(info.st_mode));
    ASSERT_TRUE(waitFor([&] { return newest("rmnet_data0") > 40; }, 5000));

    uint32_t count = 0;
    EXPECT_NEAR(estimate("wlan0", &count), 1000, 30);
    EXPECT_GE(count, 5u);
    EXPECT_NEAR(estimate("rmnet_data0", &count), 3000, 90);  // the byte cap ends this walk
    EXPECT_GE(count, 5u);
}

TEST_F(SlasimBinaryTest, FollowsTheDaemonsCommandsAndCleansUp) {
    const std::string sysfs = root_.dir() + "/sysfs";
    root_.writeFile("/sysfs/wlan7/statistics/tx_bytes", "1000\n");
    root_.writeFile("/sysfs/wlan7/statistics/rx_bytes", "500\n");
    ASSERT_TRUE(start(
        {"--voip-state", "16777343,20480", "--sysfs", sysfs, "wlan0=1000", "rmnet_data0=500"}));
    EXPECT_EQ(readRing("wlan0").header.magic, kStatsMagic);

    // Nothing is counted before the module is configured and enabled.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(newest("wlan0"), 0u);
    ASSERT_TRUE(send("protocols=http,https"));
    ASSERT_TRUE(send("iface=wlan0"));
    ASSERT_TRUE(send("enable=1"));
    ASSERT_TRUE(waitFor([&] { return newest("wlan0") > 30; }, 5000));
    EXPECT_EQ(newest("rmnet_data0"), 0u);  // never named by iface=
    uint32_t count = 0;
    EXPECT_NEAR(estimate("wlan0", &count), 1000, 30);

    // enable=0 stops the samples.
    ASSERT_TRUE(send("enable=0"));
    const uint32_t stopped = newest("wlan0");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(newest("wlan0"), stopped);

    // An interface named only by iface= gets a ring fed from its byte counters.
    ASSERT_TRUE(send("iface=wlan7"));
    ASSERT_TRUE(send("enable=1"));
    ASSERT_TRUE(waitFor([&] { return newest("wlan7") >= 2; }, 5000));
    root_.writeFile("/sysfs/wlan7/statistics/tx_bytes", "6000\n");
    auto countedBytes = [&] {
        uint64_t sum = 0;
        const StatsFile file = readRing("wlan7");
        for (uint32_t k = 1; k <= kStatsSampleCount; ++k) {
            if (file.slots[k].flag == 0) sum += file.slots[k].bytes;
        }
        return sum;
    };
    EXPECT_TRUE(waitFor([&] { return countedBytes() == 5000; }, 3000)) << countedBytes();
    EXPECT_EQ(newest("wlan0"), stopped);  // forgotten at enable=0, not named again

    // VoIP state follows voip_enable.
    EXPECT_EQ(impl_->enableSlaVoipState(true, "10123"), 0);
    char address[16] = {};
    char port[16] = {};
    EXPECT_TRUE(waitFor(
        [&] { return impl_->getSlaVoipState(address, sizeof(address), port, sizeof(port)) == 14; },
        3000));
    EXPECT_STREQ(address, "16777343");
    EXPECT_STREQ(port, "20480");
    EXPECT_TRUE(waitForText(log(), "voip_uid=10123", 1000));
    EXPECT_EQ(impl_->enableSlaVoipState(false, "10123"), 0);
    EXPECT_TRUE(waitFor(
        [&] { return impl_->getSlaVoipState(address, sizeof(address), port, sizeof(port)) == 0; },
        3000));

    // SIGTERM: a clean exit that leaves nothing behind.
    slasim_.signal(SIGTERM);
    EXPECT_EQ(slasim_.wait(3000), 0);
    EXPECT_TRUE(std::filesystem::is_empty(root_.path("/proc/sla")));
    EXPECT_TRUE(waitForText(log(), "slasim: stopped", 0));
}

TEST_F(SlasimBinaryTest, EnabledChannelFeedsTheEvaluation) {
    ASSERT_TRUE(start({"wlan0=800", "rmnet_data0=1000"}));
    params()->UpdateInterface("wlan0", true);
    params()->UpdateInterface("rmnet_data0", true);
    ASSERT_TRUE(impl_->enableSLA(true));  // names both, maps both, enables counting
    ASSERT_TRUE(waitForText(log(), "enable=1", 3000));
    ASSERT_TRUE(waitFor([&] { return newest("wlan0") > 40 && newest("rmnet_data0") > 40; }, 5000));

    ScopedRecordingRunner runner;  // the first pass rewrites the rules
    EXPECT_TRUE(impl_->evalAndSetSLAInterfaceRatio());
    {
        std::lock_guard<std::mutex> lock(slaStatsMutex);
        const linkStatsWrapper_t* wlan0 = impl_->m_slaInterfaceMap.at("wlan0");
        const linkStatsWrapper_t* cell = impl_->m_slaInterfaceMap.at("rmnet_data0");
        EXPECT_NEAR(wlan0->rate, 800, 25);
        EXPECT_NEAR(cell->rate, 1000, 30);
        EXPECT_NEAR(wlan0->ratio, 0.5, 0.02);  // stage 1: 800 / 1600, cellular the rest
        EXPECT_NEAR(wlan0->ratio + cell->ratio, 1.0, 1e-5);
    }
    IptablesManager::clean_SLM_iptables();
}

TEST_F(SlasimBinaryTest, HelpAndBadArguments) {
    ChildProcess help;
    ASSERT_TRUE(help.start({binPath("slasim"), "--help"}, log(), false));
    EXPECT_EQ(help.wait(5000), 0);
    EXPECT_TRUE(waitForText(log(), "usage: slasim --root DIR", 0));
    EXPECT_TRUE(waitForText(log(), "wlan0=1200,5:3000,9.5:0", 0));

    for (std::vector<std::string> args :
         {std::vector<std::string>{"wlan0=1000"},
          {"--root", root_.dir(), "wlan0=fast"},
          {"--root", root_.dir(), "--interval", "0"},
          {"--root", root_.dir(), "../x=5"},
          {"--root", root_.dir(), "--voip-state", "123456789012345678901"}}) {
        args.insert(args.begin(), binPath("slasim"));
        ChildProcess bad;
        ASSERT_TRUE(bad.start(args, log(), false));
        EXPECT_EQ(bad.wait(5000), 2) << args[1];
    }
    EXPECT_TRUE(waitForText(log(), "slasim: --root DIR is required", 0));
    EXPECT_TRUE(waitForText(log(), "slasim: wlan0: bad rate in \"fast\"", 0));
    EXPECT_TRUE(std::filesystem::is_empty(root_.path("/proc/sla")));
}

}  // namespace
}  // namespace vekt::test
