// The read-only status socket, "/dev/socket/vekt-status": a client connects, receives one
// JSON document (status_document.h) and the daemon closes the connection. Nothing a client
// sends is read. One thread serves one client after the other; each document is built from
// a fresh snapshot, and a client that does not take it within kSendTimeoutMs is dropped, so
// no client holds up the next for longer than that.
#pragma once

#include <android-base/unique_fd.h>

#include "base/worker.h"

namespace vekt {

class StatusSocket {
public:
    static constexpr const char* kPath = "/dev/socket/vekt-status";
    static constexpr int kSendTimeoutMs = 500;
    static constexpr int kBacklog = 32;

    StatusSocket() = default;
    ~StatusSocket() { stop(); }
    StatusSocket(const StatusSocket&) = delete;
    StatusSocket& operator=(const StatusSocket&) = delete;

    // Binds the socket (mode 0660, replacing a stale file) and starts its thread; false,
    // with a log line, when the socket cannot be made.
    bool start();
    // Ends the thread, joins it and removes the socket file. Safe to call when not started.
    void stop();

private:
    void serve(Worker& worker);
    void serveClient(int client);

    android::base::unique_fd listener_;
    android::base::unique_fd wakeup_;  // an eventfd: written by stop() to end the wait
    Worker worker_{"vekt-status"};
};

// The daemon's one status socket: started after the control socket, stopped first at the
// shutdown, so no client reads state that the cleanup is taking apart.
void startStatusSocket();
void stopStatusSocket();

}  // namespace vekt
