#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <string>
#include <string_view>

#include "Log.h"

namespace orven {
namespace {

// --- Compile-time checking ----------------------------------------------------
//
// A format string is checked when its LogFormat is built, in a consteval
// constructor, so a mismatch fails the build. To show that here without a
// failing build, the same check runs as a template argument inside a concept:
// a check that throws is then not a constant expression, the substitution
// fails, and the concept is false.

template <std::size_t N>
struct FixedFormat {
    char text[N];
    consteval FixedFormat(const char (&format)[N])
    {
        for (std::size_t i = 0; i < N; ++i) text[i] = format[i];
    }
    constexpr std::string_view view() const { return {text, N - 1}; }
};

template <FixedFormat Format, class... Args>
concept compiles = requires {
    typename std::integral_constant<bool, (logformat::check(Format.view(),
                                                            std::array<logformat::ArgKind, sizeof...(Args)>{
                                                                logformat::kindOf<Args>()...}),
                                           true)>;
};

// What the daemon writes.
static_assert(compiles<"Listener resumed on %{public}s", std::string>);
static_assert(compiles<"ORVEN Helper starting (uid=%{public}u)", std::uint32_t>);
static_assert(compiles<"child timed out after %{public}fs and was killed: %{public}s", double, std::string_view>);
static_assert(compiles<"%{bool}d %ld %{public}ld %d %s %f", bool, long, std::int64_t, int, const char*, int>);
static_assert(compiles<"100%% done">);
// Mismatches that must not build.
static_assert(!compiles<"%{public}s", int>);
static_assert(!compiles<"%d", std::string>);
static_assert(!compiles<"%d", double>);
static_assert(!compiles<"%{bool}d", int>);
static_assert(!compiles<"%d", bool>);
static_assert(!compiles<"%s %s", std::string>);
static_assert(!compiles<"%s", std::string, int>);
static_assert(!compiles<"%x", int>);
static_assert(!compiles<"%5d", int>);
static_assert(!compiles<"%{secret}s", std::string>);
static_assert(!compiles<"%{bool}s", bool>);
static_assert(!compiles<"%{public", std::string>);
static_assert(!compiles<"50%">);
static_assert(!compiles<"%s", std::optional<std::string>>);
// And the real constructor accepts a good format in a constant expression.
static_assert(LogFormat<int>("%d").text() == "%d");

// --- Rendering ----------------------------------------------------------------

TEST(Log, RendersEveryConversionTheDaemonUses)
{
    const std::string name = "en0";
    EXPECT_EQ(renderLog("Listener resumed on %{public}s", name), "Listener resumed on en0");
    EXPECT_EQ(renderLog("path %s", "/sbin/pfctl"), "path /sbin/pfctl");
    EXPECT_EQ(renderLog("view %s", std::string_view("utun3")), "view utun3");
    EXPECT_EQ(renderLog("code %d", -1), "code -1");
    EXPECT_EQ(renderLog("uid=%{public}u", std::uint32_t{4294967295u}), "uid=4294967295");
    EXPECT_EQ(renderLog("%ld", std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(renderLog("%{public}ld states", std::int64_t{42}), "42 states");
    EXPECT_EQ(renderLog("%lu", std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
    EXPECT_EQ(renderLog("after %{public}fs", 20.0), "after 20.000000s");
    EXPECT_EQ(renderLog("%f", 0.1234567), "0.123457");
    EXPECT_EQ(renderLog("%f", -2.5f), "-2.500000");
    EXPECT_EQ(renderLog("%f", 3), "3.000000");  // an integer given to %f
    EXPECT_EQ(renderLog("engaged=%{bool}d lifted=%{bool}d", true, false), "engaged=true lifted=false");
    EXPECT_EQ(renderLog("100%% and %d%%", 5), "100% and 5%");
    EXPECT_EQ(renderLog("%{private}s", "kept"), "kept");
    EXPECT_EQ(renderLog("no conversions"), "no conversions");
    EXPECT_EQ(renderLog("Hard Kill ENGAGED \u2014 total blackout, all interfaces"),
              "Hard Kill ENGAGED \u2014 total blackout, all interfaces");
    EXPECT_EQ(renderLog("%s%s", "", "x"), "x");
}

TEST(Log, RendersFloatsOfAnySizeInFull)
{
    for (const double value : {1e300, -1.7976931348623157e308, 123456789012345678901234567890.0}) {
        char expected[400];
        std::snprintf(expected, sizeof expected, "%f", value);
        EXPECT_EQ(renderLog("%f", value), expected);
    }
}

// --- Sinks --------------------------------------------------------------------

TEST(Log, RecordingSinkKeepsEveryRecord)
{
    RecordingLogSink sink;
    const Logger log(sink, "HardKill");
    log.debug("d %d", 1);
    log.info("i %s", "x");
    log.notice("Hard Kill engage failed: %{public}s", "pf is busy");
    log.error("e %{bool}d", true);

    const auto records = sink.records();
    ASSERT_EQ(records.size(), 4u);
    const LogLevel levels[] = {LogLevel::debug, LogLevel::info, LogLevel::defaultLevel, LogLevel::error};
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].subsystem, "test.orven.app.helper");
        EXPECT_EQ(records[i].category, "HardKill");
        EXPECT_EQ(records[i].level, levels[i]);
    }
    EXPECT_EQ(sink.messages(), (std::vector<std::string>{"d 1", "i x", "Hard Kill engage failed: pf is busy", "e true"}));
    EXPECT_TRUE(sink.contains("Hard Kill engage failed: pf is busy"));
    EXPECT_FALSE(sink.contains("Hard Kill engage failed"));
    EXPECT_TRUE(sink.containsFragment("engage failed"));
    EXPECT_FALSE(sink.containsFragment("engaged"));

    sink.clear();
    EXPECT_TRUE(sink.records().empty());
    EXPECT_FALSE(sink.containsFragment(""));
}

TEST(Log, LevelNames)
{
    EXPECT_EQ(logLevelName(LogLevel::debug), "Debug");
    EXPECT_EQ(logLevelName(LogLevel::info), "Info");
    EXPECT_EQ(logLevelName(LogLevel::defaultLevel), "Default");
    EXPECT_EQ(logLevelName(LogLevel::error), "Error");
}

// --- The stderr sink -----------------------------------------------------------

// What the stderr sink writes for one record, from the level on.
std::string stderrLine(const Logger& logger, const std::function<void(const Logger&)>& emit, std::FILE* file)
{
    emit(logger);
    std::fflush(file);
    std::rewind(file);
    std::string written;
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, file)) > 0;) written.append(chunk, n);
    const auto level = written.find("Error");
    return level == std::string::npos ? written : written.substr(level);
}

struct EscapeCase {
    const char* name;
    std::string argument;
    std::string shown;
};

class StderrArgument : public ::testing::TestWithParam<EscapeCase> {};

TEST_P(StderrArgument, IsEscapedAndTheFormatKept)
{
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    StderrLogSink sink(file);
    const Logger logger(sink, "Listener");
    const auto line = stderrLine(
        logger, [&](const Logger& log) { log.error("rejected\t%{public}s (%{public}d)", GetParam().argument, 7); },
        file);
    std::fclose(file);
    // The format's own tab stays; only the argument is escaped.
    EXPECT_EQ(line, "Error   [test.orven.app.helper:Listener] rejected\t" + GetParam().shown + " (7)\n");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StderrArgument,
    ::testing::Values(
        EscapeCase{"Plain", "en0 é ✓", "en0 é ✓"},
        EscapeCase{"ForgedLine", "en0\n2026-11-24 Default [x:HardKill] Hard Kill DISENGAGED and VERIFIED",
                   "en0\\n2026-11-24 Default [x:HardKill] Hard Kill DISENGAGED and VERIFIED"},
        EscapeCase{"NUL", std::string("cut\0here", 8), "cut\\u{0}here"},
        EscapeCase{"CRLFAndTab", "a\r\n\tb", "a\\r\\n\\tb"},
        EscapeCase{"OtherNewlines", "v\vf\f\u0085\u2028\u2029", "v\\u{b}f\\u{c}\\u{85}\\u{2028}\\u{2029}"},
        EscapeCase{"FormatCharacters", "\u202Een0\u200B\uFEFF", "\\u{202e}en0\\u{200b}\\u{feff}"},
        EscapeCase{"DeleteAndEscape", "\x7f\x1b[31m", "\\u{7f}\\u{1b}[31m"},
        EscapeCase{"Backslash", "a\\nb", "a\\\\nb"},
        EscapeCase{"NotUTF8", "\xff\xc3(", "\\x{ff}\\x{c3}("}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace orven
