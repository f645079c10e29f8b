// The don't-fragment ping, the gateway round-trip median and the IKEv2 log
// read, against a simulated Mac: validation, the exact tool calls and
// budgets, and what each tool outcome is answered with.

#include <gtest/gtest.h>

#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <limits>
#include <thread>

#include "Support/HardKillFixture.h"
#include "Support/SimulatedMac.h"
#include "Text.h"

namespace orven {
namespace {

using testing::SimulatedMac;

// A reply answered on another thread, waited for.
template <class... Args>
class AsyncCapture {
public:
    Reply<Args...> reply()
    {
        return Reply<Args...>([this](Args... values) {
            std::lock_guard lock(mutex_);
            values_.emplace(std::move(values)...);
            ++count_;
            answered_.notify_all();
        });
    }
    std::tuple<Args...> wait()
    {
        std::unique_lock lock(mutex_);
        answered_.wait_for(lock, std::chrono::seconds(60), [this] { return count_ > 0; });
        EXPECT_EQ(count_, 1);
        return values_.value_or(std::tuple<Args...>{});
    }

private:
    std::mutex mutex_;
    std::condition_variable answered_;
    std::optional<std::tuple<Args...>> values_;
    int count_ = 0;
};
using FitCapture = AsyncCapture<bool, OptionalText>;
using MedianCapture = AsyncCapture<double, OptionalText>;

// Records each tool run with its time-out, and answers the wall clock from
// a fixed time when one is set.
class RecordingHost final : public ForwardingHost {
public:
    struct Run {
        std::string path;
        std::vector<std::string> arguments;
        double timeout;
    };
    using ForwardingHost::ForwardingHost;

    BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& standardInput, double timeout,
                               double killGrace) override
    {
        {
            std::lock_guard lock(mutex_);
            runs_.push_back({std::string(macPath), arguments, timeout});
        }
        return ForwardingHost::run(macPath, arguments, standardInput, timeout, killGrace);
    }
    WallClock::time_point wallNow() const override { return fixedNow.value_or(ForwardingHost::wallNow()); }

    std::vector<Run> runs() const
    {
        std::lock_guard lock(mutex_);
        return runs_;
    }
    std::optional<WallClock::time_point> fixedNow;

private:
    mutable std::mutex mutex_;
    std::vector<Run> runs_;
};

class LinkDiagnostics : public ::testing::Test {
protected:
    SimulatedMac mac;
    RecordingLogSink log;
    SimulatedMacHost simulatedHost{mac.root(), log};
    RecordingHost host{simulatedHost};
    DaemonContext context{host};
    HelperService service{context, 501};

    void macsim(const std::vector<std::string>& arguments)
    {
        const auto result = mac.macsim("set", arguments);
        ASSERT_EQ(result.code, 0) << result.err;
    }
    std::tuple<bool, OptionalText> dfPing(const std::string& target, std::int64_t payload, const std::string& itf,
                                          std::int64_t timeout)
    {
        FitCapture capture;
        service.pingWithDontFragment(target, payload, itf, timeout, capture.reply());
        return capture.wait();
    }
    std::tuple<double, OptionalText> gatewayPing(const std::string& target, std::int64_t count, std::int64_t spacing,
                                                 const std::string& itf, std::int64_t timeout)
    {
        MedianCapture capture;
        service.gatewayPingRTT(target, count, spacing, itf, timeout, capture.reply());
        return capture.wait();
    }
    std::tuple<OptionalText, OptionalText> readLog(double since, const std::string& server)
    {
        testing::ReplyCapture<OptionalText, OptionalText> capture;
        service.readIKEv2DiagnosticLog(since, server, capture.reply());
        EXPECT_EQ(capture.count(), 1);
        return capture.answered() ? capture.values() : std::tuple<OptionalText, OptionalText>{};
    }
    // Every ping answers at once with "no reply", so boundary cases cost nothing.
    void pingsAnswerAtOnce()
    {
        mac.addFault({"--tool", "ping", "--exit", "2", "--times", "0"});
        mac.addFault({"--tool", "ping6", "--exit", "2", "--times", "0"});
    }
    RecordingHost::Run onlyRun() const
    {
        const auto runs = host.runs();
        EXPECT_EQ(runs.size(), 1u);
        return runs.empty() ? RecordingHost::Run{} : runs.front();
    }
};

// --- Validation --------------------------------------------------------------

struct DFCase {
    const char* name;
    std::string target;
    std::int64_t payload;
    std::string interface;
    std::int64_t timeout;
    OptionalText refusal;  // absent: accepted
};

class DFPingValidation : public LinkDiagnostics, public ::testing::WithParamInterface<DFCase> {};

TEST_P(DFPingValidation, RefusesOutOfBoundsAndAcceptsTheBounds)
{
    pingsAnswerAtOnce();
    const auto& c = GetParam();
    const auto [fits, error] = dfPing(c.target, c.payload, c.interface, c.timeout);
    EXPECT_FALSE(fits);
    EXPECT_EQ(error, c.refusal);
    EXPECT_EQ(host.runs().size(), c.refusal ? 0u : 1u);
}

const std::string k64(64, 'a');
const std::string k64Multibyte = [] {
    std::string s;
    for (int i = 0; i < 64; ++i) s += "\xC3\xA9";  // é: 64 characters, 128 bytes
    return s;
}();

INSTANTIATE_TEST_SUITE_P(
    Cases, DFPingValidation,
    ::testing::Values(
        DFCase{"EmptyTarget", "", 56, "en0", 1000, "Invalid target"},
        DFCase{"Target64", k64, 56, "en0", 1000, std::nullopt},
        DFCase{"Target64Multibyte", k64Multibyte, 56, "en0", 1000, std::nullopt},
        DFCase{"Target65", k64 + "a", 56, "en0", 1000, "Invalid target"},
        DFCase{"TargetCheckedFirst", "", -1, "", 0, "Invalid target"},
        DFCase{"PayloadZero", "192.0.2.1", 0, "en0", 1000, std::nullopt},
        DFCase{"Payload8000", "192.0.2.1", 8000, "en0", 1000, std::nullopt},
        DFCase{"Payload8001", "192.0.2.1", 8001, "en0", 1000, "payloadBytes out of range"},
        DFCase{"PayloadNegative", "192.0.2.1", -1, "en0", 1000, "payloadBytes out of range"},
        DFCase{"PayloadMin", "192.0.2.1", std::numeric_limits<std::int64_t>::min(), "en0", 1000,
               "payloadBytes out of range"},
        DFCase{"InterfaceEmpty", "192.0.2.1", 56, "", 1000, "Invalid boundInterface"},
        DFCase{"InterfaceSlash", "192.0.2.1", 56, "en0/x", 1000, "Invalid boundInterface"},
        DFCase{"Interface65", "192.0.2.1", 56, std::string(65, 'e'), 1000, "Invalid boundInterface"},
        DFCase{"Timeout99", "192.0.2.1", 56, "en0", 99, "timeoutMillis out of range (100…10000)"},
        DFCase{"Timeout100", "192.0.2.1", 56, "en0", 100, std::nullopt},
        DFCase{"Timeout10000", "192.0.2.1", 56, "en0", 10000, std::nullopt},
        DFCase{"Timeout10001", "192.0.2.1", 56, "en0", 10001, "timeoutMillis out of range (100…10000)"},
        DFCase{"TimeoutNegative", "192.0.2.1", 56, "en0", -100, "timeoutMillis out of range (100…10000)"}),
    [](const auto& info) { return std::string(info.param.name); });

struct GatewayCase {
    const char* name;
    std::string target;
    std::int64_t count, spacing;
    std::string interface;
    std::int64_t timeout;
    OptionalText refusal;
};

class GatewayPingValidation : public LinkDiagnostics, public ::testing::WithParamInterface<GatewayCase> {};

TEST_P(GatewayPingValidation, RefusesOutOfBoundsAndAcceptsTheBounds)
{
    pingsAnswerAtOnce();
    const auto& c = GetParam();
    const auto [median, error] = gatewayPing(c.target, c.count, c.spacing, c.interface, c.timeout);
    EXPECT_EQ(median, -1.0);
    EXPECT_EQ(error, c.refusal);
    EXPECT_EQ(host.runs().size(), c.refusal ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, GatewayPingValidation,
    ::testing::Values(
        GatewayCase{"EmptyTarget", "", 3, 200, "en0", 1000, "Invalid target"},
        GatewayCase{"Target64", k64, 3, 200, "en0", 1000, std::nullopt},
        GatewayCase{"Target65", k64 + "a", 3, 200, "en0", 1000, "Invalid target"},
        GatewayCase{"Count1", "192.168.1.1", 1, 200, "en0", 1000, "count out of range (2…12)"},
        GatewayCase{"Count2", "192.168.1.1", 2, 200, "en0", 1000, std::nullopt},
        GatewayCase{"Count12", "192.168.1.1", 12, 200, "en0", 1000, std::nullopt},
        GatewayCase{"Count13", "192.168.1.1", 13, 200, "en0", 1000, "count out of range (2…12)"},
        GatewayCase{"CountNegative", "192.168.1.1", -3, 200, "en0", 1000, "count out of range (2…12)"},
        GatewayCase{"Spacing49", "192.168.1.1", 3, 49, "en0", 1000, "spacingMillis out of range (50…2000)"},
        GatewayCase{"Spacing50", "192.168.1.1", 3, 50, "en0", 1000, std::nullopt},
        GatewayCase{"Spacing2000", "192.168.1.1", 3, 2000, "en0", 1000, std::nullopt},
        GatewayCase{"Spacing2001", "192.168.1.1", 3, 2001, "en0", 1000, "spacingMillis out of range (50…2000)"},
        GatewayCase{"InterfaceBad", "192.168.1.1", 3, 200, "en0;x", 1000, "Invalid boundInterface"},
        GatewayCase{"Timeout99", "192.168.1.1", 3, 200, "en0", 99, "timeoutMillis out of range (100…10000)"},
        GatewayCase{"Timeout100", "192.168.1.1", 3, 200, "en0", 100, std::nullopt},
        GatewayCase{"Timeout10000", "192.168.1.1", 3, 200, "en0", 10000, std::nullopt},
        GatewayCase{"Timeout10001", "192.168.1.1", 3, 200, "en0", 10001, "timeoutMillis out of range (100…10000)"}),
    [](const auto& info) { return std::string(info.param.name); });

// --- Exact calls and budgets -------------------------------------------------

TEST_F(LinkDiagnostics, DFPingRunsTheToolOfTheTargetsFamilyWithTheExactArguments)
{
    pingsAnswerAtOnce();
    dfPing("fe80::1", 1452, "en0", 2000);
    dfPing("192.0.2.1", 1472, "en0", 2000);
    const auto runs = host.runs();
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0].path, "/sbin/ping6");
    EXPECT_EQ(runs[0].arguments,
              (std::vector<std::string>{"-c", "1", "-W", "2000", "-s", "1452", "-D", "-I", "en0", "fe80::1"}));
    EXPECT_EQ(runs[1].path, "/sbin/ping");
    EXPECT_EQ(runs[1].arguments,
              (std::vector<std::string>{"-c", "1", "-W", "2000", "-s", "1472", "-D", "-b", "en0", "192.0.2.1"}));
    EXPECT_EQ(runs[0].timeout, 7.0);
    EXPECT_EQ(runs[1].timeout, 7.0);
}

TEST_F(LinkDiagnostics, GatewayPingRunsTheToolOfTheTargetsFamilyWithTheExactArguments)
{
    pingsAnswerAtOnce();
    gatewayPing("fe80::1", 12, 2000, "en0", 10000);
    gatewayPing("192.168.1.1", 5, 50, "en0", 100);
    gatewayPing("192.168.1.1", 3, 200, "bridge0", 1500);
    const auto runs = host.runs();
    ASSERT_EQ(runs.size(), 3u);
    EXPECT_EQ(runs[0].path, "/sbin/ping6");
    EXPECT_EQ(runs[0].arguments,
              (std::vector<std::string>{"-c", "12", "-i", "2.00", "-W", "10000", "-I", "en0", "fe80::1"}));
    EXPECT_EQ(runs[0].timeout, 39.0);
    EXPECT_EQ(runs[1].path, "/sbin/ping");
    EXPECT_EQ(runs[1].arguments,
              (std::vector<std::string>{"-c", "5", "-i", "0.05", "-W", "100", "-b", "en0", "192.168.1.1"}));
    EXPECT_DOUBLE_EQ(runs[1].timeout, 5.35);
    EXPECT_EQ(runs[2].arguments,
              (std::vector<std::string>{"-c", "3", "-i", "0.20", "-W", "1500", "-b", "bridge0", "192.168.1.1"}));
    EXPECT_DOUBLE_EQ(runs[2].timeout, 7.1);
}

// --- Outcomes ----------------------------------------------------------------

TEST_F(LinkDiagnostics, DFPingFitsUpToThePathMTUOfTheBoundInterface)
{
    macsim({"target", "192.168.1.1", "mtu", "1400", "via", "en0"});
    // 1372 + 28 = 1400 fits; one byte more needs fragmenting.
    EXPECT_EQ(dfPing("192.168.1.1", 1372, "en0", 500), std::make_tuple(true, OptionalText{}));
    EXPECT_EQ(dfPing("192.168.1.1", 1373, "en0", 500), std::make_tuple(false, OptionalText{}));
    // Larger than the interface itself: the send fails.
    EXPECT_EQ(dfPing("192.168.1.1", 1473, "en0", 500), std::make_tuple(false, OptionalText{}));
    EXPECT_TRUE(log.contains("ping start: target=192.168.1.1 payload=1372 boundIf=en0"));
    EXPECT_TRUE(log.contains("ping result: target=192.168.1.1 payload=1372 success=true"));
    EXPECT_TRUE(log.contains("ping result: target=192.168.1.1 payload=1373 success=false"));
    for (const auto& record : log.records()) {
        if (text::startsWith(record.message, "ping ")) {
            EXPECT_EQ(record.category, "DFPing");
        }
    }
}

TEST_F(LinkDiagnostics, GatewayMedianLeavesOutTheColdReplyOnlyBeyondTwo)
{
    macsim({"target", "192.168.1.1", "rtt", "30.1,2.0,2.4"});
    // Warm replies 2.0 and 2.4.
    EXPECT_EQ(gatewayPing("192.168.1.1", 3, 50, "en0", 500), std::make_tuple(2.2, OptionalText{}));
    EXPECT_TRUE(log.contains("gateway ping 192.168.1.1 via en0: warm-median=2.2 ms"));
    // With two echoes both count: (30.1 + 2.0) / 2.
    EXPECT_EQ(gatewayPing("192.168.1.1", 2, 50, "en0", 500), std::make_tuple(16.05, OptionalText{}));
}

TEST_F(LinkDiagnostics, ATrainKilledAtItsBudgetStillAnswersTheMedianOfWhatItPrinted)
{
    context.pingSpawnSlackSeconds = 0;
    macsim({"target", "192.168.1.1", "rtt", "30.1,2.0,2.4,2.2"});
    // The last echo is lost and the tool then waits far past the budget
    // (5 × 0.05 + 0.1 = 0.35 s).
    macsim({"target", "192.168.1.1", "loss", "4"});
    macsim({"probe-delay", "20000"});
    const auto [median, error] = gatewayPing("192.168.1.1", 5, 50, "en0", 100);
    EXPECT_DOUBLE_EQ(median, 2.2);
    EXPECT_EQ(error, std::nullopt);
    EXPECT_TRUE(log.contains(
        "gateway ping exceeded its 0.350000s budget and was killed: target=192.168.1.1 via en0"))
        << text::join(log.messages(), "\n");
}

TEST_F(LinkDiagnostics, ADFPingKilledAtItsBudgetIsANonFit)
{
    context.pingSpawnSlackSeconds = 0;
    mac.addFault({"--tool", "ping", "--hang"});
    EXPECT_EQ(dfPing("192.168.1.1", 100, "en0", 100), std::make_tuple(false, OptionalText{}));
    EXPECT_TRUE(log.contains("ping exceeded its 0.100000s budget and was killed — reported as a non-fit: "
                             "target=192.168.1.1 payload=100"));
    EXPECT_TRUE(log.contains("ping result: target=192.168.1.1 payload=100 success=false"));
}

TEST_F(LinkDiagnostics, ATargetThatNeverAnswersGivesNoWarmReply)
{
    macsim({"target", "192.168.1.1", "down"});
    EXPECT_EQ(gatewayPing("192.168.1.1", 3, 50, "en0", 100), std::make_tuple(-1.0, OptionalText{}));
    EXPECT_TRUE(log.contains("gateway ping 192.168.1.1 via en0: no warm reply"));
}

TEST_F(LinkDiagnostics, APingThatCannotStartIsANonFitAndNoMeasurement)
{
    std::filesystem::remove(mac.path("/sbin/ping"));
    EXPECT_EQ(dfPing("192.168.1.1", 100, "en0", 100), std::make_tuple(false, OptionalText{}));
    EXPECT_EQ(gatewayPing("192.168.1.1", 3, 50, "en0", 100), std::make_tuple(-1.0, OptionalText{}));
    EXPECT_TRUE(log.containsFragment("ping subprocess failed to launch: spawn failed: "));
    EXPECT_TRUE(log.containsFragment("gateway ping subprocess failed to launch: spawn failed: "));
}

TEST_F(LinkDiagnostics, OnAMacsOwnPing6TheIPv6DiagnosticsNeverMeasure)
{
    // macOS's ping6 reads "-W 2000" as a flag and a hop, and fails.
    EXPECT_EQ(dfPing("fe80::1", 100, "en0", 2000), std::make_tuple(false, OptionalText{}));
    EXPECT_EQ(gatewayPing("fe80::1", 3, 50, "en0", 2000), std::make_tuple(-1.0, OptionalText{}));
    // With the wait-time option assumed, the same requests measure.
    macsim({"ping6", "assumed"});
    EXPECT_EQ(dfPing("fe80::1", 100, "en0", 2000), std::make_tuple(true, OptionalText{}));
    const auto [median, error] = gatewayPing("fe80::1", 3, 50, "en0", 2000);
    EXPECT_DOUBLE_EQ(median, 2.1);  // warm replies 2.2 and 2.0
}

TEST_F(LinkDiagnostics, AFullPoolRefusesAtOnceAndTheQueuedRequestsAreStillAnswered)
{
    // Fill every thread and queue slot with work that waits for a gate.
    std::mutex gateMutex;
    std::condition_variable gateChanged;
    bool open = false;
    auto waitAtGate = [&] {
        std::unique_lock lock(gateMutex);
        gateChanged.wait(lock, [&] { return open; });
    };
    std::size_t held = 0;
    while (context.backgroundWork.submit(waitAtGate)) ++held;
    ASSERT_GT(held, 0u);

    testing::ReplyCapture<double, OptionalText> refused;
    service.gatewayPingRTT("192.168.1.1", 2, 50, "en0", 100, refused.reply());
    ASSERT_EQ(refused.count(), 1);  // answered at once, on the caller's thread
    EXPECT_EQ(refused.values(),
              std::make_tuple(-1.0, OptionalText{"The helper is already running as many network diagnostics as it "
                                                 "can; try again in a moment."}));
    testing::ActionCapture refusedFit;
    service.pingWithDontFragment("192.168.1.1", 100, "en0", 100, refusedFit.reply());
    ASSERT_EQ(refusedFit.count(), 1);
    EXPECT_FALSE(std::get<0>(refusedFit.values()));
    EXPECT_TRUE(host.runs().empty());

    {
        std::lock_guard lock(gateMutex);
        open = true;
    }
    gateChanged.notify_all();
    // The pool takes work again once the held jobs drain.
    MedianCapture later;
    while (!context.backgroundWork.submit([] {})) std::this_thread::yield();
    service.gatewayPingRTT("192.168.1.1", 2, 50, "en0", 100, later.reply());
    EXPECT_GT(std::get<0>(later.wait()), 0.0);
}

class LinkDiagnosticsUnderBlackout : public testing::HardKillFixture {};

TEST_F(LinkDiagnosticsUnderBlackout, EveryPingIsANonFitWithoutMedian)
{
    ASSERT_EQ(daemon.mac.macsim("set", {"ping6", "assumed"}).code, 0);
    auto service = daemon.service(501);
    auto df = [&](const std::string& target) {
        FitCapture capture;
        service.pingWithDontFragment(target, 100, "en0", 200, capture.reply());
        return std::get<0>(capture.wait());
    };
    auto median = [&](const std::string& target) {
        MedianCapture capture;
        service.gatewayPingRTT(target, 3, 50, "en0", 200, capture.reply());
        return std::get<0>(capture.wait());
    };
    const std::vector<std::string> targets{"192.168.1.1", "1.1.1.1", "fe80::1", "2606:4700:4700::1111"};
    for (const auto& target : targets) {
        EXPECT_TRUE(df(target)) << target;
        EXPECT_GT(median(target), 0.0) << target;
    }
    ASSERT_TRUE(std::get<0>(engage().values()));
    for (const auto& target : targets) {
        EXPECT_FALSE(df(target)) << target;
        EXPECT_EQ(median(target), -1.0) << target;
    }
    EXPECT_TRUE(daemon.log.contains("gateway ping 192.168.1.1 via en0: no warm reply"));
}

// --- IKEv2 log ---------------------------------------------------------------

TEST_F(LinkDiagnostics, ServerAddressCheckBoundaries)
{
    const struct {
        std::string address;
        bool valid;
    } cases[] = {
        {"vpn.example.com", true},
        {"2001:db8::1", true},
        {"edge_01-a.example", true},
        {"\xD1\x81\xD0\xB5\xD1\x80\xD0\xB2\xD0\xB5\xD1\x80.example", true},  // Cyrillic letters
        {std::string(255, 'a'), true},
        {std::string(256, 'a'), false},
        {"", false},
        {"vpn example", false},
        {"vpn/example", false},
        {"vpn\nexample", false},
        {"vpn\xF0\x9F\x98\x80", false},  // an emoji is no letter
        {"vpn\xC3", false},              // not UTF-8
    };
    for (const auto& c : cases) EXPECT_EQ(HelperService::isValidServerAddress(c.address), c.valid) << c.address;
    EXPECT_EQ(readLog(0, "vpn example"), std::make_tuple(OptionalText{}, OptionalText{"Invalid server address"}));
    EXPECT_TRUE(host.runs().empty());
}

TEST_F(LinkDiagnostics, LookBackIsClampedAndPassedWithItsMargin)
{
    const double now = 1'700'000'000.0;
    host.fixedNow = Host::WallClock::time_point(std::chrono::seconds(1'700'000'000));
    const struct {
        double since;
        const char* argument;
    } cases[] = {
        {0, "305s"},         {now - 300.5, "305s"}, {now - 299.5, "305s"}, {now - 65, "70s"},
        {now - 64.2, "70s"}, {now - 0.2, "6s"},     {now, "6s"},           {now + 3600, "6s"},
        {std::nan(""), "305s"}, {-std::numeric_limits<double>::infinity(), "305s"},
        {std::numeric_limits<double>::infinity(), "6s"},
    };
    for (const auto& c : cases) readLog(c.since, "vpn.example.com");
    const auto runs = host.runs();
    ASSERT_EQ(runs.size(), std::size(cases));
    for (std::size_t i = 0; i < runs.size(); ++i) {
        EXPECT_EQ(runs[i].path, "/usr/bin/log");
        EXPECT_EQ(runs[i].arguments,
                  (std::vector<std::string>{"show", "--last", cases[i].argument, "--info", "--debug", "--predicate",
                                            "process == \"NEIKEv2Provider\""}))
            << "since " << cases[i].since;
        EXPECT_EQ(runs[i].timeout, 30.0);
    }
}

TEST_F(LinkDiagnostics, FilterKeepsTheTellingLinesInOrder)
{
    const std::string output =
        "Filtering the log data using \"process == \"NEIKEv2Provider\"\"\n"
        "Timestamp                       Thread     Type        Activity             PID    TTL  \n"
        "2026-03-12 09:14:22.301474-0700 0x1a2b3c   Default     0x0                  412    0    NEIKEv2Provider: "
        "[com.apple.networkextension:IKEv2] Tunnel Status changed to connecting\n"
        "2026-03-12 09:14:22.302000-0700 0x1a2b3c   Default     0x0                  412    0    NEIKEv2Provider: "
        "stateChanged without spaces\n"
        "2026-03-12 09:14:22.303000-0700 0x1a2b3c   Default     0x0                  412    0    NEIKEv2Provider: "
        "IKE SA state Connecting\n"
        "\n"
        "2026-03-12 09:14:22.304000-0700 0x1a2b3c   Info        0x0                  412    0    NEIKEv2Provider: "
        "resolving vpn.example.com\n"
        "2026-03-12 09:14:22.311002-0700 0x1a2b3c   Error       0x0                  412    0    NEIKEv2Provider: "
        "Error Domain=NEIKEv2ProtocolErrorDomain Code=7 \"Authentication failed\"\n"
        "\tcontinuation line of a multi-line message\n"
        "2026-03-12 09:14:22.312000-0700 0x1a2b3c   Default     0x0                  412    0    NEIKEv2Provider: "
        "Completed connection to server\n"
        "2026-03-12 09:14:22.313000-0700 0x1a2b3c   Default     0x0                  412    0    NEIKEv2Provider: "
        "VPN.EXAMPLE.COM in capitals\n"
        "------------------------------------------------------------------------------------------------------------"
        "--------\n"
        "Log      - Default:          5, Info:                1, Debug:             0, Error:          1, Fault:     "
        "     0\n";
    const auto kept = text::splitAtLineFeed(HelperService::filterIKEv2DiagnosticLines(output, "vpn.example.com"), true);
    ASSERT_EQ(kept.size(), 5u);
    EXPECT_NE(kept[0].find("Tunnel Status changed"), std::string::npos);
    EXPECT_NE(kept[1].find("IKE SA state Connecting"), std::string::npos);
    EXPECT_NE(kept[2].find("resolving vpn.example.com"), std::string::npos);
    EXPECT_NE(kept[3].find("NEIKEv2ProtocolErrorDomain"), std::string::npos);
    EXPECT_NE(kept[4].find("Completed connection"), std::string::npos);
    EXPECT_EQ(HelperService::filterIKEv2DiagnosticLines("", "vpn.example.com"), "");
}

TEST_F(LinkDiagnostics, FilterCapsAtItsLengthInCharactersOnlyWhenTheBytesExceedIt)
{
    const std::string e = "\xC3\xA9";  // é, two bytes
    auto line = [&](std::size_t characters) {
        std::string text = "Tunnel Status ";
        for (std::size_t i = text.size(); i < characters; ++i) text += e;
        return text;
    };
    // 200,000 characters, about 400,000 bytes: over the byte limit, under
    // the character count that is kept, so nothing is lost.
    const std::string under = line(100000) + "\n" + line(100000 - 1);
    EXPECT_EQ(HelperService::filterIKEv2DiagnosticLines(under, "x"), under);
    // 300,000 characters: the first 262,144 are kept, whole characters.
    const std::string over = line(150000) + "\n" + line(150000 - 1);
    const auto capped = HelperService::filterIKEv2DiagnosticLines(over, "x");
    EXPECT_EQ(text::scalarCount(capped), 262144u);
    EXPECT_TRUE(text::isValidUTF8(capped));
    EXPECT_TRUE(text::startsWith(over, capped));
    // Plain ASCII just over the limit.
    const std::string ascii = std::string(262140, 'a') + " state " + "tail";
    EXPECT_EQ(HelperService::filterIKEv2DiagnosticLines(ascii, "x"), ascii.substr(0, 262144));
}

TEST_F(LinkDiagnostics, LogLinesComeFromTheLookBackAndThePredicate)
{
    const auto add = [&](const std::string& process, const std::string& time, const std::string& message) {
        const auto result = mac.macsim("log", {"add", "--process", process, "--time", time, "--message", message});
        ASSERT_EQ(result.code, 0) << result.err;
    };
    add("NEIKEv2Provider", "now-100", "IKE SA state Dead (before the look-back)");
    add("NEIKEv2Provider", "now-30", "Tunnel Status connecting");
    add("nesessionmanager", "now-20", "Tunnel Status of another process");
    add("NEIKEv2Provider", "now-10", "sending to vpn.example.com");
    add("NEIKEv2Provider", "now-5", "stateChanged");
    const auto [text, error] =
        readLog(std::chrono::duration<double>(Host::WallClock::now().time_since_epoch()).count() - 40,
                "vpn.example.com");
    ASSERT_EQ(error, std::nullopt);
    ASSERT_TRUE(text);
    const auto lines = text::splitAtLineFeed(*text, true);
    ASSERT_EQ(lines.size(), 2u) << *text;
    EXPECT_TRUE(text::contains(lines[0], "NEIKEv2Provider: Tunnel Status connecting"));
    EXPECT_TRUE(text::contains(lines[1], "NEIKEv2Provider: sending to vpn.example.com"));
}

TEST_F(LinkDiagnostics, AFailedLogToolIsReportedWithTheFirst200CharactersOfItsError)
{
    std::string longError;
    for (int i = 0; i < 300; ++i) longError += "\xC3\xA9";
    mac.addFault({"--tool", "log", "--exit", "64", "--stderr", longError});
    const auto [text, error] = readLog(0, "vpn.example.com");
    EXPECT_EQ(text, std::nullopt);
    std::string first200;
    for (int i = 0; i < 200; ++i) first200 += "\xC3\xA9";
    EXPECT_EQ(error, "log show exited 64: " + first200);

    std::filesystem::remove(mac.path("/usr/bin/log"));
    const auto [noText, launch] = readLog(0, "vpn.example.com");
    EXPECT_EQ(noText, std::nullopt);
    ASSERT_TRUE(launch);
    EXPECT_TRUE(text::startsWith(*launch, "log show exited -1: spawn failed: ")) << *launch;
}

TEST_F(LinkDiagnostics, SimulatedLogToolRefusesABadPredicate)
{
    const auto result = mac.tool("/usr/bin/log", {"show", "--last", "5s", "--predicate", "substructure == \"x\""});
    EXPECT_EQ(result.code, 64);
    EXPECT_EQ(result.err, "log: invalid predicate:\nno such field: substructure\n");
    EXPECT_EQ(mac.tool("/usr/bin/log", {"show", "--last", "soon"}).code, 64);
}

} // namespace
} // namespace orven
