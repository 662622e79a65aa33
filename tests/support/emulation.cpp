#include "support/emulation.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spawn.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vekt::test {

using android::base::unique_fd;

std::string emulator() {
#ifdef VEKT_TEST_EMULATOR
    return VEKT_TEST_EMULATOR;
#else
    return "";
#endif
}

std::vector<std::string> withEmulator(std::vector<std::string> argv) {
    if (emulator().empty()) return argv;
    const std::string ownPrograms = std::string(VEKT_BIN_DIR) + "/";
    for (auto arg = argv.begin(); arg != argv.end(); ++arg) {
        if (arg->rfind(ownPrograms, 0) == 0) {
            argv.insert(arg, emulator());
            break;
        }
    }
    return argv;
}

ExecArgs::ExecArgs(const std::vector<std::string>& argv) : argv_(withEmulator(argv)) {
    for (std::string& arg : argv_) pointers_.push_back(arg.data());
    pointers_.push_back(nullptr);
}

void ExecArgs::exec() const { execv(pointers_[0], pointers_.data()); }

namespace {

std::string missingBecause(const std::string& what, const std::string& detail) {
    std::string reason = what + ": " + detail;
    if (!emulator().empty()) reason += " (not passed through by " + emulator() + ")";
    return reason;
}

}  // namespace

std::string sockDiagMissing() {
    unique_fd diag(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    return diag.ok() ? "" : missingBecause("needs sock_diag netlink sockets", strerror(errno));
}

std::string tcpInfoMissing() {
    unique_fd tcp(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct tcp_info info = {};
    socklen_t length = sizeof(info);
    if (!tcp.ok() || getsockopt(tcp, IPPROTO_TCP, TCP_INFO, &info, &length) != 0)
        return missingBecause("needs getsockopt(TCP_INFO)", strerror(errno));
    // An emulator that takes every TCP option for an int hands back four bytes.
    if (length < offsetof(struct tcp_info, tcpi_rtt) + sizeof(info.tcpi_rtt))
        return missingBecause("needs getsockopt(TCP_INFO)", std::to_string(length) + " bytes");
    return "";
}

std::string spawnFailureMissing() {
    // glibc learns of a failed exec through memory shared with the child (CLONE_VM); an
    // emulator that turns that clone into a fork reports success and the child exits 127.
    char path[] = "/nonexistent/vekt-probe";
    char* const argv[] = {path, nullptr};
    pid_t child = -1;
    const int error = posix_spawn(&child, path, nullptr, nullptr, argv, nullptr);
    if (error != 0) return "";
    waitpid(child, nullptr, 0);
    return missingBecause("needs posix_spawn to report a program it cannot run",
                          "a missing program was reported as started");
}

}  // namespace vekt::test
