#include "support/temp_root.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "aggregation/stats_file.h"

namespace vekt::test {

namespace fs = std::filesystem;

TempRoot::TempRoot() {
    std::string pattern = (fs::temp_directory_path() / "vekt-root-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    for (const char* sub : {"/dev/socket", "/proc/sla", "/vendor/etc/sla", "/system/bin",
                            "/properties"}) {
        fs::create_directories(dir_ + sub);
    }
}

TempRoot::~TempRoot() {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
}

void TempRoot::writeFile(const std::string& devicePath, const std::string& text) const {
    fs::create_directories(fs::path(path(devicePath)).parent_path());
    std::ofstream(path(devicePath), std::ios::binary | std::ios::trunc) << text;
}

std::string TempRoot::readFile(const std::string& devicePath) const {
    return readWholeFile(path(devicePath));
}

void TempRoot::setProperty(const std::string& name, const std::string& value) const {
    writeFile("/properties/" + name, value);
}

void TempRoot::writeConf(const std::string& text) const {
    writeFile("/vendor/etc/sla/vekt.conf", text);
}

std::string TempRoot::installRecordingWrappers() const {
    std::string log = dir_ + "/commands.log";
    for (const char* tool : {"iptables", "ip"}) {
        std::string script = std::string("#!/bin/sh\necho \"") + tool + " $*\" >> '" + log +
                             "'\n";
        std::string device = std::string("/system/bin/") + tool + "-wrapper-1.0";
        writeFile(device, script);
        chmod(path(device).c_str(), 0755);
    }
    return log;
}

std::string TempRoot::recordedCommands() const { return readWholeFile(dir_ + "/commands.log"); }

void TempRoot::publishStatsFile(const std::string& iface) const {
    std::string file(kStatsFileSize, '\0');
    memcpy(file.data(), &kStatsMagic, sizeof(kStatsMagic));
    const std::string devicePath = "/proc/sla/" + iface + "_mmap";
    writeFile(devicePath + ".tmp", file);
    if (rename(path(devicePath + ".tmp").c_str(), path(devicePath).c_str()) != 0) {
        throw std::runtime_error("cannot publish " + devicePath);
    }
}

std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace vekt::test
