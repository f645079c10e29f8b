// Who may engage and lift the blackout, what must be proven before an engage
// starts, and what is written so that it survives a restart.

#include "Files.h"
#include "HelperService.h"
#include "PFRuleBuilder.h"
#include "Text.h"

namespace orven {

namespace {

constexpr mode_t kStateDirectoryMode = 0755;
constexpr mode_t kMarkerMode = 0644;
constexpr mode_t kOwnerMode = 0600;

} // namespace

void HelperService::setHardKill(bool engaged, ActionReply reply)
{
    const auto followUp = withPFLock(context_, [&] { return hardKillLocked(engaged, reply); });
    if (!followUp) {
        reply(false, std::string("pf is busy — another operation has not finished. ORVEN will retry; if this persists, "
                                 "run scripts/hardkill-deactivate.sh as root."));
        return;
    }
    // Outside the lock: the kick may take its whole budget.
    if (followUp->renewDHCP) kickDHCPRenewal(context_);
}

HelperService::HardKillFollowUp HelperService::hardKillLocked(bool engaged, ActionReply& reply)
{
    auto& context = context_;
    auto& log = context.staticLog;

    if (engaged) {
        if (context.uninstallClaimed) {
            log.notice("Hard Kill engage REFUSED — an uninstall is in flight");
            reply(false, std::string("The ORVEN Helper is being uninstalled — Hard Kill cannot be engaged while that is "
                                     "under way. Finish or cancel the uninstall, then try again."));
            return {};
        }
        // A standing cut already has its owner: an earlier engage.
        const bool recordedOwner = !cutIsStanding(context);
        if (recordedOwner) recordHardKillOwner(context, peerUID_);

        const auto live = pfctlShowRules(context);
        const bool readable = live.code == 0;
        const auto plan = mainRulesetPlan(context, readable, live.out);
        if (plan.kind == HardKillProof::MainRulesetPlan::Kind::refuse)
            log.notice("Hard Kill engage: %{public}s", plan.reason);

        const auto siblingPasses = siblingAnchorPasses(context);
        // A live isolation is judged by the ruleset that will replace it.
        const auto reason =
            plan.kind == HardKillProof::MainRulesetPlan::Kind::suspendIsolation
                ? HardKillProof::bypassReason(true, PFRuleBuilder::renderIsolationSuspendedRuleset(), siblingPasses)
                : HardKillProof::bypassReason(readable, live.out, siblingPasses);
        if (reason) {
            log.error("Hard Kill engage REFUSED — the cut would not be complete: %{public}s", *reason);
            if (recordedOwner) withdrawHardKillOwnerUnlessCutStands(context);
            reply(false, "Hard Kill was NOT engaged: " + *reason + ". Nothing was changed and you are still online.");
            return {};
        }

        if (auto error = engageViaAnchor(context, plan)) {
            log.error("Hard Kill engage failed: %{public}s", *error);
            if (recordedOwner) withdrawHardKillOwnerUnlessCutStands(context);
            reply(false, *error);
            return {};
        }
        context.hardKillEngaged = true;
        if (auto error = writeHardKillFlag(context))
            log.error("Hard Kill ENGAGED but state write failed — will NOT survive a reboot: %{public}s", *error);
        log.notice("Hard Kill ENGAGED — total blackout, all interfaces");
        reply(true, std::nullopt);
        return {};
    }

    // pf's own list first: a token left by a lift that was cut short names
    // no reference any more and must not make this lift look unproven.
    reconcileTokensWithPf(context);
    const bool marker = hardKillFlagExists(context);
    const auto rules = blackoutRuleState(context);
    const bool referencesHeld = !allHeldTokens(context).empty();
    if (!marker && rules == HardKillState::Rules::absent && !referencesHeld) {
        log.notice("Hard Kill disengage: no marker, no blackout rules and no pf reference of ours — pf and DHCP left "
                   "untouched");
        // A lift whose restore failed left the isolation suspended: asking
        // again is how the user gets it back.
        const auto restore = isolationToRestore(context);
        if (restore.params) {
            if (auto error = restoreIsolationVerified(context, *restore.params)) {
                log.error("Hard Kill lifted but isolation restore failed: %{public}s", *error);
                reply(false, *error);
                return {};
            }
            log.notice("LAN isolation restored on %{public}s — it had stayed suspended after an earlier lift",
                       restore.params->interface);
        }
        reply(true, std::nullopt);
        return {};
    }
    const auto owner = readHardKillOwner(context);
    if (owner && *owner != peerUID_) {
        log.notice("Hard Kill lift REFUSED — the standing blackout belongs to another user account; pf, the reboot "
                   "marker and DHCP all left untouched");
        reply(true, std::nullopt);
        return {};
    }
    if (auto error = clearHardKillFlag(context)) {
        log.error("Hard Kill: state clear failed: %{public}s", *error);
        reply(false, *error);
        return {};
    }
    if (auto error = pfctlFlushAnchor(context)) {
        // Still dark: the records say so again, and so does the reply.
        if (auto markerError = writeHardKillFlag(context))
            log.error("Hard Kill ENGAGED but state write failed — will NOT survive a reboot: %{public}s", *markerError);
        log.error("Hard Kill disengage failed: %{public}s", *error);
        reply(false, stillDarkMessage(*error));
        return {};
    }
    context.hardKillEngaged = false;
    clearHardKillOwner(context);
    giveBackOurReferences(context);

    const auto restore = isolationToRestore(context);
    if (restore.unreadable) {
        log.error("Hard Kill lifted but isolation restore failed: %{public}s", *restore.unreadable);
        reply(false, *restore.unreadable);
        return {};
    }
    if (restore.params) {
        if (auto error = restoreIsolationVerified(context, *restore.params)) {
            log.error("Hard Kill lifted but isolation restore failed: %{public}s", *error);
            reply(false, *error);
            return {};
        }
    }
    if (auto unproven = disengageIsProven(context)) {
        log.error("Hard Kill lift NOT confirmed: %{public}s", *unproven);
        reply(false, liftUnprovenMessage(*unproven));
        return {};
    }
    if (restore.params)
        log.notice("Hard Kill DISENGAGED and VERIFIED — anchor emptied, LAN isolation restored on %{public}s",
                   restore.params->interface);
    else
        log.notice("Hard Kill DISENGAGED and VERIFIED — anchor emptied, pf reference released");
    reply(true, std::nullopt);
    return {true};
}

std::string HelperService::stillDarkMessage(std::string_view cause)
{
    return "Hard Kill is still ON — the blackout could not be removed (" + std::string(cause) +
           "). This Mac is still cut off from the network. Try again; if it persists, run: sudo " +
           std::string(paths::rescueScript);
}

HelperService::IsolationRestore HelperService::isolationToRestore(DaemonContext& context)
{
    const auto record = readMainRulesetRecord(context);
    if (!record) return {};
    const auto shape = HardKillProof::shapeFromRawValue(record->shape);
    if (!shape || *shape != HardKillProof::MainRulesetShape::isolationSuspended || !record->dump) return {};
    const auto live = pfctlShowRules(context);
    if (live.code != 0)
        return {std::nullopt, "LAN isolation was not restored: the loaded pf ruleset could not be read to confirm it is "
                              "still ORVEN's (pfctl -sr answered " +
                                  std::to_string(live.code) + ")"};
    // Somebody else's ruleset since: theirs stays.
    if (HardKillProof::normalisedDump(*record->dump) != HardKillProof::normalisedDump(live.out)) return {};
    return {record->params, std::nullopt};
}

OptionalText HelperService::restoreIsolationVerified(DaemonContext& context,
                                                     const PFRuleBuilder::LANIsolationParams& params)
{
    if (auto error = pfctlLoadEnableAndFlush(context, PFRuleBuilder::renderFullRuleset(params), params)) return error;
    const auto record = readMainRulesetRecord(context);
    const bool restored = record && record->shape == HardKillProof::rawValue(HardKillProof::MainRulesetShape::isolation);
    if (!restored)
        return std::string("LAN isolation could not be confirmed restored — the loaded pf ruleset could not be read back "
                           "as ORVEN's isolation");
    return std::nullopt;
}

void HelperService::restoreSuspendedIsolation(DaemonContext& context, const PFRuleBuilder::LANIsolationParams& params)
{
    auto& log = context.staticLog;
    // Pass rules ahead of a standing blackout would let the gateway, DHCP
    // and DNS out of a machine that is otherwise cut off.
    if (blackoutRuleState(context) != HardKillState::Rules::absent) {
        log.error("engage failed after ORVEN suspended your LAN isolation, and a blackout ruleset is STILL loaded — the "
                  "isolation was deliberately not put back, because its pass rules are evaluated before the blackout "
                  "and would let the gateway, DHCP and DNS out of a machine that is otherwise cut off. Turn Hard Kill "
                  "off to get the isolation back, or run hardkill-deactivate.sh as root.");
        return;
    }
    if (auto error = restoreIsolationVerified(context, params)) {
        log.error("engage failed and ORVEN could NOT put your LAN isolation back: %{public}s — the local network is "
                  "reachable again although you asked for it to be isolated. ORVEN re-applies it on the next network "
                  "change; sudo pfctl -f %{public}s restores Apple's stock ruleset.",
                  *error, paths::pfConf);
        return;
    }
    log.notice("engage failed — the LAN isolation ORVEN had suspended is loaded again");
}

void HelperService::recordHardKillOwner(DaemonContext& context, std::uint32_t uid)
{
    const auto directoryError = files::createDirectories(context.host.path(paths::stateDirectory), kStateDirectoryMode);
    if (directoryError ||
        files::writeAtomically(context.host.path(paths::hardKillOwner), std::to_string(uid), kOwnerMode))
        context.staticLog.error("Hard Kill: could not record the owner — any session may lift it");
}

std::optional<std::uint32_t> HelperService::readHardKillOwner(DaemonContext& context)
{
    const auto content = files::read(context.host.path(paths::hardKillOwner), 4096);
    if (!content) return std::nullopt;
    std::string digits = text::trimWhitespaceAndNewlines(*content);
    if (text::startsWith(digits, "+")) digits.erase(0, 1);
    const auto value = text::parseUnsigned(digits, UINT32_MAX);
    if (!value) return std::nullopt;
    return static_cast<std::uint32_t>(*value);
}

void HelperService::clearHardKillOwner(DaemonContext& context)
{
    files::remove(context.host.path(paths::hardKillOwner));
}

void HelperService::withdrawHardKillOwnerUnlessCutStands(DaemonContext& context)
{
    if (cutIsStanding(context)) {
        context.staticLog.error("Hard Kill engage did not complete, but a cut is standing — KEEPING the owner record");
        return;
    }
    clearHardKillOwner(context);
}

bool HelperService::hardKillFlagExists(DaemonContext& context)
{
    return files::exists(context.host.path(paths::hardKillMarker));
}

OptionalText HelperService::writeHardKillFlag(DaemonContext& context)
{
    if (auto error = files::createDirectories(context.host.path(paths::stateDirectory), kStateDirectoryMode))
        return "could not create state directory: " + *error;
    if (files::writeAtomically(context.host.path(paths::hardKillMarker), "", kMarkerMode))
        return "could not create " + std::string(paths::hardKillMarker);
    return std::nullopt;
}

OptionalText HelperService::clearHardKillFlag(DaemonContext& context)
{
    if (!hardKillFlagExists(context)) return std::nullopt;
    if (auto error = files::remove(context.host.path(paths::hardKillMarker)))
        return "could not clear " + std::string(paths::hardKillMarker) + ": " + *error;
    return std::nullopt;
}

} // namespace orven
