#include "support/netns.h"

#include <errno.h>
#include <net/if.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vekt::test {

bool enterPrivateNetNamespace() {
    if (unshare(CLONE_NEWNET) != 0) return false;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    struct ifreq request = {};
    strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags |= IFF_UP;
    up = up && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return up;
}

bool canCreateNetNamespace(std::string* reason) {
    static int cached = -1;  // the answer does not change within a run
    static std::string cachedReason;
    if (cached < 0) {
        pid_t child = fork();
        if (child == 0) _exit(enterPrivateNetNamespace() ? 0 : errno);
        int status = 0;
        waitpid(child, &status, 0);
        int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        cached = code == 0 ? 1 : 0;
        if (code != 0) cachedReason = code > 0 ? strerror(code) : "probe child failed";
    }
    if (reason != nullptr) *reason = cachedReason;
    return cached == 1;
}

}  // namespace vekt::test
