// Parameters: the interface registry and the four-slot fwmark pool.
#define LOG_TAG "SLM-Vekt-SlaParameters"

#include <log/log.h>
#include <stdlib.h>
#include <string.h>

#include "config/parameters.h"
#include "base/text.h"
#include "config/input_validation.h"

namespace {

constexpr uint32_t kPoolMarks[] = {0x200000, 0x400000, 0x600000, 0x800000};
constexpr const char* kFreeOwner = " ";
constexpr size_t kInterfaceParamFields = 9;

std::string formatMark(uint32_t mark) {
    char text[16];
    snprintf(text, sizeof(text), "0x%x", mark);
    return text;
}

// The name and the table become tool arguments and a path, the mark a tool argument.
bool fieldsAreSafe(const std::vector<std::string>& pieces) {
    static constexpr const char* kFn = "parseInterfaceParams";
    if (!vekt::isValidInterfaceName(pieces[0])) {
        vekt::logRefused(LOG_TAG, kFn, "interface name", pieces[0]);
        return false;
    }
    if (!vekt::isValidInterfaceName(pieces[2])) {
        vekt::logRefused(LOG_TAG, kFn, "route table", pieces[2]);
        return false;
    }
    if (!vekt::isValidFwmark(pieces[3])) {
        vekt::logRefused(LOG_TAG, kFn, "fwmark", pieces[3]);
        return false;
    }
    return true;
}

}  // namespace

void Parameters::initValidInterfaceMark() {
    vekt::MutexLock lock(interfaceMutex);
    for (uint32_t mark : kPoolMarks) m_markPool.push_back(new interfaceMark{mark, kFreeOwner, true});
}

std::string Parameters::getValidInterfaceMark(const char* name) {
    vekt::MutexLock lock(interfaceMutex);
    if (m_markPool.empty()) return formatMark(kPoolMarks[0]);
    for (interfaceMark* slot : m_markPool) {
        if (slot->owner == name) return formatMark(slot->mark);
    }
    for (interfaceMark* slot : m_markPool) {
        if (slot->isFree) {
            slot->owner = name;
            slot->isFree = false;
            return formatMark(slot->mark);
        }
    }
    // A fifth interface shares the first mark without holding a slot.
    return formatMark(kPoolMarks[0]);
}

void Parameters::releaseValidInterfaceMark(const char* name) {
    vekt::MutexLock lock(interfaceMutex);
    for (interfaceMark* slot : m_markPool) {
        if (slot->owner == name) {
            slot->owner = kFreeOwner;
            slot->isFree = true;
        }
    }
}

std::string Parameters::getMeteredInterfaceSlaveStatus() {
    // Only "rmnet_data" owners count: the second cellular link of that family is the slave.
    int cellular = 0;
    {
        vekt::MutexLock lock(interfaceMutex);
        for (interfaceMark* slot : m_markPool) {
            if (strncmp(slot->owner.c_str(), "rmnet_data", 10) == 0) ++cellular;
        }
    }
    std::string status = cellular >= 2 ? "1" : "0";
    ALOGI("%s slave status %s", "getMeteredInterfaceSlaveStatus", status.c_str());
    return status;
}

InterfaceInfo_t* Parameters::parseInterfaceParams(const std::string& params) {
    auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    if (info != nullptr && !params.empty()) {
        std::vector<std::string> pieces = vekt::splitList(params);
        for (size_t i = 0; i < pieces.size(); ++i) {
            ALOGI("parseInterfaceParams %s %d %d ", pieces[i].c_str(), static_cast<int>(i + 1),
                  static_cast<int>(kInterfaceParamFields));
        }
        if (pieces.size() == kInterfaceParamFields) {
            vekt::copyBounded(info->name, sizeof(info->name), pieces[0].c_str());
            vekt::copyBounded(info->routeTable, sizeof(info->routeTable), pieces[2].c_str());
            vekt::copyBounded(info->fwmark, sizeof(info->fwmark), pieces[3].c_str());
            vekt::copyBounded(info->bssid, vekt::kBssidLength + 1, pieces[8].c_str());
            info->isDefault = atoi(pieces[4].c_str()) != 0;
            info->metered = atoi(pieces[1].c_str()) != 0;
            info->slave = atoi(pieces[7].c_str()) != 0;
            info->cost = atoi(pieces[5].c_str());
            info->bias = atoi(pieces[6].c_str());
            // The record's own checks first, with their lines; then what becomes arguments.
            if (validateInterfaceParams(info) && fieldsAreSafe(pieces)) return info;
        }
    }
    free(info);
    ALOGE("%s Check vekt.conf for interface errors", "parseInterfaceParams");
    return nullptr;
}

int Parameters::validateInterfaceParams(InterfaceInfo_t* info) {
    static constexpr const char* kFn = "validateInterfaceParams";
    if (info == nullptr) {
        ALOGE("%s Interface Obj is NULL", kFn);
        return 0;
    }
    if (info->name[0] == '\0') ALOGE("%s Interface name is NULL", kFn);
    if (info->routeTable[0] == '\0') {
        ALOGE("%s Interface routeTable is NULL", kFn);
        if (info->fwmark[0] == '\0') ALOGE("%s Interface fwmark is NULL", kFn);
        return 0;
    }
    if (info->fwmark[0] == '\0') {
        ALOGE("%s Interface fwmark is NULL", kFn);
        return 0;
    }
    if (info->name[0] == '\0') return 0;

    ALOGI("%s Interface name is       %s", kFn, info->name);
    ALOGI("%s Interface routeTable is %s", kFn, info->routeTable);
    ALOGI("%s Interface fwmark is     %s", kFn, info->fwmark);
    ALOGI("%s Interface default is    %d", kFn, info->isDefault);
    ALOGI("%s Interface metered is    %d", kFn, info->metered);
    ALOGI("%s Interface cost is       %d", kFn, info->cost);
    ALOGI("%s Interface bias is       %d", kFn, info->bias);
    ALOGI("%s Interface slave is      %d", kFn, info->slave);
    return 1;
}

int Parameters::addNewInterfacetoMap(InterfaceInfo_t* info) {
    int valid = validateInterfaceParams(info);
    if (!valid) {
        ALOGE("%s Add interface failed ", "addNewInterfacetoMap");
        return valid;
    }
    {
        vekt::MutexLock lock(interfaceMutex);
        InterfaceInfo_t*& slot = m_interfaceInfoMap[info->name];
        // A record registered again under the same name replaces the old one; nobody can
        // still be using the old one, since readers hold interfaceMutex.
        if (slot != info) free(slot);
        slot = info;
    }
    ALOGI("%s Added %s to list of interfaces ", "addNewInterfacetoMap", info->name);
    return valid;
}

int Parameters::delOldInterfacetoMap(const char* name) {
    vekt::MutexLock lock(interfaceMutex);
    auto entry = m_interfaceInfoMap.find(name);
    if (entry != m_interfaceInfoMap.end()) {
        free(entry->second);
        m_interfaceInfoMap.erase(entry);
    }
    return 1;
}
