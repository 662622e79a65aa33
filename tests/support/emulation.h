// A cross build runs its tests under a user-mode emulator (qemu-aarch64-static). The emulator
// passes most system calls to the host kernel, but not all of them:
//   - this build's programs are for the target CPU, so whatever starts one (the daemon, the
//     tools, a death test starting this binary again) starts it through the emulator;
//   - some kernel interfaces are refused or not translated; the tests that need one skip,
//     saying which, since nothing here can stand in for the kernel.
// Natively, none of this changes anything.
#pragma once

#include <string>
#include <vector>

namespace vekt::test {

// The emulator this build's programs run under ("" for a native build).
std::string emulator();

// argv with the emulator put before the first of this build's programs it names (which may
// follow a launcher such as nsenter). Host programs (ip, iptables) are left as they are.
std::vector<std::string> withEmulator(std::vector<std::string> argv);

// An argv made ready for execv before a fork (withEmulator applied); exec() returns only
// when execv fails.
class ExecArgs {
public:
    explicit ExecArgs(const std::vector<std::string>& argv);
    ExecArgs(const ExecArgs&) = delete;
    ExecArgs& operator=(const ExecArgs&) = delete;
    void exec() const;

private:
    std::vector<std::string> argv_;
    std::vector<char*> pointers_;
};

// Empty when the kernel interface works in this process; otherwise why it does not.
std::string sockDiagMissing();       // NETLINK_SOCK_DIAG sockets
std::string tcpInfoMissing();        // getsockopt(TCP_INFO)
std::string spawnFailureMissing();   // posix_spawn reporting a program that cannot be run

}  // namespace vekt::test

// Skips the current test when a kernel interface it needs is missing (see above).
#define VEKT_REQUIRE_KERNEL(missing)                                              \
    do {                                                                          \
        const std::string vekt_missing = (missing);                               \
        if (!vekt_missing.empty()) GTEST_SKIP() << vekt_missing;                  \
    } while (0)
