#pragma once
// Runs one external program with an argument vector, optional standard input
// and a hard time limit. The only way the daemon starts child processes.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace orven::BoundedProcess {

struct Result {
    std::int32_t code = 0;  // exit status; 124 timed out (killed or not); -1 could not start
    std::string out;        // standard output, UTF-8 (empty when not valid UTF-8)
    std::string err;        // standard error, or the runner's own message
};

inline constexpr std::int32_t kTimedOut = 124;
inline constexpr std::int32_t kSpawnFailed = -1;
// How long the runner keeps draining after the child has ended: a grandchild
// may hold the pipes open for ever.
inline constexpr double kDrainBoundSeconds = 5.0;

// Synchronous: returns when the child has ended or has been abandoned.
// `timeout` must be finite and within the 64-bit range, `killGrace` finite (a
// programming error otherwise, which stops the process); negative values count
// as zero. Without `standardInput` the child reads from /dev/null.
Result run(const std::string& path, const std::vector<std::string>& arguments,
           const std::optional<std::string>& standardInput, double timeout, double killGrace);

// How the runner delivers its escalation signals (SIGTERM, then SIGKILL):
// kill(2) in the daemon. Tests pass one that withholds them, the only portable
// way to reach the path of a child that cannot be killed.
using SignalSender = std::function<void(pid_t pid, int signal)>;

Result run(const std::string& path, const std::vector<std::string>& arguments,
           const std::optional<std::string>& standardInput, double timeout, double killGrace,
           const SignalSender& sendSignal);

} // namespace orven::BoundedProcess
