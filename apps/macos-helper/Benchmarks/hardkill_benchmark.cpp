// An engage and lift round trip on the simulated Mac, split into the probe
// sweep (bounded by the probes' own budgets) and everything else the daemon
// does, with the number of tool calls it makes.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "ForwardingHost.h"
#include "HelperService.h"
#include "Linux/SimulatedMacHost.h"
#include "Support/BenchmarkDaemon.h"

namespace orven {
namespace {

using Clock = std::chrono::steady_clock;

class DiscardingSink final : public LogSink {
public:
    void write(const LogRecord&) override {}
};

// Times every tool run of the daemon.
class TimedHost final : public ForwardingHost {
public:
    struct Run {
        std::string path;
        Clock::time_point start, end;
    };
    using ForwardingHost::ForwardingHost;

    BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& standardInput, double timeout,
                               double killGrace) override
    {
        const auto start = Clock::now();
        auto result = ForwardingHost::run(macPath, arguments, standardInput, timeout, killGrace);
        record(std::string(macPath), start);
        return result;
    }
    StoreCopy copyDynamicStore(std::string_view session, std::string_view pattern) override
    {
        const auto start = Clock::now();
        auto copy = ForwardingHost::copyDynamicStore(session, pattern);
        record("configd", start);
        return copy;
    }
    std::optional<std::vector<std::string>> networkInterfaceNames() override
    {
        const auto start = Clock::now();
        auto names = ForwardingHost::networkInterfaceNames();
        record("configd", start);
        return names;
    }
    bool forceConfigurationRefresh(std::string_view bsdName) override
    {
        const auto start = Clock::now();
        const bool accepted = ForwardingHost::forceConfigurationRefresh(bsdName);
        record("configd", start);
        return accepted;
    }

    std::vector<Run> takeRuns()
    {
        const std::lock_guard guard(mutex_);
        return std::exchange(runs_, {});
    }

private:
    void record(std::string path, Clock::time_point start)
    {
        const std::lock_guard guard(mutex_);
        runs_.push_back({std::move(path), start, Clock::now()});
    }

    std::mutex mutex_;
    std::vector<Run> runs_;
};

double milliseconds(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

using bench::median;

bool isProbe(const std::string& path) { return path == paths::ping || path == paths::ping6 || path == paths::nc; }

} // namespace
} // namespace orven

int main(int argc, char** argv)
{
    using namespace orven;
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 25;
    const bench::Mac mac;
    const std::string root = mac.root();

    DiscardingSink sink;
    SimulatedMacHost simulated(root, sink);
    TimedHost host(simulated);
    DaemonContext context(host);
    std::vector<double> totals, sweeps, others, calls;
    for (int round = 0; round < rounds; ++round) {
        HelperService service(context, 501);
        bool engaged = false, lifted = false;
        const auto start = Clock::now();
        service.setHardKill(true, ActionReply([&](bool ok, OptionalText) { engaged = ok; }));
        service.setHardKill(false, ActionReply([&](bool ok, OptionalText) { lifted = ok; }));
        const auto total = Clock::now() - start;
        if (!engaged || !lifted) {
            std::fprintf(stderr, "round %d: engage=%d lift=%d\n", round, engaged, lifted);
            return 1;
        }
        const auto runs = host.takeRuns();
        Clock::time_point first = Clock::time_point::max(), last = Clock::time_point::min();
        for (const auto& run : runs) {
            if (!isProbe(run.path)) continue;
            first = std::min(first, run.start);
            last = std::max(last, run.end);
        }
        const double sweep = first <= last ? milliseconds(last - first) : 0;
        totals.push_back(milliseconds(total));
        sweeps.push_back(sweep);
        others.push_back(milliseconds(total) - sweep);
        calls.push_back(static_cast<double>(runs.size()));
    }
    std::printf("rounds=%d\n", rounds);
    std::printf("engage_lift_total_ms=%.2f\n", median(totals));
    std::printf("probe_sweep_ms=%.2f\n", median(sweeps));
    std::printf("engage_lift_non_probe_ms=%.2f\n", median(others));
    std::printf("tool_calls=%.0f\n", median(calls));
    return 0;
}
