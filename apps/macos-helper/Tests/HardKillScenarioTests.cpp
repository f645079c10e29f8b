// Hard Kill and LAN isolation end to end on the simulated Mac: never report
// a cut that is not proven, never a lift that is not proven, never lose a pf
// reference, never weaken a standing blackout.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Support/HardKillFixture.h"

namespace orven {
namespace {

using testing::HardKillFixture;
using testing::kHomeLAN;

const std::string kAnchorPattern = "-a com\\.apple/999\\.test\\.orven\\.app";

class HardKill : public HardKillFixture {};

TEST_F(HardKill, EngageOnAStockMacCutsEverythingAndSaysSo)
{
    const auto reply = engage(501);
    ASSERT_TRUE(reply.get<0>()) << reply.get<1>().value_or("");
    EXPECT_EQ(reply.get<1>(), std::nullopt);
    EXPECT_TRUE(daemon.mac.leakTestPasses());
    EXPECT_TRUE(daemon.context.hardKillEngaged);
    EXPECT_EQ(daemon.mac.fileMode(paths::hardKillMarker), 0644);
    EXPECT_EQ(daemon.mac.fileMode(paths::hardKillOwner), 0600);
    EXPECT_EQ(daemon.mac.readFile(paths::hardKillOwner), "501");
    EXPECT_EQ(daemon.mac.fileMode(paths::primaryToken), 0600);
    EXPECT_EQ(HelperService::readTokens(context(), HelperService::TokenStore::primary), references());
    EXPECT_TRUE(daemon.log.contains("Hard Kill ENGAGED — total blackout, all interfaces"));

    auto service = daemon.service(501);
    testing::ReplyCapture<bool, bool, OptionalText> status;
    service.readHardKillStatus(status.reply());
    EXPECT_EQ(status.values(), std::make_tuple(true, true, OptionalText{}));
    testing::ReplyCapture<bool, bool, bool, std::int64_t, OptionalText> enforcement;
    service.readHardKillEnforcement(enforcement.reply());
    EXPECT_TRUE(enforcement.get<0>() && enforcement.get<1>() && enforcement.get<2>());
    EXPECT_GE(enforcement.get<3>(), 0);
    EXPECT_EQ(enforcement.get<4>(), std::nullopt);
    testing::ReplyCapture<bool, bool, bool, OptionalText> residue;
    service.readHardKillResidueWithToken(residue.reply());
    EXPECT_EQ(residue.values(), std::make_tuple(true, true, true, OptionalText{}));
    // The engage's own probes met the catch-all, so the proof holds at once.
    testing::ReplyCapture<bool, OptionalText, OptionalText> proof;
    service.readHardKillProof(proof.reply());
    EXPECT_EQ(proof.values(), std::make_tuple(true, OptionalText{}, OptionalText{}));
    expectNothingLost();
}

TEST_F(HardKill, EveryPfChangeOfAnEngageAndALiftRunsUnderTheLockAndTheKickAfterIt)
{
    ASSERT_TRUE(engage().get<0>());
    ASSERT_TRUE(lift().get<0>());
    for (const auto& run : pfChanges()) EXPECT_TRUE(run.pfLockHeld) << run.arguments.front();
    bool kicked = false;
    for (const auto& run : daemon.host.runs()) {
        if (run.path == paths::ipconfig || run.path == "configd") {
            kicked = true;
            EXPECT_FALSE(run.pfLockHeld) << "the DHCP kick ran under the pf lock";
        }
    }
    EXPECT_TRUE(kicked);
}

TEST_F(HardKill, LiftByTheOwnerGivesEverythingBack)
{
    ASSERT_TRUE(engage(501).get<0>());
    const auto reply = lift(501);
    EXPECT_EQ(reply.values(), std::make_tuple(true, OptionalText{}));
    EXPECT_FALSE(daemon.mac.leakTestPasses());
    EXPECT_TRUE(references().empty());
    EXPECT_FALSE(pfEnabled());
    EXPECT_FALSE(daemon.mac.fileExists(paths::primaryToken));
    EXPECT_FALSE(daemon.mac.fileExists(paths::emergencyToken));
    EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillMarker));
    EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillOwner));
    EXPECT_FALSE(daemon.context.hardKillEngaged);
    EXPECT_TRUE(daemon.log.contains("Hard Kill DISENGAGED and VERIFIED — anchor emptied, pf reference released"));
    EXPECT_TRUE(daemon.log.containsFragment("DHCP kick: asked configd to refresh "));
}

TEST_F(HardKill, LiftByAnotherAccountChangesNothing)
{
    ASSERT_TRUE(engage(501).get<0>());
    daemon.host.clearRuns();
    EXPECT_EQ(lift(502).values(), std::make_tuple(true, OptionalText{}));
    EXPECT_TRUE(pfChanges().empty());
    EXPECT_FALSE(ran(paths::ipconfig));
    EXPECT_TRUE(daemon.mac.fileExists(paths::hardKillMarker));
    EXPECT_EQ(daemon.mac.readFile(paths::hardKillOwner), "501");
    EXPECT_TRUE(daemon.mac.leakTestPasses());
    EXPECT_TRUE(daemon.log.contains("Hard Kill lift REFUSED — the standing blackout belongs to another user account; "
                                    "pf, the reboot marker and DHCP all left untouched"));
}

TEST_F(HardKill, AnOwnerRecordThatIsNotANumberLetsAnyAccountLift)
{
    ASSERT_TRUE(engage(501).get<0>());
    std::ofstream(daemon.mac.path(paths::hardKillOwner)) << "not-a-uid";
    EXPECT_EQ(lift(502).values(), std::make_tuple(true, OptionalText{}));
    EXPECT_FALSE(daemon.mac.leakTestPasses());
}

TEST_F(HardKill, LiftWithNothingToLiftTouchesNothing)
{
    EXPECT_EQ(lift().values(), std::make_tuple(true, OptionalText{}));
    EXPECT_TRUE(pfChanges().empty());
    EXPECT_FALSE(ran(paths::ipconfig));
    EXPECT_TRUE(daemon.log.contains(
        "Hard Kill disengage: no marker, no blackout rules and no pf reference of ours — pf and DHCP left untouched"));
}

TEST_F(HardKill, ASecondEngageKeepsTheFirstOwnerAndOneReference)
{
    ASSERT_TRUE(engage(501).get<0>());
    ASSERT_TRUE(engage(502).get<0>());
    EXPECT_EQ(daemon.mac.readFile(paths::hardKillOwner), "501");
    EXPECT_EQ(references().size(), 1u);
    EXPECT_EQ(HelperService::readTokens(context(), HelperService::TokenStore::primary), references());
}

TEST_F(HardKill, EngageIsRefusedWhileAnUninstallIsClaimed)
{
    daemon.context.uninstallClaimed = true;
    EXPECT_EQ(engage().values(),
              std::make_tuple(false, OptionalText{"The ORVEN Helper is being uninstalled — Hard Kill cannot be engaged "
                                                  "while that is under way. Finish or cancel the uninstall, then try "
                                                  "again."}));
    EXPECT_TRUE(daemon.host.runs().empty());
    EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillOwner));
}

TEST_F(HardKill, AFailedMarkerWriteStillEngagesButWillNotSurviveARestart)
{
    std::filesystem::create_directories(daemon.mac.path(paths::hardKillMarker) + "/blocked");
    ASSERT_TRUE(engage().get<0>());
    EXPECT_TRUE(daemon.log.containsFragment("Hard Kill ENGAGED but state write failed — will NOT survive a reboot: "));
    EXPECT_TRUE(daemon.mac.leakTestPasses());
}

struct BypassCase {
    const char* name;
    // Set up pf as another product would have left it.
    std::function<void(const testing::SimulatedMac&)> arrange;
    std::string reason;
};
void PrintTo(const BypassCase& c, std::ostream* os) { *os << c.name; }

class HardKillBypass : public HardKillFixture, public ::testing::WithParamInterface<BypassCase> {};

TEST_P(HardKillBypass, IsRefusedWithPfUntouched)
{
    GetParam().arrange(daemon.mac);
    daemon.host.clearRuns();
    const auto leaksBefore = daemon.mac.leakTestPasses();
    const auto reply = engage();
    EXPECT_EQ(reply.values(), std::make_tuple(false, OptionalText{"Hard Kill was NOT engaged: " + GetParam().reason +
                                                                  ". Nothing was changed and you are still online."}));
    EXPECT_TRUE(pfChanges().empty());
    EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillOwner));
    EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillMarker));
    EXPECT_EQ(daemon.mac.leakTestPasses(), leaksBefore);
}

void loadMain(const testing::SimulatedMac& mac, const std::string& rules)
{
    ASSERT_EQ(mac.pfctl({"-f", "-"}, rules).code, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HardKillBypass,
    ::testing::Values(
        BypassCase{"QuickPassAboveApplesAnchor",
                   [](const auto& mac) { loadMain(mac, "pass quick all\nanchor \"com.apple/*\"\n"); },
                   "another pf rule passes traffic before ORVEN's blackout is reached, so the cut would not be "
                   "complete: pass quick all flags S/SA keep state"},
        BypassCase{"QuickPassInASiblingAnchor",
                   [](const auto& mac) {
                       ASSERT_EQ(mac.pfctl({"-a", "com.apple/500.vpn", "-f", "-"}, "pass out quick all\n").code, 0);
                   },
                   "a rule in another anchor under Apple's own rules passes traffic and may be evaluated before "
                   "ORVEN's blackout: pass out quick all flags S/SA keep state"},
        BypassCase{"ForeignAnchorBeforeApples",
                   [](const auto& mac) { loadMain(mac, "anchor \"other\"\nanchor \"com.apple/*\"\n"); },
                   "another firewall's rules are evaluated before ORVEN's and cannot be read from here, so the cut "
                   "cannot be shown to be complete: anchor \"other\" all"},
        BypassCase{"UnreadableMainRuleset",
                   [](const auto& mac) {
                       mac.addFault({"--tool", "pfctl", "--args", "-sr", "--exit", "1", "--times", "0"});
                   },
                   "the current pf ruleset could not be read, so ORVEN cannot tell whether another rule would let "
                   "traffic past the blackout"},
        BypassCase{"UnreadableSiblings",
                   [](const auto& mac) {
                       mac.addFault({"--tool", "pfctl", "--args", "-a com\\.apple -s Anchors", "--exit", "1"});
                   },
                   "the anchors that sit beside ORVEN's under Apple's own rules could not be read, so nothing ahead "
                   "of the blackout can be ruled out"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(HardKill, IsolationIsSuspendedForTheBlackoutAndRestoredByteForByte)
{
    ASSERT_TRUE(setIsolation(true).get<0>());
    const auto isolated = mainRules();
    ASSERT_EQ(HelperService::readMainRulesetRecord(context())->shape, "isolation");

    ASSERT_TRUE(engage().get<0>());
    EXPECT_TRUE(daemon.mac.leakTestPasses());
    EXPECT_EQ(HelperService::readMainRulesetRecord(context())->shape, "isolationSuspended");
    EXPECT_EQ(mainRules().find("192.168.1.1"), std::string::npos) << "isolation pass rules stayed ahead of the cut";

    daemon.host.clearRuns();
    EXPECT_EQ(setIsolation(true).values(), std::make_tuple(true, OptionalText{}));
    EXPECT_TRUE(pfChanges().empty());
    EXPECT_TRUE(daemon.log.contains("LAN isolation request recorded for en0 — Hard Kill owns pf; it will apply when "
                                    "Hard Kill lifts"));

    ASSERT_TRUE(lift().get<0>());
    EXPECT_EQ(mainRules(), isolated);
    EXPECT_EQ(HelperService::readMainRulesetRecord(context())->shape, "isolation");
    EXPECT_TRUE(daemon.log.contains(
        "Hard Kill DISENGAGED and VERIFIED — anchor emptied, LAN isolation restored on en0"));
    ASSERT_TRUE(setIsolation(false).get<0>());
    EXPECT_EQ(HelperService::readMainRulesetRecord(context()), std::nullopt);
}

TEST_F(HardKill, LANIsolationDisengageWaitsWhileAHardKillResidueStands)
{
    ASSERT_TRUE(setIsolation(true).get<0>());
    ASSERT_TRUE(engage().get<0>());
    daemon.host.clearRuns();
    EXPECT_EQ(setIsolation(false).values(), std::make_tuple(true, OptionalText{}));
    EXPECT_TRUE(pfChanges().empty());
    EXPECT_TRUE(daemon.mac.leakTestPasses());
}

TEST_F(HardKill, AReappliedBlackoutStandsAgainAfterAReboot)
{
    ASSERT_TRUE(engage().get<0>());
    daemon.mac.reboot();
    EXPECT_FALSE(daemon.mac.leakTestPasses());
    HelperService::reapplyHardKillAtBoot(context());
    EXPECT_TRUE(daemon.mac.leakTestPasses());
    EXPECT_TRUE(daemon.log.contains(
        "Hard Kill re-applied at start from persisted state — anchor loaded, pf reference held"));
    EXPECT_EQ(HelperService::readTokens(context(), HelperService::TokenStore::primary), references());
    EXPECT_EQ(daemon.mac.readFile(paths::hardKillOwner), "501");
    // The owner can still lift it.
    ASSERT_TRUE(lift(501).get<0>());
    EXPECT_TRUE(references().empty());
}

TEST_F(HardKill, ReapplyTakesNoNewReferenceWhileTheCutStands)
{
    ASSERT_TRUE(engage().get<0>());
    const auto before = references();
    daemon.host.clearRuns();
    HelperService::reapplyHardKillAtBoot(context());
    EXPECT_TRUE(pfChanges().empty());
    EXPECT_EQ(references(), before);
    EXPECT_TRUE(daemon.log.contains("Hard Kill re-apply at start: the cut is already standing — nothing re-taken"));
}

TEST_F(HardKill, ReapplyWithNothingToDoRunsNothing)
{
    HelperService::reapplyHardKillAtBoot(context());
    EXPECT_TRUE(daemon.host.runs().empty());
}

TEST_F(HardKill, ReapplyGivesBackAReferenceLeftByAnEarlierRun)
{
    const auto token = HelperService::pfctlEnableWithToken(context()).token.value_or("");
    ASSERT_FALSE(HelperService::persistTokenImmediately(context(), token));
    HelperService::reapplyHardKillAtBoot(context());
    EXPECT_TRUE(references().empty());
    EXPECT_FALSE(daemon.mac.fileExists(paths::primaryToken));
    EXPECT_TRUE(daemon.log.contains("gave back a pf reference left over from a previous run"));
}

TEST_F(HardKill, ReapplyDropsAReferenceFromBeforeTheReboot)
{
    const auto token = HelperService::pfctlEnableWithToken(context()).token.value_or("");
    ASSERT_FALSE(HelperService::persistTokenImmediately(context(), token));
    daemon.mac.reboot();
    HelperService::reapplyHardKillAtBoot(context());
    EXPECT_FALSE(daemon.mac.fileExists(paths::primaryToken));
    EXPECT_TRUE(daemon.log.contains("pf holds no reference for the recorded token(s) " + token +
                                    " — removed from disk"));
}

TEST_F(HardKill, AnEngageCutShortBeforeItsMarkerLeavesNothingAfterTheNextStart)
{
    // What a daemon killed during an engage's state flush leaves behind.
    HelperService::recordHardKillOwner(context(), 501);
    const auto token = HelperService::pfctlEnableWithToken(context()).token.value_or("");
    ASSERT_FALSE(HelperService::persistTokenImmediately(context(), token));
    ASSERT_FALSE(HelperService::pfctlLoadAnchor(context(), PFRuleBuilder::hardKillAnchorRuleset()));

    HelperService::reapplyHardKillAtBoot(context());
    EXPECT_EQ(anchorRules().find(std::string(kCatchAllRule)), std::string::npos);
    EXPECT_TRUE(references().empty());
    EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillOwner));
    EXPECT_FALSE(daemon.mac.fileExists(paths::primaryToken));
    // Enabling pf later for anything else blocks nothing of ours.
    ASSERT_TRUE(setIsolation(true).get<0>());
    EXPECT_EQ(daemon.mac.tool(paths::ping, {"-c", "1", "-t", "1", "1.1.1.1"}).code, 0);
}

TEST_F(HardKill, ALegacyBlackoutIsUnwoundBeforeTheReapply)
{
    loadMain(daemon.mac, "block drop quick all\n");
    ASSERT_TRUE(HelperService::pfctlEnable(context()) == std::nullopt);
    std::filesystem::create_directories(daemon.mac.path(paths::stateDirectory));
    std::ofstream(daemon.mac.path(paths::legacyPrior)) << "prior";
    std::ofstream(daemon.mac.path(paths::hardKillMarker));
    daemon.host.clearRuns();
    HelperService::reapplyHardKillAtBoot(context());
    const auto changes = pfChanges();
    ASSERT_GE(changes.size(), 2u);
    EXPECT_EQ(changes[0].arguments, (std::vector<std::string>{"-f", "/etc/pf.conf"}));
    EXPECT_FALSE(daemon.mac.fileExists(paths::legacyPrior));
    EXPECT_EQ(mainRules().find("block drop quick all"), std::string::npos);
    EXPECT_TRUE(daemon.mac.leakTestPasses());
    EXPECT_TRUE(daemon.log.contains("legacy main-ruleset blackout unwound — stock rules loaded, record removed"));
}

TEST_F(HardKill, ALegacyRecordWithNothingLoadedIsJustRemoved)
{
    std::filesystem::create_directories(daemon.mac.path(paths::stateDirectory));
    std::ofstream(daemon.mac.path(paths::legacyPreRuleset)) << "x";
    HelperService::reapplyHardKillAtBoot(context());
    EXPECT_FALSE(daemon.mac.fileExists(paths::legacyPreRuleset));
    EXPECT_TRUE(pfChanges().empty());
}

// --- Faults at every pf step --------------------------------------------

struct EngageFault {
    const char* name;
    std::vector<std::vector<std::string>> faults;  // macsim fault arguments
    std::string message;
};
void PrintTo(const EngageFault& c, std::ostream* os) { *os << c.name; }

class HardKillEngageFault : public HardKillFixture, public ::testing::WithParamInterface<EngageFault> {};

TEST_P(HardKillEngageFault, AnswersTheStepsMessageAndLeavesNothingBehind)
{
    for (const auto& fault : GetParam().faults) daemon.mac.addFault(fault);
    const auto reply = engage();
    EXPECT_FALSE(reply.get<0>());
    EXPECT_EQ(reply.get<1>(), GetParam().message);
    EXPECT_FALSE(daemon.context.hardKillEngaged);
    daemon.mac.clearFaults();
    EXPECT_EQ(anchorRules().find(std::string(kCatchAllRule)), std::string::npos) << "blackout left behind";
    EXPECT_TRUE(daemon.log.containsFragment("Hard Kill engage failed: "));
    expectNothingLost();
}

INSTANTIATE_TEST_SUITE_P(
    Steps, HardKillEngageFault,
    ::testing::Values(
        EngageFault{"EnableFails", {{"--tool", "pfctl", "--args", "-E", "--exit", "1", "--stderr", "no memory"}},
                    "pfctl -E failed (1): no memory"},
        EngageFault{"EnableHangs", {{"--tool", "pfctl", "--args", "-E", "--hang"}},
                    "pfctl -E failed (124): timed out after 1s and was killed"},
        EngageFault{"AnchorLoadFails",
                    {{"--tool", "pfctl", "--args", kAnchorPattern + " -f -", "--exit", "1", "--stderr", "stdin:1: bad"}},
                    "pfctl -a … -f - failed (1): stdin:1: bad"},
        EngageFault{"AnchorLoadHangs", {{"--tool", "pfctl", "--args", kAnchorPattern + " -f -", "--hang"}},
                    "pfctl -a … -f - failed (124): timed out after 1s and was killed"},
        EngageFault{"StateFlushFails", {{"--tool", "pfctl", "--args", "-F states", "--exit", "1", "--stderr", "busy"}},
                    "pfctl -F states failed (1): busy"},
        EngageFault{"StateFlushHangs", {{"--tool", "pfctl", "--args", "-F states", "--hang"}},
                    "pfctl -F states failed (124): timed out after 1s and was killed"},
        EngageFault{"RulesUnreadableForTheProof",
                    {{"--tool", "pfctl", "--args", kAnchorPattern + " -sr", "--exit", "1", "--times", "0"}},
                    "the blackout rules are not loaded in com.apple/999.test.orven.app"},
        EngageFault{"StatusUnreadableForTheProof", {{"--tool", "pfctl", "--args", "-s info", "--exit", "1", "--times", "0"}},
                    "pf is not enforcing — loaded rules block nothing"},
        EngageFault{"APingGetsThrough", {{"--tool", "ping", "--exit", "0", "--stdout", "64 bytes from 1.1.1.1"}},
                    "traffic still leaves this Mac with the blackout loaded (ICMP to 1.1.1.1) — this is not a cut"},
        EngageFault{"TwoProbesGetThrough",
                    {{"--tool", "ping6", "--exit", "0"}, {"--tool", "nc", "--exit", "0"}},
                    "traffic still leaves this Mac with the blackout loaded (ICMPv6 to 2606:4700:4700::1111, TCP to "
                    "1.1.1.1:443) — this is not a cut"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(HardKill, AReferenceThatCanBeNeitherRecordedNorReleasedIsNamed)
{
    for (const auto directory : {paths::stateDirectory, std::string_view("/var/run")}) {
        std::filesystem::remove_all(daemon.mac.path(directory));
        std::ofstream(daemon.mac.path(directory)) << "blocked";
    }
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-X .*", "--exit", "1", "--stderr", "pfctl: pf: token invalid"});
    const auto reply = engage();
    ASSERT_FALSE(reply.get<0>());
    const auto held = references();
    ASSERT_EQ(held.size(), 1u);
    EXPECT_TRUE(daemon.log.contains("ORPHANED pf REFERENCE " + held[0] +
                                    ": it could not be recorded and could not be released. pf stays enabled by ORVEN "
                                    "until this Mac is restarted, or until root runs: pfctl -X " + held[0]));
    EXPECT_TRUE(reply.get<1>()->ends_with(" — and it could not be released either (reference " + held[0] + ")"));
    expectNothingLost();
}

TEST_F(HardKill, AnUnrecordableReferenceIsGivenBackAndTheEngageFails)
{
    for (const auto directory : {paths::stateDirectory, std::string_view("/var/run")}) {
        std::filesystem::remove_all(daemon.mac.path(directory));
        std::ofstream(daemon.mac.path(directory)) << "blocked";
    }
    const auto reply = engage();
    ASSERT_FALSE(reply.get<0>());
    EXPECT_TRUE(reply.get<1>()->starts_with("could not record the pf reference "));
    EXPECT_TRUE(references().empty());
    EXPECT_FALSE(pfEnabled());
}

TEST_F(HardKill, AFailedEngageAfterSuspendingIsolationPutsItBack)
{
    ASSERT_TRUE(setIsolation(true).get<0>());
    const auto isolated = mainRules();
    daemon.mac.addFault({"--tool", "ping", "--exit", "0"});
    ASSERT_FALSE(engage().get<0>());
    EXPECT_EQ(mainRules(), isolated);
    EXPECT_EQ(HelperService::readMainRulesetRecord(context())->shape, "isolation");
    EXPECT_TRUE(daemon.log.contains("engage failed — the LAN isolation ORVEN had suspended is loaded again"));
    expectNothingLost();
}

struct LiftFault {
    const char* name;
    std::vector<std::string> fault;
    std::string message;
    bool reapplyOwed;
};
void PrintTo(const LiftFault& c, std::ostream* os) { *os << c.name; }

class HardKillLiftFault : public HardKillFixture, public ::testing::WithParamInterface<LiftFault> {};

TEST_P(HardKillLiftFault, AnswersTheStepsMessageAndLosesNothing)
{
    ASSERT_TRUE(engage().get<0>());
    daemon.mac.addFault(GetParam().fault);
    const auto reply = lift();
    EXPECT_FALSE(reply.get<0>());
    EXPECT_EQ(reply.get<1>(), GetParam().message);
    daemon.mac.clearFaults();
    expectNothingLost(GetParam().reapplyOwed);
    // Whatever failed, a later lift finishes the job.
    EXPECT_TRUE(lift().get<0>());
    EXPECT_FALSE(daemon.mac.leakTestPasses());
    expectNothingLost();
}

INSTANTIATE_TEST_SUITE_P(
    Steps, HardKillLiftFault,
    ::testing::Values(
        LiftFault{"AnchorFlushFails",
                  {"--tool", "pfctl", "--args", kAnchorPattern + " -F rules", "--exit", "1", "--stderr", "busy"},
                  "Hard Kill is still ON — the blackout could not be removed (pfctl -a … -F rules failed (1): busy). "
                  "This Mac is still cut off from the network. Try again; if it persists, run: sudo "
                  "/Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh",
                  true},
        LiftFault{"AnchorFlushHangs", {"--tool", "pfctl", "--args", kAnchorPattern + " -F rules", "--hang"},
                  "Hard Kill is still ON — the blackout could not be removed (pfctl -a … -F rules failed (124): timed "
                  "out after 1s and was killed). This Mac is still cut off from the network. Try again; if it "
                  "persists, run: sudo /Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh",
                  true},
        LiftFault{"ReleaseRefused", {"--tool", "pfctl", "--args", "-X .*", "--exit", "1", "--stderr", "x"},
                  "ORVEN lifted the blackout but could not confirm it is gone — the blackout is gone and you are "
                  "online, but ORVEN could not give its pf reference back — pf stays switched on because of ORVEN "
                  "until this is retried or the Mac restarts. Treat this Mac as possibly still cut off. To be sure, "
                  "run: sudo /Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh",
                  false},
        LiftFault{"ReleaseHangs", {"--tool", "pfctl", "--args", "-X .*", "--hang"},
                  "ORVEN lifted the blackout but could not confirm it is gone — the blackout is gone and you are "
                  "online, but ORVEN could not give its pf reference back — pf stays switched on because of ORVEN "
                  "until this is retried or the Mac restarts. Treat this Mac as possibly still cut off. To be sure, "
                  "run: sudo /Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh",
                  false},
        LiftFault{"RulesUnreadableForTheProof",
                  {"--tool", "pfctl", "--args", kAnchorPattern + " -sr", "--exit", "1", "--times", "2"},
                  "ORVEN lifted the blackout but could not confirm it is gone — pf did not answer, so the blackout "
                  "cannot be confirmed gone. Treat this Mac as possibly still cut off. To be sure, run: sudo "
                  "/Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh",
                  false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(HardKill, AMarkerThatCannotBeClearedStopsTheLiftBeforePf)
{
    ASSERT_TRUE(engage().get<0>());
    std::filesystem::remove(daemon.mac.path(paths::hardKillMarker));
    std::filesystem::create_directories(daemon.mac.path(paths::hardKillMarker) + "/blocked");
    daemon.host.clearRuns();
    const auto reply = lift();
    EXPECT_FALSE(reply.get<0>());
    EXPECT_TRUE(reply.get<1>()->starts_with(
        "could not clear /Library/Application Support/test.orven.app/hardkill.engaged: "));
    EXPECT_TRUE(pfChanges().empty());
    EXPECT_TRUE(daemon.mac.leakTestPasses());
}

} // namespace
} // namespace orven
