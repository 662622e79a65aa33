#include "support/netfilter_wrappers.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "support/emulation.h"
#include "support/temp_root.h"

namespace vekt::test {
namespace {

std::string findTool(const std::string& name) {
    std::string dirs = "/usr/sbin:/sbin:/usr/bin:/bin";
    if (const char* path = getenv("PATH")) dirs = std::string(path) + ":" + dirs;
    std::istringstream parts(dirs);
    for (std::string dir; std::getline(parts, dir, ':');) {
        if (dir.empty()) continue;
        std::string candidate = dir + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return "";
}

std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// Runs the tool already in "$@", logs "STATUS NAME ARGS" and ends with the tool's status.
std::string forwardAndLog(const std::string& tool, const std::string& name,
                          const std::string& log) {
    return shellQuote(tool) + " \"$@\"\nstatus=$?\necho \"$status " + name + " $line\" >> " +
           shellQuote(log) + "\nexit $status\n";
}

void installScript(const TempRoot& root, const std::string& devicePath, const std::string& text) {
    root.writeFile(devicePath, text);
    chmod(root.path(devicePath).c_str(), 0755);
}

}  // namespace

bool findNetfilterTools(NetfilterTools* tools, std::string* missing) {
    tools->iptables = findTool("iptables-nft");
    tools->iptablesSave = findTool("iptables-nft-save");
    if (tools->iptables.empty() || tools->iptablesSave.empty()) {
        tools->iptables = findTool("iptables");
        tools->iptablesSave = findTool("iptables-save");
    }
    tools->ip = findTool("ip");
    missing->clear();
    if (tools->iptables.empty()) *missing += " iptables";
    if (tools->iptablesSave.empty()) *missing += " iptables-save";
    if (tools->ip.empty()) *missing += " ip";
    return missing->empty();
}

const std::map<std::string, int>& defaultRouteTables() {
    static const std::map<std::string, int> tables = {
        {"wlan0", 1001}, {"rmnet_data0", 1002}, {"wlan1", 1003}, {"rmnet_data1", 1004}};
    return tables;
}

std::string installForwardingWrappers(const TempRoot& root, const NetfilterTools& tools,
                                      const std::map<std::string, int>& routeTables) {
    const std::string log = root.dir() + "/netfilter.log";
    installScript(root, "/system/bin/iptables-wrapper-1.0",
                  "#!/bin/sh\nline=\"$*\"\n" + forwardAndLog(tools.iptables, "iptables", log));

    // The argument after "table" is rewritten in place; "for arg do ... set --" walks the
    // original list while building the new one.
    std::string cases;
    for (const auto& [name, number] : routeTables) {
        cases += "        " + shellQuote(name) + ") arg=" + std::to_string(number) + " ;;\n";
    }
    installScript(root, "/system/bin/ip-wrapper-1.0",
                  "#!/bin/sh\nline=\"$*\"\nprev=\nfor arg do\n    shift\n"
                  "    if [ \"$prev\" = table ]; then\n        case \"$arg\" in\n" +
                      cases +
                      "        esac\n    fi\n    set -- \"$@\" \"$arg\"\n    prev=$arg\ndone\n" +
                      forwardAndLog(tools.ip, "ip", log));
    return log;
}

std::vector<ForwardedCommand> readForwardedCommands(const std::string& logPath) {
    std::vector<ForwardedCommand> commands;
    std::istringstream lines(readWholeFile(logPath));
    for (std::string line; std::getline(lines, line);) {
        size_t blank = line.find(' ');
        if (blank == std::string::npos) continue;
        commands.push_back({atoi(line.substr(0, blank).c_str()), line.substr(blank + 1)});
    }
    return commands;
}

std::string runInNetNamespaceOf(pid_t pid, const std::vector<std::string>& argv, int* status) {
    if (status != nullptr) *status = -1;
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return "";
    const std::string nsPath = "/proc/" + std::to_string(pid) + "/ns/net";
    const ExecArgs args(argv);

    pid_t child = fork();
    if (child == 0) {
        int ns = open(nsPath.c_str(), O_RDONLY | O_CLOEXEC);
        if (ns < 0 || setns(ns, CLONE_NEWNET) != 0) _exit(125);
        dup2(out[1], STDOUT_FILENO);
        dup2(out[1], STDERR_FILENO);
        args.exec();
        _exit(127);
    }
    close(out[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t n; child > 0 && (n = read(out[0], buffer, sizeof(buffer))) != 0;) {
        if (n > 0)
            text.append(buffer, static_cast<size_t>(n));
        else if (errno != EINTR)
            break;
    }
    close(out[0]);
    int raw = 0;
    if (child > 0 && waitpid(child, &raw, 0) == child && status != nullptr) {
        *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    }
    return text;
}

}  // namespace vekt::test
