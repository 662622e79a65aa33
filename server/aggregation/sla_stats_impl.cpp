// SlaStatsImpl: the statistics channel to the kernel module (command file, mapped
// statistics files, VoIP state file).
#define LOG_TAG "SLM-Vekt-SlaStatsImpl"

#include "aggregation/sla_stats_impl.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <log/log.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <vector>

#include "aggregation/sla_stats_data.h"
#include "config/parameters.h"
#include "base/clock.h"
#include "base/device_root.h"
#include "base/singleton_slot.h"
#include "base/text.h"
#include "config/input_validation.h"

vekt::Mutex slaStatsMutex(vekt::LockLevel::kSlaStats, "slaStatsMutex");

namespace {

constexpr const char* kStatsDir = "/proc/sla";
constexpr int kMmapTries = 3;
constexpr int64_t kMmapRetryDelayMs = 500;
constexpr size_t kVoipStateMax = 20;

// Releases everything a record owns: its statistics view, the mapping under it, itself.
void freeRecord(linkStatsWrapper_t* record) {
    if (record == nullptr) return;
    if (record->stats != nullptr) {
        munmap(const_cast<void*>(record->stats->mapping()), vekt::kStatsFileSize);
        delete record->stats;
    }
    delete record;
}

// main starts the control-socket thread before it creates this singleton, so a command
// that arrives at once (an interface, VoIP) can race main's first call.
vekt::SingletonSlot<SlaStatsImpl>& slot() {
    static vekt::SingletonSlot<SlaStatsImpl> instance(vekt::LockLevel::kSingleton,
                                                      "SlaStatsImpl singleton");
    return instance;
}

}  // namespace

SlaStatsImpl* SlaStatsImpl::instance() {
    return slot().getOrCreate([] { return new SlaStatsImpl(); });
}

void SlaStatsImpl::finalize() {
    SlaStatsImpl* impl = slot().take();
    if (impl == nullptr) return;
    impl->freeMmap();
    delete impl;
}

SlaStatsImpl::~SlaStatsImpl() {
    // freeMmap has emptied the map; this only guards a path that skipped it.
    vekt::MutexLock lock(slaStatsMutex);
    for (auto& entry : m_slaInterfaceMap) freeRecord(entry.second);
    m_slaInterfaceMap.clear();
}

int SlaStatsImpl::writeStatsConfFile(const char* line) {
    // Non-blocking: the module's file never blocks, and a host FIFO without a reader must
    // fail the open instead of hanging the caller.
    android::base::unique_fd fd(
        open(vekt::DeviceRoot::map(kConfigFile).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.ok()) {
        ALOGE("open stats config file failed:%s", strerror(errno));
        return -1;
    }
    // The module takes one command per write, terminated by its NUL.
    const size_t length = strlen(line) + 1;
    ssize_t written = write(fd.get(), line, length);
    if (written < 0 || static_cast<size_t>(written) < length) {
        ALOGE("write the config failed:%s\n", strerror(errno));
        return -1;
    }
    return 0;
}

bool SlaStatsImpl::enableSLA(bool enable) {
    if (enable) {
        Parameters* params = Parameters::instance();
        std::vector<char> line(params->statsLineCapacity());
        writeStatsConfFile(params->getStatsProtocols(line.data(), line.size()));
        writeStatsConfFile(params->getStatsPorts(line.data(), line.size()));
        {
            vekt::MutexLock lock(interfaceMutex);
            for (const auto& entry : params->m_interfaceInfoMap) {
                writeStatsConfFile(("iface=" + entry.first).c_str());
            }
        }
        initMmap();
    } else {
        freeMmap();
    }
    char line[32];
    snprintf(line, sizeof(line), "%s%d", "enable=", enable ? 1 : 0);
    return writeStatsConfFile(line) == 0;
}

bool SlaStatsImpl::initMmap() {
    Parameters* params = Parameters::instance();
    vekt::MutexLock interfaceLock(interfaceMutex);
    if (params->m_interfaceInfoMap.empty()) {
        vekt::MutexLock lock(slaStatsMutex);
        return m_slaInterfaceMap.empty();
    }
    size_t mapped = 0;
    for (const auto& entry : params->m_interfaceInfoMap) {
        const InterfaceInfo_t* info = entry.second;
        if (info == nullptr) continue;
        auto* record = new linkStatsWrapper_t();
        vekt::copyBounded(record->name, sizeof(record->name), info->name);
        const bool isWifi = !info->metered && !vekt::isCellularName(record->name);

        void* mapping = nullptr;
        for (int attempt = 0; attempt < kMmapTries && mapping == nullptr; ++attempt) {
            mapping = getStatsMmap(record->name);
            // The module may still be creating the file; each miss waits before the next
            // look, the last one included, with interfaceMutex held as the channel expects.
            if (mapping == nullptr) vekt::sleepMs(kMmapRetryDelayMs);
        }
        if (mapping != nullptr) {
            record->stats = new SlaStatsData(mapping, isWifi);
            ++mapped;
        }
        {
            vekt::MutexLock lock(slaStatsMutex);
            linkStatsWrapper_t*& slot = m_slaInterfaceMap[record->name];
            if (slot != record) freeRecord(slot);
            slot = record;
        }
        ALOGI("%s + %s\n", "initMmap", record->name);
    }
    vekt::MutexLock lock(slaStatsMutex);
    return mapped == m_slaInterfaceMap.size();
}

void* SlaStatsImpl::getStatsMmap(std::string name) {
    // The name becomes one path component inside the statistics directory, and nothing else.
    if (!vekt::isValidInterfaceName(name)) {
        vekt::logRefused(LOG_TAG, "getStatsMmap", "interface name", name);
        return nullptr;
    }
    char path[128];
    snprintf(path, sizeof(path), "%s%s%s_mmap", kStatsDir, "/", name.c_str());
    // The create flag and mode are what the module's files expect to be opened with; the
    // module, not us, provides the file. Non-blocking, so that a FIFO in its place cannot
    // hold the caller; no symbolic link is followed out of the directory.
    android::base::unique_fd fd(open(vekt::DeviceRoot::map(path).c_str(),
                                     O_RDONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC,
                                     0777));
    if (!fd.ok()) {
        ALOGE("open mmap file failed:%s", strerror(errno));
        return nullptr;
    }
    // Reading a mapping beyond the end of a shorter regular file raises SIGBUS in the
    // middle of an estimate. procfs files report no size, and the module backs the whole
    // mapping, so only other file systems are measured.
    struct statfs fsInfo = {};
    struct stat fileInfo = {};
    if (fstatfs(fd.get(), &fsInfo) != 0 || fstat(fd.get(), &fileInfo) != 0) {
        ALOGE("stat mmap file failed:%s", strerror(errno));
        return nullptr;
    }
    if (!S_ISREG(fileInfo.st_mode)) {
        ALOGE("mmap file %s is not a regular file", path);
        return nullptr;
    }
    if (fsInfo.f_type != PROC_SUPER_MAGIC &&
        fileInfo.st_size < static_cast<off_t>(vekt::kStatsFileSize)) {
        ALOGE("mmap file %s too short:%lld", path, static_cast<long long>(fileInfo.st_size));
        return nullptr;
    }
    void* mapping = mmap(nullptr, vekt::kStatsFileSize, PROT_READ, MAP_SHARED, fd.get(), 0);
    if (mapping == MAP_FAILED) {
        ALOGE("mmap file failed:%s", strerror(errno));
        return nullptr;
    }
    return mapping;
}

void SlaStatsImpl::freeMmap() {
    vekt::MutexLock lock(slaStatsMutex);
    for (auto& entry : m_slaInterfaceMap) freeRecord(entry.second);
    m_slaInterfaceMap.clear();
}

bool SlaStatsImpl::updateSlaInterfacemap(const char* name, bool add) {
    freeMmap();
    char line[32];
    snprintf(line, sizeof(line), "%s%d", "enable=", 0);
    writeStatsConfFile(line);
    // The module is configured from scratch: every registered interface again.
    enableSLA(true);
    if (add) {
        ALOGI("m_slaInterfaceMap add %s success!", name);
    } else {
        ALOGI("m_slaInterfaceMap del %s success!", name);
    }
    return true;
}

int SlaStatsImpl::enableSlaVoipState(bool on, const char* uid) {
    std::string uidLine = std::string("voip_uid=") + (uid != nullptr ? uid : "");
    char enableLine[32];
    snprintf(enableLine, sizeof(enableLine), "%s%d", "voip_enable=", on ? 1 : 0);
    // The UID is valid before VoIP goes on; VoIP is off before the UID changes.
    if (on) {
        writeStatsConfFile(uidLine.c_str());
        return writeStatsConfFile(enableLine);
    }
    writeStatsConfFile(enableLine);
    return writeStatsConfFile(uidLine.c_str());
}

int SlaStatsImpl::getSlaVoipState(char* address, size_t addressSize, char* port, size_t portSize) {
    // Non-blocking: a FIFO in the file's place must not hold the caller.
    android::base::unique_fd fd(
        open(vekt::DeviceRoot::map(kVoipStateFile).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.ok()) {
        ALOGE("open voip state file failed:%s", strerror(errno));
        return -1;
    }
    char text[kVoipStateMax + 1] = {};
    ssize_t length = read(fd.get(), text, kVoipStateMax);
    if (length < 0) {
        ALOGE("read voip state file failed:%s", strerror(errno));
        return -1;
    }
    // "address,port"; the port is everything after the comma, a trailing newline included.
    const char* comma = static_cast<const char*>(memchr(text, ',', static_cast<size_t>(length)));
    if (length >= 4 && comma != nullptr) {
        vekt::copyBounded(address, addressSize, text, static_cast<size_t>(comma - text));
        vekt::copyBounded(port, portSize, comma + 1,
                          static_cast<size_t>(text + length - (comma + 1)));
    }
    return static_cast<int>(length);
}
