// The daemon on the Linux host: the same start-up as on macOS, over a
// simulated Mac, serving the method table on a Unix socket instead of XPC.
//
//   orven-helper --root DIR --socket PATH [--allow-uid UID]...

#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "DaemonContext.h"
#include "Files.h"
#include "Linux/SimulatedMacHost.h"
#include "Linux/SocketListener.h"
#include "Startup.h"
#include "Text.h"

namespace {

constexpr int kUsageStatus = 64;
constexpr std::string_view kLaunchdPIDFile = "/.macsim/launchd/test.orven.app.helper.pid";

void usage(const char* message)
{
    std::fprintf(stderr, "orven-helper: %s\nusage: orven-helper --root DIR --socket PATH [--allow-uid UID]...\n",
                 message);
    std::exit(kUsageStatus);
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
        } else {
            usage("unknown option");
        }
    }
    if (root.empty() || options.socketPath.empty()) usage("--root and --socket are required");

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

    // What launchctl bootout of the simulated Mac signals.
    const std::string pidFile = host.path(kLaunchdPIDFile);
    if (auto error = orven::files::createDirectories(orven::files::parentDirectory(pidFile), 0755))
        std::fprintf(stderr, "orven-helper: cannot create %s: %s\n", pidFile.c_str(), error->c_str());
    else if (auto failed = orven::files::writeAtomically(pidFile, std::to_string(::getpid()) + "\n", 0644))
        std::fprintf(stderr, "orven-helper: cannot write %s: %s\n", pidFile.c_str(), failed->c_str());

    orven::SocketListener listener(context, options);
    if (orven::Startup::run(context, static_cast<std::uint32_t>(::getuid()), [&] { return listener.listen(); }))
        return 1;
    const std::string reason = listener.serve();
    std::fprintf(stderr, "orven-helper: %s\n", reason.c_str());
    return 1;
}
