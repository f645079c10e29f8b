// The pf command layer against the simulated Mac: real pfctl output read
// back, failures and time-outs injected through faults, messages exact.

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "HelperService.h"
#include "PFRuleBuilder.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using testing::SimulatedDaemon;
using Rules = HardKillState::Rules;

const std::string kAnchorPattern = "-a com\\.apple/999\\.test\\.orven\\.app";

class PFCommandLayer : public ::testing::Test {
protected:
    PFCommandLayer() { daemon.context.pfctlTimeoutSeconds = 1.0; }
    DaemonContext& context() { return daemon.context; }
    SimulatedDaemon daemon;
};

TEST_F(PFCommandLayer, EnableWithTokenReturnsTheTokenPfHandsOut)
{
    const auto enabled = HelperService::pfctlEnableWithToken(context());
    ASSERT_FALSE(enabled.error) << *enabled.error;
    ASSERT_TRUE(enabled.token);
    EXPECT_FALSE(enabled.token->empty());
    EXPECT_NE(daemon.mac.show({"references"}).find(*enabled.token), std::string::npos);
    EXPECT_EQ(HelperService::pfIsEnabled(context()), true);
    // Given back, pf is off again: nothing else held it.
    EXPECT_FALSE(HelperService::pfctlReleaseToken(context(), *enabled.token));
    EXPECT_EQ(HelperService::pfIsEnabled(context()), false);
}

TEST_F(PFCommandLayer, EveryEnableTakesANewReference)
{
    const auto first = HelperService::pfctlEnableWithToken(context());
    const auto second = HelperService::pfctlEnableWithToken(context());
    ASSERT_TRUE(first.token && second.token);
    EXPECT_NE(*first.token, *second.token);
    EXPECT_FALSE(HelperService::pfctlReleaseToken(context(), *first.token));
    EXPECT_EQ(HelperService::pfIsEnabled(context()), true);
}

TEST_F(PFCommandLayer, ReleasingAnUnknownTokenFailsAsPfctlDoes)
{
    EXPECT_EQ(HelperService::pfctlReleaseToken(context(), "123"), "pfctl -X failed (1): pfctl: pf not enabled");
    ASSERT_TRUE(HelperService::pfctlEnableWithToken(context()).token);
    EXPECT_EQ(HelperService::pfctlReleaseToken(context(), "123"), "pfctl -X failed (1): pfctl: pf: token invalid");
}

TEST_F(PFCommandLayer, PlainEnableCountsAlreadyEnabledAsSuccess)
{
    EXPECT_FALSE(HelperService::pfctlEnable(context()));
    EXPECT_FALSE(HelperService::pfctlEnable(context()));  // pfctl exits 1 with "pf already enabled"
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-e", "--exit", "1", "--stderr", "pfctl: PF Already Enabled"});
    EXPECT_FALSE(HelperService::pfctlEnable(context()));
}

struct FailureCase {
    const char* name;
    std::vector<std::string> fault;
    std::function<OptionalText(DaemonContext&)> operation;
    std::string message;
};
void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class PFCommandFailures : public PFCommandLayer, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(PFCommandFailures, BecomeOneMessageOfTheFixedShape)
{
    std::vector<std::string> fault{"--tool", "pfctl"};
    fault.insert(fault.end(), GetParam().fault.begin(), GetParam().fault.end());
    daemon.mac.addFault(fault);
    EXPECT_EQ(GetParam().operation(context()), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PFCommandFailures,
    ::testing::Values(
        FailureCase{"LoadRuleset", {"--args", "-f -", "--exit", "1", "--stderr", "stdin:1: syntax error\n"},
                    [](DaemonContext& c) { return HelperService::pfctlLoad(c, std::string("pass\n")); },
                    "pfctl -f failed (1): stdin:1: syntax error"},
        FailureCase{"LoadStock", {"--args", "-f /etc/pf\\.conf", "--exit", "1", "--stderr", " nope \n"},
                    [](DaemonContext& c) { return HelperService::pfctlLoad(c, std::nullopt); },
                    "pfctl -f failed (1): nope"},
        FailureCase{"LoadAnchor", {"--args", kAnchorPattern + " -f -", "--exit", "1", "--stderr", "bad"},
                    [](DaemonContext& c) { return HelperService::pfctlLoadAnchor(c, "block drop quick all\n"); },
                    "pfctl -a … -f - failed (1): bad"},
        FailureCase{"Enable", {"--args", "-e", "--exit", "1", "--stderr", "pfctl: /dev/pf: Permission denied"},
                    [](DaemonContext& c) { return HelperService::pfctlEnable(c); },
                    "pfctl -e failed (1): pfctl: /dev/pf: Permission denied"},
        FailureCase{"FlushStatesWithoutErrorText", {"--args", "-F states", "--exit", "1"},
                    [](DaemonContext& c) { return HelperService::pfctlFlushStates(c); }, "pfctl -F states failed (1): "},
        FailureCase{"FlushAnchor", {"--args", kAnchorPattern + " -F rules", "--exit", "2", "--stderr", "x"},
                    [](DaemonContext& c) { return HelperService::pfctlFlushAnchor(c); },
                    "pfctl -a … -F rules failed (2): x"},
        FailureCase{"EnableWithToken", {"--args", "-E", "--exit", "1", "--stderr", "pfctl: DIOCSTARTREF: no memory"},
                    [](DaemonContext& c) { return HelperService::pfctlEnableWithToken(c).error; },
                    "pfctl -E failed (1): pfctl: DIOCSTARTREF: no memory"},
        FailureCase{"EnableWithoutTokenLine", {"--args", "-E", "--exit", "0", "--stderr", "pf enabled\n"},
                    [](DaemonContext& c) { return HelperService::pfctlEnableWithToken(c).error; },
                    "pfctl -E returned no token"},
        FailureCase{"EnableWithBlankTokenLine",
                    {"--args", "-E", "--exit", "0", "--stderr", "pf enabled\nToken :\nToken : 42\n"},
                    [](DaemonContext& c) { return HelperService::pfctlEnableWithToken(c).error; },
                    "pfctl -E returned no token"},
        FailureCase{"HangIsKilledAtTheTimeOut", {"--args", "-F states", "--hang"},
                    [](DaemonContext& c) { return HelperService::pfctlFlushStates(c); },
                    "pfctl -F states failed (124): timed out after 1s and was killed"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PFCommandLayer, BlackoutRuleStateFollowsTheAnchor)
{
    EXPECT_EQ(HelperService::blackoutRuleState(context()), Rules::absent);
    ASSERT_FALSE(HelperService::pfctlLoadAnchor(context(), PFRuleBuilder::hardKillAnchorRuleset()));
    EXPECT_EQ(HelperService::blackoutRuleState(context()), Rules::loaded);
    ASSERT_FALSE(HelperService::pfctlFlushAnchor(context()));
    EXPECT_EQ(HelperService::blackoutRuleState(context()), Rules::absent);
}

TEST_F(PFCommandLayer, AnUnansweredListingIsUnknownNeverAbsent)
{
    daemon.mac.addFault({"--tool", "pfctl", "--args", kAnchorPattern + " -sr", "--exit", "1"});
    EXPECT_EQ(HelperService::blackoutRuleState(context()), Rules::unknown);
    EXPECT_TRUE(daemon.log.contains(
        "pfctl -a … -sr did not answer (1) — treating the blackout state as UNKNOWN"));
}

TEST_F(PFCommandLayer, CatchAllCounterShowsWhetherTrafficMetTheBlackout)
{
    ASSERT_FALSE(HelperService::pfctlLoadAnchor(context(), PFRuleBuilder::hardKillAnchorRuleset()));
    ASSERT_TRUE(HelperService::pfctlEnableWithToken(context()).token);
    EXPECT_EQ(HelperService::catchAllWasEvaluated(context()), false);
    EXPECT_NE(daemon.mac.tool("/sbin/ping", {"-c", "1", "-t", "1", "1.1.1.1"}).code, 0);
    EXPECT_EQ(HelperService::catchAllWasEvaluated(context()), true);
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-v " + kAnchorPattern + " -sr", "--exit", "1"});
    EXPECT_EQ(HelperService::catchAllWasEvaluated(context()), std::nullopt);
}

TEST_F(PFCommandLayer, StateCountReadsTheStateTable)
{
    ASSERT_TRUE(HelperService::pfctlEnableWithToken(context()).token);
    ASSERT_FALSE(HelperService::pfctlFlushStates(context()));
    EXPECT_EQ(HelperService::pfStateCount(context()), 0);
    // Only a passing rule that keeps state makes a state.
    ASSERT_FALSE(HelperService::pfctlLoad(context(), std::string("pass out all\n")));
    ASSERT_EQ(daemon.mac.tool("/usr/bin/nc", {"-z", "-G", "2", "-w", "2", "1.1.1.1", "443"}).code, 0);
    EXPECT_GE(HelperService::pfStateCount(context()).value_or(0), 1);
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-s state", "--exit", "1"});
    EXPECT_EQ(HelperService::pfStateCount(context()), std::nullopt);
}

TEST_F(PFCommandLayer, LoadEnableAndFlushPutsIsolationInForceAndRecordsIt)
{
    const PFRuleBuilder::LANIsolationParams params{"en0", "192.168.1.1", "192.168.1.0/24", {"192.168.1.53"},
                                                   std::nullopt, {}, {}};
    ASSERT_FALSE(HelperService::pfctlLoadEnableAndFlush(context(), PFRuleBuilder::renderFullRuleset(params), params));
    EXPECT_EQ(HelperService::pfIsEnabled(context()), true);
    const auto record = HelperService::readMainRulesetRecord(context());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->shape, "isolation");
    EXPECT_EQ(record->params, params);
    EXPECT_EQ(HardKillProof::normalisedDump(record->dump.value_or("")),
              HardKillProof::normalisedDump(HelperService::pfctlShowRules(context()).out));
    EXPECT_EQ(daemon.mac.fileMode("/Library/Application Support/test.orven.app/hardkill.main-ruleset"), 0600);
}

TEST_F(PFCommandLayer, LoadEnableAndFlushToleratesAFailedFlushOnly)
{
    const PFRuleBuilder::LANIsolationParams params{"en0", "192.168.1.1", "192.168.1.0/24", {}, std::nullopt, {}, {}};
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-F states", "--exit", "1", "--stderr", "busy"});
    EXPECT_FALSE(HelperService::pfctlLoadEnableAndFlush(context(), PFRuleBuilder::renderFullRuleset(params), params));
    EXPECT_TRUE(daemon.log.contains(
        "state flush failed, continuing (isolation blocks new flows anyway): pfctl -F states failed (1): busy"));
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-e", "--exit", "1", "--stderr", "denied"});
    EXPECT_EQ(HelperService::pfctlLoadEnableAndFlush(context(), PFRuleBuilder::renderFullRuleset(params), params),
              "pfctl -e failed (1): denied");
}

TEST_F(PFCommandLayer, PfLockGivesUpOnAWedgedHolderWithoutRunningTheBody)
{
    context().pfLockBudgetSeconds = 0.2;
    std::promise<void> holding, release;
    std::thread holder([&] {
        HelperService::withPFLock(context(), [&] {
            holding.set_value();
            release.get_future().wait();
        });
    });
    holding.get_future().wait();
    bool ran = false;
    const auto outcome = HelperService::withPFLock(context(), [&] {
        ran = true;
        return 7;
    });
    release.set_value();
    holder.join();
    EXPECT_FALSE(outcome);
    EXPECT_FALSE(ran);
    EXPECT_TRUE(daemon.log.contains("pf lock unavailable after 0.200000s — another pf operation is wedged"));
    EXPECT_EQ(HelperService::withPFLock(context(), [] { return 7; }), 7);
}

} // namespace
} // namespace orven
