// Readings for the Wi-Fi monitors that no host can produce on demand: the signal a test sets
// per interface, and RTT results from a queue per interface (-1, a failed probe, once it runs
// dry). Installed as both sources for its own lifetime; it records what it was asked. The
// monitors' threads call it, so every member is locked.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "monitors/wifi_link_sources.h"

namespace vekt::test {

class FakeWifiLinks : public StationSource, public RttProbe {
  public:
    bool start() override {
        std::lock_guard<std::mutex> lock(mutex_);
        return ++starts_ > 0;
    }
    int stationRssi(const char* bssid, const char* ifname) override {
        std::lock_guard<std::mutex> lock(mutex_);
        queries_.push_back(std::string(ifname) + "@" + bssid);
        return rssi_[ifname];  // 0, a failed query, unless set
    }
    int probe(tcping_info* info, int offsetMs) override {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(std::string(info->device) + " " + info->server + ":" +
                         std::to_string(info->port) + " x" + std::to_string(info->probeCount) +
                         " +" + std::to_string(offsetMs));
        std::deque<int>& queue = rtts_[info->device];
        if (queue.empty()) return -1;
        const int rtt = queue.front();
        queue.pop_front();
        return rtt;
    }

    void set(const std::string& ifname, int rssi) {
        std::lock_guard<std::mutex> lock(mutex_);
        rssi_[ifname] = rssi;
    }
    void queue(const std::string& ifname, const std::vector<int>& rtts) {
        std::lock_guard<std::mutex> lock(mutex_);
        rtts_[ifname].insert(rtts_[ifname].end(), rtts.begin(), rtts.end());
    }
    int starts() { return copy(starts_); }
    // In order: each station query as "ifname@bssid", each probe as
    // "ifname server:port xProbes +offsetMs".
    std::vector<std::string> queries() { return copy(queries_); }
    std::vector<std::string> calls() { return copy(calls_); }

  private:
    template <typename T>
    T copy(const T& member) {
        std::lock_guard<std::mutex> lock(mutex_);
        return member;
    }

    std::mutex mutex_;
    std::map<std::string, int> rssi_;
    std::map<std::string, std::deque<int>> rtts_;
    int starts_ = 0;
    std::vector<std::string> queries_, calls_;
    ScopedSeamOverride<StationSource> station_{stationSourceSeam(), *this};
    ScopedSeamOverride<RttProbe> probe_{rttProbeSeam(), *this};
};

}  // namespace vekt::test
