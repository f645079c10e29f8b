// pf reference tokens on the simulated Mac: recorded at once, released only
// when pf takes them back, dropped only when they predate the boot.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "HelperService.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using testing::SimulatedDaemon;
using Store = HelperService::TokenStore;
using Kind = HelperService::TokenRelease::Kind;

constexpr std::string_view kPrimary = "/Library/Application Support/test.orven.app/hardkill.pf-token";
constexpr std::string_view kEmergency = "/var/run/test.orven.app.hardkill.pf-token";

class TokenStore : public ::testing::Test {
protected:
    DaemonContext& context() { return daemon.context; }
    std::string takeReference()
    {
        const auto enabled = HelperService::pfctlEnableWithToken(context());
        EXPECT_TRUE(enabled.token);
        return enabled.token.value_or("");
    }
    std::string takeRecordedReference()
    {
        const auto token = takeReference();
        EXPECT_FALSE(HelperService::persistTokenImmediately(context(), token));
        return token;
    }
    // pf's reference list unreadable: only then do dates decide.
    void hidePfReferences()
    {
        daemon.mac.addFault({"--tool", "pfctl", "--args", "-s References", "--exit", "1", "--times", "0"});
    }
    // Makes a store's place on disk unwritable, even for root.
    void block(std::string_view macDirectory)
    {
        const auto path = daemon.mac.path(macDirectory);
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << "not a directory";
    }
    SimulatedDaemon daemon;
};

TEST_F(TokenStore, ReadsOneTokenPerLineTrimmed)
{
    ASSERT_FALSE(HelperService::writeTokens(context(), {"1"}, Store::primary));
    std::ofstream(daemon.mac.path(kPrimary)) << "123\n\n  456 \n\t\n";
    EXPECT_EQ(HelperService::readTokens(context(), Store::primary), (std::vector<std::string>{"123", "456"}));
    EXPECT_TRUE(HelperService::readTokens(context(), Store::emergency).empty());
}

TEST_F(TokenStore, WritesWholeFilesWithTheirModesAndRemovesEmptyOnes)
{
    ASSERT_FALSE(HelperService::writeTokens(context(), {"11", "22"}, Store::primary));
    EXPECT_EQ(daemon.mac.readFile(kPrimary), "11\n22\n");
    EXPECT_EQ(daemon.mac.fileMode(kPrimary), 0600);
    EXPECT_EQ(daemon.mac.fileMode("/Library/Application Support/test.orven.app"), 0755);
    ASSERT_FALSE(HelperService::writeTokens(context(), {}, Store::primary));
    EXPECT_FALSE(daemon.mac.fileExists(kPrimary));
}

TEST_F(TokenStore, AllHeldTokensListsEachTokenOncePrimaryFirst)
{
    ASSERT_FALSE(HelperService::writeTokens(context(), {"1", "2"}, Store::primary));
    ASSERT_FALSE(HelperService::writeTokens(context(), {"2", "3"}, Store::emergency));
    const std::vector<HelperService::HeldToken> expected{
        {"1", Store::primary}, {"2", Store::primary}, {"3", Store::emergency}};
    EXPECT_EQ(HelperService::allHeldTokens(context()), expected);
}

TEST_F(TokenStore, PersistAppendsToThePrimaryStoreOnce)
{
    ASSERT_FALSE(HelperService::persistTokenImmediately(context(), "5"));
    ASSERT_FALSE(HelperService::persistTokenImmediately(context(), "6"));
    ASSERT_FALSE(HelperService::persistTokenImmediately(context(), "5"));
    EXPECT_EQ(daemon.mac.readFile(kPrimary), "5\n6\n");
    EXPECT_FALSE(daemon.mac.fileExists(kEmergency));
}

TEST_F(TokenStore, PersistFallsBackToTheEmergencyFile)
{
    block("/Library/Application Support/test.orven.app");
    ASSERT_FALSE(HelperService::persistTokenImmediately(context(), "77"));
    EXPECT_EQ(daemon.mac.readFile(kEmergency), "77\n");
    EXPECT_TRUE(daemon.log.contains("could not record the pf token in the state directory — wrote it to "
                                    "/var/run/test.orven.app.hardkill.pf-token instead"));
}

TEST_F(TokenStore, PersistNamesTheTokenWhenNothingCanBeWritten)
{
    block("/Library/Application Support/test.orven.app");
    block("/var/run");
    EXPECT_EQ(HelperService::persistTokenImmediately(context(), "77"),
              "could not record the pf reference 77 anywhere on disk: could not write the state directory: Not a "
              "directory; could not write the boot-scoped emergency file: Not a directory");
}

TEST_F(TokenStore, NothingHeldExceptTheCallersOwn)
{
    EXPECT_EQ(HelperService::releaseHeldTokens(context(), std::nullopt).kind, Kind::nothingHeld);
    ASSERT_FALSE(HelperService::writeTokens(context(), {"9"}, Store::primary));
    EXPECT_EQ(HelperService::releaseHeldTokens(context(), std::string("9")).kind, Kind::nothingHeld);
    EXPECT_EQ(daemon.mac.readFile(kPrimary), "9\n");
    EXPECT_TRUE(daemon.mac.calls(true).empty());
}

TEST_F(TokenStore, ReleasesAtMostTwoPerCallAndKeepsTheRest)
{
    const auto first = takeRecordedReference();
    const auto second = takeRecordedReference();
    const auto third = takeRecordedReference();
    const auto release = HelperService::releaseHeldTokens(context(), std::nullopt);
    EXPECT_EQ(release.kind, Kind::failed);
    EXPECT_EQ(release.message, "pfctl -X did not accept 1 stored token(s) written since the last boot — ORVEN may "
                               "still be holding pf enabled. They are kept so the next lift can try again.");
    EXPECT_EQ(HelperService::readTokens(context(), Store::primary), std::vector<std::string>{third});
    EXPECT_EQ(HelperService::pfIsEnabled(context()), true);
    EXPECT_EQ(HelperService::releaseHeldTokens(context(), std::nullopt).kind, Kind::released);
    EXPECT_EQ(HelperService::pfIsEnabled(context()), false);
    EXPECT_FALSE(daemon.mac.fileExists(kPrimary));
}

TEST_F(TokenStore, TheSameTokenInBothFilesIsReleasedOnceAndRemovedFromBoth)
{
    const auto token = takeReference();
    ASSERT_FALSE(HelperService::writeTokens(context(), {token}, Store::primary));
    ASSERT_FALSE(HelperService::writeTokens(context(), {token}, Store::emergency));
    EXPECT_EQ(HelperService::releaseHeldTokens(context(), std::nullopt).kind, Kind::released);
    EXPECT_FALSE(daemon.mac.fileExists(kPrimary));
    EXPECT_FALSE(daemon.mac.fileExists(kEmergency));
    EXPECT_EQ(daemon.mac.calls(true).size(), 2u);  // -E and one -X
}

TEST_F(TokenStore, ARefusedTokenWrittenSinceTheBootIsKept)
{
    takeReference();
    hidePfReferences();
    ASSERT_FALSE(HelperService::writeTokens(context(), {"31337"}, Store::primary));
    const auto release = HelperService::releaseHeldTokens(context(), std::nullopt);
    EXPECT_EQ(release.kind, Kind::failed);
    EXPECT_EQ(HelperService::readTokens(context(), Store::primary), std::vector<std::string>{"31337"});
}

TEST_F(TokenStore, TokensFromBeforeARebootAreDroppedByTheBootTimeRule)
{
    takeRecordedReference();
    daemon.mac.reboot();
    hidePfReferences();
    EXPECT_EQ(HelperService::releaseHeldTokens(context(), std::nullopt).kind, Kind::released);
    EXPECT_FALSE(daemon.mac.fileExists(kPrimary));
    EXPECT_TRUE(daemon.log.contains("pf token(s) predate this boot — they name no reference and were removed"));
}

TEST_F(TokenStore, AnUnknownBootTimeKeepsRefusedTokens)
{
    const auto token = takeRecordedReference();
    daemon.mac.reboot();
    std::filesystem::remove(daemon.mac.root() + "/.macsim/boottime");
    hidePfReferences();
    EXPECT_EQ(HelperService::releaseHeldTokens(context(), std::nullopt).kind, Kind::failed);
    EXPECT_EQ(HelperService::readTokens(context(), Store::primary), std::vector<std::string>{token});
}

TEST_F(TokenStore, RollbackGivesTheReferenceBackAndForgetsIt)
{
    const auto token = takeRecordedReference();
    ASSERT_FALSE(HelperService::writeTokens(context(), {"1", token}, Store::emergency));
    HelperService::rollbackOwnReference(context(), token);
    EXPECT_FALSE(daemon.mac.fileExists(kPrimary));
    EXPECT_EQ(HelperService::readTokens(context(), Store::emergency), std::vector<std::string>{"1"});
    EXPECT_EQ(HelperService::pfIsEnabled(context()), false);
}

TEST_F(TokenStore, RollbackKeepsATokenPfRefused)
{
    ASSERT_FALSE(HelperService::writeTokens(context(), {"4242"}, Store::primary));
    HelperService::rollbackOwnReference(context(), "4242");
    EXPECT_EQ(daemon.mac.readFile(kPrimary), "4242\n");
    EXPECT_TRUE(daemon.log.contains("engage rolled back, but its own pf reference could not be released — the token "
                                    "stays on disk so a later lift can retry"));
}

// pf's own list settles what an exit status cannot.
TEST_F(TokenStore, ARefusedTokenPfDoesNotHoldIsDroppedWhateverItsDate)
{
    takeReference();  // pf stays on, so -X of a stranger says "token invalid"
    ASSERT_FALSE(HelperService::writeTokens(context(), {"31337"}, Store::primary));
    EXPECT_EQ(HelperService::releaseHeldTokens(context(), std::nullopt).kind, Kind::released);
    EXPECT_FALSE(daemon.mac.fileExists(kPrimary));
    EXPECT_TRUE(daemon.log.contains("pf token(s) name no reference pf holds — they were removed from disk"));
}

TEST_F(TokenStore, AReleaseThatExitsZeroButLeavesTheReferenceKeepsTheToken)
{
    const auto token = takeRecordedReference();
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-X .*", "--exit", "0"});
    const auto release = HelperService::releaseHeldTokens(context(), std::nullopt);
    EXPECT_EQ(release.kind, Kind::failed);
    EXPECT_EQ(HelperService::readTokens(context(), Store::primary), std::vector<std::string>{token});
    EXPECT_TRUE(daemon.log.contains("pfctl -X " + token +
                                    " exited 0 but pf still holds that reference — the token stays on disk"));
}

TEST_F(TokenStore, RollbackKeepsATokenWhoseReleaseExitedZeroButDidNothing)
{
    const auto token = takeRecordedReference();
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-X .*", "--exit", "0"});
    HelperService::rollbackOwnReference(context(), token);
    EXPECT_EQ(HelperService::readTokens(context(), Store::primary), std::vector<std::string>{token});
    EXPECT_EQ(HelperService::pfIsEnabled(context()), true);
}

TEST_F(TokenStore, ReconcilingDropsRecordedTokensPfDoesNotHold)
{
    const auto live = takeRecordedReference();
    ASSERT_FALSE(HelperService::writeTokens(context(), {"1", live}, Store::emergency));
    HelperService::reconcileTokensWithPf(context());
    EXPECT_EQ(HelperService::readTokens(context(), Store::primary), std::vector<std::string>{live});
    EXPECT_EQ(HelperService::readTokens(context(), Store::emergency), std::vector<std::string>{live});
    EXPECT_TRUE(daemon.log.contains("pf holds no reference for the recorded token(s) 1 — removed from disk"));
}

TEST_F(TokenStore, ReconcilingChangesNothingWhenPfsListCannotBeRead)
{
    ASSERT_FALSE(HelperService::writeTokens(context(), {"1"}, Store::primary));
    hidePfReferences();
    HelperService::reconcileTokensWithPf(context());
    EXPECT_EQ(HelperService::readTokens(context(), Store::primary), std::vector<std::string>{"1"});
}

// What a daemon killed between `pfctl -E` and the token's record leaves.
TEST_F(TokenStore, AnEnableInterruptedBeforeItsRecordIsFoundAndRecorded)
{
    const auto earlier = takeReference();  // somebody else's, held before
    ASSERT_FALSE(HelperService::recordEnableIntent(context()));
    const auto ours = takeReference();
    HelperService::reconcileTokensWithPf(context());
    EXPECT_EQ(HelperService::readTokens(context(), Store::primary), std::vector<std::string>{ours});
    EXPECT_FALSE(daemon.mac.fileExists("/Library/Application Support/test.orven.app/hardkill.pf-enable-pending"));
    EXPECT_NE(earlier, ours);
}

TEST_F(TokenStore, TwoNewReferencesSinceTheIntentAreNotToldApartAndNeitherIsAdopted)
{
    ASSERT_FALSE(HelperService::recordEnableIntent(context()));
    takeReference();
    takeReference();
    HelperService::reconcileTokensWithPf(context());
    EXPECT_TRUE(HelperService::allHeldTokens(context()).empty());
}

} // namespace
} // namespace orven
