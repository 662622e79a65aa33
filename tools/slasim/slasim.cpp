// slasim: a user-space stand-in for the kernel statistics module, for running the daemon
// on a host. It serves the module's files under a device root: the command FIFO
// "proc/sla/config", one statistics ring "proc/sla/<iface>_mmap" per interface, and the
// VoIP state "proc/sla/sla_voip_state".
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "rate_script.h"
#include "stats_ring.h"

namespace {

constexpr const char* kUsage =
    "usage: slasim --root DIR [options] IFACE[=SCRIPT]...\n"
    "\n"
    "Stands in for the kernel statistics module under the device root DIR:\n"
    "  DIR/proc/sla/config          FIFO; each command (text + NUL) is printed on stdout\n"
    "  DIR/proc/sla/IFACE_mmap      20480-byte sample ring per interface\n"
    "  DIR/proc/sla/sla_voip_state  \"address,port\" while VoIP is enabled, else empty\n"
    "All of them are removed again on SIGINT or SIGTERM.\n"
    "\n"
    "IFACE alone samples the interface's real byte counters (tx_bytes + rx_bytes under\n"
    "the --sysfs folder). IFACE=SCRIPT writes a scripted rate instead. SCRIPT is\n"
    "  [AT:]RATE[,AT:RATE]...\n"
    "with RATE in 1024 bit/s (the daemon's unit, 0 to 10000000) and AT in seconds since\n"
    "slasim started (decimals allowed, increasing); each rate holds until the next, and the\n"
    "rate before the first AT is 0. Examples:\n"
    "  wlan0=1200                 1200 all the time\n"
    "  wlan0=1200,5:3000,9.5:0    1200 until 5 s, 3000 until 9.5 s, then idle\n"
    "\n"
    "Commands honoured:\n"
    "  enable=1 / enable=0   start / stop writing samples; enable=0 also forgets the\n"
    "                        iface= set, which the daemon sends again before enable=1\n"
    "  iface=NAME            count NAME while enabled (a NAME not given on the command\n"
    "                        line gets a ring fed from its real counters)\n"
    "  voip_enable=1 / 0     write the --voip-state text / empty the VoIP state\n"
    "  voip_uid=, protocols=, ports=   accepted and printed\n"
    "\n"
    "Samples: one per interval and counted interface, kind 2, flag 0, wall-clock ms time\n"
    "stamps, the bytes of that interval. When counting (re)starts, the first sample is an\n"
    "anchor of 0 bytes with the flag set, which the daemon steps over.\n"
    "\n"
    "Options:\n"
    "  --root DIR          device root (required)\n"
    "  --interval MS       sampling interval, 5 to 1000 ms (default 20)\n"
    "  --enabled           count every command-line interface from the start, as if\n"
    "                      \"iface=\" for each and \"enable=1\" had arrived\n"
    "  --voip-state TEXT   VoIP state text, at most 20 bytes, e.g. 16777343,20480\n"
    "  --sysfs DIR         folder of the interfaces' counters (default /sys/class/net)\n"
    "  --help              this text\n";

constexpr size_t kMaxVoipState = 20;
constexpr size_t kMaxRings = 16;
constexpr size_t kMaxNameLength = 100;

volatile sig_atomic_t gStop = 0;

void onStopSignal(int) { gStop = 1; }

uint64_t wallMs() {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000ULL +
           static_cast<uint64_t>(now.tv_nsec) / 1000000ULL;
}

// Scripts and the sampling period run on the monotonic clock, so a step of the wall clock
// neither stalls sampling nor skips part of a script; only the stamps are wall-clock time.
uint64_t monotonicMs() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000ULL +
           static_cast<uint64_t>(now.tv_nsec) / 1000000ULL;
}

// Names become file names: no separators, no dot names, nothing empty or huge.
bool validName(const std::string& name) {
    return !name.empty() && name.size() <= kMaxNameLength && name != "." && name != ".." &&
           name.find('/') == std::string::npos;
}

bool readCounter(const std::string& path, uint64_t* value) {
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) return false;
    unsigned long long parsed = 0;
    const bool ok = fscanf(file, "%llu", &parsed) == 1;
    fclose(file);
    if (ok) *value = parsed;
    return ok;
}

// Replaces a small file's content in one step, so a reader never sees half of it.
bool writeFileAtomically(const std::string& path, const std::string& text) {
    const std::string temp = path + ".tmp";
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    if (!written || rename(temp.c_str(), path.c_str()) != 0) {
        unlink(temp.c_str());
        return false;
    }
    return true;
}

struct InterfaceOption {
    std::string name;
    bool scripted = false;  // false: real byte counters
    slasim::RateScript script;
};

struct Options {
    std::string root;
    int intervalMs = 20;
    bool enabled = false;
    bool haveVoipState = false;
    std::string voipState;
    std::string sysfs = "/sys/class/net";
    std::vector<InterfaceOption> interfaces;
    bool help = false;
};

bool parseOptions(int argc, char** argv, Options* options, std::string* error) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string* out) {
            if (i + 1 >= argc) {
                *error = arg + " needs a value";
                return false;
            }
            *out = argv[++i];
            return true;
        };
        std::string text;
        if (arg == "--help" || arg == "-h") {
            options->help = true;
        } else if (arg == "--root") {
            if (!value(&options->root)) return false;
        } else if (arg == "--interval") {
            if (!value(&text)) return false;
            char* end = nullptr;
            long ms = strtol(text.c_str(), &end, 10);
            if (text.empty() || *end != '\0' || ms < 5 || ms > 1000) {
                *error = "--interval takes 5 to 1000 ms";
                return false;
            }
            options->intervalMs = static_cast<int>(ms);
        } else if (arg == "--enabled") {
            options->enabled = true;
        } else if (arg == "--voip-state") {
            if (!value(&options->voipState)) return false;
            if (options->voipState.size() > kMaxVoipState) {
                *error = "--voip-state takes at most 20 bytes";
                return false;
            }
            options->haveVoipState = true;
        } else if (arg == "--sysfs") {
            if (!value(&options->sysfs)) return false;
        } else if (!arg.empty() && arg[0] == '-') {
            *error = "unknown option: " + arg;
            return false;
        } else {
            const size_t equals = arg.find('=');
            InterfaceOption iface;
            iface.name = arg.substr(0, equals);
            if (!validName(iface.name)) {
                *error = "bad interface name: " + iface.name;
                return false;
            }
            if (equals != std::string::npos) {
                std::string reason;
                if (!slasim::RateScript::parse(arg.substr(equals + 1), &iface.script, &reason)) {
                    *error = iface.name + ": " + reason;
                    return false;
                }
                iface.scripted = true;
            }
            options->interfaces.push_back(std::move(iface));
        }
    }
    if (!options->help && options->root.empty()) {
        *error = "--root DIR is required";
        return false;
    }
    if (options->interfaces.size() > kMaxRings) {
        *error = "at most " + std::to_string(kMaxRings) + " interfaces";
        return false;
    }
    return true;
}

// One simulated interface: its ring and where its bytes come from.
struct Link {
    std::unique_ptr<slasim::RingFile> ring;
    bool scripted = false;
    slasim::RateScript script;
    slasim::ByteBudget budget;
    std::string counterDir;  // real counters: <sysfs>/<name>/statistics
    bool sampling = false;   // an anchor has been written since counting (re)started
    uint64_t lastMs = 0;
    uint64_t lastCounter = 0;
    bool counterWarned = false;
};

class Simulator {
public:
    explicit Simulator(const Options& options)
        : options_(options), dir_(options.root + "/proc/sla") {}

    ~Simulator() {
        links_.clear();  // each ring removes its file
        if (fifoFd_ >= 0) close(fifoFd_);
        if (!fifoPath_.empty()) unlink(fifoPath_.c_str());
        if (!voipPath_.empty()) unlink(voipPath_.c_str());
    }

    bool start(std::string* error) {
        if (!makeDirs(error)) return false;
        for (const InterfaceOption& iface : options_.interfaces) {
            if (!addLink(iface.name, iface.scripted ? &iface.script : nullptr, error)) {
                return false;
            }
            if (options_.enabled) counted_.insert(iface.name);
        }
        enabled_ = options_.enabled;
        voipPath_ = dir_ + "/sla_voip_state";
        if (!writeFileAtomically(voipPath_, "")) {
            *error = "cannot write " + voipPath_ + ": " + strerror(errno);
            voipPath_.clear();
            return false;
        }
        return openFifo(error);
    }

    int run() {
        const uint64_t interval = static_cast<uint64_t>(options_.intervalMs);
        uint64_t nextTick = monotonicMs();
        while (!gStop) {
            const uint64_t now = monotonicMs();
            if (now >= nextTick) {
                tick();
                nextTick = now + interval;
            }
            struct pollfd fifo = {fifoFd_, POLLIN, 0};
            const uint64_t later = monotonicMs();
            const uint64_t wait = nextTick > later ? nextTick - later : 0;
            const int ready = poll(&fifo, 1, static_cast<int>(wait));
            if (ready < 0 && errno != EINTR) {
                perror("slasim: poll");
                return 1;
            }
            if (ready > 0 && (fifo.revents & POLLIN)) readCommands();
        }
        return 0;
    }

private:
    bool makeDirs(std::string* error) {
        for (const std::string& dir : {options_.root + "/proc", dir_}) {
            if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
                *error = "cannot create " + dir + ": " + strerror(errno);
                return false;
            }
        }
        return true;
    }

    // script null: the interface's real byte counters.
    bool addLink(const std::string& name, const slasim::RateScript* script, std::string* error) {
        auto link = std::make_unique<Link>();
        if (script != nullptr) {
            link->script = *script;
            link->scripted = true;
        } else {
            link->counterDir = options_.sysfs + "/" + name + "/statistics";
        }
        link->ring = slasim::RingFile::create(dir_ + "/" + name + "_mmap", error);
        if (link->ring == nullptr) return false;
        links_[name] = std::move(link);
        return true;
    }

    // The FIFO is opened for reading and writing under a temporary name and only then put in
    // place: the daemon's non-blocking write-only open never finds it without a reader, and
    // our reads never see end-of-file when a writer closes.
    bool openFifo(std::string* error) {
        const std::string path = dir_ + "/config";
        const std::string temp = dir_ + "/config.tmp";
        unlink(temp.c_str());
        if (mkfifo(temp.c_str(), 0666) != 0) {
            *error = "cannot create FIFO " + temp + ": " + strerror(errno);
            return false;
        }
        fifoFd_ = open(temp.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fifoFd_ < 0 || rename(temp.c_str(), path.c_str()) != 0) {
            *error = "cannot open FIFO " + temp + ": " + strerror(errno);
            unlink(temp.c_str());
            return false;
        }
        fifoPath_ = path;
        return true;
    }

    void readCommands() {
        char buffer[4096];
        for (;;) {
            const ssize_t length = read(fifoFd_, buffer, sizeof(buffer));
            if (length <= 0) break;
            commands_.feed(buffer, static_cast<size_t>(length));
        }
        for (const std::string& command : commands_.take()) {
            printf("%s\n", command.c_str());
            fflush(stdout);
            handle(command);
        }
    }

    static bool hasPrefix(const std::string& text, const char* prefix, std::string* rest) {
        const size_t length = strlen(prefix);
        if (text.compare(0, length, prefix) != 0) return false;
        *rest = text.substr(length);
        return true;
    }

    void handle(const std::string& command) {
        std::string value;
        if (hasPrefix(command, "enable=", &value)) {
            enabled_ = atoi(value.c_str()) != 0;
            if (!enabled_) {
                counted_.clear();
                for (auto& entry : links_) entry.second->sampling = false;
            }
        } else if (hasPrefix(command, "iface=", &value)) {
            if (!validName(value)) {
                fprintf(stderr, "slasim: ignoring bad interface name \"%s\"\n", value.c_str());
                return;
            }
            if (links_.count(value) == 0) {
                std::string error;
                if (links_.size() >= kMaxRings || !addLink(value, nullptr, &error)) {
                    fprintf(stderr, "slasim: no ring for %s: %s\n", value.c_str(),
                            error.empty() ? "too many interfaces" : error.c_str());
                    return;
                }
            }
            counted_.insert(value);
        } else if (hasPrefix(command, "voip_enable=", &value)) {
            const std::string state =
                atoi(value.c_str()) != 0 && options_.haveVoipState ? options_.voipState : "";
            if (!writeFileAtomically(voipPath_, state)) {
                fprintf(stderr, "slasim: cannot write %s: %s\n", voipPath_.c_str(),
                        strerror(errno));
            }
        } else if (!hasPrefix(command, "voip_uid=", &value) &&
                   !hasPrefix(command, "protocols=", &value) &&
                   !hasPrefix(command, "ports=", &value)) {
            fprintf(stderr, "slasim: unknown command \"%s\"\n", command.c_str());
        }
    }

    void tick() {
        if (!enabled_) return;
        const double elapsedSec = static_cast<double>(monotonicMs() - startMs_) / 1000.0;
        for (auto& [name, link] : links_) {
            if (counted_.count(name) == 0) continue;
            sample(*link, elapsedSec);
        }
    }

    void sample(Link& link, double elapsedSec) {
        const uint64_t now = wallMs();
        uint64_t counter = 0;
        if (!link.scripted) {
            uint64_t tx = 0;
            uint64_t rx = 0;
            if (!readCounter(link.counterDir + "/tx_bytes", &tx) ||
                !readCounter(link.counterDir + "/rx_bytes", &rx)) {
                if (!link.counterWarned) {
                    fprintf(stderr, "slasim: no byte counters in %s\n", link.counterDir.c_str());
                    link.counterWarned = true;
                }
                link.sampling = false;
                return;
            }
            counter = tx + rx;
        }
        if (!link.sampling) {
            // Counting (re)starts: the anchor gives the next sample its start time but is
            // no measurement itself.
            link.ring->writer().append(now, 0, vekt::kSampleKindClosing, 1);
            link.budget.reset();
            link.lastMs = now;
            link.lastCounter = counter;
            link.sampling = true;
            return;
        }
        if (now < link.lastMs) {
            link.sampling = false;  // the wall clock stepped back: start over from an anchor
            return;
        }
        if (now == link.lastMs) return;
        uint32_t bytes = 0;
        if (link.scripted) {
            bytes = link.budget.take(link.script.rateAt(elapsedSec), now - link.lastMs);
        } else {
            const uint64_t delta = counter >= link.lastCounter ? counter - link.lastCounter : 0;
            bytes = delta > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(delta);
        }
        link.ring->writer().append(now, bytes);
        link.lastMs = now;
        link.lastCounter = counter;
    }

    const Options& options_;
    const std::string dir_;
    const uint64_t startMs_ = monotonicMs();
    std::map<std::string, std::unique_ptr<Link>> links_;
    std::set<std::string> counted_;
    bool enabled_ = false;
    int fifoFd_ = -1;
    std::string fifoPath_;
    std::string voipPath_;
    slasim::CommandStream commands_;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    if (!parseOptions(argc, argv, &options, &error)) {
        fprintf(stderr, "slasim: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (options.help) {
        fputs(kUsage, stdout);
        return 0;
    }

    struct sigaction stop = {};
    stop.sa_handler = onStopSignal;
    sigemptyset(&stop.sa_mask);
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);
    signal(SIGPIPE, SIG_IGN);

    int status = 1;
    {
        Simulator simulator(options);
        if (simulator.start(&error)) {
            fprintf(stderr, "slasim: ready under %s/proc/sla\n", options.root.c_str());
            status = simulator.run();
        } else {
            fprintf(stderr, "slasim: %s\n", error.c_str());
        }
    }
    fprintf(stderr, "slasim: stopped\n");
    return status;
}
