// A small network lab for end-to-end tests over real links: private network namespaces held
// by descriptors, a "phone" joined to a "peer" by one veth link per interface name, a TCP
// server in the peer that tells every client the address its connection came from, and a
// client that connects as a given UID, so a test sees which link each connection used.
#pragma once

#include <android-base/unique_fd.h>
#include <poll.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/daemon_process.h"

namespace vekt::test {

// A private network namespace with its loopback up. Only a descriptor of this process holds
// it (and any process still running inside): it has no name under /run/netns, so nothing of
// it can outlive the test, not even when the test dies.
class NetNamespace {
  public:
    NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;

    bool ok() const { return fd_.ok(); }
    int fd() const { return fd_.get(); }
    // Names the namespace to other programs, "nsenter --net=PATH" or "ip link ... netns PATH":
    // this process's descriptor under /proc.
    std::string path() const;

    // Forks a child that enters the namespace and ends with body's result (125 when it could
    // not enter: body never runs anywhere else). Returns the child's pid, -1 when fork failed.
    pid_t forkInside(const std::function<int()>& body) const;
    // Runs argv (an absolute path first) inside and returns its standard output and error;
    // *status gets its exit status.
    std::string run(const std::vector<std::string>& argv, int* status = nullptr) const;
    // A file as a process inside sees it: /proc/net/... and /proc/sys/net/... are the
    // namespace's own there.
    std::string readFile(const std::string& path) const;
    // Writes a setting under /proc/sys, e.g. ("net/ipv4/conf/all/rp_filter", "2").
    bool writeSysctl(const std::string& key, const std::string& value) const;
    // A socket that belongs to the namespace, made without moving this process into it.
    android::base::unique_fd socketInside(int domain, int type) const;

  private:
    android::base::unique_fd fd_;
};

struct LinkCounters {
    uint64_t rxPackets = 0;
    uint64_t txPackets = 0;
};

// A phone and a peer namespace joined by one veth link per name. Link i is the subnet
// 10.77.<i+1>.0/24: the phone's end carries the given name ("wlan0") and .2, the peer's end
// .1. The peer holds kServerAddress on its loopback, reachable over every link, and drops
// what arrives on a link from an address of another one (strict reverse-path filter).
// In the phone, the main table's default route leaves over the first link and each link's
// routing table (numbered by routeTables) holds a default route over that link alone; the
// reverse-path filter is loose, since replies to a connection that a mark moved off the main
// table's link arrive on a link that the main table would not use to answer.
class VethLab {
  public:
    static constexpr const char* kServerAddress = "10.77.100.1";

    // Builds it with the ip tool at ipTool; false with the failed command in *error.
    bool build(const std::string& ipTool, const std::vector<std::string>& links,
               const std::map<std::string, int>& routeTables, std::string* error);

    const NetNamespace& phone() const { return phone_; }
    const NetNamespace& peer() const { return peer_; }
    // The phone's address on a link, "" for a name that is not one.
    std::string phoneAddress(const std::string& link) const;
    // The phone's packet counters per link (from /proc/net/dev inside: /sys/class/net shows
    // the namespace that sysfs was mounted in, not the reader's).
    std::map<std::string, LinkCounters> counters() const;

  private:
    NetNamespace phone_;
    NetNamespace peer_;
    std::vector<std::string> links_;
};

// What the lab's servers share: a listening TCP socket inside a namespace, the thread that
// serves it, and a pipe that tells the thread to end.
class LabServer {
  public:
    LabServer() = default;
    virtual ~LabServer() = default;  // a server's destructor stops it: serve() uses its fields
    LabServer(const LabServer&) = delete;
    LabServer& operator=(const LabServer&) = delete;

    void stop();

  protected:
    // Binds address:port inside ns, listens and starts the thread on serve().
    bool listenAndServe(const NetNamespace& ns, const std::string& address, uint16_t port);
    virtual void serve() = 0;
    // Waits on fds (given room for one more) and the stop pipe; false once the thread is
    // to end.
    bool waitReadable(std::vector<struct pollfd>* fds);
    // Accepts one client, with its address and port.
    android::base::unique_fd acceptFrom(std::string* address, uint16_t* port);

    android::base::unique_fd listener_;

  private:
    android::base::unique_fd stopRead_;
    android::base::unique_fd stopWrite_;
    std::thread thread_;
};

// A TCP server on 0.0.0.0:port in a namespace. It answers each connection with the address
// the connection came from and a newline, and remembers that address. It closes each
// connection after the answer, or, when asked to hold them, keeps them all open until it
// stops, as a game server keeps its players' connections.
class SourceAddressServer : public LabServer {
  public:
    ~SourceAddressServer() override { stop(); }

    bool start(const NetNamespace& ns, uint16_t port, bool holdConnections = false);
    std::vector<std::string> sources() const;

  private:
    void serve() override;

    bool holdConnections_ = false;
    mutable std::mutex mutex_;
    std::vector<std::string> sources_;
};

// An RTT probe target on address:port in a namespace: it answers every 58 bytes that a
// client sends with 60, on any number of connections at once, until the client closes.
class ProbeAnswerServer : public LabServer {
  public:
    ~ProbeAnswerServer() override { stop(); }

    bool start(const NetNamespace& ns, const std::string& address, uint16_t port) {
        return listenAndServe(ns, address, port);
    }
    // "ADDRESS:PORT" of every client that connected so far, in order.
    std::vector<std::string> sources() const;
    // The longest time from accept to the client's close among the closed connections
    // whose source starts with prefix, in ms: how long a probe of that link held its link.
    int64_t longestConnectionMs(const std::string& prefix) const;

  private:
    struct Served {
        std::string source;
        int64_t openedMs = 0;
        int64_t closedMs = 0;  // 0 while open
    };
    void serve() override;

    mutable std::mutex mutex_;
    std::vector<Served> served_;
};

// A player: a child inside ns that runs as uid and holds one connection at a time to
// address:port. It sends a line, reads the server's answer line, then waits on the connection
// until it breaks, and connects again (retrying a failed connect) until it has made
// `connections` of them. Each step reaches the test as an event with the time it happened.
class HeldConnectionClient {
  public:
    struct Event {
        bool up = false;    // connected and answered; else the connection broke
        std::string text;   // the server's answer, or the error that broke the connection
        int64_t atMs = 0;   // CLOCK_MONOTONIC
    };

    bool start(const NetNamespace& ns, uid_t uid, const std::string& address, uint16_t port,
               int connections);
    // The next event, waiting up to timeoutMs; false when none came.
    bool next(Event* event, int timeoutMs);

  private:
    ChildProcess child_;
    android::base::unique_fd events_;
    std::string unread_;
};

struct NetfilterTools;

// Runs a program in a namespace named by this process's descriptor, or fails: it never runs
// the program anywhere else.
constexpr const char* kNsenter = "/usr/bin/nsenter";
// The command line that runs the daemon, under the test root rootDir, inside ns.
std::vector<std::string> daemonInside(const NetNamespace& ns, const std::string& rootDir);
// Whether the daemon can run here on real links: private network namespaces, the real
// packet-filter tools (found into *tools) and nsenter. When not, *reason says why.
bool canRunOnRealLinks(NetfilterTools* tools, std::string* reason);

// In a child: drops to uid (group uid too, no supplementary groups).
bool becomeUid(uid_t uid);

// Opens count TCP connections to address:port one after another, from a child inside ns
// that runs as uid (group uid too, no supplementary groups). Each connection sends a line
// and reads the answer up to the server's close. Returns one entry per connection: the
// answer without its newline, or "" where the connection failed, with the reasons in *error.
std::vector<std::string> connectManyAs(const NetNamespace& ns, uid_t uid,
                                       const std::string& address, uint16_t port, int count,
                                       int timeoutMs, std::string* error);

}  // namespace vekt::test
