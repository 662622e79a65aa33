// Wrapper tools that hand the daemon's commands to the real iptables and ip, for tests that
// load its rules into a network namespace of their own. The daemon starts the wrappers, so
// they run in its namespace; each one logs what it ran and how that ended.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace vekt::test {

class TempRoot;

// The real tools. iptables and its save tool are one backend's pair: the nft backend where
// it is installed (its tables belong to the namespace and it needs no host-wide lock file,
// so parallel tests do not contend), else whatever `iptables` is.
struct NetfilterTools {
    std::string iptables;
    std::string iptablesSave;
    std::string ip;
};

// Looks the tools up in the usual system folders and PATH; false with the missing names.
bool findNetfilterTools(NetfilterTools* tools, std::string* missing);

// Routing table numbers for the table names the daemon uses (it names each interface's
// table after the interface). A fresh namespace knows no names but main, local and default,
// and the host's table-name file must not be touched.
const std::map<std::string, int>& defaultRouteTables();

// Installs DIR/system/bin/iptables-wrapper-1.0 and ip-wrapper-1.0, which run the real tools
// with the same arguments, except that the ip wrapper turns "table NAME" into the number
// from routeTables (unknown names pass unchanged, so ip rejects them). Each run appends
// "STATUS TOOL ARGS" ("0 iptables -w -t mangle -N tarn_SLM") to the returned log file.
std::string installForwardingWrappers(
    const TempRoot& root, const NetfilterTools& tools,
    const std::map<std::string, int>& routeTables = defaultRouteTables());

struct ForwardedCommand {
    int status;        // the real tool's exit status
    std::string line;  // tool and arguments, "iptables -w -t mangle -N tarn_SLM"
};
std::vector<ForwardedCommand> readForwardedCommands(const std::string& logPath);

// Runs argv (an absolute path first) in the network namespace of process pid and returns
// its standard output and error; *status gets its exit status (125 when the namespace could
// not be entered: it never runs in the caller's namespace instead).
std::string runInNetNamespaceOf(pid_t pid, const std::vector<std::string>& argv,
                                int* status = nullptr);

}  // namespace vekt::test
