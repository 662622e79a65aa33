#include "monitors/wifi_link_sources.h"

#include "wificond/net/netlink_utils.h"

namespace vekt {
namespace {

class NetlinkStationSource : public StationSource {
  public:
    bool start() override { return android::wificond::NetlinkUtils::instance()->Start(); }
    int stationRssi(const char* bssid, const char* ifname) override {
        return android::wificond::NetlinkUtils::instance()->GetStationInfo(bssid, ifname);
    }
};

class TcpingProbe : public RttProbe {
  public:
    int probe(tcping_info* info, int offsetMs) override {
        return Tcping::updateTcpingRtt(info, offsetMs);
    }
};

}  // namespace

Seam<StationSource>& stationSourceSeam() {
    static NetlinkStationSource real;
    static Seam<StationSource> seam(real);
    return seam;
}

Seam<RttProbe>& rttProbeSeam() {
    static TcpingProbe real;
    static Seam<RttProbe> seam(real);
    return seam;
}

}  // namespace vekt
