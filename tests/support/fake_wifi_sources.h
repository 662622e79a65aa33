// Readings for the Wi-Fi monitors that no host can produce on demand: a station source that
// reports the signal a test sets per interface, and an RTT probe that answers from a queue
// of results per interface. Both record what they were asked, and both are installed for
// their own lifetime. The monitors call them from their threads; every member is locked.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "monitors/wifi_link_sources.h"

namespace vekt::test {

class FakeStationSource : public StationSource {
  public:
    bool start() override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++starts_;
        return true;
    }
    int stationRssi(const char* bssid, const char* ifname) override {
        std::lock_guard<std::mutex> lock(mutex_);
        queries_.push_back(std::string(ifname) + "@" + bssid);
        auto found = rssi_.find(ifname);
        return found == rssi_.end() ? 0 : found->second;
    }

    void set(const std::string& ifname, int rssi) {
        std::lock_guard<std::mutex> lock(mutex_);
        rssi_[ifname] = rssi;
    }
    int starts() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return starts_;
    }
    // "ifname@bssid" for each query, in order.
    std::vector<std::string> queries() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return queries_;
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::string, int> rssi_;
    int starts_ = 0;
    std::vector<std::string> queries_;
    ScopedSeamOverride<StationSource> scope_{stationSourceSeam(), *this};
};

class FakeRttProbe : public RttProbe {
  public:
    struct Call {
        std::string device;
        std::string server;
        uint16_t port;
        int32_t probeCount;
        int offsetMs;
    };

    // The next queued result for the interface, -1 (a failed probe) when none is left.
    int probe(tcping_info* info, int offsetMs) override {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::string device = info->device != nullptr ? info->device : "";
        calls_.push_back({device, info->server != nullptr ? info->server : "", info->port,
                          info->probeCount, offsetMs});
        std::deque<int>& queue = results_[device];
        if (queue.empty()) return -1;
        const int rtt = queue.front();
        queue.pop_front();
        return rtt;
    }

    void queue(const std::string& device, const std::vector<int>& rtts) {
        std::lock_guard<std::mutex> lock(mutex_);
        results_[device].insert(results_[device].end(), rtts.begin(), rtts.end());
    }
    std::vector<Call> calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::string, std::deque<int>> results_;
    std::vector<Call> calls_;
    ScopedSeamOverride<RttProbe> scope_{rttProbeSeam(), *this};
};

}  // namespace vekt::test
