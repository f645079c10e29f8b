// The daemon process on a simulated Mac: its resident memory when idle and
// after a thousand status queries, and how long it takes from exec to a
// listener that accepts when there is nothing to re-apply.
//
//   daemon_benchmark [--starts N] [--queries N] [google benchmark flags]
//
// The figures come last, one per line: idle_rss_kib=, loaded_rss_kib=,
// start_to_listen_ms=.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "BoundedProcess.h"
#include "Linux/SocketClient.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string& message)
{
    std::fprintf(stderr, "daemon_benchmark: %s\n", message.c_str());
    std::exit(1);
}

// A throw-away simulated Mac with nothing to re-apply.
class Mac {
public:
    Mac()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "orven-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) fail("mkdtemp failed");
        folder_ = pattern;
        const auto init = orven::BoundedProcess::run(ORVEN_MACSIM_PATH, {"init", root()}, std::nullopt, 60, 2);
        if (init.code != 0) fail("macsim init failed: " + init.err);
    }
    ~Mac()
    {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    std::string root() const { return folder_ + "/mac"; }
    std::string socket() const { return folder_ + "/helper.sock"; }

private:
    std::string folder_;
};

class Daemon {
public:
    explicit Daemon(const Mac& mac) : socket_(mac.socket())
    {
        ::unlink(socket_.c_str());
        std::vector<std::string> arguments{ORVEN_HELPER_PATH, "--root", mac.root(), "--socket", socket_};
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        started_ = Clock::now();
        const int status = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (status != 0) fail(std::string("cannot start the daemon: ") + std::strerror(status));
    }
    ~Daemon()
    {
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Milliseconds from the spawn to the first accepted connection.
    double waitUntilListening() const
    {
        const auto deadline = started_ + std::chrono::seconds(30);
        while (Clock::now() < deadline) {
            if (orven::SocketClient::connect(socket_)) {
                const auto elapsed = Clock::now() - started_;
                return std::chrono::duration<double, std::milli>(elapsed).count();
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        fail("the daemon never listened");
    }

    long residentKiB() const
    {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
        fail("no VmRSS for the daemon");
    }

    const std::string& socket() const { return socket_; }

private:
    std::string socket_;
    pid_t pid_ = -1;
    Clock::time_point started_;
};

// One connection, one request at a time.
class Connection {
public:
    explicit Connection(const std::string& socket)
    {
        std::string error;
        auto client = orven::SocketClient::connect(socket, &error);
        if (!client) fail(error);
        client_.emplace(std::move(*client));
    }

    std::string call(const std::string& line)
    {
        auto answer = client_->call(line, std::chrono::seconds(60));
        if (!answer.text) fail(answer.error);
        return std::move(*answer.text);
    }

private:
    std::optional<orven::SocketClient> client_;
};

const char* const kStatusQueries[] = {
    R"({"id":1,"selector":"readHardKillStatusWithReply:","arguments":[]})",
    R"({"id":2,"selector":"readHardKillEnforcementWithReply:","arguments":[]})",
    R"({"id":3,"selector":"readHardKillResidueWithTokenWithReply:","arguments":[]})",
    R"({"id":4,"selector":"readHardKillProofWithReply:","arguments":[]})",
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

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
