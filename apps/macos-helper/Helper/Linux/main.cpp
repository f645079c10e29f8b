// The daemon on the Linux host: the same start-up as on macOS, over a
// simulated Mac, serving the method table on a Unix socket instead of XPC.
//
//   orven-helper --root DIR --socket PATH [--allow-uid UID]... [LIMITS]
//
// LIMITS (each takes a positive whole number; defaults in SocketListener.h):
//   --idle-timeout S  --request-timeout S  --write-timeout S
//   --max-connections N  --connections-per-uid N  --root-reserve N
//   --request-budget BYTES  --refusal-log-interval S

#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "DaemonContext.h"
#include "Files.h"
#include "Linux/InstanceLock.h"
#include "Linux/SimulatedMacHost.h"
#include "Linux/SocketListener.h"
#include "Startup.h"
#include "Text.h"

namespace {

constexpr int kUsageStatus = 64;
constexpr std::string_view kLaunchdPIDFile = "/.macsim/launchd/test.orven.app.helper.pid";
// Held for the life of the daemon: one daemon per simulated Mac.
constexpr std::string_view kInstanceLockFile = "/var/run/test.orven.app.helper.lock";

[[noreturn]] void usage(const std::string& message)
{
    std::fprintf(stderr,
                 "orven-helper: %s\nusage: orven-helper --root DIR --socket PATH [--allow-uid UID]... "
                 "[--idle-timeout S] [--request-timeout S] [--write-timeout S] [--max-connections N] "
                 "[--connections-per-uid N] [--root-reserve N] [--request-budget BYTES] [--refusal-log-interval S]\n",
                 message.c_str());
    std::exit(kUsageStatus);
}

// A limit option's value: a whole number from 1 to `max`.
std::uint64_t positive(std::string_view option, const char* value, std::uint64_t max)
{
    const auto number = orven::text::parseUnsigned(value, max);
    if (!number || *number == 0)
        usage(std::string(option) + " takes a whole number from 1 to " + std::to_string(max));
    return *number;
}

// Applies one limit option; false when `option` is not one.
bool applyLimit(std::string_view option, const char* value, orven::SocketListener::Options& options)
{
    constexpr std::uint64_t kDay = 86'400;
    constexpr std::uint64_t kMaxConnections = 4096;
    const auto seconds = [&] { return std::chrono::seconds(positive(option, value, kDay)); };
    const auto count = [&] { return static_cast<std::size_t>(positive(option, value, kMaxConnections)); };
    if (option == "--idle-timeout") options.idleTimeout = seconds();
    else if (option == "--request-timeout") options.requestTimeout = seconds();
    else if (option == "--write-timeout") options.writeTimeout = seconds();
    else if (option == "--refusal-log-interval") options.refusalLogInterval = seconds();
    else if (option == "--max-connections") options.connections.total = count();
    else if (option == "--connections-per-uid") options.connections.perUID = count();
    else if (option == "--root-reserve") options.connections.rootReserve = count();
    else if (option == "--request-budget")
        options.requestBudgetBytes = static_cast<std::size_t>(positive(option, value, std::uint64_t{1} << 40));
    else return false;
    return true;
}

// launchd stops a job with SIGTERM; the daemon keeps nothing in memory that
// needs saving, so it leaves at once and reports a clean stop.
extern "C" void stopOnSignal(int) { ::_exit(0); }

} // namespace

int main(int argc, char** argv)
{
    // One allocator arena per core would cost resident memory for nothing:
    // the daemon's threads mostly wait on sockets and children.
    ::mallopt(M_ARENA_MAX, 2);
    // A fixed threshold keeps large request buffers in their own mappings,
    // given back when freed, instead of letting glibc raise it and keep a
    // megabyte per connection in the heap after one large request.
    ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);

    std::string root;
    orven::SocketListener::Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (i + 1 >= argc) usage("every option takes a value");
        const char* value = argv[++i];
        if (argument == "--root") {
            root = value;
        } else if (argument == "--socket") {
            options.socketPath = value;
        } else if (argument == "--allow-uid") {
            const auto uid = orven::text::parseUnsigned(value, UINT32_MAX);
            if (!uid) usage("--allow-uid takes a decimal user id");
            options.allowedUIDs.insert(static_cast<std::uint32_t>(*uid));
        } else if (!applyLimit(argument, value, options)) {
            usage("unknown option " + std::string(argument));
        }
    }
    if (root.empty() || options.socketPath.empty()) usage("--root and --socket are required");
    // Every tool of the simulated Mac is found under the root, from whatever
    // folder it runs in.
    if (root.front() != '/') usage("--root must be an absolute path, not " + root);
    if (options.connections.rootReserve >= options.connections.total)
        usage("--root-reserve must be smaller than --max-connections");

    struct sigaction stop{};
    stop.sa_handler = stopOnSignal;
    sigemptyset(&stop.sa_mask);
    ::sigaction(SIGTERM, &stop, nullptr);
    ::sigaction(SIGINT, &stop, nullptr);

    orven::StderrLogSink sink;
    // Exit without running static destructors under threads still serving.
    orven::SimulatedMacHost host(root, sink, [](int status) {
        std::fflush(nullptr);
        ::_exit(status);
    });
    orven::DaemonContext context(host);

    // Another daemon on the same Mac or the same socket is left alone, and
    // this one stops before touching anything.
    auto instance = orven::InstanceLock::acquire(host.path(kInstanceLockFile));
    if (const auto* error = std::get_if<std::string>(&instance)) {
        std::fprintf(stderr, "orven-helper: refusing to start: %s\n", error->c_str());
        return 1;
    }
    orven::SocketListener listener(context, options);
    if (const auto error = listener.claim()) {
        std::fprintf(stderr, "orven-helper: refusing to start: %s\n", error->c_str());
        return 1;
    }

    // What launchctl bootout of the simulated Mac signals.
    const std::string pidFile = host.path(kLaunchdPIDFile);
    if (auto error = orven::files::createDirectories(orven::files::parentDirectory(pidFile), 0755))
        std::fprintf(stderr, "orven-helper: cannot create %s: %s\n", pidFile.c_str(), error->c_str());
    else if (auto failed = orven::files::writeAtomically(pidFile, std::to_string(::getpid()) + "\n", 0644))
        std::fprintf(stderr, "orven-helper: cannot write %s: %s\n", pidFile.c_str(), failed->c_str());

    if (orven::Startup::run(context, static_cast<std::uint32_t>(::getuid()), [&] { return listener.listen(); }))
        return 1;
    const std::string reason = listener.serve();
    std::fprintf(stderr, "orven-helper: %s\n", reason.c_str());
    return 1;
}
