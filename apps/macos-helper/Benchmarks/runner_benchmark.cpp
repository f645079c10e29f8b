// What the bounded runner costs over starting and waiting for a child bare,
// and how it carries large output. Ends with two lines for scripts:
// large_output_bytes=<n> and, last, runner_overhead_ratio=<median ratio>.

#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "BoundedProcess.h"

extern char** environ;

namespace {

using namespace orven;
using Clock = std::chrono::steady_clock;

constexpr const char* kTrue = "/bin/true";
const std::vector<std::string> kLargeOutput = {
    "-c", "yes abcdefg | head -c 1048576; yes 1234567 | head -c 1048576 >&2"};

void runTrue()
{
    const auto result = BoundedProcess::run(kTrue, {}, std::nullopt, 10, 2);
    if (result.code != 0) std::abort();
}

// The least any runner must do: start the program and collect its status.
void spawnTrueBare()
{
    char* const argv[] = {const_cast<char*>(kTrue), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, kTrue, nullptr, nullptr, argv, environ) != 0) std::abort();
    int status = 0;
    while (waitpid(pid, &status, 0) == -1) {}
    if (status != 0) std::abort();
}

std::size_t runLargeOutput()
{
    const auto result = BoundedProcess::run("/bin/sh", kLargeOutput, std::nullopt, 10, 2);
    if (result.code != 0) std::abort();
    return result.out.size() + result.err.size();
}

void BM_RunnerTrue(benchmark::State& state)
{
    for (auto _ : state) runTrue();
}
BENCHMARK(BM_RunnerTrue)->Unit(benchmark::kMicrosecond);

void BM_BareSpawnTrue(benchmark::State& state)
{
    for (auto _ : state) spawnTrueBare();
}
BENCHMARK(BM_BareSpawnTrue)->Unit(benchmark::kMicrosecond);

void BM_RunnerLargeOutput(benchmark::State& state)
{
    std::size_t bytes = 0;
    for (auto _ : state) bytes = runLargeOutput();
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
    state.counters["bytes_returned"] = static_cast<double>(bytes);
}
BENCHMARK(BM_RunnerLargeOutput)->Unit(benchmark::kMillisecond);

template <class Work>
double microseconds(Work work)
{
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const auto middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// Alternating the two in one loop exposes both to the same load on the
// machine, which separate benchmark runs would not.
double overheadRatio(int iterations)
{
    for (int i = 0; i < 20; ++i) {
        runTrue();
        spawnTrueBare();
    }
    std::vector<double> runner;
    std::vector<double> bare;
    for (int i = 0; i < iterations; ++i) {
        if (i % 2 == 0) {
            runner.push_back(microseconds(runTrue));
            bare.push_back(microseconds(spawnTrueBare));
        } else {
            bare.push_back(microseconds(spawnTrueBare));
            runner.push_back(microseconds(runTrue));
        }
    }
    const double runnerMedian = median(runner);
    const double bareMedian = median(bare);
    std::printf("runner_median_us=%.1f\nbare_spawn_median_us=%.1f\n", runnerMedian, bareMedian);
    return runnerMedian / bareMedian;
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::printf("large_output_bytes=%zu\n", runLargeOutput());
    const double ratio = overheadRatio(400);
    std::printf("runner_overhead_ratio=%.3f\n", ratio);
    return 0;
}
