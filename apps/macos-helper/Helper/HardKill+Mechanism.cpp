// The blackout: our anchor loaded with the catch-all, pf held on by a
// reference of our own, and each step proven. Every failure after the
// reference was taken undoes, in order, the anchor, the isolation
// suspension and the reference.

#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "Files.h"
#include "HelperService.h"
#include "PFRuleBuilder.h"
#include "Text.h"

namespace orven {

namespace {

constexpr double kProbeKillGrace = 2.0;

// The labels of the probes of one sweep that got through.
struct ProbeHits {
    std::mutex lock;
    std::set<std::string> hits;
    std::set<std::string> unstarted;
};

std::string parentAnchor()
{
    const std::string_view ours = kBlackoutAnchor;
    return std::string(ours.substr(0, ours.find('/')));
}

} // namespace

const std::vector<HelperService::ExternalProbe>& HelperService::externalProbes()
{
    static const std::vector<ExternalProbe> probes{
        {"ICMP to 1.1.1.1", std::string(paths::ping), {"-c", "1", "-t", "1", "1.1.1.1"}, 4.0},
        {"ICMPv6 to 2606:4700:4700::1111", std::string(paths::ping6), {"-c", "1", "-i", "1", "2606:4700:4700::1111"}, 4.0},
        {"TCP to 1.1.1.1:443", std::string(paths::nc), {"-z", "-G", "2", "-w", "2", "1.1.1.1", "443"}, 5.0},
    };
    return probes;
}

HelperService::ProbeSweep HelperService::sweepExternalProbes(DaemonContext& context)
{
    // In parallel: a sweep costs the largest budget, not the sum.
    ProbeHits sweep;
    const auto runProbe = [&context, &sweep](const ExternalProbe& probe) {
        const auto result = context.host.run(probe.path, probe.args, std::nullopt, probe.budget, kProbeKillGrace);
        if (result.code != 0 && result.code != BoundedProcess::kSpawnFailed) return;
        const std::lock_guard guard(sweep.lock);
        (result.code == 0 ? sweep.hits : sweep.unstarted).insert(probe.label);
    };
    std::vector<std::thread> tasks;
    for (const auto& probe : externalProbes()) {
        try {
            tasks.emplace_back(runProbe, std::cref(probe));
        } catch (const std::system_error&) {
            // No thread to be had: the probe still runs, only not in parallel.
            runProbe(probe);
        }
    }
    for (auto& task : tasks) task.join();
    ProbeSweep outcome;
    const std::lock_guard guard(sweep.lock);
    for (const auto& probe : externalProbes()) {
        if (sweep.hits.count(probe.label)) outcome.through.push_back(probe.label);
        if (sweep.unstarted.count(probe.label)) outcome.unstarted.push_back(probe.label);
    }
    return outcome;
}

std::vector<std::string> HelperService::externalProbesThatGotThrough(DaemonContext& context)
{
    return sweepExternalProbes(context).through;
}

OptionalText HelperService::engageIsProven(DaemonContext& context)
{
    if (blackoutRuleState(context) != HardKillState::Rules::loaded)
        return "the blackout rules are not loaded in " + std::string(kBlackoutAnchor);
    if (pfIsEnabled(context) != true) return std::string("pf is not enforcing — loaded rules block nothing");
    // What is loaded now, not what the plan expected: a load that reported
    // success without loading leaves pass rules ahead of the anchor.
    const auto live = pfctlShowRules(context);
    if (auto reason = HardKillProof::bypassReason(live.code == 0, live.out, siblingAnchorPasses(context)))
        return "the cut is not complete — " + *reason;
    const auto sweep = sweepExternalProbes(context);
    if (!sweep.unstarted.empty())
        return "the outside probes could not be run (" + text::join(sweep.unstarted, ", ") +
               ") — the cut cannot be proven";
    if (sweep.through.empty()) return std::nullopt;
    return "traffic still leaves this Mac with the blackout loaded (" + text::join(sweep.through, ", ") +
           ") — this is not a cut";
}

HelperService::EnableWithToken HelperService::enableWithRecordedIntent(DaemonContext& context)
{
    // Only a crash before the token is recorded needs the intent: without
    // it the engage goes on, as it did before there was one.
    if (auto error = recordEnableIntent(context))
        context.staticLog.error("%{public}s — if ORVEN stops before recording the new pf reference, it will not find it "
                                "again",
                                *error);
    auto enabled = pfctlEnableWithToken(context);
    if (enabled.token) return enabled;
    if (text::startsWith(enabled.error.value_or(""), "pfctl -E failed")) {
        // pf refuses a reference only when it could not make one.
        clearEnableIntent(context);
        return enabled;
    }
    // pfctl said it enabled pf but printed no token: the reference exists,
    // so find it in pf's own list rather than leave it recorded nowhere.
    if (auto token = referenceTakenSinceIntent(context)) {
        context.staticLog.error("pfctl -E printed no token — took reference %{public}s from pf's reference list instead",
                                *token);
        return {std::move(token), std::nullopt};
    }
    return {std::nullopt, *enabled.error +
                              " — pf may now be held on by a reference ORVEN could not identify; the next start of "
                              "ORVEN looks for it again, and a restart of the Mac clears it"};
}

OptionalText HelperService::flushStatesProven(DaemonContext& context)
{
    if (auto error = pfctlFlushStates(context)) return error;
    const auto remaining = pfStateCount(context);
    if (!remaining) return std::string("the state table could not be read after the flush — established connections "
                                       "may still pass");
    if (*remaining > 0)
        return "pfctl -F states left " + std::to_string(*remaining) +
               " state(s) in place — established connections would still pass";
    return std::nullopt;
}

OptionalText HelperService::engageViaAnchor(DaemonContext& context, const HardKillProof::MainRulesetPlan& plan)
{
    auto& log = context.staticLog;
    const auto enabled = enableWithRecordedIntent(context);
    if (enabled.error) return enabled.error;
    const std::string token = *enabled.token;

    // Dated before the append below renews the files' time.
    const auto earlierDates = storeDates(context);
    if (auto recordError = persistTokenImmediately(context, token)) {
        if (!pfctlReleaseToken(context, token)) {
            clearEnableIntent(context);
            return recordError;
        }
        log.error("ORPHANED pf REFERENCE %{public}s: it could not be recorded and could not be released. pf stays "
                  "enabled by ORVEN until this Mac is restarted, or until root runs: pfctl -X %{public}s",
                  token, token);
        return *recordError + " — and it could not be released either (reference " + token + ")";
    }
    clearEnableIntent(context);

    std::optional<PFRuleBuilder::LANIsolationParams> suspended;
    if (plan.kind == HardKillProof::MainRulesetPlan::Kind::suspendIsolation) {
        if (const auto record = readMainRulesetRecord(context)) {
            const auto loadError =
                loadOwnMainRuleset(context, PFRuleBuilder::renderIsolationSuspendedRuleset(),
                                   HardKillProof::MainRulesetShape::isolationSuspended, record->params);
            if (loadError) {
                // Released directly: the token stays recorded for a later lift to retry.
                pfctlReleaseToken(context, token);
                return "could not suspend LAN isolation before the blackout: " + *loadError;
            }
            log.notice("LAN isolation suspended for the duration of the blackout — its pass rules are evaluated before "
                       "the anchor");
            suspended = record->params;
        }
    }

    const auto release = releaseHeldTokens(context, token, earlierDates);
    if (release.kind == TokenRelease::Kind::failed)
        log.error("a previous pf reference could not be released: %{public}s", release.message);

    OptionalText failure;
    bool flushAnchor = false;
    if (auto error = pfctlLoadAnchor(context, PFRuleBuilder::hardKillAnchorRuleset())) {
        failure = std::move(error);
    } else if (auto flushError = flushStatesProven(context)) {
        failure = std::move(flushError);
        flushAnchor = true;
    } else if (auto unproven = engageIsProven(context)) {
        failure = std::move(unproven);
        flushAnchor = true;
    } else {
        return std::nullopt;
    }

    if (flushAnchor) pfctlFlushAnchor(context);
    if (suspended) restoreSuspendedIsolation(context, *suspended);
    rollbackOwnReference(context, token);
    return failure;
}

void HelperService::giveBackOurReferences(DaemonContext& context)
{
    const auto release = releaseHeldTokens(context, std::nullopt);
    switch (release.kind) {
    case TokenRelease::Kind::nothingHeld:
        context.staticLog.notice("no pf token on disk — nothing to release (a reboot drops references anyway)");
        break;
    case TokenRelease::Kind::released:
        break;
    case TokenRelease::Kind::failed:
        context.staticLog.error("blackout lifted, but the pf reference was NOT released: %{public}s", release.message);
        break;
    }
}

OptionalText HelperService::disengageIsProven(DaemonContext& context)
{
    const auto rules = blackoutRuleState(context);
    const bool marker = hardKillFlagExists(context);
    const bool tokens = !allHeldTokens(context).empty();
    using Rules = HardKillState::Rules;
    if (rules == Rules::absent && !marker && !tokens) return std::nullopt;
    if (rules == Rules::absent && !marker)
        return std::string("the blackout is gone and you are online, but ORVEN could not give its pf reference back — "
                           "pf stays switched on because of ORVEN until this is retried or the Mac restarts");
    if (rules == Rules::loaded) return std::string("the blackout ruleset is still loaded after the lift");
    if (rules == Rules::unknown) return std::string("pf did not answer, so the blackout cannot be confirmed gone");
    return std::string("the reboot marker is still on disk, so a restart would re-apply the blackout");
}

std::string HelperService::liftUnprovenMessage(std::string_view reason)
{
    return "ORVEN lifted the blackout but could not confirm it is gone — " + std::string(reason) +
           ". Treat this Mac as possibly still cut off. To be sure, run: sudo " + std::string(paths::rescueScript);
}

std::optional<std::vector<std::string>> HelperService::siblingAnchorPasses(DaemonContext& context)
{
    const auto listing = runPfctl(context, {"-a", parentAnchor(), "-s", "Anchors"});
    if (listing.code != 0) return std::nullopt;
    std::vector<std::string> passes;
    for (const auto& sibling : HardKillProof::siblingAnchorNames(listing.out, kBlackoutAnchor)) {
        const auto rules = runPfctl(context, {"-a", sibling, "-sr"});
        // An unreadable sibling could hold anything: no answer, not "none".
        if (rules.code != 0) return std::nullopt;
        for (auto& line : HardKillProof::quickPassRules(rules.out)) passes.push_back(std::move(line));
    }
    return passes;
}

HardKillProof::MainRulesetPlan HelperService::mainRulesetPlan(DaemonContext& context, bool liveReadable,
                                                              std::string_view liveDump)
{
    return HardKillProof::planFor(readMainRulesetRecord(context), liveReadable, liveDump);
}

} // namespace orven
