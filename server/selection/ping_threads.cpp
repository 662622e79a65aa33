// Link selection's probe threads: one per tracked interface, each probing its link every
// ping_interval_ms and handing the result to the interface's tracker.
//
// Each thread is a vekt::Worker, so a stop wakes a thread asleep between probes at once
// and every thread is joined before its tracker can be released.
#define LOG_TAG "SLM-Vekt-SlaPing"

#include <log/log.h>
#include <pthread.h>

#include <future>
#include <utility>

#include "selection/smart_link_selection.h"
#include "selection/tcping.h"

void SmartLinkSelection::storeTracker(const std::string& name, InterfaceRtt* tracker) {
    auto it = m_slsInterfaceMap.find(name);
    if (it != m_slsInterfaceMap.end() && it->second != nullptr && it->second != tracker) {
        // Replaced, not released: its probe thread (if any) may still be using it.
        m_replacedTrackers.push_back(it->second);
    }
    m_slsInterfaceMap[name] = tracker;
}

void SmartLinkSelection::releaseTracker(InterfaceRtt* tracker) {
    if (tracker == nullptr) return;
    // Never free a tracker whose thread might still run.
    if (m_probeWorkers.count(tracker) != 0) joinProbeThread(tracker);
    if (currentInterface == tracker) currentInterface = nullptr;
    delete tracker;
}

void SmartLinkSelection::initPingThreads() {
    vekt::MutexLock registryLock(interfaceMutex);
    Parameters* params = Parameters::instance();
    for (auto& entry : params->m_interfaceInfoMap) {
        if (entry.second == nullptr) continue;
        InterfaceRtt* tracker = new InterfaceRtt(entry.second->name);
        vekt::MutexLock lock(slsMutex);
        storeTracker(entry.first, tracker);
    }
    vekt::MutexLock lock(slsMutex);
    switchCount = 0;
}

void SmartLinkSelection::startProbeThread(InterfaceRtt* tracker) {
    auto worker = std::make_unique<vekt::Worker>(std::string("SlaPing-") + tracker->interfaceName);
    // The thread reports its own handle first thing, before it needs slsMutex (held here).
    auto handle = std::make_shared<std::promise<pthread_t>>();
    std::future<pthread_t> started = handle->get_future();
    worker->start([tracker, handle](vekt::Worker& self) {
        handle->set_value(pthread_self());
        makeRawPingFunc(tracker, self);
    });
    tracker->thread = started.get();
    m_probeWorkers[tracker] = std::move(worker);
}

void SmartLinkSelection::joinProbeThread(InterfaceRtt* tracker) {
    tracker->alive = false;
    auto it = m_probeWorkers.find(tracker);
    if (it != m_probeWorkers.end()) {
        std::unique_ptr<vekt::Worker> worker = std::move(it->second);
        m_probeWorkers.erase(it);
        worker->requestStop();
        // The thread may be waiting for slsMutex to finish its cycle.
        slsMutex.unlock();
        worker->stop();
        worker.reset();
        slsMutex.lock();
    }
    tracker->thread = InterfaceRtt::kNoThread;
}

void SmartLinkSelection::createRttThreads() {
    // The threads read `alive` under slsMutex, so it is written under it too.
    vekt::MutexLock lock(slsMutex);
    for (auto& entry : m_slsInterfaceMap) {
        InterfaceRtt* tracker = entry.second;
        if (tracker == nullptr) continue;
        if (tracker->thread == InterfaceRtt::kNoThread) startProbeThread(tracker);
        tracker->alive = true;
    }
}

void SmartLinkSelection::threadStop() {
    vekt::MutexLock lock(slsMutex);
    for (auto& entry : m_slsInterfaceMap) {
        if (entry.second != nullptr) entry.second->running = false;
    }
}

void SmartLinkSelection::threadResume() {
    vekt::MutexLock lock(slsMutex);
    for (auto& entry : m_slsInterfaceMap) {
        if (entry.second != nullptr) entry.second->running = true;
    }
}

void SmartLinkSelection::threadDestory() {
    // Every thread is asked to end first and all are joined after, so the stops overlap;
    // threads of replaced trackers are ended too. slsMutex is let go around the joins.
    std::vector<std::pair<InterfaceRtt*, std::unique_ptr<vekt::Worker>>> ending;
    {
        vekt::MutexLock lock(slsMutex);
        for (auto& entry : m_slsInterfaceMap) {
            if (entry.second != nullptr) entry.second->alive = false;
        }
        for (auto& entry : m_probeWorkers) {
            entry.first->alive = false;
            entry.second->requestStop();
            ending.emplace_back(entry.first, std::move(entry.second));
        }
        m_probeWorkers.clear();
    }
    for (auto& entry : ending) entry.second->stop();
    vekt::MutexLock lock(slsMutex);
    for (auto& entry : ending) {
        // Only a tracker still in the map: another path may have released one meanwhile.
        for (auto& mapped : m_slsInterfaceMap) {
            if (mapped.second == entry.first && m_probeWorkers.count(entry.first) == 0) {
                entry.first->thread = InterfaceRtt::kNoThread;
            }
        }
    }
    for (InterfaceRtt* replaced : m_replacedTrackers) replaced->thread = InterfaceRtt::kNoThread;
}

void SmartLinkSelection::destoryPingThreads() {
    vekt::MutexLock registryLock(interfaceMutex);
    Parameters* params = Parameters::instance();
    for (auto& entry : params->m_interfaceInfoMap) {
        vekt::MutexLock lock(slsMutex);
        auto it = m_slsInterfaceMap.find(entry.first);
        if (it == m_slsInterfaceMap.end()) continue;
        InterfaceRtt* tracker = it->second;
        m_slsInterfaceMap.erase(it);
        if (tracker == nullptr) continue;
        tracker->thread = InterfaceRtt::kNoThread;
        releaseTracker(tracker);
    }
    vekt::MutexLock lock(slsMutex);
    currentInterface = nullptr;
}

void SmartLinkSelection::makeRawPingFunc(InterfaceRtt* tracker, vekt::Worker& worker) {
    Parameters* params = Parameters::instance();
    // Read once: a changed interval reaches only threads started afterwards.
    const int64_t intervalMs = params->m_pingIntervalMs.load();
    RttServerTarget target = params->rttServerAndPort();
    tcping_info info = {};
    info.sockfd = 0;
    info.server = target.server.c_str();
    info.probeCount = 1;
    info.minCapMs = params->m_rttMinCapMs.load();
    info.rtt = 0;
    info.port = static_cast<uint16_t>(target.port);
    {
        vekt::MutexLock lock(slsMutex);
        info.device = tracker->interfaceName;
    }

    for (;;) {
        bool alive = false;
        {
            vekt::MutexLock lock(slsMutex);
            if (tracker->running) {
                if (!tracker->alive) return;
                // A new RTT server or port counts from the next probe on; the two are
                // taken as one pair, never the new server with the old port.
                target = params->rttServerAndPort();
                info.server = target.server.c_str();
                info.port = static_cast<uint16_t>(target.port);
                // Held across the probe: probes of different links never overlap and the
                // chooser never sees a tracker half updated.
                const int rtt = Tcping::updateTcpingRtt(&info, tracker->rttOffsetMs);
                tracker->setSpeed(rtt);
            }
            alive = tracker->alive;
        }
        if (!alive) return;
        if (!worker.waitFor(intervalMs)) return;
    }
}
