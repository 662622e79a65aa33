#pragma once

#include <string>

namespace vekt {

struct DaemonArgs {
    std::string root;  // --root DIR; empty for the device paths as they stand
    bool help = false;
};

constexpr const char* kDaemonUsage =
    "usage: vekt [--root DIR] [--help]\n"
    "  --root DIR  resolve every device path (/dev/socket, /proc/sla, /vendor/etc/sla,\n"
    "              /system/bin, properties) under DIR\n"
    "  --help      print this text\n";

// Parses the command line; returns false (with the offending argument in error) when an
// argument is unknown or lacks its value.
bool parseDaemonArgs(int argc, const char* const* argv, DaemonArgs& args, std::string& error);

}  // namespace vekt
