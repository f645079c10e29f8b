// The daemon removing itself, exiting on request, and its start-up look at
// who could replace the bundle that launchd runs as root.

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <chrono>
#include <cstring>
#include <thread>

#include "Files.h"
#include "HelperService.h"
#include "Text.h"

extern char** environ;

namespace orven {

namespace {

constexpr std::string_view kPackageReceipt = "test.orven.app.helper";
constexpr std::string_view kLaunchdJob = "system/test.orven.app.helper";
constexpr double kPkgutilTimeout = 10.0;
constexpr auto kBootoutDelay = std::chrono::milliseconds(150);
constexpr auto kBootoutGrace = std::chrono::milliseconds(500);
constexpr auto kSelfTerminateDelay = std::chrono::milliseconds(100);

constexpr std::string_view kAlreadyUnderWay =
    "An uninstall is already under way (or pf is busy). Nothing was changed; try again in a moment.";
constexpr std::string_view kStillEnforcing =
    "Refusing to uninstall: Hard Kill is still enforcing (or pf is not answering, which counts the same) and removing "
    "the Helper would take away the only way to lift it. Turn Hard Kill off first, or run hardkill-deactivate.sh as "
    "root — it is installed beside the Helper at "
    "/Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh.";
constexpr std::string_view kStandingAgain =
    "Refusing to uninstall: a blackout is standing again (or pf and the pf lock are not answering, which count the "
    "same) after it was lifted. Nothing was deleted. Turn Hard Kill off, or run hardkill-deactivate.sh as root — it "
    "is installed beside the Helper at /Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh.";

// Runs `work` on its own thread after `delay`; the process may end during it.
template <class Work>
void later(std::chrono::milliseconds delay, Work work)
{
    try {
        std::thread([delay, work = std::move(work)]() mutable {
            std::this_thread::sleep_for(delay);
            work();
        }).detach();
    } catch (const std::system_error&) {
        // No thread to be had: do it now rather than never.
        work();
    }
}

bool noBlackoutStands(DaemonContext& context)
{
    return !HelperService::hardKillFlagExists(context) &&
           HelperService::blackoutRuleState(context) == HardKillState::Rules::absent;
}

} // namespace

// --- Uninstall ---------------------------------------------------------------

bool HelperService::claimUninstall(DaemonContext& context)
{
    if (context.uninstallClaimed) return false;
    context.uninstallClaimed = true;
    return true;
}

void HelperService::abandonUninstall(DaemonContext& context) { context.uninstallClaimed = false; }

void HelperService::refuseAfterClaim(const std::string& message, ActionReply& reply)
{
    log_.notice("%{public}s", message);
    // Two tries: a claim left set would refuse every engage until a restart.
    auto released = withPFLock(context_, [&] { abandonUninstall(context_); });
    if (!released) released = withPFLock(context_, [&] { abandonUninstall(context_); });
    reply(false, message);
    if (!released) {
        log_.error("The uninstall claim could NOT be released — the pf lock did not answer twice in a row. Exiting so "
                   "launchd hands the next caller a daemon that can engage again.");
        context_.host.exitProcess(1);
    }
}

bool HelperService::returnPFReferenceBeforeUninstall()
{
    auto& context = context_;
    struct Outcome {
        TokenRelease release;
        std::vector<HeldToken> stillHeld;
    };
    const auto outcome = withPFLock(context, [&] {
        Outcome result{releaseHeldTokens(context, std::nullopt), {}};
        if (result.release.kind == TokenRelease::Kind::failed) result.stillHeld = allHeldTokens(context);
        return result;
    });
    if (!outcome) {
        log_.error("uninstallSelf: the pf lock did not answer, so the pf reference could not even be tried");
        return true;
    }
    if (outcome->release.kind == TokenRelease::Kind::failed) {
        std::vector<std::string> numbers;
        for (const auto& held : outcome->stillHeld) numbers.push_back(held.token);
        log_.error("uninstallSelf: pf reference NOT handed back: %{public}s. STRANDED pf REFERENCE(S): %{public}s — "
                   "as root: pfctl -X <number>, one call each",
                   outcome->release.message, text::join(numbers, ", "));
        return true;
    }
    log_.notice("uninstallSelf: pf reference handed back before removing the Helper");
    return false;
}

void HelperService::uninstallSelf(ActionReply reply)
{
    auto& context = context_;
    log_.notice("uninstallSelf requested — beginning on-disk cleanup");

    const auto claimed = withPFLock(context, [&] { return claimUninstall(context); });
    if (!claimed || !*claimed) {
        log_.notice("%{public}s", kAlreadyUnderWay);
        reply(false, std::string(kAlreadyUnderWay));
        return;
    }

    // Unknown counts as armed: the Helper is the only way to lift a blackout.
    if (!noBlackoutStands(context)) {
        log_.notice("uninstallSelf: Hard Kill is armed (or pf is unreadable, which counts the same) — lifting it first");
        // The owner check is skipped on purpose: the uninstall must not leave a cut behind.
        const auto lift = withPFLock(context, [&]() -> OptionalText {
            // The records go only once the blackout is gone.
            if (auto error = pfctlFlushAnchor(context)) return error;
            (void)clearHardKillFlag(context);
            clearHardKillOwner(context);
            context.hardKillEngaged = false;
            giveBackOurReferences(context);
            return std::nullopt;
        });
        const bool lifted = lift && !*lift;
        kickDHCPRenewal(context);
        if (!lifted || !noBlackoutStands(context)) {
            refuseAfterClaim(std::string(kStillEnforcing), reply);
            return;
        }
    }

    const bool stranded = returnPFReferenceBeforeUninstall();

    const auto finalProof = withPFLock(context, [&] { return noBlackoutStands(context); });
    if (!finalProof || !*finalProof) {
        refuseAfterClaim(std::string(kStandingAgain), reply);
        return;
    }

    if (stranded)
        log_.error("uninstallSelf: no blackout stands, but a pf reference of ours could NOT be handed back — pf stays "
                   "switched on because of ORVEN, so any ruleset another product has loaded stays in force. Removing "
                   "the Helper anyway: the reference blocks nothing and nothing left on this Mac will retry it. It "
                   "goes away at the next restart; sooner with the numbers named in the line above.");
    else
        log_.notice("uninstallSelf: final clear proof holds — no blackout, no pf reference of ours — deleting on disk");

    const auto forget =
        runProcess(context, paths::pkgutil, {"--forget", std::string(kPackageReceipt)}, std::nullopt, kPkgutilTimeout);
    if (forget.code != 0) {
        const std::string output = text::trimWhitespaceAndNewlines(forget.out + "\n" + forget.err);
        log_.notice("pkgutil --forget non-zero exit %d (no receipt is fine): %{public}s", forget.code, output);
    } else {
        log_.notice("pkgutil --forget OK");
    }

    std::vector<std::string> problems;
    const auto removeIfPresent = [&](std::string_view macPath) -> bool {
        const std::string local = context.host.path(macPath);
        if (!files::exists(local)) return false;
        if (auto error = files::removeTree(local)) {
            log_.error("could not remove %{public}s: %{public}s", macPath, *error);
            problems.push_back("could not remove " + std::string(macPath) + ": " + *error);
            return false;
        }
        return true;
    };
    if (removeIfPresent(paths::launchdPlist)) log_.notice("removed plist %s", paths::launchdPlist);
    if (removeIfPresent(paths::appBundle)) log_.notice("removed app bundle %s", paths::appBundle);
    {
        // The install directory also holds the rescue script; its failure has a line of its own.
        const std::string local = context.host.path(paths::installDirectory);
        if (files::exists(local)) {
            if (auto error = files::removeTree(local)) {
                log_.error("install-dir removal failed: %s", *error);
                problems.push_back("could not remove " + std::string(paths::installDirectory) + ": " + *error);
            }
        }
    }
    if (removeIfPresent(paths::legacyInstallDirectory))
        log_.notice("removed the pre-2.5.2 install directory %{public}s", paths::legacyInstallDirectory);
    if (files::exists(context.host.path(paths::legacyInstallDirectory)))
        problems.push_back("/usr/local/lib/test.orven.app still exists — it is writable by the console user and holds "
                           "a root-executable rescue script; remove it by hand with sudo rm -rf");

    if (problems.empty()) reply(true, std::nullopt);
    else reply(false, text::join(problems, "; "));

    // launchd stops us; if it does not, we go by ourselves.
    const Logger log = log_;
    later(kBootoutDelay, [&context, log] {
        log.notice("uninstallSelf: kicking launchctl bootout");
        spawnDetached(context, paths::launchctl, {"bootout", std::string(kLaunchdJob)}, log);
        std::this_thread::sleep_for(kBootoutGrace);
        log.notice("uninstallSelf: bootout didn't terminate us — exit(0) fallback");
        context.host.exitProcess(0);
    });
}

bool HelperService::spawnDetached(DaemonContext& context, std::string_view path,
                                  const std::vector<std::string>& arguments, const Logger& log)
{
    const std::string executable = context.host.path(path);
    // argv[0] is the path the program was started by, as a shell would pass it.
    std::vector<std::string> argv{executable};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (auto& argument : argv) pointers.push_back(argument.data());
    pointers.push_back(nullptr);

    // The child gets /dev/null for its standard streams and none of our
    // descriptors: it must not hold a client's socket open.
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
#ifdef __APPLE__
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#else
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#endif
    sigset_t defaults;
    sigset_t empty;
    sigemptyset(&empty);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGINT);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setsigmask(&attributes, &empty);
    posix_spawnattr_setflags(&attributes, flags);

    pid_t pid = -1;
    const int status = ::posix_spawn(&pid, executable.c_str(), &actions, &attributes, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (status != 0) {
        log.error("spawnDetached failed for %s: %s", path, std::strerror(status));
        return false;
    }
    // Nobody waits for it, but it must not stay a zombie: reap it aside.
    try {
        std::thread([pid] {
            int ignored = 0;
            while (::waitpid(pid, &ignored, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    } catch (const std::system_error&) {
        // Without a thread the child is reaped by launchd when we go.
    }
    return true;
}

// --- Self-termination --------------------------------------------------------

void HelperService::selfTerminate(Reply<bool> reply)
{
    log_.notice("selfTerminate requested — exiting after reply");
    reply(true);
    auto& context = context_;
    later(kSelfTerminateDelay, [&context] {
        // Never in the middle of another client's pf work: that would leave
        // a half-done engage or lift and an unanswered client. Holding the
        // lock while exiting also keeps the next one from starting.
        const auto exited = withPFLock(context, [&context] { context.host.exitProcess(0); });
        if (!exited) {
            context.staticLog.error("selfTerminate: pf work did not finish within the lock's budget — exiting anyway");
            context.host.exitProcess(0);
        }
    });
}

// --- Install path integrity --------------------------------------------------

void HelperService::reportInstallPathIntegrity(DaemonContext& context)
{
    const Logger log(context.host.logSink(), "Bootstrap");
    std::string prefix;
    for (const auto& component : text::splitWords(paths::appBundle, "/")) {
        prefix += "/" + component;
        struct stat info{};
        // lstat: a link on the way is itself the finding, never followed.
        if (::lstat(context.host.path(prefix).c_str(), &info) != 0) {
            log.error("install path: cannot stat %{public}s", prefix);
            return;
        }
        if (S_ISLNK(info.st_mode)) {
            log.error("install path: %{public}s is a SYMLINK — root is executing through an interposition point",
                      prefix);
            return;
        }
        if (info.st_uid != 0) {
            log.error("install path: %{public}s is owned by uid %{public}u, not root — this bundle can be replaced "
                      "without sudo and launchd would run the replacement as root",
                      prefix, static_cast<std::uint32_t>(info.st_uid));
            return;
        }
        if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
            log.error("install path: %{public}s is writable by group or other — this bundle can be replaced and "
                      "launchd would run the replacement as root",
                      prefix);
            return;
        }
    }
    log.info("install path: every component root-owned and not group/other-writable — %{public}s", paths::appBundle);
}

} // namespace orven
