#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "ForwardingHost.h"
#include "HelperService.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using testing::ActionCapture;
using testing::ReplyCapture;
using testing::SimulatedMac;

const std::string kAnchorListing = "-a com\\.apple/999\\.test\\.orven\\.app -sr";
const std::string kAlreadyUnderWay =
    "An uninstall is already under way (or pf is busy). Nothing was changed; try again in a moment.";
const std::string kStillEnforcing =
    "Refusing to uninstall: Hard Kill is still enforcing (or pf is not answering, which counts the same) and removing "
    "the Helper would take away the only way to lift it. Turn Hard Kill off first, or run hardkill-deactivate.sh as "
    "root — it is installed beside the Helper at "
    "/Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh.";
const std::string kStandingAgain =
    "Refusing to uninstall: a blackout is standing again (or pf and the pf lock are not answering, which count the "
    "same) after it was lifted. Nothing was deleted. Turn Hard Kill off, or run hardkill-deactivate.sh as root — it "
    "is installed beside the Helper at /Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh.";

const std::vector<std::string_view> kInstalledPaths = {
    paths::launchdPlist, paths::appBundle, paths::rescueScript, paths::installDirectory, paths::legacyInstallDirectory};

// Passes every call to the simulated Mac, except that the listing of the
// blackout anchor stops answering after its first `answered` calls.
class FlakyAnchorHost final : public ForwardingHost {
public:
    FlakyAnchorHost(Host& inner, int answered) : ForwardingHost(inner), answersLeft_(answered) {}
    BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& standardInput, double timeout,
                               double killGrace) override
    {
        const std::vector<std::string> listing{"-a", "com.apple/999.test.orven.app", "-sr"};
        if (macPath == paths::pfctl && arguments == listing && answersLeft_-- <= 0)
            return {1, "", "pfctl: DIOCGETRULES: Device busy\n"};
        return ForwardingHost::run(macPath, arguments, standardInput, timeout, killGrace);
    }

private:
    int answersLeft_;
};

// A simulated Mac with the Helper installed on it, and a daemon whose exit
// is intercepted: the uninstall's bootout and fallback run on a thread of
// their own, so the exit is waited for, never assumed.
class Administration : public ::testing::Test {
protected:
    Administration() { context.pfctlTimeoutSeconds = 2.0; }

    ~Administration() override
    {
        // Background work still to come must not outlive the context.
        if (expectExit_) waitForExit();
    }

    void install() const
    {
        writeFile(paths::launchdPlist, "<plist/>");
        writeFile(std::string(paths::appBundle) + "/Contents/MacOS/ORVEN Helper", "binary");
        writeFile(paths::rescueScript, "#!/bin/sh\n");
        writeFile(std::string(paths::legacyInstallDirectory) + "/hardkill-deactivate.sh", "#!/bin/sh\n");
    }

    void writeFile(std::string_view macPath, std::string_view content) const
    {
        std::filesystem::create_directories(std::filesystem::path(mac.path(macPath)).parent_path());
        std::ofstream(mac.path(macPath), std::ios::binary) << content;
    }

    ActionCapture uninstall(std::uint32_t uid = 501)
    {
        ActionCapture capture;
        HelperService(context, uid).uninstallSelf(capture.reply());
        EXPECT_EQ(capture.count(), 1);
        // Past the proofs the bootout follows in every case, problems or not.
        if (capture.answered()) {
            const auto& message = capture.get<1>();
            if (message != kAlreadyUnderWay && message != kStillEnforcing && message != kStandingAgain) expectExit_ = true;
        }
        return capture;
    }

    ActionCapture setHardKill(bool engaged, std::uint32_t uid = 501)
    {
        ActionCapture capture;
        HelperService(context, uid).setHardKill(engaged, capture.reply());
        EXPECT_EQ(capture.count(), 1);
        return capture;
    }

    std::vector<int> waitForExit()
    {
        std::unique_lock lock(mutex_);
        exited_.wait_for(lock, std::chrono::seconds(30), [this] { return !exitStatuses_.empty(); });
        expectExit_ = false;
        return exitStatuses_;
    }

    bool receiptExists() const
    {
        return mac.macsim("run", {"pkgutil", "--pkg-info", "test.orven.app.helper"}).code == 0;
    }

    std::vector<std::string> callsOf(std::string_view tool) const
    {
        std::vector<std::string> found;
        for (const auto& call : mac.calls()) {
            if (call.value("tool", "") != tool) continue;
            std::string line;
            for (const auto& argument : call["args"]) line += (line.empty() ? "" : " ") + argument.get<std::string>();
            found.push_back(line);
        }
        return found;
    }

    // Waits until the simulated Mac's record shows a call of `tool`.
    bool waitForCall(std::string_view tool) const
    {
        for (int attempt = 0; attempt < 300; ++attempt) {
            if (!callsOf(tool).empty()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    std::vector<LogRecord> serviceLines() const
    {
        auto records = log.records();
        records.erase(std::remove_if(records.begin(), records.end(),
                                     [](const LogRecord& r) { return r.category != "Service"; }),
                      records.end());
        return records;
    }

    SimulatedMac mac;
    RecordingLogSink log;
    SimulatedMacHost host{mac.root(), log, [this](int status) {
                              const std::lock_guard lock(mutex_);
                              exitStatuses_.push_back(status);
                              exited_.notify_all();
                          }};
    DaemonContext context{host};

private:
    std::mutex mutex_;
    std::condition_variable exited_;
    std::vector<int> exitStatuses_;
    bool expectExit_ = false;
};

TEST_F(Administration, UninstallOnAStockMacRemovesEverythingThenBootsItselfOut)
{
    install();
    const auto reply = uninstall();
    EXPECT_EQ(reply.values(), std::make_tuple(true, std::optional<std::string>()));

    for (const auto path : kInstalledPaths) EXPECT_FALSE(mac.fileExists(path)) << path;
    EXPECT_FALSE(receiptExists());

    EXPECT_EQ(waitForExit(), std::vector<int>{0});
    ASSERT_TRUE(waitForCall("launchctl"));
    EXPECT_EQ(callsOf("launchctl"), std::vector<std::string>{"bootout system/test.orven.app.helper"});

    std::vector<std::string> lines;
    for (const auto& record : serviceLines()) lines.push_back(record.message);
    const std::vector<std::string> expected{
        "uninstallSelf requested — beginning on-disk cleanup",
        "uninstallSelf: pf reference handed back before removing the Helper",
        "uninstallSelf: final clear proof holds — no blackout, no pf reference of ours — deleting on disk",
        "pkgutil --forget OK",
        "removed plist /Library/LaunchDaemons/test.orven.app.helper.plist",
        "removed app bundle /Library/PrivilegedHelperTools/test.orven.app/ORVEN Helper.app",
        "removed the pre-2.5.2 install directory /usr/local/lib/test.orven.app",
        "uninstallSelf: kicking launchctl bootout",
        "uninstallSelf: bootout didn't terminate us — exit(0) fallback",
    };
    EXPECT_EQ(lines, expected);
}

TEST_F(Administration, MissingFilesAndAMissingReceiptAreNotProblems)
{
    mac.macsim("run", {"pkgutil", "--forget", "test.orven.app.helper"});
    std::filesystem::remove_all(mac.path(paths::installDirectory));
    const auto reply = uninstall();
    EXPECT_EQ(reply.values(), std::make_tuple(true, std::optional<std::string>()));
    EXPECT_TRUE(log.contains("pkgutil --forget non-zero exit 1 (no receipt is fine): No receipt for "
                             "'test.orven.app.helper' found at '/'."));
    EXPECT_FALSE(log.containsFragment("removed plist"));
    EXPECT_FALSE(log.containsFragment("removed app bundle"));
}

TEST_F(Administration, ASecondUninstallIsRefusedAndChangesNothing)
{
    install();
    ASSERT_TRUE(uninstall().get<0>());
    install();
    mac.clearCalls();

    const auto second = uninstall();
    EXPECT_EQ(second.values(), std::make_tuple(false, std::optional<std::string>(kAlreadyUnderWay)));
    for (const auto path : kInstalledPaths) EXPECT_TRUE(mac.fileExists(path)) << path;
    EXPECT_TRUE(callsOf("pkgutil").empty());
    EXPECT_TRUE(callsOf("pfctl").empty());
    EXPECT_EQ(waitForExit(), std::vector<int>{0});
}

TEST_F(Administration, AnEngageIsRefusedWhileAnUninstallIsClaimed)
{
    install();
    ASSERT_TRUE(uninstall().get<0>());
    const auto engage = setHardKill(true);
    EXPECT_FALSE(engage.get<0>());
    EXPECT_FALSE(mac.fileExists(paths::hardKillMarker));
    EXPECT_EQ(waitForExit(), std::vector<int>{0});
}

TEST_F(Administration, AStandingHardKillIsLiftedFirstWhateverAccountAsks)
{
    install();
    ASSERT_TRUE(setHardKill(true, 501).get<0>());
    ASSERT_TRUE(mac.fileExists(paths::hardKillMarker));

    // Another account: the uninstall skips the owner check on purpose.
    const auto reply = uninstall(502);
    EXPECT_EQ(reply.values(), std::make_tuple(true, std::optional<std::string>()));
    EXPECT_TRUE(log.contains(
        "uninstallSelf: Hard Kill is armed (or pf is unreadable, which counts the same) — lifting it first"));
    EXPECT_TRUE(log.containsFragment("DHCP kick"));
    EXPECT_EQ(mac.pfctl({"-a", "com.apple/999.test.orven.app", "-sr"}).out, "");
    EXPECT_NE(mac.show({"references"}).find("references: 0"), std::string::npos);
    EXPECT_FALSE(mac.fileExists(paths::hardKillMarker));
    EXPECT_FALSE(mac.fileExists(paths::hardKillOwner));
    EXPECT_FALSE(mac.fileExists(paths::primaryToken));
    EXPECT_FALSE(context.hardKillEngaged);
    for (const auto path : kInstalledPaths) EXPECT_FALSE(mac.fileExists(path)) << path;
    EXPECT_EQ(waitForExit(), std::vector<int>{0});
}

TEST_F(Administration, UnreadableBlackoutRulesDeleteNothingAndReleaseTheClaim)
{
    install();
    mac.addFault({"--tool", "pfctl", "--args", kAnchorListing, "--exit", "1", "--times", "0"});

    const auto reply = uninstall();
    EXPECT_EQ(reply.values(), std::make_tuple(false, std::optional<std::string>(kStillEnforcing)));
    for (const auto path : kInstalledPaths) EXPECT_TRUE(mac.fileExists(path)) << path;
    EXPECT_TRUE(receiptExists());
    EXPECT_TRUE(log.contains(kStillEnforcing));
    EXPECT_FALSE(context.uninstallClaimed);

    // The claim is gone: a blackout can be engaged again.
    mac.clearFaults();
    EXPECT_EQ(setHardKill(true).values(), std::make_tuple(true, std::optional<std::string>()));
    EXPECT_TRUE(mac.fileExists(paths::hardKillMarker));
}

TEST_F(Administration, ABlackoutThatCannotBeRuledOutAtTheEndDeletesNothing)
{
    install();
    FlakyAnchorHost flaky(host, 1);
    DaemonContext flakyContext(flaky);
    ActionCapture capture;
    HelperService(flakyContext, 501).uninstallSelf(capture.reply());
    EXPECT_EQ(capture.values(), std::make_tuple(false, std::optional<std::string>(kStandingAgain)));
    for (const auto path : kInstalledPaths) EXPECT_TRUE(mac.fileExists(path)) << path;
    EXPECT_TRUE(receiptExists());
    EXPECT_FALSE(flakyContext.uninstallClaimed);
}

TEST_F(Administration, AReferenceThatCannotBeGivenBackIsNamedAndTheUninstallGoesOn)
{
    install();
    // A reference pf holds, recorded this boot, that pf refuses to take back.
    const auto token = HardKillState::tokenFromEnableOutput(mac.pfctl({"-E"}).err).value_or("");
    ASSERT_FALSE(token.empty());
    writeFile(paths::primaryToken, token + "\n");
    mac.addFault({"--tool", "pfctl", "--args", "-X .*", "--exit", "1", "--stderr", "pfctl: DIOCSTOPREF: busy",
                  "--times", "0"});

    const auto reply = uninstall();
    EXPECT_EQ(reply.values(), std::make_tuple(true, std::optional<std::string>()));
    EXPECT_TRUE(log.containsFragment("uninstallSelf: pf reference NOT handed back: "));
    EXPECT_TRUE(log.containsFragment(
        ". STRANDED pf REFERENCE(S): " + token + " — as root: pfctl -X <number>, one call each"));
    EXPECT_TRUE(log.containsFragment("uninstallSelf: no blackout stands, but a pf reference of ours could NOT be "
                                     "handed back"));
    EXPECT_FALSE(log.containsFragment("final clear proof holds"));
    for (const auto path : kInstalledPaths) EXPECT_FALSE(mac.fileExists(path)) << path;
    EXPECT_EQ(waitForExit(), std::vector<int>{0});
}

// Root may remove anything but an immutable file: the one way to make a
// removal fail here.
class Immutable {
public:
    explicit Immutable(const std::string& path) : path_(path) { set_ = change(true); }
    ~Immutable()
    {
        if (set_) change(false);
    }
    Immutable(const Immutable&) = delete;
    Immutable& operator=(const Immutable&) = delete;
    bool isSet() const { return set_; }

private:
    bool change(bool on) const
    {
        const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return false;
        int flags = 0;
        bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
        if (done) {
            flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
            done = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
        }
        ::close(fd);
        return done;
    }

    std::string path_;
    bool set_ = false;
};

struct RemovalCase {
    const char* name;
    std::string lockedFile;
    std::string logLine;
    std::string message;
    std::string_view removedAnyway;
};

class FailedRemoval : public Administration, public ::testing::WithParamInterface<RemovalCase> {};

TEST_P(FailedRemoval, IsReportedAndTheRestStillGoes)
{
    install();
    Immutable locked(mac.path(GetParam().lockedFile));
    if (!locked.isSet()) GTEST_SKIP() << "this file system cannot make a file immutable";

    const auto reply = uninstall();
    EXPECT_EQ(reply.values(), std::make_tuple(false, std::optional<std::string>(GetParam().message)));
    EXPECT_TRUE(log.contains(GetParam().logLine)) << GetParam().logLine;
    EXPECT_FALSE(mac.fileExists(paths::launchdPlist));
    EXPECT_FALSE(mac.fileExists(GetParam().removedAnyway));
    EXPECT_EQ(waitForExit(), std::vector<int>{0});
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FailedRemoval,
    ::testing::Values(
        RemovalCase{"LegacyDirectory", "/usr/local/lib/test.orven.app/hardkill-deactivate.sh",
                    "could not remove /usr/local/lib/test.orven.app: Operation not permitted",
                    "could not remove /usr/local/lib/test.orven.app: Operation not permitted; "
                    "/usr/local/lib/test.orven.app still exists — it is writable by the console user and holds a "
                    "root-executable rescue script; remove it by hand with sudo rm -rf",
                    paths::appBundle},
        RemovalCase{"InstallDirectory", std::string(paths::rescueScript),
                    "install-dir removal failed: Operation not permitted",
                    "could not remove /Library/PrivilegedHelperTools/test.orven.app: Operation not permitted",
                    paths::legacyInstallDirectory}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Administration, SelfTerminateRepliesThenExits)
{
    ReplyCapture<bool> capture;
    HelperService(context, 501).selfTerminate(capture.reply());
    ASSERT_EQ(capture.count(), 1);
    EXPECT_TRUE(capture.get<0>());
    EXPECT_TRUE(log.contains("selfTerminate requested — exiting after reply"));
    EXPECT_EQ(waitForExit(), std::vector<int>{0});
}

// Another client's pf work holds the lock: the exit waits for it, and only a
// wedged one (past the lock's budget) is left behind.
TEST_F(Administration, SelfTerminateWaitsForPfWorkInFlight)
{
    context.pfLockBudgetSeconds = 0.5;
    std::unique_lock inFlight(context.pfLock);
    ReplyCapture<bool> capture;
    HelperService(context, 501).selfTerminate(capture.reply());
    ASSERT_EQ(capture.count(), 1);
    EXPECT_EQ(waitForExit(), std::vector<int>{0});
    EXPECT_TRUE(log.contains("pf lock unavailable after 0.500000s — another pf operation is wedged"));
    EXPECT_TRUE(log.contains("selfTerminate: pf work did not finish within the lock's budget — exiting anyway"));
}

TEST_F(Administration, SpawnDetachedReportsAProgramThatCannotStart)
{
    const Logger service(log, "Service");
    EXPECT_FALSE(HelperService::spawnDetached(context, "/bin/no-such-tool", {}, service));
    EXPECT_TRUE(log.contains("spawnDetached failed for /bin/no-such-tool: No such file or directory"));
}

} // namespace
} // namespace orven
