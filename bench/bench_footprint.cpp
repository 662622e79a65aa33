// The daemon's idle footprint: resident memory once four links are registered and their
// statistics mapped, and the CPU time the main loop uses while nothing changes, at the
// default interval. Runs the real daemon in a private network namespace with slasim
// feeding steady rates, and prints each figure next to its target.
//
//   bench_footprint [--seconds N]   (default 60; a smoke run can use 2)
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "control/msg.h"
#include "support/control_client.h"
#include "support/daemon_process.h"
#include "support/netns.h"
#include "support/temp_root.h"

namespace {

using namespace vekt::test;

constexpr double kRssTargetMiB = 8.0;
constexpr double kCpuTargetSeconds = 0.1;
constexpr int kTargetWindowSeconds = 60;

double residentMiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return atof(line.c_str() + 6) / 1024.0;
    }
    return -1.0;
}

double cpuSeconds(pid_t pid) {
    std::string stat = readWholeFile("/proc/" + std::to_string(pid) + "/stat");
    // Fields after the command name, which is in parentheses and may hold blanks.
    size_t close = stat.rfind(')');
    if (close == std::string::npos) return -1.0;
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) utime = strtoull(field.c_str(), nullptr, 10);
        if (index == 15) {
            stime = strtoull(field.c_str(), nullptr, 10);
            break;
        }
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void installQuietWrappers(const TempRoot& root) {
    for (const char* tool : {"iptables", "ip"}) {
        std::string device = std::string("/system/bin/") + tool + "-wrapper-1.0";
        root.writeFile(device, "#!/bin/sh\nexit 0\n");
        chmod(root.path(device).c_str(), 0755);
    }
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = kTargetWindowSeconds;
    if (argc == 3 && strcmp(argv[1], "--seconds") == 0) seconds = atoi(argv[2]);
    if (seconds <= 0) {
        fprintf(stderr, "usage: bench_footprint [--seconds N]\n");
        return 2;
    }
    std::string reason;
    if (!canCreateNetNamespace(&reason)) {
        printf("bench_footprint: skipped, needs a private network namespace: %s\n",
               reason.c_str());
        return 0;
    }

    TempRoot root;
    installQuietWrappers(root);
    root.setProperty("vendor.sla.enabled", "1");
    const std::string daemonLog = root.dir() + "/vekt.log";
    ChildProcess slasim;
    ChildProcess vekt;
    if (!slasim.start({binPath("slasim"), "--root", root.dir(), "wlan0=1200", "wlan1=600",
                       "rmnet_data0=800", "rmnet_data1=400"},
                      root.dir() + "/slasim.log", false) ||
        !waitForText(root.dir() + "/slasim.log", "slasim: ready", 5000) ||
        !vekt.start({binPath("vekt"), "--root", root.dir()}, daemonLog, true)) {
        fprintf(stderr, "bench_footprint: could not start slasim and the daemon\n");
        return 1;
    }

    ControlClient client;
    if (!client.connect(root.path("/dev/socket/vekt")) ||
        !client.send(MSG_UPDATE_INTERFACES, "wlan0,wlan1,rmnet_data0,rmnet_data1") ||
        !waitForText(daemonLog, "m_slaInterfaceMap add rmnet_data1 success!", 10000)) {
        fprintf(stderr, "bench_footprint: the links were not registered\n");
        return 1;
    }
    sleep(3);  // let the estimates and the rules settle

    const double rss = residentMiB(vekt.pid());
    const size_t rewritesBefore = countLines(daemonLog, "-F tarn_SLA");
    const double cpuBefore = cpuSeconds(vekt.pid());
    sleep(static_cast<unsigned>(seconds));
    const double cpu = cpuSeconds(vekt.pid()) - cpuBefore;
    const size_t rewrites = countLines(daemonLog, "-F tarn_SLA") - rewritesBefore;
    // Scaled to the target's window, so short smoke runs stay comparable.
    const double cpuPerWindow = cpu * kTargetWindowSeconds / seconds;

    printf("daemon idle footprint, four links registered, default main-loop interval\n");
    printf("  resident memory        %7.2f MiB   target %5.2f MiB   ratio %.2f\n", rss,
           kRssTargetMiB, rss / kRssTargetMiB);
    printf("  CPU time per %d s      %7.3f s     target %5.3f s     ratio %.2f  (measured over %d s)\n",
           kTargetWindowSeconds, cpuPerWindow, kCpuTargetSeconds, cpuPerWindow / kCpuTargetSeconds,
           seconds);
    printf("  ratio rules rewritten while idle: %zu\n", rewrites);

    root.setProperty("vendor.sla.enabled", "2");
    waitForText(daemonLog, "Vekt exiting", 5000);
    return 0;
}
