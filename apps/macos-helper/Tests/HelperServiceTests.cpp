#include <gtest/gtest.h>

#include "HelperService.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using testing::ActionCapture;
using testing::ReplyCapture;
using testing::TemporaryFolder;

// A host over a bare folder whose tools are shell scripts.
struct ScriptedHost {
    TemporaryFolder folder;
    RecordingLogSink log;
    SimulatedMacHost host{folder.path(), log};
    DaemonContext context{host};
};

TEST(HelperService, PingRepliesWithTheVersionAndTouchesNothing)
{
    ScriptedHost fixture;
    HelperService service(fixture.context, 501);
    ReplyCapture<std::string> capture;
    service.ping(capture.reply());
    ASSERT_EQ(capture.count(), 1);
    EXPECT_EQ(capture.get<0>(), "ORVEN Helper 2.10.0");
    EXPECT_TRUE(fixture.log.records().empty());
}

TEST(HelperService, KeepsThePeerUID)
{
    ScriptedHost fixture;
    EXPECT_EQ(HelperService(fixture.context, 502).peerUID(), 502u);
}

struct NetworksetupCase {
    const char* name;
    const char* script;
    std::string output;
    std::optional<std::string> error;
};
void PrintTo(const NetworksetupCase& c, std::ostream* os) { *os << c.name; }

class RunNetworksetup : public ::testing::TestWithParam<NetworksetupCase> {};

TEST_P(RunNetworksetup, ReportsAsTheToolAnswered)
{
    ScriptedHost fixture;
    fixture.folder.writeScript("usr/sbin/networksetup", GetParam().script);
    const auto outcome = HelperService::runNetworksetup(fixture.context, {"-listallnetworkservices"});
    EXPECT_EQ(outcome.output, GetParam().output);
    EXPECT_EQ(outcome.error, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RunNetworksetup,
    ::testing::Values(
        NetworksetupCase{"TrimsOutput", "printf '\\n  Wi-Fi\\nEthernet \\n\\n'", "Wi-Fi\nEthernet", std::nullopt},
        NetworksetupCase{"EchoesArguments", "echo \"$@\"", "-listallnetworkservices", std::nullopt},
        NetworksetupCase{"FailureWithErrorText", "echo ' nope ' >&2; exit 4", "", "networksetup exited 4: nope"},
        NetworksetupCase{"FailureWithoutErrorText", "echo 'only stdout'; exit 4", "", "networksetup exited 4"},
        NetworksetupCase{"OwnExit124", "echo 'slow' >&2; exit 124", "", "networksetup exited 124: slow"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RunNetworksetupStart, MissingToolCannotBeStarted)
{
    ScriptedHost fixture;
    const auto outcome = HelperService::runNetworksetup(fixture.context, {});
    EXPECT_EQ(outcome.output, "");
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->rfind("networksetup could not be started — spawn failed: ", 0), 0u) << *outcome.error;
}

TEST(RunProcess, LogsATimeOutOnTheClassWideLogger)
{
    ScriptedHost fixture;
    fixture.folder.writeScript("usr/bin/stall", "trap '' TERM; exec sleep 30");
    const auto result = HelperService::runProcess(fixture.context, "/usr/bin/stall", {}, std::nullopt, 0.2);
    EXPECT_EQ(result.code, 124);
    const auto records = fixture.log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].category, "HardKill");
    EXPECT_EQ(records[0].level, LogLevel::error);
    EXPECT_EQ(records[0].message, "child timed out after 0.200000s and was killed: /usr/bin/stall");
}

} // namespace
} // namespace orven
