// Link selection: the singleton, the per-cycle choice of the best link with its hysteresis,
// the switch itself, and the gaming and VoIP hooks that follow each step.
#define LOG_TAG "SLM-Vekt-SlaPing"

#include "selection/smart_link_selection.h"

#include <arpa/inet.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>

#include "aggregation/sla_stats_impl.h"
#include "base/clock.h"
#include "base/singleton_slot.h"
#include "netlink/kill_sockets.h"
#include "steering/iptables_manager.h"
#include "status/status_counters.h"

vekt::Mutex slsMutex(vekt::LockLevel::kSelection, "slsMutex");

namespace {

vekt::SingletonSlot<SmartLinkSelection>& slot() {
    static vekt::SingletonSlot<SmartLinkSelection> instance(vekt::LockLevel::kSelectionSingleton,
                                                            "slsSingletonMutex");
    return instance;
}

// The object being built on this thread, if any. Creation may reach code that asks for the
// instance again; that call must get the object under construction, not wait on the slot
// mutex its own thread holds (the behaviour a recursive mutex would give).
thread_local SmartLinkSelection* tUnderConstruction = nullptr;

bool isWifiName(const char* name) { return strncmp(name, "wlan", 4) == 0; }

// A failed link's level.
constexpr int32_t kFailedLevel = 1;
// The AI mode's Wi-Fi dwell after which RTT checking ends.
constexpr int64_t kAiModeDwellS = 6;

}  // namespace

SmartLinkSelection::SmartLinkSelection() {
    vekt::MutexLock lock(slsMutex);
    hystWindowStart = vekt::wallTime();
}

SmartLinkSelection::~SmartLinkSelection() {
    // Every probe thread is joined by now (finalize); what a replacement left behind is
    // freed last, when nothing can reach it any more.
    vekt::MutexLock lock(slsMutex);
    m_probeWorkers.clear();
    for (InterfaceRtt* tracker : m_replacedTrackers) delete tracker;
    m_replacedTrackers.clear();
}

void SmartLinkSelection::Init() {}

SmartLinkSelection* SmartLinkSelection::instance() {
    if (tUnderConstruction != nullptr) return tUnderConstruction;
    // The settings come first in the lock order; make sure they exist before the slot
    // mutex is held.
    Parameters::instance();
    return slot().getOrCreate([] {
        SmartLinkSelection* created = new SmartLinkSelection();
        tUnderConstruction = created;
        created->initPingThreads();
        tUnderConstruction = nullptr;
        created->reserved = 0;
        vekt::MutexLock lock(slsMutex);
        created->switchCount = 0;
        created->currentInterface = nullptr;
        return created;
    });
}

bool SmartLinkSelection::isInstance() { return slot().get() != nullptr; }

void SmartLinkSelection::finalize() {
    SmartLinkSelection* sls = slot().get();
    if (sls == nullptr) return;
    {
        vekt::MutexLock lock(slsMutex);
        for (auto& entry : sls->m_slsInterfaceMap) {
            if (entry.second != nullptr) entry.second->running = false;
        }
    }
    sls->threadDestory();
    {
        vekt::MutexLock lock(slsMutex);
        sls->switchCount = 0;
        sls->label.clear();
        // Every probe thread is joined, so the map is the trackers' last owner: free them
        // with it rather than leave them behind.
        std::map<std::string, InterfaceRtt*> trackers;
        trackers.swap(sls->m_slsInterfaceMap);
        for (auto& entry : trackers) sls->releaseTracker(entry.second);
        sls->currentInterface = nullptr;
    }
    delete slot().take();
}

void SmartLinkSelection::cleanup() { finalize(); }

void SmartLinkSelection::slsChooseInterface() {
    SmartLinkSelection* sls = slot().get();
    if (sls == nullptr) return;
    Parameters* params = Parameters::instance();
    const int gaming = params->isGamingRunning();
    if (gaming == 1 || params->isVoipRunning()) {
        sls->calcInterface();
        setVoipIpAddressAndPort();
    } else if (gaming == 2 && params->isGamingAiModeCheckRtt()) {
        sls->calcInterface();
        sls->gamingAiModeCheck();
    }
}

InterfaceRtt* SmartLinkSelection::getFastestInterface() {
    InterfaceRtt* best = nullptr;
    int32_t bestLevel = 0;
    for (auto& entry : m_slsInterfaceMap) {
        InterfaceRtt* tracker = entry.second;
        if (tracker == nullptr) continue;
        ALOGI("%s (interface %s) (networklevel %d)", "getFastestInterface", tracker->interfaceName,
              tracker->networkLevel);
        // A dead current link must not be held by the hysteresis.
        if (tracker->networkLevel == kFailedLevel && currentInterface != nullptr &&
            strcmp(currentInterface->interfaceName, tracker->interfaceName) == 0) {
            switchCount = 0;
        }
        if (tracker->networkLevel > bestLevel) {
            best = tracker;
            bestLevel = tracker->networkLevel;
        } else if (tracker->networkLevel == bestLevel) {
            if (currentInterface == nullptr) {
                if (!tracker->isSlave()) best = tracker;
            } else if (isWifiName(currentInterface->interfaceName)) {
                // Stay on a Wi-Fi link that is as good as anything else: it costs nothing.
                best = currentInterface;
            } else {
                best = tracker;
            }
        }
    }
    if (best != nullptr) {
        ALOGI("%s (best Interface %s) (networklevel %d)", "getFastestInterface",
              best->interfaceName, best->networkLevel);
    }
    return best;
}

bool SmartLinkSelection::hystCheckAndUpdate(struct timeval& windowStart) {
    Parameters* params = Parameters::instance();
    const struct timeval now = vekt::wallTime();
    const int64_t elapsed =
        (static_cast<int64_t>(now.tv_sec) - static_cast<int64_t>(windowStart.tv_sec)) * 1000 +
        (static_cast<int64_t>(now.tv_usec) - static_cast<int64_t>(windowStart.tv_usec)) / 1000;
    const int64_t delta = static_cast<int64_t>(params->m_tHystS.load()) * 1000;
    if (delta <= elapsed) {
        ALOGI("SLA_LINK time elapsed, ready for switch calc %d  config delta %d",
              static_cast<int>(elapsed), static_cast<int>(delta));
        windowStart = now;
        switchCount = 0;
        return true;
    }
    if (switchCount >= params->m_nHyst.load()) {
        ALOGI("SLA_LINK in cycle, switch not allowed-----*** calc %d  config delta %d",
              static_cast<int>(elapsed), static_cast<int>(delta));
        return false;
    }
    ALOGI("SLA_LINK in cycle, but good to switch - calc %d  config delta %d",
          static_cast<int>(elapsed), static_cast<int>(delta));
    return true;
}

void SmartLinkSelection::calcInterface() {
    // Looked up before any lock: creating the rule manager runs its own command sequence.
    IptablesManager* iptables = IptablesManager::instance();
    Parameters* params = Parameters::instance();

    interfaceMutex.lock();
    vekt::MutexLock lock(slsMutex);
    InterfaceRtt* previous = currentInterface;
    InterfaceRtt* best = getFastestInterface();
    // The registry was needed only for the tie rule's slave flags.
    interfaceMutex.unlock();
    if (best == nullptr) {
        ALOGE("%s SLA_RTT Fastest Interface returned NULL", "calcInterface");
        return;
    }
    currentInterface = best;
    // Run on every step, so that a window that has run out restarts even without a switch.
    if (!hystCheckAndUpdate(hystWindowStart) && previous != nullptr) {
        currentInterface = previous;
        return;
    }
    ALOGI("%s SLA_RTT_SELECTED current =  %s , prvious = %s", "calcInterface",
          currentInterface->interfaceName, previous != nullptr ? previous->interfaceName : "NULL");
    if (currentInterface == previous) return;

    ALOGI("%s SLA_RTT_SELECTED perform switch %s ", "calcInterface",
          currentInterface->interfaceName);
    iptables->set_SLS_interface(currentInterface->interfaceName);
    vekt::countEvent(vekt::statusCounters().selectionSwitches);
    // Open connections stay on the old link until they are reset; the games reconnect.
    const auto uids = params->m_gamingUidList.snapshot();
    for (const std::string& uid : *uids) {
        ALOGI("SLA_RTT_SELECTED  UID destroying sockets = %s", uid.c_str());
        killSocketsForUID(uid.c_str());
    }
    hystWindowStart = vekt::wallTime();
    ALOGI("SLA_LINK resetting hystWindow, current switch count = %d-----<*>", switchCount);
    ++switchCount;
}

void SmartLinkSelection::setNetworkLevel() {
    vekt::MutexLock lock(slsMutex);
    for (auto& entry : m_slsInterfaceMap) {
        InterfaceRtt* tracker = entry.second;
        if (tracker == nullptr) continue;
        tracker->networkLevel = isWifiName(tracker->interfaceName) ? 1 : 10;
    }
}

int SmartLinkSelection::updateSlsInterfacemap(const char* name, bool add) {
    Parameters* params = Parameters::instance();
    if (!params->isVoipRunning() && params->isGamingRunning() != 1) return 1;
    const std::string key(name);

    vekt::MutexLock lock(slsMutex);
    if (!add) {
        // Like the registry, a lookup of a missing name leaves an empty entry (erased below).
        InterfaceRtt* tracker = m_slsInterfaceMap[key];
        if (tracker != nullptr) {
            tracker->running = false;
            joinProbeThread(tracker);
            // The map may have changed while the lock was let go for the join.
            auto it = m_slsInterfaceMap.find(key);
            if (it != m_slsInterfaceMap.end() && it->second == tracker) {
                if (currentInterface == tracker) currentInterface = nullptr;
                releaseTracker(tracker);
            }
        }
        m_slsInterfaceMap.erase(key);
        ALOGI("m_slsInterfaceMap del %s success!", name);
        return 1;
    }

    InterfaceRtt* tracker = new InterfaceRtt(name);
    tracker->running = true;
    tracker->alive = true;
    tracker->thread = InterfaceRtt::kNoThread;
    storeTracker(key, tracker);
    for (auto& entry : m_slsInterfaceMap) {
        if (entry.second == nullptr) continue;
        if (entry.second->thread == InterfaceRtt::kNoThread) startProbeThread(entry.second);
        entry.second->alive = true;
    }
    ALOGI("m_slsInterfaceMap add %s success!", name);
    return 1;
}

void SmartLinkSelection::setVoipIpAddressAndPort() {
    Parameters* params = Parameters::instance();
    if (!params->isVoipRunning()) return;
    // The VoIP peer is taken over only while nobody has set a server of their own.
    if (params->m_rttServer.get() != VEKT_DEFAULT_RTT_SERVER) return;
    char address[16] = {};
    char port[8] = {};
    SlaStatsImpl::instance()->getSlaVoipState(address, sizeof(address), port, sizeof(port));
    // Both numbers are in network byte order.
    const uint32_t peer = static_cast<uint32_t>(atoi(address));
    const uint16_t peerPort = static_cast<uint16_t>(atoi(port));
    if (peer == 0 || peerPort == 0) return;
    snprintf(address, sizeof(address), "%d.%d.%d.%d", static_cast<int>(peer & 0xff),
             static_cast<int>((peer >> 8) & 0xff), static_cast<int>((peer >> 16) & 0xff),
             static_cast<int>((peer >> 24) & 0xff));
    vekt::MutexLock lock(rttServerMutex);
    // Checked again with the pair held: a game server that the socket monitor picked
    // meanwhile stays.
    if (params->m_rttServer.get() != VEKT_DEFAULT_RTT_SERVER) return;
    params->setGamingRttServer(address);
    params->m_rttServerPort = ntohs(peerPort);
}

int SmartLinkSelection::gamingAiModeCheck() {
    Parameters* params = Parameters::instance();
    bool onWifi = false;
    {
        vekt::MutexLock lock(slsMutex);
        if (currentInterface == nullptr) return 0;
        onWifi = isWifiName(currentInterface->interfaceName);
    }
    if (params->isGamingRunning() != 2 || !params->isGamingAiModeCheckRtt()) return 0;
    if (!onWifi) {
        aiModeTimer = 0;
        ALOGI("gamingAiModeCheck reset timer");
        return 0;
    }
    const int64_t now = static_cast<int64_t>(vekt::wallTime().tv_sec);
    if (aiModeTimer == 0) aiModeTimer = now;
    if (now - aiModeTimer < kAiModeDwellS) return 0;

    // The game has settled on Wi-Fi: probing ends until the control path starts it again.
    aiModeTimer = 0;
    threadStop();
    threadDestory();
    destoryPingThreads();
    params->setGamingAiModeCheckRtt(false);
    ALOGI("gamingAiModeCheck timeout exit tcping check");
    return 0;
}
