// A temporary device root with the folders the daemon uses, removed on destruction.
#pragma once

#include <string>

namespace vekt::test {

class TempRoot {
public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::string& dir() const { return dir_; }
    // Absolute host path of a device path, e.g. path("/proc/sla/config").
    std::string path(const std::string& devicePath) const { return dir_ + devicePath; }

    void writeFile(const std::string& devicePath, const std::string& text) const;
    std::string readFile(const std::string& devicePath) const;
    void setProperty(const std::string& name, const std::string& value) const;
    void writeConf(const std::string& text) const;
    // Installs both wrapper tools as scripts that append their arguments, one command per
    // line, to <root>/commands.log (the iptables tool first prints "iptables", the ip tool
    // "ip"); returns that log's path.
    std::string installRecordingWrappers() const;
    std::string recordedCommands() const;
    // An empty statistics file for an interface, magic set, put in place in one step (by
    // rename) as the kernel module publishes it.
    void publishStatsFile(const std::string& iface) const;

private:
    std::string dir_;
};

// Reads a whole file; empty when it does not exist.
std::string readWholeFile(const std::string& path);

}  // namespace vekt::test
