// Cost of running one wrapper-tool command: execnetd (one process, started directly)
// against a shell pipe running the same tool (popen: a shell, which then runs the tool).
// Both run a trivial tool under a temporary device root, so what is measured is the cost
// of starting processes, not the tool. Prints the ratio runner / shell pipe at the end.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>

#include "base/device_root.h"
#include "steering/execnetd.h"
#include "vekt_host/log_capture.h"

namespace {

namespace fs = std::filesystem;

constexpr int kIterations = 300;
constexpr const char* kTool = "/system/bin/iptables-wrapper-1.0";
const std::string kCommand = std::string(kTool) + " -w -t mangle -F tarn_SLA";

void BM_ExecnetdRunner(benchmark::State& state) {
    for (auto _ : state) {
        if (execnetd(kCommand.c_str()) != 0) state.SkipWithError("the tool could not be started");
    }
}

void BM_PopenShellPipe(benchmark::State& state) {
    // The line the shell gets: the mapped tool, its arguments and the stderr redirection.
    const std::string line = vekt::DeviceRoot::map(kTool) + " -w -t mangle -F tarn_SLA 2>&1";
    char buffer[1024];
    for (auto _ : state) {
        FILE* pipe = popen(line.c_str(), "r");
        if (pipe == nullptr) {
            state.SkipWithError("popen failed");
            break;
        }
        while (fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        }
        pclose(pipe);
    }
}

BENCHMARK(BM_ExecnetdRunner)->Iterations(kIterations)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PopenShellPipe)->Iterations(kIterations)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Console output as usual, and each benchmark's wall time per iteration kept for the ratio.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) times[run.benchmark_name()] = run.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
    std::string pattern = (fs::temp_directory_path() / "vekt-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string root = pattern;
    fs::create_directories(root + "/system/bin");
    std::error_code error;
    fs::create_symlink("/bin/true", root + kTool, error);
    if (error) {
        fprintf(stderr, "cannot place the tool: %s\n", error.message().c_str());
        fs::remove_all(root, error);
        return 1;
    }
    vekt::DeviceRoot::set(root);
    vekt::host::setStderrEcho(false);  // one PASS line per run would drown the report

    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    double runner = 0, shell = 0;
    for (const auto& [name, time] : reporter.times) {
        if (name.rfind("BM_ExecnetdRunner", 0) == 0) runner = time;
        if (name.rfind("BM_PopenShellPipe", 0) == 0) shell = time;
    }
    if (runner > 0 && shell > 0) {
        printf("runner / shell pipe: %.2f (target at most 0.60)\n", runner / shell);
    }
    fs::remove_all(root, error);
    return 0;
}
