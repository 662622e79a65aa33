// The chooser's fixture: Parameters and a device root of the test's own, an injected wall
// clock, and a recording command runner for the rule commands.
#pragma once

#include <string>
#include <vector>

#include "base/clock.h"
#include "selection/smart_link_selection.h"
#include "steering/iptables_manager.h"
#include "support/parameters_fixture.h"
#include "support/recording_runner.h"

namespace vekt::test {

class FakeWallClock : public WallClock {
  public:
    struct timeval wallTime() const override {
        return now_;
    }
    void setSeconds(time_t seconds) { now_ = {seconds, 0}; }

  private:
    struct timeval now_ = {1000, 0};
};

constexpr time_t kStart = 1000;

// The chooser is driven through its trackers' levels, set by hand; no probe runs. The
// gaming UID list stays empty, so a switch destroys no socket, and the rule commands go
// to a recording runner.
class SmartLinkSelectionTest : public ParametersTest {
  protected:
    SmartLinkSelectionTest() : clockOverride_(wallClockSeam(), clock_) {
        clock_.setSeconds(kStart);
        params()->m_tHystS = 10;
        params()->m_nHyst = 1;
        IptablesManager::instance();
    }
    ~SmartLinkSelectionTest() override {
        SmartLinkSelection::finalize();
        IptablesManager::clean_SLM_iptables();
    }
    void SetUp() override { ASSERT_TRUE(params()->m_gamingUidList.get().empty()); }

    SmartLinkSelection* start(const std::vector<std::string>& names) {
        for (const std::string& name : names) params()->UpdateInterface(name.c_str(), true);
        SmartLinkSelection* sls = SmartLinkSelection::instance();
        runner_.clear();
        log_.clear();
        return sls;
    }
    void setLevel(const std::string& name, int32_t level) {
        MutexLock lock(slsMutex);
        SmartLinkSelection::instance()->m_slsInterfaceMap.at(name)->networkLevel = level;
    }
    std::string current() {
        MutexLock lock(slsMutex);
        InterfaceRtt* tracker = SmartLinkSelection::instance()->currentInterface;
        return tracker == nullptr ? "" : tracker->interfaceName;
    }
    // The interfaces tarn_SLS was pointed at, in order.
    std::vector<std::string> switches() const {
        std::vector<std::string> targets;
        for (const std::string& line : runner_.commands()) {
            const std::string marker = "-A tarn_SLS -j ";
            size_t at = line.find(marker);
            if (at != std::string::npos) targets.push_back(line.substr(at + marker.size()));
        }
        return targets;
    }
    void stepAt(time_t seconds) {
        clock_.setSeconds(seconds);
        SmartLinkSelection::instance()->calcInterface();
    }

    FakeWallClock clock_;
    ScopedSeamOverride<WallClock> clockOverride_;
    ScopedRecordingRunner runner_;
};

}  // namespace vekt::test
