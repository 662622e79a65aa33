// vektctl: drives the daemon by hand over its control socket, one record per run.
//
// Delivery. The daemon looks at a hang-up before it looks at data, so a client that writes
// its record and closes at once can have the record thrown away with the connection. A
// fixed linger before close would only make that unlikely. Instead vektctl asks the kernel
// how much of what it wrote is still queued for the peer (SIOCOUTQ on a Unix stream socket
// counts the bytes the receiver has not read yet) and closes only once the daemon has read
// the whole record; from then on the record is handled whatever the hang-up does.
//
// Two more things can go wrong on a daemon that is between two clients: the socket file is
// briefly missing or not yet listening (connect fails with ENOENT or ECONNREFUSED; retried
// for a short while), or vektctl connects to the listening socket that the daemon is about
// to throw away, and the record dies unread in its backlog. The kernel reports that as
// ECONNRESET on our socket when it discards the queued bytes, so a record that vanished
// without being read is told apart from one that was read, and is sent again on a fresh
// connection; it cannot be handled twice.
#include <android-base/unique_fd.h>
#include <errno.h>
#include <linux/sockios.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "control/control_socket.h"
#include "base/device_root.h"
#include "json_value.h"
#include "status/status_socket.h"
#include "status_table.h"
#include "vektctl_args.h"

namespace {

using android::base::unique_fd;

constexpr int kStepMs = 5;
// How long the socket file may be missing or not listening before vektctl gives up.
constexpr int kConnectRetryMs = 500;
// How long the daemon may take to read the record: it serves one client at a time, so a
// connection made while another client is served waits in the backlog.
constexpr int kReadTimeoutMs = 5000;
// Fresh connections tried after a record was discarded unread.
constexpr int kMaxAttempts = 5;
// Without SIOCOUTQ: how long to leave the connection open after the record.
constexpr int kFallbackLingerMs = 200;

enum class Outcome { kRead, kDiscarded, kFailed };

std::string errorText(int err) { return strerror(err); }

// Blocks until the daemon closes the connection (its socket thread ends, or it drops the
// client); the daemon never writes to its clients, so anything read is ignored.
void stayConnected(int fd) {
    char discard[256];
    for (;;) {
        ssize_t n = recv(fd, discard, sizeof(discard), 0);
        if (n == 0 || (n < 0 && errno != EINTR)) return;
    }
}

Outcome sendOnce(const struct sockaddr_un& address, const std::string& path, const msg_t& record,
                 bool stay, std::string& error) {
    unique_fd fd;
    for (int waited = 0;; waited += kStepMs) {
        fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!fd.ok()) {
            error = "cannot create a socket: " + errorText(errno);
            return Outcome::kFailed;
        }
        // Bounds a connect that waits for room in a full backlog, and the write.
        struct timeval timeout = {kReadTimeoutMs / 1000, 0};
        (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
        if (connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0) {
            break;
        }
        int err = errno;
        if ((err == ENOENT || err == ECONNREFUSED) && waited < kConnectRetryMs) {
            usleep(kStepMs * 1000);
            continue;
        }
        error = "cannot connect to " + path + ": " + errorText(err);
        return Outcome::kFailed;
    }

    // One write of the whole record: the daemon takes each read as one record.
    ssize_t sent = send(fd, &record, sizeof(record), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(sizeof(record))) {
        int err = errno;
        if (sent < 0 && (err == EPIPE || err == ECONNRESET)) return Outcome::kDiscarded;
        error = "cannot send to " + path + ": " +
                (sent < 0 ? errorText(err) : std::string("short write"));
        return Outcome::kFailed;
    }

    for (int waited = 0;; waited += kStepMs) {
        int queued = 0;
        if (ioctl(fd, SIOCOUTQ, &queued) != 0) {
            // A kernel that cannot say: end the stream (no hang-up yet) and linger.
            (void)shutdown(fd, SHUT_WR);
            usleep(kFallbackLingerMs * 1000);
            return Outcome::kRead;
        }
        if (queued == 0) {
            int soError = 0;
            socklen_t size = sizeof(soError);
            (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &size);
            if (soError != 0) return Outcome::kDiscarded;
            if (stay) stayConnected(fd);
            return Outcome::kRead;
        }
        if (waited >= kReadTimeoutMs) {
            error = "the daemon did not read the record from " + path + " within " +
                    std::to_string(kReadTimeoutMs / 1000) + " s (is another client connected?)";
            return Outcome::kFailed;
        }
        usleep(kStepMs * 1000);
    }
}

// The address of a socket file; false with the reason when the path does not fit one.
bool socketAddress(const std::string& path, struct sockaddr_un& address, std::string& error) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        error = "socket path " + path + " is longer than " +
                std::to_string(sizeof(address.sun_path) - 1) + " bytes";
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Reads the whole status document: the daemon sends it and closes the connection.
bool readStatus(const std::string& path, std::string& document, std::string& error) {
    struct sockaddr_un address;
    if (!socketAddress(path, address, error)) return false;
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct timeval timeout = {kReadTimeoutMs / 1000, 0};
    if (!fd.ok() || setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)) != 0 ||
        connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0) {
        error = "cannot connect to " + path + ": " + errorText(errno);
        return false;
    }
    document.clear();
    char buffer[4096];
    for (;;) {
        ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n == 0) return true;
        if (n > 0) {
            document.append(buffer, static_cast<size_t>(n));
        } else if (errno != EINTR) {
            error = "cannot read from " + path + ": " + errorText(errno);
            return false;
        }
    }
}

// One status read, printed as asked; false when it could not be read or understood.
bool printStatus(const std::string& path, bool json) {
    std::string document, error;
    vektctl::JsonValue status;
    if (!readStatus(path, document, error)) {
        fprintf(stderr, "vektctl: %s\n", error.c_str());
        return false;
    }
    if (json) {
        fputs(document.c_str(), stdout);
        return true;
    }
    if (!vektctl::parseJson(document, status, error)) {
        fprintf(stderr, "vektctl: the status document is not JSON: %s\n", error.c_str());
        return false;
    }
    fputs(vektctl::formatStatusTable(status).c_str(), stdout);
    return true;
}

int runStatus(const vektctl::Request& request) {
    const std::string path = vekt::DeviceRoot::map(vekt::StatusSocket::kPath);
    if (request.watchSeconds == 0) return printStatus(path, request.json) ? 0 : 1;
    for (;;) {  // until interrupted; a daemon that is away is reported and asked again
        if (!request.json) fputs("\033[H\033[2J", stdout);
        printStatus(path, request.json);
        fflush(stdout);
        sleep(static_cast<unsigned>(request.watchSeconds));
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    vektctl::Request request;
    std::string error;
    if (!vektctl::parseCommandLine(args, request, error)) {
        fprintf(stderr, "vektctl: %s\nrun 'vektctl --help' for the commands\n", error.c_str());
        return 1;
    }
    if (request.help) {
        fputs(vektctl::usage().c_str(), stdout);
        return 0;
    }

    vekt::DeviceRoot::set(request.root);
    if (request.status) return runStatus(request);
    const std::string path = vekt::DeviceRoot::map(kControlSocketPath);
    struct sockaddr_un address;
    if (!socketAddress(path, address, error)) {
        fprintf(stderr, "vektctl: %s\n", error.c_str());
        return 1;
    }

    const msg_t record = vektctl::makeRecord(request.id, request.text);
    for (int attempt = 1; attempt <= kMaxAttempts; ++attempt) {
        switch (sendOnce(address, path, record, request.stay, error)) {
            case Outcome::kRead:
                return 0;
            case Outcome::kFailed:
                fprintf(stderr, "vektctl: %s\n", error.c_str());
                return 1;
            case Outcome::kDiscarded:
                break;
        }
    }
    fprintf(stderr, "vektctl: the daemon discarded the record unread %d times on %s\n",
            kMaxAttempts, path.c_str());
    return 1;
}
