// The daemon process on a simulated Mac: its resident memory when idle and
// after a thousand status queries, and how long it takes from exec to a
// listener that accepts when there is nothing to re-apply.
//
//   daemon_benchmark [--starts N] [--queries N] [google benchmark flags]
//
// The figures come last, one per line: idle_rss_kib=, loaded_rss_kib=,
// start_to_listen_ms=.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "Support/BenchmarkDaemon.h"

namespace {

using bench::Connection;
using bench::Daemon;
using bench::fail;
using bench::Mac;
using bench::median;

const char* const kStatusQueries[] = {
    R"({"id":1,"selector":"readHardKillStatusWithReply:","arguments":[]})",
    R"({"id":2,"selector":"readHardKillEnforcementWithReply:","arguments":[]})",
    R"({"id":3,"selector":"readHardKillResidueWithTokenWithReply:","arguments":[]})",
    R"({"id":4,"selector":"readHardKillProofWithReply:","arguments":[]})",
};

// A round trip the daemon answers without running a tool: the transport's own cost.
void pingRoundTrip(benchmark::State& state, const std::string* socket)
{
    Connection connection(*socket);
    for (auto _ : state)
        benchmark::DoNotOptimize(connection.call(R"({"id":0,"selector":"pingWithReply:","arguments":[]})"));
}

// One status query: a pfctl run on the simulated Mac and its reading.
void statusRoundTrip(benchmark::State& state, const std::string* socket)
{
    Connection connection(*socket);
    for (auto _ : state) benchmark::DoNotOptimize(connection.call(kStatusQueries[0]));
}

} // namespace

int main(int argc, char** argv)
{
    int starts = 20;
    int queries = 1000;
    std::vector<char*> rest{argv[0]};
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--starts" && i + 1 < argc) starts = std::max(1, std::atoi(argv[++i]));
        else if (option == "--queries" && i + 1 < argc) queries = std::max(4, std::atoi(argv[++i]));
        else rest.push_back(argv[i]);
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());

    const Mac mac;

    std::vector<double> startTimes;
    for (int i = 0; i < starts; ++i) {
        const Daemon daemon(mac);
        startTimes.push_back(daemon.waitUntilListening());
    }

    long idle = 0;
    long loaded = 0;
    {
        const Daemon daemon(mac);
        daemon.waitUntilListening();
        // Let start-up finish its last writes before looking.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        idle = daemon.residentKiB();

        // Four clients at once, as the app's windows might be.
        constexpr int kClients = 4;
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; ++c) {
            clients.emplace_back([&, c] {
                Connection connection(daemon.socket());
                for (int q = c; q < queries; q += kClients) {
                    const auto answer = connection.call(kStatusQueries[q % 4]);
                    if (answer.find("\"reply\"") == std::string::npos) fail("a status query failed: " + answer);
                }
            });
        }
        for (auto& client : clients) client.join();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        loaded = daemon.residentKiB();

        benchmark::RegisterBenchmark("ping_round_trip", pingRoundTrip, &daemon.socket());
        benchmark::RegisterBenchmark("status_query_round_trip", statusRoundTrip, &daemon.socket());
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
    }

    std::printf("starts=%d queries=%d\n", starts, queries);
    std::printf("idle_rss_kib=%ld\n", idle);
    std::printf("loaded_rss_kib=%ld\n", loaded);
    std::printf("start_to_listen_ms=%.2f\n", median(startTimes));
    return 0;
}
