// The bounded runner against real children: whole output, input without
// deadlock, the time-out escalation, start failures, and what a child must
// not inherit or leave behind.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "BoundedProcess.h"

namespace orven {
namespace {

using BoundedProcess::Result;

constexpr double kGenerous = 30.0;
constexpr double kGrace = 2.0;

std::string repeated(std::string_view piece, std::size_t times)
{
    std::string text;
    text.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i) text += piece;
    return text;
}

// Numbered lines, so a lost, doubled or reordered chunk shows.
std::string numberedLines(std::size_t bytes)
{
    std::string text;
    for (std::size_t line = 0; text.size() < bytes; ++line) text += "line " + std::to_string(line) + "\n";
    text.resize(bytes);
    return text;
}

Result shell(const std::string& script, double timeout = kGenerous, double killGrace = kGrace)
{
    return BoundedProcess::run("/bin/sh", {"-c", script}, std::nullopt, timeout, killGrace);
}

// Children of this process that have exited and were never reaped.
std::vector<pid_t> zombieChildren()
{
    std::vector<pid_t> zombies;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream statFile(entry.path() / "stat");
        std::string stat;
        if (!std::getline(statFile, stat)) continue;
        // "pid (comm) state ppid ...": comm may hold spaces and parentheses.
        const auto commEnd = stat.rfind(')');
        if (commEnd == std::string::npos) continue;
        std::istringstream rest(stat.substr(commEnd + 1));
        char state = 0;
        pid_t parent = 0;
        rest >> state >> parent;
        if (parent == ::getpid() && state == 'Z') zombies.push_back(std::stoi(entry.path().filename().string()));
    }
    return zombies;
}

// Waits, within a bound, for a process to be gone from /proc (reaped).
bool reapedSoon(pid_t pid)
{
    const auto path = "/proc/" + std::to_string(pid);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        if (!std::filesystem::exists(path)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

std::set<std::string> lines(const std::string& text)
{
    std::set<std::string> found;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) found.insert(line);
    return found;
}

TEST(BoundedProcessTest, ReturnsAMebibyteOnEachStreamWhole)
{
    const auto result = shell("yes abcdefg | head -c 1048576; yes 1234567 | head -c 1048576 >&2");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, repeated("abcdefg\n", 131072));
    EXPECT_EQ(result.err, repeated("1234567\n", 131072));
}

struct InputCase {
    const char* name;
    std::string program;
    std::vector<std::string> arguments;
    std::string input;
    std::string expectedOut;
};

void PrintTo(const InputCase& row, std::ostream* os) { *os << row.name; }

class BoundedProcessInputTest : public testing::TestWithParam<InputCase> {};

// More input than a pipe holds, to a child that writes as much back before
// it has read it all: a runner that wrote first and read later would hang.
// A child that stops reading must not take the daemon down with SIGPIPE.
TEST_P(BoundedProcessInputTest, DeliversInputWithoutDeadlockOrSigpipe)
{
    const auto& param = GetParam();
    sigset_t maskBefore;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore), 0);

    const auto result = BoundedProcess::run(param.program, param.arguments, param.input, kGenerous, kGrace);

    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, param.expectedOut);
    sigset_t maskAfter;
    sigset_t pending;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &maskAfter), 0);
    ASSERT_EQ(sigpending(&pending), 0);
    EXPECT_EQ(sigismember(&maskAfter, SIGPIPE), sigismember(&maskBefore, SIGPIPE));
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

const std::string kTwoMebibytes = numberedLines(2 * 1024 * 1024);

INSTANTIATE_TEST_SUITE_P(
    Cases, BoundedProcessInputTest,
    testing::Values(InputCase{"CatEchoesTwoMebibytes", "/bin/cat", {}, kTwoMebibytes, kTwoMebibytes},
                    InputCase{"EmptyInputIsEndOfFile", "/bin/cat", {}, "", ""},
                    InputCase{"ChildStopsReadingEarly", "/usr/bin/head", {"-c", "11"}, kTwoMebibytes, "line 0\nline"},
                    InputCase{"ChildNeverReads", "/bin/true", {}, kTwoMebibytes, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(BoundedProcessTest, WithoutInputTheChildReadsDevNull)
{
    const auto result = BoundedProcess::run("/usr/bin/readlink", {"/proc/self/fd/0"}, std::nullopt, kGenerous, kGrace);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, "/dev/null\n");
}

struct ExitCase {
    const char* name;
    std::string script;
    std::int32_t expectedCode;
    std::string expectedOut;
    std::string expectedErr;
};

void PrintTo(const ExitCase& row, std::ostream* os) { *os << row.name; }

class BoundedProcessExitTest : public testing::TestWithParam<ExitCase> {};

TEST_P(BoundedProcessExitTest, ReportsTheChildsOwnEnd)
{
    const auto& param = GetParam();
    const auto result = shell(param.script);
    EXPECT_EQ(result.code, param.expectedCode);
    EXPECT_EQ(result.out, param.expectedOut);
    EXPECT_EQ(result.err, param.expectedErr);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BoundedProcessExitTest,
    testing::Values(ExitCase{"Success", "echo fine", 0, "fine\n", ""},
                    ExitCase{"Failure", "echo no >&2; exit 3", 3, "", "no\n"},
                    // Same code as a time-out; only the error text tells them apart.
                    ExitCase{"ExitsWith124ByItself", "echo own words >&2; exit 124", 124, "", "own words\n"},
                    ExitCase{"EndedBySignal", "kill -TERM $$", SIGTERM, "", ""},
                    ExitCase{"ValidMultibyteText", R"(printf '\303\251\360\237\230\200')", 0, "\u00e9\U0001F600", ""},
                    ExitCase{"InvalidByte", R"(printf 'ok\377')", 0, "", ""},
                    ExitCase{"OverlongEncoding", R"(printf '\300\257')", 0, "", ""},
                    ExitCase{"Surrogate", R"(printf '\355\240\200')", 0, "", ""},
                    ExitCase{"BeyondUnicode", R"(printf '\364\220\200\200')", 0, "", ""},
                    ExitCase{"TruncatedSequence", R"(printf '\342\202')", 0, "", ""},
                    ExitCase{"InvalidErrorText", R"(printf 'fine'; printf '\377' >&2)", 0, "fine", ""}),
    [](const auto& info) { return std::string(info.param.name); });

struct TimeoutCase {
    const char* name;
    std::string script;
    double timeout;
    double killGrace;
    std::string expectedOut;
    std::string expectedErr;
};

void PrintTo(const TimeoutCase& row, std::ostream* os) { *os << row.name; }

class BoundedProcessTimeoutTest : public testing::TestWithParam<TimeoutCase> {};

TEST_P(BoundedProcessTimeoutTest, KillsAndReportsTheChild)
{
    const auto& param = GetParam();
    const auto result = shell(param.script, param.timeout, param.killGrace);
    EXPECT_EQ(result.code, BoundedProcess::kTimedOut);
    EXPECT_EQ(result.out, param.expectedOut);
    EXPECT_EQ(result.err, param.expectedErr);
    EXPECT_TRUE(zombieChildren().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BoundedProcessTimeoutTest,
    testing::Values(TimeoutCase{"EndsOnSigterm", "echo partial; exec sleep 30", 0.5, kGrace, "partial\n",
                                "timed out after 0s and was killed"},
                    TimeoutCase{"IgnoresSigterm", "trap '' TERM; exec sleep 30", 3.5, 0.3, "",
                                "timed out after 3s and was killed"}),
    [](const auto& info) { return std::string(info.param.name); });

// No portable child survives SIGKILL, so the signals are withheld instead:
// the child then looks wedged, and is abandoned, yet reaped once it ends.
TEST(BoundedProcessTest, AbandonsAChildThatWillNotDieAndReapsItLater)
{
    std::vector<std::pair<pid_t, int>> signals;
    const auto withhold = [&signals](pid_t pid, int signal) { signals.emplace_back(pid, signal); };

    const auto result = BoundedProcess::run("/bin/sh", {"-c", "exec sleep 30 >/dev/null 2>&1"}, std::nullopt, 0.4,
                                            0.1, withhold);

    EXPECT_EQ(result.code, BoundedProcess::kTimedOut);
    EXPECT_EQ(result.err, "timed out after 0s and could NOT be killed \u2014 "
                          "the child is wedged in the kernel and was abandoned");
    ASSERT_EQ(signals.size(), 2u);
    EXPECT_EQ(signals[0].second, SIGTERM);
    EXPECT_EQ(signals[1].second, SIGKILL);
    EXPECT_EQ(signals[0].first, signals[1].first);

    const pid_t child = signals[0].first;
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    EXPECT_TRUE(reapedSoon(child));
    EXPECT_TRUE(zombieChildren().empty());
}

// The sleep keeps both pipes open after its parent has exited; the runner
// gives up on them after its drain bound and answers with the exit status.
TEST(BoundedProcessTest, GrandchildHoldingThePipesDoesNotHoldTheRunner)
{
    const auto result = shell("sleep 30 & echo $!; exit 0");
    EXPECT_EQ(result.code, 0);
    ASSERT_FALSE(result.out.empty());
    ::kill(std::stoi(result.out), SIGKILL);
}

// A plain file that anyone may read and no one may run, root included.
std::string notExecutableFile()
{
    const auto path = std::filesystem::path(testing::TempDir()) / "orven-not-executable";
    std::ofstream(path) << "#!/bin/sh\nexit 0\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write |
                                           std::filesystem::perms::group_read | std::filesystem::perms::others_read);
    return path.string();
}

struct SpawnFailureCase {
    const char* name;
    std::string (*path)();
    int error;
};

void PrintTo(const SpawnFailureCase& row, std::ostream* os) { *os << row.name; }

class BoundedProcessSpawnFailureTest : public testing::TestWithParam<SpawnFailureCase> {};

TEST_P(BoundedProcessSpawnFailureTest, ReportsTheSystemsReason)
{
    const auto& param = GetParam();
    const auto result = BoundedProcess::run(param.path(), {}, std::nullopt, kGenerous, kGrace);
    EXPECT_EQ(result.code, BoundedProcess::kSpawnFailed);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "spawn failed: " + std::string(std::strerror(param.error)));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BoundedProcessSpawnFailureTest,
    testing::Values(SpawnFailureCase{"Missing", [] { return std::string("/nonexistent/orven-tool"); }, ENOENT},
                    SpawnFailureCase{"NotExecutable", notExecutableFile, EACCES},
                    SpawnFailureCase{"Directory", [] { return std::filesystem::temp_directory_path().string(); },
                                     EACCES}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(BoundedProcessTest, ChildInheritsOnlyItsThreeDescriptors)
{
    // Inheritable on purpose: only the runner stands between them and the
    // child. Input is given, so 0 is a pipe here, to be listed like the rest.
    const int file = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(file, 0);
    ASSERT_EQ(::dup2(file, 100), 100);
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);

    const auto result = BoundedProcess::run("/bin/ls", {"/proc/self/fd"}, std::string("ignored"), kGenerous, kGrace);

    ::close(file);
    ::close(100);
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
    EXPECT_EQ(result.code, 0) << result.err;
    // 3 is the directory ls itself opens to list.
    EXPECT_EQ(lines(result.out), (std::set<std::string>{"0", "1", "2", "3"}));
}

TEST(BoundedProcessTest, ConcurrentRunsKeepTheirOwnChildren)
{
    constexpr int kRuns = 6;
    std::vector<Result> results(kRuns);
    std::vector<std::thread> threads;
    for (int i = 0; i < kRuns; ++i) {
        threads.emplace_back([i, &results] {
            const auto number = std::to_string(i);
            results[i] = BoundedProcess::run("/bin/sh", {"-c", R"(printf %s "$1"; printf %s "$1" >&2; exit "$1")",
                                                         "sh", number},
                                             number, kGenerous, kGrace);
        });
    }
    for (auto& thread : threads) thread.join();
    for (int i = 0; i < kRuns; ++i) {
        EXPECT_EQ(results[i].code, i);
        EXPECT_EQ(results[i].out, std::to_string(i));
        EXPECT_EQ(results[i].err, std::to_string(i));
    }
}

// Makes pidfd_open answer ENOSYS in this thread, as a kernel before 5.3 does.
void denyPidfdOpen()
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        std::perror("seccomp");
        std::_Exit(2);
    }
}

// Without an exit descriptor the runner looks at the child on a schedule;
// the answers must not change. Runs in a child process, which the filter
// dies with.
TEST(BoundedProcessDeathTest, WithoutPidfdTheRunnerLooksAtTheChild)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto check = [] {
        denyPidfdOpen();
        int failures = 0;
        const auto expect = [&failures](bool holds, const char* what) {
            if (!holds) {
                std::fprintf(stderr, "failed: %s\n", what);
                ++failures;
            }
        };
        expect(::syscall(SYS_pidfd_open, ::getpid(), 0) == -1 && errno == ENOSYS, "pidfd_open denied");
        const auto quick = shell("echo hi; exit 7");
        expect(quick.code == 7 && quick.out == "hi\n", "exit status and output");
        const auto echoed = BoundedProcess::run("/bin/cat", {}, kTwoMebibytes, kGenerous, kGrace);
        expect(echoed.code == 0 && echoed.out == kTwoMebibytes, "input echoed");
        const auto slow = shell("exec sleep 30", 0.2, kGrace);
        expect(slow.code == BoundedProcess::kTimedOut && slow.err == "timed out after 0s and was killed", "time-out");
        expect(zombieChildren().empty(), "no zombies");
        std::_Exit(failures == 0 ? 0 : 1);
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(0), "");
}

struct BadDurations {
    const char* name;
    double timeout;
    double killGrace;
};

void PrintTo(const BadDurations& row, std::ostream* os) { *os << row.name; }

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

class BoundedProcessDeathTest : public testing::TestWithParam<BadDurations> {};

TEST_P(BoundedProcessDeathTest, DurationThatIsNoNumberOfSecondsStopsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto& param = GetParam();
    EXPECT_DEATH(BoundedProcess::run("/bin/true", {}, std::nullopt, param.timeout, param.killGrace), "");
}

INSTANTIATE_TEST_SUITE_P(Cases, BoundedProcessDeathTest,
                         testing::Values(BadDurations{"NaN", kNaN, kGrace},
                                         BadDurations{"Infinite", kInfinity, kGrace},
                                         BadDurations{"NegativeInfinite", -kInfinity, kGrace},
                                         BadDurations{"BeyondInt64", 0x1p63, kGrace},
                                         BadDurations{"BelowInt64", -0x1p64, kGrace},
                                         BadDurations{"GraceNaN", 1.0, kNaN}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace orven
