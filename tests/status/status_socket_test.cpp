// The status socket of the real daemon, in a private network namespace, driven through the
// control socket; what `vektctl status --json` prints is read with Python's JSON parser.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <sstream>
#include <thread>

#include "status/status_socket.h"
#include "support/daemon_process.h"
#include "support/netns.h"
#include "support/temp_root.h"
#include "vektctl/json_value.h"

namespace vekt::test {
namespace {

using Lines = std::vector<std::string>;
constexpr const char* kPython = "/usr/bin/python3";

class StatusSocketTest : public ::testing::Test {
protected:
    void SetUp() override {
        VEKT_REQUIRE_NETNS();
        if (access(kPython, X_OK) != 0) GTEST_SKIP() << "needs " << kPython << " to parse JSON";
        root_.writeConf("mini_est_interval = 100\n");
        root_.installRecordingWrappers();
        for (const char* link : {"wlan0", "rmnet_data0"}) root_.publishStatsFile(link);
        ASSERT_TRUE(daemon_.start({binPath("vekt"), "--root", root_.dir()}, log(), true));
        ASSERT_TRUE(waitForText(log(), "status socket ready", 5000)) << readWholeFile(log());
    }

    std::string log() const { return root_.dir() + "/vekt.log"; }
    std::string socketFile() const { return root_.path(StatusSocket::kPath); }

    // Each expression evaluated by Python over the document `vektctl status --json` printed
    // (bound to d), one JSON-encoded line each; empty when the tool or the parse failed.
    Lines query(const Lines& expressions) {
        const std::string document = root_.dir() + "/status.json";
        unlink(document.c_str());
        ChildProcess tool;
        if (!tool.start({binPath("vektctl"), "--root", root_.dir(), "status", "--json"}, document,
                        false) ||
            tool.wait(10000) != 0) {
            return {};
        }
        Lines argv = {kPython, "-c",
                      "import json, sys\n"
                      "d = json.load(open(sys.argv[1], encoding='utf-8'))\n"
                      "for e in sys.argv[2:]: print(json.dumps(eval(e)))\n",
                      document};
        argv.insert(argv.end(), expressions.begin(), expressions.end());
        const std::string answers = root_.dir() + "/answers.txt";
        unlink(answers.c_str());
        ChildProcess python;
        if (!python.start(argv, answers, false) || python.wait(10000) != 0) return {};
        Lines lines;
        std::istringstream text(readWholeFile(answers));
        for (std::string line; std::getline(text, line);) lines.push_back(line);
        return lines;
    }

    // Polls until the document answers the expressions as expected (the daemon applies a
    // command on its own thread, a moment after reading it).
    bool eventually(const Lines& expressions, const Lines& expected, Lines* last) {
        for (int waited = 0; waited < 5000; waited += 50) {
            *last = query(expressions);
            if (*last == expected) return true;
            usleep(50 * 1000);
        }
        return false;
    }

    // Through vektctl, which waits until the daemon has read the record and sends it
    // again when the daemon threw it away unread between two clients.
    void send(const std::string& command, const std::string& text) {
        ChildProcess tool;
        ASSERT_TRUE(tool.start({binPath("vektctl"), "--root", root_.dir(), command, text},
                               root_.dir() + "/vektctl.out", false));
        ASSERT_EQ(tool.wait(10000), 0) << readWholeFile(root_.dir() + "/vektctl.out");
    }

    TempRoot root_;
    ChildProcess daemon_;
};

TEST_F(StatusSocketTest, TheDocumentFollowsInterfacesWhitelistsGamingAndHostileTexts) {
    struct stat info = {};
    ASSERT_EQ(stat(socketFile().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0660u);
    Lines last;
    EXPECT_TRUE(eventually({"d['version']", "d['interfaces']", "d['lists']['sla_uids']",
                            "d['settings']['mini_est_interval']", "d['flags']['gaming_state']"},
                           {"\"3.0.4.5\"", "[]", "[]", "100", "0"}, &last))
        << testing::PrintToString(last);

    send("interfaces", "wlan0,rmnet_data0");
    EXPECT_TRUE(eventually(
        {"[(i['name'], i['fwmark'][:2], i['metered'], i['stats_mapped']) for i in d['interfaces']]",
         "d['counters']['commands_run'] > 0"},
        {"[[\"rmnet_data0\", \"0x\", true, true], [\"wlan0\", \"0x\", false, true]]", "true"},
        &last))
        << testing::PrintToString(last);
    // Once a pass has run, each aggregated link's rule has a probability.
    EXPECT_TRUE(eventually({"[i['installed_probability'] is not None for i in d['interfaces']]",
                            "d['counters']['rule_rewrites'] > 0"},
                           {"[true, true]", "true"}, &last))
        << testing::PrintToString(last);

    send("sla-uids", "10123,10234");
    send("dual-wifi-uids", "10345");
    EXPECT_TRUE(eventually({"d['lists']['sla_uids']", "d['lists']['dual_wifi_uids']"},
                           {"[\"10123\", \"10234\"]", "[\"10345\"]"}, &last))
        << testing::PrintToString(last);

    send("game-start", "10123");
    EXPECT_TRUE(eventually({"d['flags']['gaming_state']", "d['lists']['gaming_uids']",
                            "d['selection']['active']",
                            "sorted((p['name'], p['thread_running']) for p in "
                            "d['selection']['probes'])"},
                           {"1", "[\"10123\"]", "true",
                            "[[\"rmnet_data0\", true], [\"wlan0\", true]]"},
                           &last))
        << testing::PrintToString(last);
    send("game-stop", "");
    EXPECT_TRUE(eventually({"d['flags']['gaming_state']"}, {"0"}, &last))
        << testing::PrintToString(last);

    // A text stored as it came: quotes, a backslash, a control byte and a byte that is no
    // UTF-8 all arrive as valid JSON.
    send("interface-mode", "1\"\\\x01\xff<");
    EXPECT_TRUE(eventually({"d['flags']['interface_mode']"}, {"\"1\\\"\\\\\\u0001\\ufffd<\""},
                           &last))
        << testing::PrintToString(last);
}

// A status client of the test's own, without vektctl: connects, then reads or not.
int connectStatus(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
        return fd;
    const int error = errno;
    if (fd >= 0) close(fd);
    errno = error;
    return -1;
}

// The document a connected client reads to the end; empty when it is cut short.
std::string readDocument(int fd) {
    std::string document;
    char buffer[4096];
    for (int waited = 0; waited < 10000;) {
        const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n > 0) {
            document.append(buffer, static_cast<size_t>(n));
        } else if (n == 0) {
            return document;
        } else if (errno == EAGAIN) {
            usleep(2000);
            waited += 2;
        } else {
            break;
        }
    }
    return {};
}

uint64_t mainLoopPasses(const std::string& document) {
    vektctl::JsonValue status;
    std::string error;
    if (!vektctl::parseJson(document, status, error)) return 0;
    const vektctl::JsonValue* counters = status.find("counters");
    const vektctl::JsonValue* passes =
        counters != nullptr ? counters->find("main_loop_passes") : nullptr;
    return passes != nullptr ? static_cast<uint64_t>(passes->asInteger()) : 0;
}

TEST_F(StatusSocketTest, SilentAndConcurrentClientsNeitherHoldUpTheDaemonNorGoUnanswered) {
    std::vector<int> silent;  // never read, never close until the end
    for (int i = 0; i < 5; ++i) silent.push_back(connectStatus(socketFile()));
    const int first = connectStatus(socketFile());
    const uint64_t passesBefore = mainLoopPasses(readDocument(first));
    ASSERT_GT(passesBefore, 0u);
    const auto start = std::chrono::steady_clock::now();

    // A hundred clients at once, each connecting again as soon as it is through, for a
    // second: every connection is answered with a whole document or refused at connect.
    constexpr int kClients = 100;
    const auto end = start + std::chrono::seconds(1);
    std::atomic<int> answered{0}, refused{0}, other{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&] {
            while (std::chrono::steady_clock::now() < end) {
                const int fd = connectStatus(socketFile());
                if (fd < 0) {
                    ++(errno == EAGAIN || errno == ECONNREFUSED ? refused : other);
                    usleep(1000);
                    continue;
                }
                vektctl::JsonValue status;
                std::string error;
                ++(vektctl::parseJson(readDocument(fd), status, error) ? answered : other);
                close(fd);
            }
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(other.load(), 0);
    EXPECT_GT(answered.load(), 0);
    std::cout << "  " << answered.load() << " answered, " << refused.load() << " refused\n";

    // Meanwhile the main loop kept its 100 ms period: at least a quarter of the passes the
    // time allows, a margin for a loaded machine or an emulator, far from the none that a
    // loop held up by status clients would make.
    const int last = connectStatus(socketFile());
    const uint64_t passesAfter = mainLoopPasses(readDocument(last));
    const auto elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now() - start)
                               .count();
    EXPECT_GE(passesAfter - passesBefore, static_cast<uint64_t>(elapsedMs / 100 / 4))
        << elapsedMs << " ms";
    for (int fd : {first, last}) close(fd);
    // The silent clients were served in their turn and closed, holding up no one.
    for (int fd : silent) {
        EXPECT_FALSE(readDocument(fd).empty());
        close(fd);
    }
    EXPECT_TRUE(daemon_.running());
}

}  // namespace
}  // namespace vekt::test
