#include <gtest/gtest.h>

#include <fstream>

#include "HardKillState.h"
#include "HelperService.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using testing::ActionCapture;
using testing::SimulatedDaemon;

const std::string kScript = std::string(ORVEN_SOURCE_DIR) + "/apps/macos-helper/Install/hardkill-deactivate.sh";

class RescueScript : public ::testing::Test {
protected:
    // The script as root runs it, with the simulated Mac as its file system.
    BoundedProcess::Result rescue() const
    {
        return BoundedProcess::run("/usr/bin/env", {"ORVEN_ROOT=" + daemon.mac.root(), "/bin/sh", kScript},
                                   std::nullopt, 60.0, 2.0);
    }

    void engage()
    {
        ActionCapture capture;
        daemon.service(501).setHardKill(true, capture.reply());
        ASSERT_EQ(capture.values(), std::make_tuple(true, std::optional<std::string>()));
    }

    // A reference taken behind the daemon's back, recorded where the daemon
    // would have put it had the state directory been unwritable.
    std::string extraReferenceInTheEmergencyFile() const
    {
        const auto enabled = daemon.mac.pfctl({"-E"});
        const auto token = HardKillState::tokenFromEnableOutput(enabled.out + "\n" + enabled.err);
        EXPECT_TRUE(token) << enabled.err;
        const std::string path = daemon.mac.path(paths::emergencyToken);
        std::ofstream(path) << token.value_or("") << "\n";
        return token.value_or("");
    }

    std::string anchorRules() const { return daemon.mac.pfctl({"-a", "com.apple/999.test.orven.app", "-sr"}).out; }
    bool referencesHeld() const { return daemon.mac.show({"references"}).find("references: 0") == std::string::npos; }

    void expectNoHardKillFiles() const
    {
        for (const auto path : {paths::hardKillMarker, paths::hardKillOwner, paths::primaryToken, paths::emergencyToken})
            EXPECT_FALSE(daemon.mac.fileExists(path)) << path;
    }

    SimulatedDaemon daemon;
};

TEST_F(RescueScript, LiftsABlackoutAndGivesBackEveryReferenceThenIsHarmlessAgain)
{
    engage();
    const std::string extra = extraReferenceInTheEmergencyFile();
    ASSERT_FALSE(anchorRules().empty());
    ASSERT_TRUE(referencesHeld());

    const auto first = rescue();
    EXPECT_EQ(first.code, 0) << first.out << first.err;
    EXPECT_EQ(anchorRules(), "");
    EXPECT_FALSE(referencesHeld()) << daemon.mac.show({"references"});
    expectNoHardKillFiles();
    EXPECT_NE(first.out.find("gave back pf reference " + extra), std::string::npos) << first.out;

    const auto second = rescue();
    EXPECT_EQ(second.code, 0) << second.out << second.err;
    EXPECT_NE(second.out.find("is already gone"), std::string::npos) << second.out;
    EXPECT_EQ(anchorRules(), "");
    expectNoHardKillFiles();
}

TEST_F(RescueScript, ReferencesFromBeforeARestartAreDropped)
{
    engage();
    daemon.mac.reboot();
    const auto result = rescue();
    EXPECT_EQ(result.code, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("was no longer held"), std::string::npos) << result.out;
    expectNoHardKillFiles();
}

TEST_F(RescueScript, AReferencePfWillNotTakeBackStaysOnDisk)
{
    engage();
    const auto held = HelperService::allHeldTokens(daemon.context);
    ASSERT_EQ(held.size(), 1u);
    daemon.mac.addFault({"--tool", "pfctl", "--args", "-X .*", "--exit", "1", "--stderr", "pfctl: DIOCSTOPREF: busy",
                         "--times", "0"});

    const auto result = rescue();
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.err.find("could not give back pf reference " + held[0].token), std::string::npos) << result.err;
    // The cut is gone all the same, and nothing will put it back.
    EXPECT_EQ(anchorRules(), "");
    EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillMarker));
    EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillOwner));
    EXPECT_EQ(daemon.mac.readFile(paths::primaryToken), held[0].token + "\n");
    EXPECT_EQ(daemon.mac.fileMode(paths::primaryToken), 0600);
}

TEST_F(RescueScript, OnAStockMacThereIsNothingToDo)
{
    const auto result = rescue();
    EXPECT_EQ(result.code, 0) << result.out << result.err;
    EXPECT_FALSE(referencesHeld());
    expectNoHardKillFiles();
}

} // namespace
} // namespace orven
