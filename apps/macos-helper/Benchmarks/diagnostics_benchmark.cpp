// A flood of gateway round-trip requests on a simulated Mac whose gateway
// answers in 1 ms: 200 requests at once, each a train of 3 echoes 50 ms
// apart. Every reply must arrive exactly once; threads and memory must stay
// bounded; the flood should take about as long as a few trains, not 200.
//
//   diagnostics_benchmark [--requests N]
//
// Prints name=value lines: requests, replies, answered_twice, measured,
// refused, single_request_ms, wall_ms, budget_s, wall_over_budget,
// wall_over_single, peak_threads, peak_rss_kib.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DaemonContext.h"
#include "HelperService.h"
#include "Linux/SimulatedMacHost.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::int64_t kCount = 3, kSpacingMillis = 50, kTimeoutMillis = 100;

[[noreturn]] void fail(const std::string& message)
{
    std::fprintf(stderr, "diagnostics_benchmark: %s\n", message.c_str());
    std::exit(1);
}

class NullSink final : public orven::LogSink {
public:
    void write(const orven::LogRecord&) override {}
};

// A number from /proc/self/status ("Threads:", "VmHWM:").
long statusField(const char* name)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(name, 0) == 0) return std::strtol(line.c_str() + std::strlen(name), nullptr, 10);
    return -1;
}

class Mac {
public:
    Mac()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "orven-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) fail("mkdtemp failed");
        folder_ = pattern;
        macsim({"init", folder_});
        macsim({"set", folder_, "target", "192.168.1.1", "rtt", "1"});
    }
    ~Mac()
    {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    const std::string& root() const { return folder_; }

private:
    static void macsim(const std::vector<std::string>& arguments)
    {
        const auto result = orven::BoundedProcess::run(ORVEN_MACSIM_PATH, arguments, std::nullopt, 60, 2);
        if (result.code != 0) fail("macsim failed: " + result.err);
    }
    std::string folder_;
};

struct Outcome {
    std::atomic<int> calls{0};
    double median = 0;
    bool refused = false;
};

// Sends `requests` at once and waits for every answer.
std::vector<std::unique_ptr<Outcome>> flood(orven::HelperService& service, int requests)
{
    std::vector<std::unique_ptr<Outcome>> outcomes;
    std::mutex mutex;
    std::condition_variable changed;
    int answered = 0;
    for (int i = 0; i < requests; ++i) {
        outcomes.push_back(std::make_unique<Outcome>());
        Outcome* outcome = outcomes.back().get();
        service.gatewayPingRTT("192.168.1.1", kCount, kSpacingMillis, "en0", kTimeoutMillis,
                               orven::Reply<double, orven::OptionalText>(
                                   [&, outcome](double median, const orven::OptionalText& error) {
                                       outcome->median = median;
                                       outcome->refused = error.has_value();
                                       if (outcome->calls.fetch_add(1) == 0) {
                                           std::lock_guard lock(mutex);
                                           ++answered;
                                           changed.notify_all();
                                       }
                                   }));
    }
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, std::chrono::seconds(120), [&] { return answered == requests; }))
        fail("not every request was answered within two minutes");
    return outcomes;
}

} // namespace

int main(int argc, char** argv)
{
    int requests = 200;
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--requests") == 0) requests = std::max(1, std::atoi(argv[++i]));

    Mac mac;
    NullSink sink;
    orven::SimulatedMacHost host(mac.root(), sink);
    orven::DaemonContext context(host);
    orven::HelperService service(context, 501);

    // One request alone, the wait a single client sees (best of three).
    double singleMs = 1e9;
    for (int i = 0; i < 3; ++i) {
        const auto start = Clock::now();
        const auto one = flood(service, 1);
        singleMs = std::min(singleMs, std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        if (one.front()->median <= 0) fail("a single request measured nothing");
    }

    std::atomic<bool> sampling{true};
    std::atomic<long> peakThreads{0};
    std::thread sampler([&] {
        while (sampling.load()) {
            peakThreads.store(std::max(peakThreads.load(), statusField("Threads:")));
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    const auto start = Clock::now();
    const auto outcomes = flood(service, requests);
    const double wallMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    sampling = false;
    sampler.join();

    int replies = 0, twice = 0, measured = 0, refused = 0;
    for (const auto& outcome : outcomes) {
        replies += outcome->calls.load() > 0;
        twice += outcome->calls.load() > 1;
        measured += outcome->median > 0;
        refused += outcome->refused;
    }
    const double budget =
        orven::OrvenHelperConstants::gatewayPingBudgetSeconds(kCount, kSpacingMillis, kTimeoutMillis);
    std::printf("requests=%d\nreplies=%d\nanswered_twice=%d\nmeasured=%d\nrefused=%d\n", requests, replies, twice,
                measured, refused);
    std::printf("single_request_ms=%.1f\nwall_ms=%.1f\nbudget_s=%.2f\nwall_over_budget=%.3f\nwall_over_single=%.2f\n",
                singleMs, wallMs, budget, wallMs / 1000.0 / budget, wallMs / singleMs);
    std::printf("peak_threads=%ld\npeak_rss_kib=%ld\n", peakThreads.load(), statusField("VmHWM:"));
    return replies == requests && twice == 0 ? 0 : 1;
}
