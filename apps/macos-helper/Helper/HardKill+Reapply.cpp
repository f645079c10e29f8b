// At start: a blackout engaged before must stand again, a reference left by
// an earlier run is given back, and a pre-anchor blackout is unwound.

#include "Files.h"
#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

void giveBackEarlierReferences(DaemonContext& context)
{
    const auto release = HelperService::releaseHeldTokens(context, std::nullopt);
    if (release.kind == HelperService::TokenRelease::Kind::failed)
        context.staticLog.error("a pf reference from a previous run is still held: %{public}s", release.message);
    else
        context.staticLog.notice("gave back a pf reference left over from a previous run");
}

// An engage that was cut short (the daemon killed before its marker was
// written) leaves its rules in the anchor: dormant while pf is off, but in
// force again the moment anything enables pf. No marker asks for them.
void removeInterruptedBlackout(DaemonContext& context)
{
    if (HelperService::blackoutRuleState(context) == HardKillState::Rules::loaded) {
        if (auto error = HelperService::pfctlFlushAnchor(context))
            context.staticLog.error("a blackout left by an interrupted engage could not be removed: %{public}s", *error);
        else
            context.staticLog.notice("removed a blackout left by an interrupted engage — no reboot marker asked for it");
    }
    HelperService::withdrawHardKillOwnerUnlessCutStands(context);
}

} // namespace

void HelperService::reapplyHardKillAtBoot(DaemonContext& context)
{
    const bool marker = hardKillFlagExists(context);
    const bool legacy = legacyTakeOverRecordExists(context);
    const bool referencesHeld = !allHeldTokens(context).empty();
    // Every engage records its owner first: a record without a marker is
    // the trace of one that did not finish.
    const bool ownerLeft = files::exists(context.host.path(paths::hardKillOwner));
    // What an operation cut short by a crash leaves behind.
    const bool interrupted = files::exists(context.host.path(paths::enablePending)) ||
                             files::exists(context.host.path(paths::mainRulesetPending));
    const bool suspendedIsolation = suspendedIsolationRecorded(context);
    if (!marker && !legacy && !referencesHeld && !ownerLeft && !interrupted && !suspendedIsolation) return;

    const auto done = withPFLock(context, [&] {
        // One look first: with pf not answering, every step below would wait
        // out its whole time-out only to learn nothing.
        const auto info = pfctlShowInfo(context);
        if (info.code == BoundedProcess::kTimedOut) {
            context.staticLog.error("pf did not answer at start (pfctl -s info timed out) — the blackout state is "
                                    "UNKNOWN; the Hard Kill re-apply and clean-up were not attempted and every record "
                                    "is kept for the next start");
            return;
        }
        recoverInterruptedMainRulesetLoad(context);
        reconcileTokensWithPf(context);
        if (legacy) unwindLegacyTakeOverLocked(context);
        if (marker) {
            reapplyHardKillLocked(context);
            return;
        }
        if (!allHeldTokens(context).empty()) giveBackEarlierReferences(context);
        removeInterruptedBlackout(context);
        restoreIsolationOfInterruptedEngage(context);
    });
    if (!done) context.staticLog.error("Hard Kill re-apply skipped — pf lock unavailable");
}

bool HelperService::suspendedIsolationRecorded(DaemonContext& context)
{
    const auto record = readMainRulesetRecord(context);
    return record && record->shape == HardKillProof::rawValue(HardKillProof::MainRulesetShape::isolationSuspended);
}

void HelperService::restoreIsolationOfInterruptedEngage(DaemonContext& context)
{
    // Only once no blackout rules are left: pass rules ahead of them would
    // weaken a cut.
    if (blackoutRuleState(context) != HardKillState::Rules::absent) return;
    const auto restore = isolationToRestore(context);
    if (restore.unreadable) {
        context.staticLog.error("LAN isolation suspended by an interrupted Hard Kill was not restored at start: "
                                "%{public}s",
                                *restore.unreadable);
        return;
    }
    if (!restore.params) return;
    if (auto error = restoreIsolationVerified(context, *restore.params)) {
        context.staticLog.error("LAN isolation suspended by an interrupted Hard Kill could NOT be restored at start: "
                                "%{public}s",
                                *error);
        return;
    }
    context.staticLog.notice("LAN isolation suspended by an interrupted Hard Kill restored on %{public}s",
                             restore.params->interface);
}

void HelperService::reapplyHardKillLocked(DaemonContext& context)
{
    auto& log = context.staticLog;
    if (cutIsStanding(context)) {
        context.hardKillEngaged = true;
        log.notice("Hard Kill re-apply at start: the cut is already standing — nothing re-taken");
        return;
    }
    // The new reference is taken before the earlier ones are given back
    // (inside the engage), so pf is never left without ours in between.
    const auto live = pfctlShowRules(context);
    const auto plan = mainRulesetPlan(context, live.code == 0, live.out);
    const auto error = engageViaAnchor(context, plan);
    if (!error) {
        context.hardKillEngaged = true;
        log.notice("Hard Kill re-applied at start from persisted state — anchor loaded, pf reference held");
        return;
    }
    const auto rules = blackoutRuleState(context);
    const auto enabled = pfIsEnabled(context);
    const std::string_view enabledText = !enabled ? "unknown" : (*enabled ? "true" : "false");
    if (rules == HardKillState::Rules::loaded && enabled == true) {
        context.hardKillEngaged = true;
        log.error("Hard Kill re-apply at start FAILED but the machine is DARK — the blackout ruleset is loaded and pf is "
                  "enforcing it, so new connections are blocked. Lift it with hardkill-deactivate.sh as root. Cause: "
                  "%{public}s",
                  *error);
    } else if (rules == HardKillState::Rules::unknown || !enabled) {
        // Unknown is never reported as absent.
        log.error("Hard Kill re-apply at start FAILED and pf did not answer (rules=%{public}s, pf enabled=%{public}s) — "
                  "whether a blackout stands is UNKNOWN. Cause: %{public}s",
                  HardKillState::spelling(rules), enabledText, *error);
    } else {
        log.error("Hard Kill re-apply at start FAILED; no blackout is standing (rules=%{public}s, pf enabled=%{public}s). "
                  "This says nothing about whether the Mac has internet. Cause: %{public}s",
                  HardKillState::spelling(rules), enabledText, *error);
    }
    // The marker stays, so the next start tries again.
    withdrawHardKillOwnerUnlessCutStands(context);
}

bool HelperService::legacyTakeOverRecordExists(DaemonContext& context)
{
    return files::exists(context.host.path(paths::legacyPrior)) ||
           files::exists(context.host.path(paths::legacyPreRuleset));
}

void HelperService::clearLegacyTakeOverRecord(DaemonContext& context)
{
    files::remove(context.host.path(paths::legacyPrior));
    files::remove(context.host.path(paths::legacyPreRuleset));
}

void HelperService::unwindLegacyTakeOverLocked(DaemonContext& context)
{
    auto& log = context.staticLog;
    const auto before = pfctlShowRules(context);
    if (before.code != 0) {
        log.notice("legacy take-over record found, but pfctl -sr did not answer (%{public}d) — leaving both alone",
                   before.code);
        return;
    }
    if (!text::contains(before.out, kCatchAllRule)) {
        log.notice("legacy take-over record found with nothing loaded in the main ruleset — removing the record");
        clearLegacyTakeOverRecord(context);
        return;
    }
    const auto reload = runPfctl(context, {"-f", std::string(paths::pfConf)});
    if (reload.code != 0) {
        log.error("LEGACY BLACKOUT STILL STANDING — pfctl -f %{public}s failed (%{public}d). This Mac is dark from a "
                  "pre-anchor Hard Kill and this daemon could not undo it. Run scripts/hardkill-deactivate.sh as root.",
                  paths::pfConf, reload.code);
        return;
    }
    const auto after = pfctlShowRules(context);
    if (after.code == 0 && !text::contains(after.out, kCatchAllRule)) {
        log.notice("legacy main-ruleset blackout unwound — stock rules loaded, record removed");
        clearLegacyTakeOverRecord(context);
        clearMainRulesetRecord(context);
        return;
    }
    log.error("LEGACY BLACKOUT MAY STILL STAND — stock was loaded but the catch-all is still readable (or pf stopped "
              "answering). Keeping the record so the next start tries again.");
}

} // namespace orven
