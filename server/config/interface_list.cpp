// Parameters: the interface list and the link-state updates of the control client.
#define LOG_TAG "SLM-Vekt-SlaParameters"

#include <log/log.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "config/parameters.h"
#include "base/text.h"
#include "config/input_validation.h"

namespace {

constexpr size_t kMaxGatewayLength = 16;  // an IPv4 or short IPv6 text

bool hasPrefix(const std::string& name, const char* prefix) {
    return strncmp(name.c_str(), prefix, strlen(prefix)) == 0;
}

}  // namespace

void Parameters::UpdateInterface(const char* name, bool add) {
    if (!add) {
        releaseValidInterfaceMark(name);
        delOldInterfacetoMap(name);
        ALOGI("m_interfaceInfoMap del %s success!", name);
        return;
    }
    populatIfaceslist(name);
    for (int i = 0; i < m_numInterfaces; ++i) {
        std::string interfaceParams;
        {
            vekt::MutexLock lock(interfaceMutex);
            interfaceParams = m_ifaceParams[i];
        }
        InterfaceInfo_t* info = parseInterfaceParams(interfaceParams);
        if (info == nullptr) continue;
        // On failure the record is still ours: addNewInterfacetoMap did not keep it.
        if (!addNewInterfacetoMap(info)) {
            free(info);
            continue;
        }
        ALOGI("m_interfaceInfoMap add %s success!", info->name);
    }
}

void Parameters::populatIfaceslist(const char* names) {
    m_ifaceList.set({});
    // The whole argument owns the mark: callers pass one interface name at a time.
    std::string mark = getValidInterfaceMark(names);
    std::vector<std::string> pieces = vekt::splitList(names);
    if (pieces.size() > static_cast<size_t>(kMaxInterfaces)) {
        for (size_t i = kMaxInterfaces; i < pieces.size(); ++i) {
            ALOGE("%s too many interfaces, %s refused", "populatIfaceslist", pieces[i].c_str());
        }
        pieces.resize(kMaxInterfaces);
    }
    m_ifaceList.set(pieces);
    m_numInterfaces = static_cast<int32_t>(pieces.size());
    const std::string interfaceMode = m_interfaceMode.get();

    for (size_t i = 0; i < pieces.size(); ++i) {
        const std::string& name = pieces[i];
        std::string metered = "0";
        std::string isDefault = "0";
        std::string slave = "0";
        if (hasPrefix(name, "wlan0")) {
            isDefault = "1";
        } else if (hasPrefix(name, "wlan1")) {
            slave = "1";
        } else if (vekt::isCellularName(name.c_str())) {
            metered = interfaceMode;
            slave = getMeteredInterfaceSlaveStatus();
        }
        const std::string interfaceParams = name + "," + metered + "," + name + "," + mark + "," +
                                            isDefault + ",0,0" + "," + slave + "," +
                                            vekt::kUnknownBssid;
        {
            vekt::MutexLock lock(interfaceMutex);
            m_ifaceParams[i] = interfaceParams;
        }
        ALOGI("SLA m_ifaceParams[i] = %s", interfaceParams.c_str());
    }
}

void Parameters::UpdateInterfaceMode(const char* mode) {
    if (m_interfaceMode.equals(mode)) return;
    m_interfaceMode.set(mode);
    bool metered = atoi(mode) != 0;
    vekt::MutexLock lock(interfaceMutex);
    for (auto& entry : m_interfaceInfoMap) {
        InterfaceInfo_t* info = entry.second;
        if (info != nullptr && vekt::isCellularName(info->name)) info->metered = metered;
    }
}

void Parameters::UpdateInterfaceBssid(const char* text) {
    std::string bssids = text;
    bssids.erase(std::remove(bssids.begin(), bssids.end(), ':'), bssids.end());
    ALOGI("%s bssid is %s\n", "UpdateInterfaceBssid", bssids.c_str());

    std::vector<std::string> pieces = vekt::splitList(bssids);
    for (const std::string& piece : pieces) {
        if (piece.size() > vekt::kBssidLength) {
            ALOGE("%s token length error is %lu", "UpdateInterfaceBssid",
                  static_cast<unsigned long>(piece.size()));
            return;
        }
    }
    static constexpr const char* kWifiPrefixes[] = {"wlan0", "wlan1"};
    vekt::MutexLock lock(interfaceMutex);
    for (size_t link = 0; link < 2 && link < pieces.size(); ++link) {
        if (pieces[link].empty()) continue;
        for (auto& entry : m_interfaceInfoMap) {
            InterfaceInfo_t* info = entry.second;
            if (info != nullptr && hasPrefix(info->name, kWifiPrefixes[link])) {
                vekt::copyBounded(info->bssid, vekt::kBssidLength + 1, pieces[link].c_str());
            }
        }
    }
}

void Parameters::populateWifiGateway(const char* text) {
    StringList gateways;
    for (const std::string& piece : vekt::splitList(text)) {
        if (piece.size() > kMaxGatewayLength) {
            ALOGE("populateWifiGateway token length error is %lu",
                  static_cast<unsigned long>(piece.size()));
            continue;
        }
        // The gateway becomes the one "-d" argument of a rule.
        if (!vekt::isValidGatewayAddress(piece)) {
            vekt::logRefused(LOG_TAG, "populateWifiGateway", "gateway address", piece);
            continue;
        }
        gateways.push_back(piece);
    }
    m_wifiGatewayList.set(gateways);
    for (const std::string& gateway : gateways) {
        ALOGI("populateWifiGateway = %s", gateway.c_str());
    }
}
