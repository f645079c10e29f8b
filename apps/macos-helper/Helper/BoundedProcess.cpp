#include "BoundedProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "ChildExitWatch.h"

extern char** environ;

namespace orven::BoundedProcess {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// One read takes what a full Linux pipe holds.
constexpr std::size_t kReadChunk = 64 * 1024;
// Without an exit descriptor the child is looked at on this schedule: first
// soon, so a fast child costs little, then no more often than the cap.
constexpr auto kFirstLook = 1ms;
constexpr auto kLongestLook = 10ms;

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const noexcept { return fd_; }
    bool isOpen() const noexcept { return fd_ >= 0; }
    void reset() noexcept
    {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

// A pipe end that landed on 0, 1 or 2 (the daemon started with one of them
// closed) would be overwritten by the child's own redirections before it was
// used, so it is moved above them first.
int liftAboveStandardDescriptors(int fd) noexcept
{
    if (fd > STDERR_FILENO) return fd;
    const int lifted = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(fd);
    errno = error;
    return lifted;
}

// Both ends are close-on-exec: the child gets its ends through its file
// actions, and no other child started meanwhile may keep a copy (one would
// hold our end of file open).
int makePipe(Descriptor& readEnd, Descriptor& writeEnd) noexcept
{
    int fds[2];
#ifdef __linux__
    if (::pipe2(fds, O_CLOEXEC) != 0) return errno;
#else
    if (::pipe(fds) != 0) return errno;
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
#endif
    readEnd = Descriptor(liftAboveStandardDescriptors(fds[0]));
    writeEnd = Descriptor(liftAboveStandardDescriptors(fds[1]));
    if (!readEnd.isOpen() || !writeEnd.isOpen()) return errno;
    return 0;
}

void setNonBlocking(const Descriptor& fd) noexcept
{
    const int flags = ::fcntl(fd.get(), F_GETFL);
    if (flags >= 0) ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
}

// Writing into a pipe whose reader has gone raises SIGPIPE, which would end
// the daemon. Its disposition belongs to the whole process and is not the
// runner's to change, so the runner keeps the signal away locally: on Linux a
// pipe's SIGPIPE is sent to the writing thread, which blocks it while it runs
// a child and collects one left pending before restoring its mask; on macOS
// the signal goes to the process, so the pipe itself is told not to raise it
// (F_SETNOSIGPIPE, see quietBrokenPipe).
class SigpipeBlock {
public:
    SigpipeBlock() noexcept
    {
#ifdef __linux__
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        sigset_t pending;
        alreadyPending_ = ::sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
        ::pthread_sigmask(SIG_BLOCK, &sigpipe_, &previous_);
#endif
    }
    ~SigpipeBlock()
    {
#ifdef __linux__
        const int savedErrno = errno;
        if (!alreadyPending_) {
            const timespec immediately{};
            while (::sigtimedwait(&sigpipe_, nullptr, &immediately) == -1 && errno == EINTR) {}
        }
        ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
        errno = savedErrno;
#endif
    }
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

private:
#ifdef __linux__
    sigset_t sigpipe_;
    sigset_t previous_;
    bool alreadyPending_ = false;
#endif
};

void quietBrokenPipe([[maybe_unused]] const Descriptor& writeEnd) noexcept
{
#ifdef __APPLE__
    ::fcntl(writeEnd.get(), F_SETNOSIGPIPE, 1);
#endif
}

struct SpawnFileActions {
    SpawnFileActions() noexcept : status(::posix_spawn_file_actions_init(&value)) {}
    ~SpawnFileActions()
    {
        if (status == 0) ::posix_spawn_file_actions_destroy(&value);
    }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;
    posix_spawn_file_actions_t value;
    int status;
};

struct SpawnAttributes {
    SpawnAttributes() noexcept : status(::posix_spawnattr_init(&value)) {}
    ~SpawnAttributes()
    {
        if (status == 0) ::posix_spawnattr_destroy(&value);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t value;
    int status;
};

// Starts the child with exactly three descriptors and a clean signal state:
// nothing the daemon holds open (listener sockets, other children's pipes,
// pf token files) may outlive it in a tool, and a disposition the daemon
// ignores must not be ignored by the tool (a cat that ignores SIGPIPE never
// ends). Returns 0 or the error number; posix_spawn reports a failed exec
// through its result, so a missing program is an error here, not an exit.
int spawnChild(const std::string& path, const std::vector<std::string>& arguments, int inputFd, int outputFd,
               int errorFd, pid_t& pid)
{
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 2);
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    SpawnFileActions actions;
    if (actions.status != 0) return actions.status;
    SpawnAttributes attributes;
    if (attributes.status != 0) return attributes.status;

    int error = 0;
    const auto step = [&error](int status) {
        if (error == 0) error = status;
    };
    // The child always has a descriptor 0. With no input to give, it reads
    // /dev/null, as it would under launchd: a closed 0 would be taken by the
    // tool's next open(), which then reads or writes a file it never meant as
    // its input, and the alternative, our own 0, is the host's to keep.
    if (inputFd >= 0) {
        step(::posix_spawn_file_actions_adddup2(&actions.value, inputFd, STDIN_FILENO));
    } else {
        step(::posix_spawn_file_actions_addopen(&actions.value, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
    }
    step(::posix_spawn_file_actions_adddup2(&actions.value, outputFd, STDOUT_FILENO));
    step(::posix_spawn_file_actions_adddup2(&actions.value, errorFd, STDERR_FILENO));

    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#if defined(__APPLE__)
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#elif defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    step(::posix_spawn_file_actions_addclosefrom_np(&actions.value, STDERR_FILENO + 1));
#else
#error "no way to close the daemon's other descriptors in the child on this platform"
#endif
    sigset_t noSignals;
    sigemptyset(&noSignals);
    sigset_t everySignal;
    sigfillset(&everySignal);
    sigdelset(&everySignal, SIGKILL);
    sigdelset(&everySignal, SIGSTOP);
    step(::posix_spawnattr_setsigmask(&attributes.value, &noSignals));
    step(::posix_spawnattr_setsigdefault(&attributes.value, &everySignal));
    step(::posix_spawnattr_setflags(&attributes.value, flags));
    if (error != 0) return error;

    return ::posix_spawn(&pid, path.c_str(), &actions.value, &attributes.value, argv.data(), environ);
}

// Reads what the pipe has now; closes it at end of file or on an error.
void drainAvailable(Descriptor& fd, std::string& into, char* buffer)
{
    for (;;) {
        const ssize_t count = ::read(fd.get(), buffer, kReadChunk);
        if (count > 0) {
            into.append(buffer, static_cast<std::size_t>(count));
            if (static_cast<std::size_t>(count) < kReadChunk) return;
            continue;
        }
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        fd.reset();
        return;
    }
}

// Writes what the pipe takes now; closes it when all is written or the child
// has stopped reading (EPIPE), since the rest is then not wanted.
void feedAvailable(Descriptor& fd, std::string_view input, std::size_t& written)
{
    while (written < input.size()) {
        const ssize_t count = ::write(fd.get(), input.data() + written, input.size() - written);
        if (count > 0) {
            written += static_cast<std::size_t>(count);
            continue;
        }
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        break;
    }
    fd.reset();
}

bool isValidUtf8(std::string_view text) noexcept
{
    const auto* byte = reinterpret_cast<const unsigned char*>(text.data());
    const auto* const end = byte + text.size();
    while (byte < end) {
        if (*byte < 0x80) {
            ++byte;
            continue;
        }
        // Well-formed sequences only (Unicode table 3-7): no overlong forms,
        // no surrogates, nothing above U+10FFFF.
        std::size_t length = 0;
        unsigned char low = 0x80;
        unsigned char high = 0xBF;
        const unsigned char lead = *byte;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        } else {
            return false;
        }
        if (static_cast<std::size_t>(end - byte) < length) return false;
        if (byte[1] < low || byte[1] > high) return false;
        for (std::size_t i = 2; i < length; ++i) {
            if (byte[i] < 0x80 || byte[i] > 0xBF) return false;
        }
        byte += length;
    }
    return true;
}

std::string decoded(std::string bytes)
{
    if (!isValidUtf8(bytes)) bytes.clear();
    return bytes;
}

// A child ended by a signal reports the signal's number: never 0, so never
// taken for success.
std::int32_t terminationStatus(int status) noexcept
{
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return WTERMSIG(status);
    return status;
}

// Far-off deadlines are cut to a century so they cannot overflow the clock.
Clock::time_point after(Clock::time_point from, double seconds) noexcept
{
    constexpr double kCentury = 100.0 * 365 * 24 * 3600;
    const double bounded = std::clamp(seconds, 0.0, kCentury);
    return from + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(bounded));
}

int millisecondsUntil(Clock::time_point deadline, Clock::time_point now) noexcept
{
    if (deadline <= now) return 0;
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    return static_cast<int>(std::min<decltype(milliseconds)>(milliseconds, INT_MAX));
}

// An abandoned child is still ours to reap: once the kernel lets it go it
// would otherwise stay a zombie for the daemon's lifetime. A detached thread
// waits for it; if no thread can be had, a zombie is the lesser harm.
void reapWhenItEnds(pid_t pid) noexcept
{
    try {
        std::thread([pid] {
            int status = 0;
            while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) {}
        }).detach();
    } catch (const std::system_error&) {
    }
}

Result spawnFailure(int error)
{
    return Result{kSpawnFailed, {}, "spawn failed: " + std::string(std::strerror(error))};
}

enum class Stage { running, terminating, killing, abandoned };

} // namespace

Result run(const std::string& path, const std::vector<std::string>& arguments,
           const std::optional<std::string>& standardInput, double timeout, double killGrace)
{
    return run(path, arguments, standardInput, timeout, killGrace,
               [](pid_t pid, int signal) { ::kill(pid, signal); });
}

Result run(const std::string& path, const std::vector<std::string>& arguments,
           const std::optional<std::string>& standardInput, double timeout, double killGrace,
           const SignalSender& sendSignal)
{
    if (!std::isfinite(timeout) || timeout >= 0x1p63 || timeout < -0x1p63 || !std::isfinite(killGrace)) {
        std::abort();
    }
    const auto wholeSeconds = static_cast<std::int64_t>(timeout);

    std::optional<SigpipeBlock> sigpipeBlock;
    if (standardInput) sigpipeBlock.emplace();
    Descriptor outRead, outWrite, errRead, errWrite, inRead, inWrite;
    if (const int error = makePipe(outRead, outWrite)) return spawnFailure(error);
    if (const int error = makePipe(errRead, errWrite)) return spawnFailure(error);
    if (standardInput) {
        if (const int error = makePipe(inRead, inWrite)) return spawnFailure(error);
    }

    pid_t pid = -1;
    if (const int error = spawnChild(path, arguments, inRead.get(), outWrite.get(), errWrite.get(), pid)) {
        return spawnFailure(error);
    }
    // Only the child may hold the writing ends, or end of file never comes.
    outWrite.reset();
    errWrite.reset();
    inRead.reset();

    const ChildExitWatch exitWatch(pid);
    auto stageDeadline = after(Clock::now(), timeout);

    setNonBlocking(outRead);
    setNonBlocking(errRead);
    const std::string_view input = standardInput ? std::string_view(*standardInput) : std::string_view();
    std::size_t written = 0;
    if (inWrite.isOpen()) {
        setNonBlocking(inWrite);
        quietBrokenPipe(inWrite);
        if (input.empty()) inWrite.reset();
    }

    const std::unique_ptr<char[]> buffer(new char[kReadChunk]);
    std::string out;
    std::string err;
    Stage stage = Stage::running;
    bool timedOut = false;
    bool reaped = false;
    bool statusLost = false;
    int waitStatus = 0;
    // The exit descriptor said "exited" but waitpid did not agree yet; from
    // then on the child is looked at on the schedule, as without a descriptor.
    bool exitReported = false;
    std::chrono::milliseconds lookInterval = kFirstLook;
    Clock::time_point drainDeadline{};

    const auto lookAtChild = [&] {
        pid_t found = 0;
        do {
            found = ::waitpid(pid, &waitStatus, WNOHANG);
        } while (found == -1 && errno == EINTR);
        // ECHILD: something else collected it (SIGCHLD set to be ignored);
        // its status is gone, which must not read as success.
        if (found == pid || found == -1) {
            reaped = true;
            statusLost = found == -1;
            drainDeadline = after(Clock::now(), kDrainBoundSeconds);
            inWrite.reset();
        }
    };

    for (;;) {
        const bool childGone = reaped || stage == Stage::abandoned;
        if (childGone && !outRead.isOpen() && !errRead.isOpen()) break;
        const auto now = Clock::now();
        if (childGone && now >= drainDeadline) break;
        if (!childGone && now >= stageDeadline) {
            lookAtChild();
            if (reaped) continue;
            switch (stage) {
            case Stage::running:
                timedOut = true;
                sendSignal(pid, SIGTERM);
                stage = Stage::terminating;
                stageDeadline = after(now, killGrace);
                break;
            case Stage::terminating:
                sendSignal(pid, SIGKILL);
                stage = Stage::killing;
                stageDeadline = after(now, killGrace);
                break;
            case Stage::killing:
            case Stage::abandoned:
                // Wedged in the kernel: waiting on would block the caller for
                // as long as the kernel pleases.
                stage = Stage::abandoned;
                reapWhenItEnds(pid);
                drainDeadline = after(now, kDrainBoundSeconds);
                inWrite.reset();
                break;
            }
            continue;
        }

        std::array<pollfd, 4> watched{};
        nfds_t count = 0;
        const auto watch = [&](int fd, short events) {
            if (fd < 0) return -1;
            watched[count] = pollfd{fd, events, 0};
            return static_cast<int>(count++);
        };
        const int outIndex = watch(outRead.get(), POLLIN);
        const int errIndex = watch(errRead.get(), POLLIN);
        const int inIndex = watch(inWrite.get(), POLLOUT);
        const bool looking = !childGone && (exitWatch.descriptor() < 0 || exitReported);
        const int exitIndex = watch(!childGone && !looking ? exitWatch.descriptor() : -1, POLLIN);

        int waitMilliseconds = millisecondsUntil(childGone ? drainDeadline : stageDeadline, now);
        if (looking) {
            waitMilliseconds = std::min(waitMilliseconds, static_cast<int>(lookInterval.count()));
            lookInterval = std::min<std::chrono::milliseconds>(lookInterval * 2, kLongestLook);
        }
        if (::poll(watched.data(), count, waitMilliseconds) < 0) {
            // EINTR, or no memory for the poll set this moment: go round.
            if (errno != EINTR) std::this_thread::sleep_for(kFirstLook);
            continue;
        }

        constexpr short kReadable = POLLIN | POLLHUP | POLLERR | POLLNVAL;
        if (outIndex >= 0 && (watched[outIndex].revents & kReadable)) drainAvailable(outRead, out, buffer.get());
        if (errIndex >= 0 && (watched[errIndex].revents & kReadable)) drainAvailable(errRead, err, buffer.get());
        if (inIndex >= 0 && watched[inIndex].revents != 0) feedAvailable(inWrite, input, written);
        if (exitIndex >= 0 && watched[exitIndex].revents != 0) {
            lookAtChild();
            exitReported = !reaped;
        } else if (looking) {
            lookAtChild();
        }
    }

    if (timedOut) {
        std::string message = "timed out after " + std::to_string(wholeSeconds);
        message += stage == Stage::abandoned
                       ? "s and could NOT be killed \u2014 the child is wedged in the kernel and was abandoned"
                       : "s and was killed";
        return Result{kTimedOut, decoded(std::move(out)), std::move(message)};
    }
    if (statusLost) {
        return Result{kSpawnFailed, decoded(std::move(out)),
                      "the child's exit status was lost: " + std::string(std::strerror(ECHILD))};
    }
    return Result{terminationStatus(waitStatus), decoded(std::move(out)), decoded(std::move(err))};
}

} // namespace orven::BoundedProcess
