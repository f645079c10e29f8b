// The blackout: our anchor loaded with the catch-all, pf held on by a
// reference of our own, and each step proven. Every failure after the
// reference was taken undoes, in order, the anchor, the isolation
// suspension and the reference.

#include <mutex>
#include <set>
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

std::vector<std::string> HelperService::externalProbesThatGotThrough(DaemonContext& context)
{
    // In parallel: a sweep costs the largest budget, not the sum.
    ProbeHits sweep;
    std::vector<std::thread> tasks;
    for (const auto& probe : externalProbes()) {
        tasks.emplace_back([&context, &sweep, &probe] {
            const auto result = context.host.run(probe.path, probe.args, std::nullopt, probe.budget, kProbeKillGrace);
            if (result.code != 0) return;
            const std::lock_guard guard(sweep.lock);
            sweep.hits.insert(probe.label);
        });
    }
    for (auto& task : tasks) task.join();
    std::vector<std::string> through;
    const std::lock_guard guard(sweep.lock);
    for (const auto& probe : externalProbes())
        if (sweep.hits.count(probe.label)) through.push_back(probe.label);
    return through;
}

OptionalText HelperService::engageIsProven(DaemonContext& context)
{
    if (blackoutRuleState(context) != HardKillState::Rules::loaded)
        return "the blackout rules are not loaded in " + std::string(kBlackoutAnchor);
    if (pfIsEnabled(context) != true) return std::string("pf is not enforcing — loaded rules block nothing");
    const auto through = externalProbesThatGotThrough(context);
    if (through.empty()) return std::nullopt;
    return "traffic still leaves this Mac with the blackout loaded (" + text::join(through, ", ") +
           ") — this is not a cut";
}

OptionalText HelperService::engageViaAnchor(DaemonContext& context, const HardKillProof::MainRulesetPlan& plan)
{
    auto& log = context.staticLog;
    const auto enabled = pfctlEnableWithToken(context);
    if (enabled.error) return enabled.error;
    if (!enabled.token) return std::string("pfctl -E returned no token");
    const std::string token = *enabled.token;

    if (auto recordError = persistTokenImmediately(context, token)) {
        if (!pfctlReleaseToken(context, token)) return recordError;
        log.error("ORPHANED pf REFERENCE %{public}s: it could not be recorded and could not be released. pf stays "
                  "enabled by ORVEN until this Mac is restarted, or until root runs: pfctl -X %{public}s",
                  token, token);
        return *recordError + " — and it could not be released either (reference " + token + ")";
    }

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

    const auto release = releaseHeldTokens(context, token);
    if (release.kind == TokenRelease::Kind::failed)
        log.error("a previous pf reference could not be released: %{public}s", release.message);

    OptionalText failure;
    bool flushAnchor = false;
    if (auto error = pfctlLoadAnchor(context, PFRuleBuilder::hardKillAnchorRuleset())) {
        failure = std::move(error);
    } else if (auto flushError = pfctlFlushStates(context)) {
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

OptionalText HelperService::liftViaAnchor(DaemonContext& context)
{
    auto flushError = pfctlFlushAnchor(context);
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
    return flushError;
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
