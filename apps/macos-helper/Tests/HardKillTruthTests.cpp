// What the daemon says about the blackout stays true when pf's tools answer
// "done" without doing it, when the daemon starts over a standing cut, and
// when an operation was cut short by a crash.

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "Support/HardKillFixture.h"

namespace orven {
namespace {

using testing::ActionCapture;
using testing::kHomeLAN;

class HardKillTruth : public testing::HardKillFixture {
protected:
    // LAN isolation is ours and in force: the record matches what pf lists.
    bool isolationLoaded()
    {
        const auto record = HelperService::readMainRulesetRecord(daemon.context);
        return record && record->shape == "isolation" && record->dump &&
               HardKillProof::normalisedDump(*record->dump) == HardKillProof::normalisedDump(mainRules());
    }
    bool cutStands() const
    {
        return anchorRules().find(std::string(kCatchAllRule)) != std::string::npos && pfEnabled();
    }
    // A new process over the same Mac: nothing but the files and pf carry over.
    void restart()
    {
        daemon.context.hardKillEngaged = false;
        HelperService::reapplyHardKillAtBoot(daemon.context);
    }
    // The first promise: "engaged" never coexists with a packet that passes.
    void expectEngagedMeansDark(const ActionCapture& reply)
    {
        if (reply.get<0>()) {
            EXPECT_TRUE(daemon.mac.leakTestPasses()) << "engaged, but traffic passes";
        }
    }
};

TEST_F(HardKillTruth, AfterARestartLANIsolationCannotWeakenAStandingBlackout)
{
    for (const bool reboot : {false, true}) {
        SCOPED_TRACE(reboot ? "after a reboot" : "after a daemon restart");
        ASSERT_TRUE(engage().get<0>());
        if (reboot) daemon.mac.reboot();
        restart();
        EXPECT_TRUE(daemon.context.hardKillEngaged);
        EXPECT_TRUE(setIsolation(true).get<0>());
        EXPECT_TRUE(cutStands());
        EXPECT_TRUE(daemon.mac.leakTestPasses());
        ASSERT_TRUE(lift().get<0>());
    }
}

struct LyingTool {
    const char* name;
    std::vector<std::string> fault;
};

class HardKillLyingTool : public HardKillTruth, public ::testing::WithParamInterface<LyingTool> {};

// One pfctl answer that claims success without the effect, during an engage
// with LAN isolation on: the engage is either dark or refused, never
// "engaged" with holes, and a clean retry still works.
TEST_P(HardKillLyingTool, NeverLeavesAnEngagedMacWithHoles)
{
    ASSERT_TRUE(setIsolation(true).get<0>());
    ASSERT_EQ(daemon.mac.macsim("flow", {"open", "tcp", "192.168.1.1", "80"}).code, 0);
    daemon.mac.addFault(GetParam().fault);
    const auto reply = engage();
    expectEngagedMeansDark(reply);
    expectNothingLost();
    daemon.mac.clearFaults();
    if (!reply.get<0>()) {
        EXPECT_TRUE(isolationLoaded()) << "a refused engage gives the isolation back";
        ASSERT_TRUE(engage().get<0>());
    }
    EXPECT_TRUE(daemon.mac.leakTestPasses());
    ASSERT_TRUE(lift().get<0>());
    EXPECT_TRUE(isolationLoaded());
    expectNothingLost();
}

INSTANTIATE_TEST_SUITE_P(
    ExitZero, HardKillLyingTool,
    ::testing::Values(
        LyingTool{"RulesListingEmpty", {"--tool", "pfctl", "--args", "-sr", "--exit", "0"}},
        LyingTool{"RulesListingGarbage", {"--tool", "pfctl", "--args", "-sr", "--exit", "0", "--stdout", "@@\n"}},
        LyingTool{"SuspendLoadsNothing", {"--tool", "pfctl", "--args", "-f -", "--exit", "0"}},
        LyingTool{"StateFlushFlushesNothing", {"--tool", "pfctl", "--args", "-F states", "--exit", "0"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(HardKillTruth, AnEnableThatPrintsNoTokenHasItsReferenceFoundAndRecorded)
{
    // The tool runs (pf takes the reference) but prints no token line.
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-E", "--stderr", "pf enabled\n"});
    ASSERT_TRUE(engage().get<0>());
    const auto held = HelperService::allHeldTokens(daemon.context);
    ASSERT_EQ(held.size(), 1u);
    EXPECT_EQ(references(), std::vector<std::string>{held[0].token});
    EXPECT_TRUE(daemon.log.contains("pfctl -E printed no token — took reference " + held[0].token +
                                    " from pf's reference list instead"));
    ASSERT_TRUE(lift().get<0>());
    EXPECT_TRUE(references().empty());
}

TEST_F(HardKillTruth, ALiftThatCannotRestoreIsolationSaysSoAndAskingAgainRestoresIt)
{
    const std::vector<std::string> faults[] = {
        {"--tool", "pfctl", "--args", "-sr", "--exit", "1", "--stderr", "busy"},
        {"--tool", "pfctl", "--args", "-sr", "--hang"},
        {"--tool", "pfctl", "--args", "-f -", "--exit", "0"},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault[3] + " " + fault[4]);
        ASSERT_TRUE(setIsolation(true).get<0>());
        ASSERT_TRUE(engage().get<0>());
        daemon.mac.addFault(fault);
        const auto reply = lift();
        daemon.mac.clearFaults();
        EXPECT_FALSE(reply.get<0>()) << "the reply says what did not happen";
        EXPECT_FALSE(cutStands());
        EXPECT_FALSE(isolationLoaded());
        EXPECT_TRUE(lift().get<0>());
        EXPECT_TRUE(isolationLoaded());
        ASSERT_TRUE(setIsolation(false).get<0>());
    }
}

TEST_F(HardKillTruth, ALiftThatCannotRemoveTheBlackoutKeepsItsRecordAndSaysTheMacIsDark)
{
    ASSERT_TRUE(setIsolation(true).get<0>());
    ASSERT_TRUE(engage().get<0>());
    daemon.mac.addFault({"--tool", "pfctl", "--args", ".* -F rules", "--exit", "1", "--stderr", "busy"});
    const auto reply = lift();
    EXPECT_FALSE(reply.get<0>());
    EXPECT_NE(reply.get<1>()->find("This Mac is still cut off"), std::string::npos);
    EXPECT_NE(reply.get<1>()->find(std::string(paths::rescueScript)), std::string::npos);
    EXPECT_TRUE(daemon.mac.fileExists(paths::hardKillMarker));
    EXPECT_TRUE(daemon.context.hardKillEngaged);
    EXPECT_TRUE(cutStands());
    EXPECT_TRUE(daemon.mac.leakTestPasses());
}

TEST_F(HardKillTruth, AnEngageCutShortAfterSuspendingIsolationGetsTheIsolationBackAtStart)
{
    ASSERT_TRUE(setIsolation(true).get<0>());
    // What a daemon killed right after loading the blackout leaves.
    HelperService::recordHardKillOwner(daemon.context, 501);
    ASSERT_FALSE(HelperService::loadOwnMainRuleset(daemon.context, PFRuleBuilder::renderIsolationSuspendedRuleset(),
                                                   HardKillProof::MainRulesetShape::isolationSuspended, kHomeLAN));
    ASSERT_FALSE(HelperService::pfctlLoadAnchor(daemon.context, PFRuleBuilder::hardKillAnchorRuleset()));
    restart();
    EXPECT_FALSE(cutStands());
    EXPECT_TRUE(isolationLoaded());
    EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillOwner));
}

TEST_F(HardKillTruth, ALoadCutShortIsRecognisedAsOursAtStart)
{
    ASSERT_TRUE(setIsolation(true).get<0>());
    ASSERT_TRUE(engage().get<0>());
    // A lift killed while it reloaded the isolation: the blackout is gone,
    // the full ruleset loaded, the record still says "suspended".
    ASSERT_FALSE(HelperService::clearHardKillFlag(daemon.context));
    HelperService::clearHardKillOwner(daemon.context);
    ASSERT_FALSE(HelperService::pfctlFlushAnchor(daemon.context));
    HelperService::giveBackOurReferences(daemon.context);
    HelperService::recordMainRulesetIntent(daemon.context, {"isolation", mainRules(), kHomeLAN});
    ASSERT_EQ(daemon.mac.pfctl({"-f", "-"}, PFRuleBuilder::renderFullRuleset(kHomeLAN)).code, 0);
    restart();
    EXPECT_TRUE(isolationLoaded());
    EXPECT_TRUE(engage().get<0>()) << "our own isolation never blocks an engage";
    EXPECT_TRUE(daemon.mac.leakTestPasses());
}

// A start that must take the blackout again takes its new reference before
// it gives the earlier one back: a failed enable leaves pf held by the old one.
TEST_F(HardKillTruth, AStartThatCannotTakeANewReferenceKeepsTheOldOne)
{
    ASSERT_TRUE(engage().get<0>());
    const auto held = references();
    ASSERT_EQ(held.size(), 1u);
    // Somebody emptied the anchor by hand: the cut no longer stands.
    ASSERT_EQ(daemon.mac.pfctl({"-a", std::string(kBlackoutAnchor), "-F", "rules"}).code, 0);
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-E", "--exit", "1", "--stderr", "pfctl: DIOCSTARTREF: busy"});
    restart();
    EXPECT_EQ(references(), held);
    EXPECT_TRUE(pfEnabled());
    EXPECT_TRUE(daemon.mac.fileExists(paths::hardKillMarker)) << "the next start tries again";
    restart();
    EXPECT_TRUE(cutStands());
    EXPECT_TRUE(daemon.mac.leakTestPasses());
}

TEST_F(HardKillTruth, StatusNeverCallsRulesPfDoesNotEnforceACut)
{
    ASSERT_TRUE(engage().get<0>());
    ASSERT_EQ(daemon.mac.pfctl({"-d"}).code, 0);
    testing::ReplyCapture<bool, bool, std::optional<std::string>> status;
    daemon.service(501).readHardKillStatus(status.reply());
    EXPECT_EQ(status.values(), std::make_tuple(false, true,
                                               std::optional<std::string>(
                                                   "ORVEN's blackout rules are loaded but pf is disabled, so they "
                                                   "block nothing — this Mac is NOT cut off")));
    EXPECT_FALSE(daemon.mac.leakTestPasses());
}

TEST_F(HardKillTruth, AProbeThatCannotBeStartedFailsTheProof)
{
    std::filesystem::remove(daemon.mac.path(paths::ping));
    const auto reply = engage();
    EXPECT_EQ(reply.values(),
              std::make_tuple(false, std::optional<std::string>("the outside probes could not be run (ICMP to 1.1.1.1) "
                                                                "— the cut cannot be proven")));
    EXPECT_FALSE(cutStands());
    expectNothingLost();
}

TEST_F(HardKillTruth, AStartWithPfNotAnsweringSaysUnknownAndWaitsOutOneTimeOutOnly)
{
    ASSERT_TRUE(engage().get<0>());
    daemon.context.pfLockBudgetSeconds = 5;
    daemon.mac.addFault({"--tool", "pfctl", "--hang", "--times", "0"});
    daemon.host.clearRuns();
    restart();
    EXPECT_EQ(daemon.host.runs().size(), 1u);
    EXPECT_TRUE(daemon.log.containsFragment("pf did not answer at start"));
    EXPECT_FALSE(daemon.log.containsFragment("no blackout is standing"));
    EXPECT_TRUE(daemon.mac.fileExists(paths::hardKillMarker));
}

TEST_F(HardKillTruth, TheDHCPKickSplitsTheInterfaceListAtEveryNewlineAndSpace)
{
    daemon.mac.addFault({"--tool", "ipconfig", "--args", "getiflist", "--exit", "0", "--stdout",
                         "en0\u2028bridge0\x0b" "en1\r\nen2\u00a0en3\u0085en4\n"});
    daemon.mac.clearCalls();
    HelperService::kickDHCPRenewal(daemon.context);
    std::vector<std::string> asked;
    for (const auto& call : daemon.mac.calls())
        if (call.value("tool", "") == "configd") asked.push_back(call["args"].back().get<std::string>());
    EXPECT_EQ(asked, (std::vector<std::string>{"en0", "bridge0", "en1", "en2", "en3", "en4"}));
}

} // namespace
} // namespace orven
