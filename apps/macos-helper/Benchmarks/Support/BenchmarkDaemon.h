#pragma once
// The daemon process on a throw-away simulated Mac, for the benchmarks that
// measure it from outside.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

#include "BoundedProcess.h"
#include "Linux/SocketClient.h"

extern char** environ;

namespace bench {

using Clock = std::chrono::steady_clock;

[[noreturn]] inline void fail(const std::string& message)
{
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, message.c_str());
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
    explicit Daemon(const Mac& mac, const std::vector<std::string>& options = {}) : socket_(mac.socket())
    {
        ::unlink(socket_.c_str());
        std::vector<std::string> arguments{ORVEN_HELPER_PATH, "--root", mac.root(), "--socket", socket_};
        arguments.insert(arguments.end(), options.begin(), options.end());
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

    long residentKiB() const { return statusKiB("VmRSS:"); }
    // The most it has been resident at once.
    long peakResidentKiB() const { return statusKiB("VmHWM:"); }

    const std::string& socket() const { return socket_; }

private:
    long statusKiB(const std::string& field) const
    {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind(field, 0) == 0) return std::strtol(line.c_str() + field.size(), nullptr, 10);
        fail("no " + field + " for the daemon");
    }

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

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

} // namespace bench
