// Where the Wi-Fi monitors get their readings from: the signal of the access point a Wi-Fi
// interface is associated with (the nl80211 station query) and one TCP-connect RTT probe
// over a link. Each is a seam, so that a test can feed the monitors the readings of a weak
// or a strong link, which no host can produce on demand.
#pragma once

#include "base/seam.h"
#include "selection/tcping.h"

namespace vekt {

class StationSource {
  public:
    virtual ~StationSource() = default;
    // A fresh netlink client (new socket, nl80211 resolved again); false when that failed.
    virtual bool start() = 0;
    // The station's signal in dBm (negative), 0 when the query failed. bssid: 12 hex digits.
    virtual int stationRssi(const char* bssid, const char* ifname) = 0;
};

class RttProbe {
  public:
    virtual ~RttProbe() = default;
    // One probe as Tcping::updateTcpingRtt makes it: the RTT in ms plus offsetMs, or -1.
    virtual int probe(tcping_info* info, int offsetMs) = 0;
};

// The real ones ask the generic netlink client and Tcping.
Seam<StationSource>& stationSourceSeam();
Seam<RttProbe>& rttProbeSeam();

}  // namespace vekt
