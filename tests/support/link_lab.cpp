#include "support/link_lab.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "support/emulation.h"
#include "support/netfilter_wrappers.h"
#include "support/netns.h"

namespace vekt::test {
namespace {

using android::base::unique_fd;

int64_t monotonicMs() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool writeAll(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Reads until end of file, or until deadlineMs (monotonic) when that is not 0.
std::string readAll(int fd, int64_t deadlineMs = 0) {
    std::string text;
    char buffer[4096];
    for (;;) {
        if (deadlineMs != 0) {
            struct pollfd ready = {fd, POLLIN, 0};
            int left = static_cast<int>(deadlineMs - monotonicMs());
            if (left <= 0 || poll(&ready, 1, left) == 0) break;
        }
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

// Runs body in a child inside ns with the child's standard output and error collected.
std::string captureInside(const NetNamespace& ns, const std::function<int()>& body, int* status) {
    if (status != nullptr) *status = -1;
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return "";
    unique_fd readEnd(out[0]);
    ChildProcess child(ns.forkInside([&] {
        dup2(out[1], STDOUT_FILENO);
        dup2(out[1], STDERR_FILENO);
        return body();
    }));
    close(out[1]);
    std::string text = child.pid() > 0 ? readAll(readEnd.get()) : "";
    int code = child.wait(10000);
    if (status != nullptr) *status = code;
    return text;
}

std::string linkSubnet(size_t index) { return "10.77." + std::to_string(index + 1) + "."; }

}  // namespace

NetNamespace::NetNamespace() {
    // A thread of its own makes the namespace and leaves with it: the network namespace
    // belongs to the thread, so the rest of this process never enters it.
    int fd = -1;
    std::thread([&fd] {
        if (enterPrivateNetNamespace()) fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    }).join();
    fd_.reset(fd);
}

std::string NetNamespace::path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_.get());
}

pid_t NetNamespace::forkInside(const std::function<int()>& body) const {
    if (!ok()) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive a killed test
        if (setns(fd_.get(), CLONE_NEWNET) != 0) _exit(125);
        _exit(body());
    }
    return pid;
}

std::string NetNamespace::run(const std::vector<std::string>& argv, int* status) const {
    const ExecArgs args(argv);
    return captureInside(
        *this,
        [&] {
            args.exec();
            return 127;
        },
        status);
}

std::string NetNamespace::readFile(const std::string& path) const {
    return captureInside(
        *this,
        [&] {
            unique_fd in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
            return in.ok() && writeAll(STDOUT_FILENO, readAll(in.get())) ? 0 : 1;
        },
        nullptr);
}

bool NetNamespace::writeSysctl(const std::string& key, const std::string& value) const {
    int status = -1;
    captureInside(
        *this,
        [&] {
            unique_fd out(open(("/proc/sys/" + key).c_str(), O_WRONLY | O_CLOEXEC));
            return out.ok() && writeAll(out.get(), value) ? 0 : 1;
        },
        &status);
    return status == 0;
}

unique_fd NetNamespace::socketInside(int domain, int type) const {
    int fd = -1;
    std::thread([&] {
        if (setns(fd_.get(), CLONE_NEWNET) == 0) fd = socket(domain, type | SOCK_CLOEXEC, 0);
    }).join();
    return unique_fd(fd);
}

bool VethLab::build(const std::string& ipTool, const std::vector<std::string>& links,
                    const std::map<std::string, int>& routeTables, std::string* error) {
    error->clear();
    if (!phone_.ok() || !peer_.ok()) {
        *error = "cannot create the namespaces";
        return false;
    }
    links_ = links;
    auto ip = [&](const NetNamespace& ns, std::vector<std::string> args) {
        if (!error->empty()) return;
        args.insert(args.begin(), ipTool);
        int status = -1;
        std::string text = ns.run(args, &status);
        if (status != 0) {
            for (const std::string& arg : args) *error += arg + " ";
            *error += "-> " + std::to_string(status) + ": " + text;
        }
    };
    ip(peer_, {"addr", "add", std::string(kServerAddress) + "/32", "dev", "lo"});
    for (size_t i = 0; i < links.size(); ++i) {
        const std::string& name = links[i];
        const std::string peerName = "link" + std::to_string(i);
        const std::string subnet = linkSubnet(i);
        auto table = routeTables.find(name);
        if (table == routeTables.end()) {
            *error = "no routing table for " + name;
            return false;
        }
        ip(phone_,
           {"link", "add", name, "type", "veth", "peer", "name", peerName, "netns", peer_.path()});
        ip(phone_, {"addr", "add", subnet + "2/24", "dev", name});
        ip(peer_, {"addr", "add", subnet + "1/24", "dev", peerName});
        ip(phone_, {"link", "set", name, "up"});
        ip(peer_, {"link", "set", peerName, "up"});
        if (i == 0) ip(phone_, {"route", "add", "default", "via", subnet + "1", "dev", name});
        ip(phone_, {"route", "add", "default", "via", subnet + "1", "dev", name, "table",
                    std::to_string(table->second)});
        if (error->empty() &&
            (!phone_.writeSysctl("net/ipv4/conf/" + name + "/rp_filter", "2") ||
             !peer_.writeSysctl("net/ipv4/conf/" + peerName + "/rp_filter", "1"))) {
            *error = "cannot set the reverse-path filter of " + name;
        }
    }
    // The effective filter is the higher of "all" and the interface's own value.
    if (error->empty() && (!phone_.writeSysctl("net/ipv4/conf/all/rp_filter", "2") ||
                           !peer_.writeSysctl("net/ipv4/conf/all/rp_filter", "1"))) {
        *error = "cannot set the reverse-path filter";
    }
    return error->empty();
}

std::string VethLab::phoneAddress(const std::string& link) const {
    for (size_t i = 0; i < links_.size(); ++i) {
        if (links_[i] == link) return linkSubnet(i) + "2";
    }
    return "";
}

std::map<std::string, LinkCounters> VethLab::counters() const {
    // Lines "  NAME: rx_bytes rx_packets (6 more) tx_bytes tx_packets ...".
    std::map<std::string, LinkCounters> counters;
    std::istringstream lines(phone_.readFile("/proc/net/dev"));
    for (std::string line; std::getline(lines, line);) {
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string name = line.substr(0, colon);
        name.erase(0, name.find_first_not_of(' '));
        std::istringstream fields(line.substr(colon + 1));
        std::vector<uint64_t> values;
        for (uint64_t value; fields >> value;) values.push_back(value);
        if (values.size() < 10) continue;
        counters[name] = {values[1], values[9]};
    }
    return counters;
}

void LabServer::stop() {
    if (!thread_.joinable()) return;
    writeAll(stopWrite_.get(), "x");
    thread_.join();
}

bool LabServer::listenAndServe(const NetNamespace& ns, const std::string& address,
                               uint16_t port) {
    listener_ = ns.socketInside(AF_INET, SOCK_STREAM);
    int stop[2];
    if (!listener_.ok() || pipe2(stop, O_CLOEXEC) != 0) return false;
    stopRead_.reset(stop[0]);
    stopWrite_.reset(stop[1]);
    int on = 1;
    setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    struct sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &local.sin_addr) != 1 ||
        bind(listener_.get(), reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) != 0 ||
        listen(listener_.get(), 64) != 0) {
        return false;
    }
    thread_ = std::thread([this] { serve(); });
    return true;
}

unique_fd LabServer::acceptFrom(std::string* address, uint16_t* port) {
    struct sockaddr_in from = {};
    socklen_t length = sizeof(from);
    unique_fd connection(accept4(listener_.get(), reinterpret_cast<struct sockaddr*>(&from),
                                 &length, SOCK_CLOEXEC));
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &from.sin_addr, text, sizeof(text));
    *address = text;
    *port = ntohs(from.sin_port);
    return connection;
}

bool LabServer::waitReadable(std::vector<struct pollfd>* fds) {
    fds->push_back({stopRead_.get(), POLLIN, 0});
    const int ready = poll(fds->data(), fds->size(), -1);
    const bool stopping = (ready < 0 && errno != EINTR) || fds->back().revents != 0;
    fds->pop_back();
    return !stopping;
}

bool SourceAddressServer::start(const NetNamespace& ns, uint16_t port, bool holdConnections) {
    holdConnections_ = holdConnections;
    return listenAndServe(ns, "0.0.0.0", port);
}

std::vector<std::string> SourceAddressServer::sources() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sources_;
}

void SourceAddressServer::serve() {
    std::vector<unique_fd> held;
    for (;;) {
        std::vector<struct pollfd> fds = {{listener_.get(), POLLIN, 0}};
        if (!waitReadable(&fds)) return;
        if ((fds[0].revents & POLLIN) == 0) continue;
        uint16_t port = 0;
        std::string text;
        unique_fd connection = acceptFrom(&text, &port);
        if (!connection.ok()) continue;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            sources_.push_back(text);
        }
        // The request line first, so the answer also proves the data reached us; a client
        // that stalls costs one second, not the server.
        struct timeval timeout = {1, 0};
        setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        char c = 0;
        while (read(connection.get(), &c, 1) == 1 && c != '\n') {
        }
        if (c == '\n') writeAll(connection.get(), text + "\n");
        if (holdConnections_) held.push_back(std::move(connection));
    }
}

std::vector<std::string> ProbeAnswerServer::sources() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> sources;
    for (const Served& connection : served_) sources.push_back(connection.source);
    return sources;
}

int64_t ProbeAnswerServer::longestConnectionMs(const std::string& prefix) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int64_t longest = 0;
    for (const Served& connection : served_) {
        if (connection.closedMs != 0 && connection.source.rfind(prefix, 0) == 0)
            longest = std::max(longest, connection.closedMs - connection.openedMs);
    }
    return longest;
}

void ProbeAnswerServer::serve() {
    struct Client {
        unique_fd fd;
        size_t unanswered = 0;  // bytes received towards the next 58-byte request
        size_t served = 0;      // its entry in served_
    };
    std::vector<Client> clients;
    const std::string answer(60, 'a');
    for (;;) {
        std::vector<struct pollfd> fds = {{listener_.get(), POLLIN, 0}};
        for (const Client& client : clients) fds.push_back({client.fd.get(), POLLIN, 0});
        if (!waitReadable(&fds)) return;
        for (size_t i = clients.size(); i-- > 0;) {
            if (fds[i + 1].revents == 0) continue;
            Client& client = clients[i];
            char buffer[512];
            const ssize_t n = recv(client.fd.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            bool open = n > 0;
            for (client.unanswered += n > 0 ? static_cast<size_t>(n) : 0;
                 open && client.unanswered >= 58; client.unanswered -= 58) {
                open = send(client.fd.get(), answer.data(), answer.size(), MSG_NOSIGNAL) ==
                       static_cast<ssize_t>(answer.size());
            }
            if (open) continue;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                served_[client.served].closedMs = monotonicMs();
            }
            clients.erase(clients.begin() + static_cast<ptrdiff_t>(i));
        }
        if ((fds[0].revents & POLLIN) == 0) continue;
        uint16_t port = 0;
        std::string text;
        unique_fd connection = acceptFrom(&text, &port);
        if (!connection.ok()) continue;
        size_t index = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            index = served_.size();
            served_.push_back({text + ":" + std::to_string(port), monotonicMs()});
        }
        clients.push_back({std::move(connection), 0, index});
    }
}

std::vector<std::string> daemonInside(const NetNamespace& ns, const std::string& rootDir) {
    return {kNsenter, "--net=" + ns.path(), binPath("vekt"), "--root", rootDir};
}

bool canRunOnRealLinks(NetfilterTools* tools, std::string* reason) {
    std::string missing;
    if (!canCreateNetNamespace(&missing)) {
        *reason = "needs a private network namespace: " + missing;
    } else if (!findNetfilterTools(tools, &missing)) {
        *reason = "needs" + missing;
    } else if (access(kNsenter, X_OK) != 0) {
        *reason = std::string("needs ") + kNsenter;
    } else {
        return true;
    }
    return false;
}

bool becomeUid(uid_t uid) {
    return setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 &&
           setresuid(uid, uid, uid) == 0;
}

std::vector<std::string> connectManyAs(const NetNamespace& ns, uid_t uid,
                                       const std::string& address, uint16_t port, int count,
                                       int timeoutMs, std::string* error) {
    error->clear();
    std::vector<std::string> answers(static_cast<size_t>(count));
    struct sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &server.sin_addr) != 1) {
        *error = "bad address " + address;
        return answers;
    }
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        *error = "pipe failed";
        return answers;
    }
    unique_fd readEnd(out[0]);
    // The child reports "OK ANSWER" or "FAIL STEP ERRNO" per connection, one line each.
    ChildProcess child(ns.forkInside([&] {
        if (!becomeUid(uid)) return 126;
        for (int i = 0; i < count; ++i) {
            std::string report;
            unique_fd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            struct timeval timeout = {2, 0};  // connect waits up to the send timeout
            const char* step = "socket";
            bool done =
                sock.ok() &&
                setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)) == 0 &&
                setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) == 0;
            if (done) {
                step = "connect";
                done = connect(sock.get(), reinterpret_cast<struct sockaddr*>(&server),
                               sizeof(server)) == 0;
            }
            if (done) {
                step = "send";
                done = writeAll(sock.get(), "which link?\n");
            }
            std::string answer;
            if (done) {
                // Up to the server's close; a timeout is a failure, not an end.
                step = "receive";
                char buffer[256];
                ssize_t n = 0;
                while ((n = read(sock.get(), buffer, sizeof(buffer))) > 0 ||
                       (n < 0 && errno == EINTR)) {
                    if (n > 0) answer.append(buffer, static_cast<size_t>(n));
                }
                done = n == 0 && answer.size() > 1 && answer.back() == '\n';
                if (done) answer.pop_back();
            }
            report = done ? "OK " + answer : std::string("FAIL ") + step + " " + strerror(errno);
            writeAll(out[1], report + "\n");
        }
        return 0;
    }));
    close(out[1]);
    if (child.pid() <= 0) {
        *error = "fork failed";
        return answers;
    }
    std::istringstream lines(readAll(readEnd.get(), monotonicMs() + timeoutMs));
    const int status = child.wait(1000);
    if (status != 0) *error = "client ended with " + std::to_string(status) + "; ";
    int index = 0;
    for (std::string line; std::getline(lines, line) && index < count; ++index) {
        if (line.rfind("OK ", 0) == 0) {
            answers[static_cast<size_t>(index)] = line.substr(3);
        } else {
            *error += "connection " + std::to_string(index) + ": " + line + "; ";
        }
    }
    if (index < count) *error += std::to_string(count - index) + " connections not reported";
    return answers;
}

bool HeldConnectionClient::start(const NetNamespace& ns, uid_t uid, const std::string& address,
                                 uint16_t port, int connections) {
    struct sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    int out[2];
    if (inet_pton(AF_INET, address.c_str(), &server.sin_addr) != 1 || pipe2(out, O_CLOEXEC) != 0)
        return false;
    events_.reset(out[0]);
    // Lines "UP ANSWER MS" and "DOWN ERROR MS".
    child_.adopt(ns.forkInside([&] {
        if (!becomeUid(uid)) return 126;
        for (int made = 0; made < connections;) {
            unique_fd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            struct timeval timeout = {1, 0};  // bounds the connect and the answer only
            setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
            setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
            std::string answer;
            char c = 0;
            if (connect(sock.get(), reinterpret_cast<struct sockaddr*>(&server), sizeof(server)) != 0 ||
                !writeAll(sock.get(), "which link?\n")) {
                usleep(50 * 1000);  // the link may be on its way back; try again
                continue;
            }
            while (read(sock.get(), &c, 1) == 1 && c != '\n') answer.push_back(c);
            if (c != '\n') continue;
            ++made;
            writeAll(out[1], "UP " + answer + " " + std::to_string(monotonicMs()) + "\n");
            // Held from here on: only a broken connection ends the wait.
            struct timeval forever = {0, 0};
            setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &forever, sizeof(forever));
            ssize_t n = 0;
            while ((n = read(sock.get(), &c, 1)) > 0 || (n < 0 && errno == EINTR)) {
            }
            const std::string error = n == 0 ? "closed" : strerror(errno);
            writeAll(out[1], "DOWN " + error + " " + std::to_string(monotonicMs()) + "\n");
        }
        return 0;
    }));
    close(out[1]);
    return child_.pid() > 0;
}

bool HeldConnectionClient::next(Event* event, int timeoutMs) {
    const int64_t deadline = monotonicMs() + timeoutMs;
    size_t end = std::string::npos;
    while ((end = unread_.find('\n')) == std::string::npos) {
        struct pollfd ready = {events_.get(), POLLIN, 0};
        const int left = static_cast<int>(deadline - monotonicMs());
        if (left <= 0 || poll(&ready, 1, left) <= 0) return false;
        char buffer[256];
        const ssize_t n = read(events_.get(), buffer, sizeof(buffer));
        if (n <= 0) return false;
        unread_.append(buffer, static_cast<size_t>(n));
    }
    const std::string line = unread_.substr(0, end);
    unread_.erase(0, end + 1);
    const size_t first = line.find(' ');
    const size_t last = line.rfind(' ');
    if (first == std::string::npos || last == first) return false;
    event->up = line.compare(0, first, "UP") == 0;
    event->text = line.substr(first + 1, last - first - 1);
    event->atMs = atoll(line.c_str() + last + 1);
    return true;
}

}  // namespace vekt::test
