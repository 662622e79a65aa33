// The statistics channel under a test root: the command FIFO, the mapped statistics files
// and the VoIP state file.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "aggregation/sla_stats_data.h"
#include "aggregation/sla_stats_impl.h"
#include "aggregation/stats_file.h"
#include "support/parameters_fixture.h"

namespace vekt::test {
namespace {

using Commands = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

// The module's side of "/proc/sla/config": a FIFO that we hold open for reading (and
// writing, so it never reports end-of-file) and drain after each step.
class ConfigFifo {
public:
    explicit ConfigFifo(const std::string& path) : path_(path) {
        if (mkfifo(path.c_str(), 0600) == 0) {
            fd_ = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        }
    }
    ~ConfigFifo() {
        if (fd_ >= 0) close(fd_);
        unlink(path_.c_str());
    }
    bool ok() const { return fd_ >= 0; }

    // Commands written since the last call; each is a text and its NUL.
    Commands take() {
        std::string bytes;
        char buffer[4096];
        for (ssize_t n; (n = read(fd_, buffer, sizeof(buffer))) > 0;) bytes.append(buffer, n);
        Commands commands;
        size_t start = 0;
        for (size_t nul; (nul = bytes.find('\0', start)) != std::string::npos; start = nul + 1) {
            commands.push_back(bytes.substr(start, nul - start));
        }
        if (start != bytes.size()) commands.push_back("<unterminated>" + bytes.substr(start));
        return commands;
    }

private:
    std::string path_;
    int fd_ = -1;
};

class SlaChannelTest : public ParametersTest {
protected:
    void SetUp() override {
        SlaStatsImpl::finalize();
        impl_ = SlaStatsImpl::instance();
    }
    void TearDown() override { SlaStatsImpl::finalize(); }

    std::string ringPath(const std::string& name) const {
        return root_.path("/proc/sla/" + name + "_mmap");
    }

    // A complete statistics file, put in place in one step as the module would have it.
    void writeRing(const std::string& name, size_t size = kStatsFileSize) const {
        std::string bytes(size, '\0');
        const uint32_t magic = kStatsMagic;
        memcpy(bytes.data(), &magic, sizeof(magic));
        const std::string temp = ringPath(name) + ".tmp";
        root_.writeFile(temp.substr(root_.dir().size()), bytes);
        ASSERT_EQ(rename(temp.c_str(), ringPath(name).c_str()), 0);
    }

    linkStatsWrapper_t* record(const std::string& name) {
        std::lock_guard<std::mutex> lock(slaStatsMutex);
        auto entry = impl_->m_slaInterfaceMap.find(name);
        return entry == impl_->m_slaInterfaceMap.end() ? nullptr : entry->second;
    }

    SlaStatsImpl* impl_ = nullptr;
};

TEST_F(SlaChannelTest, ConcurrentFirstCallsCreateOneInstance) {
    // main creates the singleton only after the control-socket thread runs, so a command
    // handler can make the first call at the same moment as main.
    SlaStatsImpl::finalize();
    constexpr int kCallers = 8;
    std::atomic<bool> go{false};
    std::vector<SlaStatsImpl*> seen(kCallers, nullptr);
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i) {
        callers.emplace_back([&, i] {
            while (!go) {
            }
            seen[i] = SlaStatsImpl::instance();
        });
    }
    go = true;
    for (std::thread& caller : callers) caller.join();
    impl_ = SlaStatsImpl::instance();
    for (SlaStatsImpl* instance : seen) EXPECT_EQ(instance, impl_);
}

TEST_F(SlaChannelTest, EnablingWithNoInterfacesSendsSettingsThenEnable) {
    ConfigFifo fifo(root_.path("/proc/sla/config"));
    ASSERT_TRUE(fifo.ok());
    EXPECT_TRUE(impl_->enableSLA(true));
    EXPECT_EQ(fifo.take(), (Commands{"protocols=http,https", "ports=80,443", "enable=1"}));
    EXPECT_TRUE(impl_->initMmap());
    EXPECT_TRUE(impl_->m_slaInterfaceMap.empty());

    params()->setValue("protocols", "http");
    params()->setValue("ports", "8080,8443");
    EXPECT_TRUE(impl_->enableSLA(true));
    EXPECT_EQ(fifo.take(), (Commands{"protocols=http", "ports=8080,8443", "enable=1"}));
}

TEST_F(SlaChannelTest, EnablingNamesEveryRegisteredInterfaceAndMapsItsStatistics) {
    ConfigFifo fifo(root_.path("/proc/sla/config"));
    ASSERT_TRUE(fifo.ok());
    params()->UpdateInterface("wlan0", true);
    params()->UpdateInterface("rmnet_data0", true);
    writeRing("wlan0");
    writeRing("rmnet_data0");
    {
        // An entry without a record (left by a lookup of an unknown name) is named too.
        std::lock_guard<std::mutex> lock(interfaceMutex);
        params()->m_interfaceInfoMap["dummy0"];
    }
    EXPECT_TRUE(impl_->enableSLA(true));
    EXPECT_EQ(fifo.take(), (Commands{"protocols=http,https", "ports=80,443", "iface=dummy0",
                                     "iface=rmnet_data0", "iface=wlan0", "enable=1"}));
    ASSERT_NE(record("wlan0"), nullptr);
    ASSERT_NE(record("rmnet_data0"), nullptr);
    EXPECT_EQ(record("dummy0"), nullptr);
    ASSERT_NE(record("wlan0")->stats, nullptr);
    ASSERT_NE(record("rmnet_data0")->stats, nullptr);
    EXPECT_TRUE(record("wlan0")->stats->isWifi());
    EXPECT_FALSE(record("rmnet_data0")->stats->isWifi());
    EXPECT_STREQ(record("wlan0")->name, "wlan0");
    EXPECT_EQ(static_cast<const StatsFile*>(record("wlan0")->stats->mapping())->header.magic,
              kStatsMagic);
    EXPECT_TRUE(log_.contains("initMmap + rmnet_data0"));
    EXPECT_TRUE(log_.contains("initMmap + wlan0"));

    // Mapping again replaces the records (the old ones are freed with their mappings).
    linkStatsWrapper_t* before = record("wlan0");
    EXPECT_TRUE(impl_->initMmap());
    EXPECT_EQ(impl_->m_slaInterfaceMap.size(), 2u);
    EXPECT_NE(record("wlan0"), before);

    EXPECT_TRUE(impl_->enableSLA(false));
    EXPECT_EQ(fifo.take(), (Commands{"enable=0"}));
    EXPECT_TRUE(impl_->m_slaInterfaceMap.empty());
}

TEST_F(SlaChannelTest, InterfaceChangeReconfiguresTheModuleFromScratch) {
    ConfigFifo fifo(root_.path("/proc/sla/config"));
    ASSERT_TRUE(fifo.ok());
    params()->UpdateInterface("wlan0", true);
    writeRing("wlan0");
    EXPECT_TRUE(impl_->updateSlaInterfacemap("wlan0", true));
    EXPECT_EQ(fifo.take(), (Commands{"enable=0", "protocols=http,https", "ports=80,443",
                                     "iface=wlan0", "enable=1"}));
    EXPECT_TRUE(log_.contains("m_slaInterfaceMap add wlan0 success!"));
    ASSERT_NE(record("wlan0"), nullptr);

    params()->UpdateInterface("wlan0", false);
    EXPECT_TRUE(impl_->updateSlaInterfacemap("wlan0", false));
    EXPECT_EQ(fifo.take(),
              (Commands{"enable=0", "protocols=http,https", "ports=80,443", "enable=1"}));
    EXPECT_TRUE(log_.contains("m_slaInterfaceMap del wlan0 success!"));
    EXPECT_TRUE(impl_->m_slaInterfaceMap.empty());
}

TEST_F(SlaChannelTest, VoipCommandsSetTheUidBeforeSwitchingOnAndAfterSwitchingOff) {
    ConfigFifo fifo(root_.path("/proc/sla/config"));
    ASSERT_TRUE(fifo.ok());
    EXPECT_EQ(impl_->enableSlaVoipState(true, "10123"), 0);
    EXPECT_EQ(fifo.take(), (Commands{"voip_uid=10123", "voip_enable=1"}));
    EXPECT_EQ(impl_->enableSlaVoipState(false, "0"), 0);
    EXPECT_EQ(fifo.take(), (Commands{"voip_enable=0", "voip_uid=0"}));
}

TEST_F(SlaChannelTest, CommandFileWithoutReaderFailsEachWrite) {
    EXPECT_EQ(impl_->writeStatsConfFile("enable=1"), -1);
    EXPECT_TRUE(log_.contains("open stats config file failed:No such file or directory"));
    EXPECT_FALSE(impl_->enableSLA(true));
    EXPECT_EQ(impl_->enableSlaVoipState(true, "1"), -1);

    // A FIFO that nobody reads: the non-blocking open fails instead of waiting.
    ASSERT_EQ(mkfifo(root_.path("/proc/sla/config").c_str(), 0600), 0);
    log_.clear();
    EXPECT_EQ(impl_->writeStatsConfFile("enable=1"), -1);
    EXPECT_EQ(log_.texts("SLM-Vekt-SlaStatsImpl"),
              Commands{"open stats config file failed:No such device or address"});
    EXPECT_EQ(log_.records().back().priority, 6);
}

TEST_F(SlaChannelTest, StatisticsFileThatAppearsLateIsMappedAtTheSecondTry) {
    params()->UpdateInterface("wlan0", true);
    std::thread module([this]() {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        writeRing("wlan0");
    });
    const auto start = Clock::now();
    const bool mapped = impl_->initMmap();
    const auto elapsed = Clock::now() - start;
    module.join();
    EXPECT_TRUE(mapped);
    EXPECT_GE(elapsed, std::chrono::milliseconds(500));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1000));
    ASSERT_NE(record("wlan0"), nullptr);
    EXPECT_NE(record("wlan0")->stats, nullptr);
    // The first look found no file: opening one creates it empty, and an empty file is
    // never mapped (reading it would fault).
    EXPECT_TRUE(log_.contains("mmap file /proc/sla/wlan0_mmap too short:0"));
}

TEST_F(SlaChannelTest, StatisticsFileThatNeverAppearsLeavesARecordWithoutStatistics) {
    params()->UpdateInterface("wlan0", true);
    ASSERT_EQ(rmdir(root_.path("/proc/sla").c_str()), 0);  // nothing can be opened at all
    const auto start = Clock::now();
    EXPECT_FALSE(impl_->initMmap());
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(log_.count("open mmap file failed:No such file or directory"), 3u);
    ASSERT_NE(record("wlan0"), nullptr);
    EXPECT_EQ(record("wlan0")->stats, nullptr);
    EXPECT_TRUE(log_.contains("initMmap + wlan0"));
}

TEST_F(SlaChannelTest, OnlyWholeStatisticsFilesAreMapped) {
    writeRing("wlan0", 100);
    EXPECT_EQ(impl_->getStatsMmap("wlan0"), nullptr);
    EXPECT_TRUE(log_.contains("mmap file /proc/sla/wlan0_mmap too short:100"));

    writeRing("wlan0", kStatsFileSize - 1);
    EXPECT_EQ(impl_->getStatsMmap("wlan0"), nullptr);

    writeRing("wlan0");
    void* mapping = impl_->getStatsMmap("wlan0");
    ASSERT_NE(mapping, nullptr);
    EXPECT_EQ(static_cast<const StatsFile*>(mapping)->header.magic, kStatsMagic);
    munmap(mapping, kStatsFileSize);
}

class VoipStateTest : public SlaChannelTest {
protected:
    // Parses text with address and port buffers that start zeroed, as callers pass them.
    int parse(const std::string& text, size_t addressSize = 32, size_t portSize = 32) {
        root_.writeFile(SlaStatsImpl::kVoipStateFile, text);
        address_.assign(34, '\0');
        port_.assign(34, '\0');
        address_[addressSize] = port_[portSize] = '#';  // just past what the callee may use
        return impl_->getSlaVoipState(address_.data(), addressSize, port_.data(), portSize);
    }
    std::string address() const { return address_.c_str(); }
    std::string port() const { return port_.c_str(); }

    std::string address_;
    std::string port_;
};

TEST_F(VoipStateTest, AddressBeforeTheCommaAndTheRestAsPort) {
    EXPECT_EQ(parse("16777343,20480"), 14);
    EXPECT_EQ(address(), "16777343");
    EXPECT_EQ(port(), "20480");

    EXPECT_EQ(parse("1,2\n"), 4);  // a trailing newline stays with the port
    EXPECT_EQ(address(), "1");
    EXPECT_EQ(port(), "2\n");

    EXPECT_EQ(parse("3232235777,5060,x"), 17);  // only the first comma splits
    EXPECT_EQ(port(), "5060,x");

    EXPECT_EQ(parse("123456789012345678901234567890"), 20);  // at most 20 bytes are read
}

TEST_F(VoipStateTest, ShortOrCommaLessStateLeavesTheBuffersUntouched) {
    EXPECT_EQ(parse("1,2"), 3);
    EXPECT_EQ(address(), "");
    EXPECT_EQ(port(), "");
    EXPECT_EQ(parse("16777343"), 8);
    EXPECT_EQ(address(), "");
    EXPECT_EQ(parse(""), 0);
    EXPECT_EQ(port(), "");
}

TEST_F(VoipStateTest, CopiesStayInsideTheCallersBuffers) {
    EXPECT_EQ(parse("16777343,20480", 4, 3), 14);
    EXPECT_EQ(address(), "167");
    EXPECT_EQ(port(), "20");
    EXPECT_EQ(address_[4], '#');
    EXPECT_EQ(port_[3], '#');
}

TEST_F(VoipStateTest, MissingStateFileIsAnError) {
    char address[8] = {};
    char port[8] = {};
    EXPECT_EQ(impl_->getSlaVoipState(address, sizeof(address), port, sizeof(port)), -1);
    EXPECT_TRUE(log_.contains("open voip state file failed:No such file or directory"));
}

}  // namespace
}  // namespace vekt::test
