// LAN isolation: load or remove our own main ruleset, and remember exactly
// what we loaded so we never write over a ruleset somebody else loaded since.

#include "Files.h"
#include "HelperService.h"
#include "PFRuleBuilder.h"
#include "Text.h"

namespace orven {

namespace {

constexpr mode_t kStateDirectoryMode = 0755;
constexpr mode_t kRecordMode = 0600;

} // namespace

void HelperService::setLANIsolation(bool enabled, const std::string& interface, const std::string& gatewayV4,
                                    const std::string& subnetV4, const std::vector<std::string>& dnsV4,
                                    const std::string& gatewayV6, const std::vector<std::string>& subnetsV6,
                                    const std::vector<std::string>& dnsV6, ActionReply reply)
{
    const auto handled = withPFLock(context_, [&] {
        return lanIsolationLocked(enabled, interface, gatewayV4, subnetV4, dnsV4, gatewayV6, subnetsV6, dnsV6, reply);
    });
    if (!handled) reply(false, std::string("pf is busy — another operation has not finished"));
}

bool HelperService::lanIsolationLocked(bool enabled, const std::string& interface, const std::string& gatewayV4,
                                       const std::string& subnetV4, const std::vector<std::string>& dnsV4,
                                       const std::string& gatewayV6, const std::vector<std::string>& subnetsV6,
                                       const std::vector<std::string>& dnsV6, ActionReply& reply)
{
    auto& context = context_;
    if (enabled) {
        const std::string trimmedGatewayV6 = text::trimWhitespace(gatewayV6);
        const PFRuleBuilder::LANIsolationParams params{
            interface, gatewayV4, subnetV4, dnsV4,
            trimmedGatewayV6.empty() ? std::nullopt : std::optional(trimmedGatewayV6), subnetsV6, dnsV6};
        try {
            PFRuleBuilder::validate(params);
        } catch (const PFRuleBuilder::ValidationError& error) {
            const std::string message = "LAN isolation: invalid params — " + error.description();
            log_.notice("%{public}s", message);
            reply(false, message);
            return true;
        }
        // A blackout is never weakened by pass rules; the marker counts too,
        // for a blackout that start-up could not take back yet.
        if (context.hardKillEngaged || hardKillFlagExists(context)) {
            log_.notice("LAN isolation request recorded for %{public}s — Hard Kill owns pf; it will apply when Hard Kill "
                        "lifts",
                        interface);
            reply(true, std::nullopt);
            return true;
        }
        if (auto error = pfctlLoadEnableAndFlush(context, PFRuleBuilder::renderFullRuleset(params), params)) {
            log_.error("LAN isolation engage failed: %{public}s", *error);
            reply(false, *error);
            return true;
        }
        log_.notice("LAN isolation ENGAGED on %{public}s — v4 subnet %{public}s blocked (gateway %{public}s ok), v6 "
                    "prefixes=%ld dnsPasses v4=%ld v6=%ld",
                    interface, subnetV4, gatewayV4, static_cast<long>(subnetsV6.size()),
                    static_cast<long>(dnsV4.size()), static_cast<long>(dnsV6.size()));
        reply(true, std::nullopt);
        return true;
    }

    if (hardKillFlagExists(context) || blackoutRuleState(context) != HardKillState::Rules::absent ||
        !allHeldTokens(context).empty()) {
        log_.notice("LAN isolation disengage recorded — a Hard Kill residue is still present, nothing restored yet");
        reply(true, std::nullopt);
        return true;
    }
    const auto record = readMainRulesetRecord(context);
    if (!record) {
        log_.notice("LAN isolation disengage: no ORVEN ruleset is loaded — pf left untouched");
        reply(true, std::nullopt);
        return true;
    }
    const auto live = pfctlShowRules(context);
    if (live.code != 0) {
        log_.notice("LAN isolation disengage: the loaded pf ruleset could not be shown to be ORVEN's (pfctl -sr "
                    "answered %{public}d) — pf left untouched",
                    live.code);
        reply(true, std::nullopt);
        return true;
    }
    if (!HardKillProof::shapeFromRawValue(record->shape)) {
        log_.notice("LAN isolation disengage: the record of ORVEN's ruleset has a shape this version does not know — "
                    "pf left untouched");
        reply(true, std::nullopt);
        return true;
    }
    // A record without a dump is never proof of ownership.
    if (!record->dump || HardKillProof::normalisedDump(live.out) != HardKillProof::normalisedDump(*record->dump)) {
        clearMainRulesetRecord(context);
        log_.notice("LAN isolation disengage: something else has replaced ORVEN's isolation ruleset since it was loaded "
                    "— pf left untouched, record dropped");
        reply(true, std::nullopt);
        return true;
    }
    if (auto error = pfctlLoad(context, std::nullopt)) {
        log_.error("LAN isolation disengage failed: %{public}s", *error);
        reply(false, *error);
        return true;
    }
    clearMainRulesetRecord(context);
    log_.notice("LAN isolation DISENGAGED — stock main ruleset restored");
    reply(true, std::nullopt);
    return true;
}

OptionalText HelperService::loadOwnMainRuleset(DaemonContext& context, std::string_view ruleset,
                                               HardKillProof::MainRulesetShape shape,
                                               const PFRuleBuilder::LANIsolationParams& params)
{
    const auto before = pfctlShowRules(context);
    const auto previous = readMainRulesetRecord(context);
    recordMainRulesetIntent(context, {std::string(HardKillProof::rawValue(shape)),
                                      before.code == 0 ? std::optional(before.out) : std::nullopt, params});
    const auto done = [&context](OptionalText outcome) {
        files::remove(context.host.path(paths::mainRulesetPending));
        return outcome;
    };
    if (auto error = pfctlLoad(context, std::string(ruleset))) return done(error);
    const auto live = pfctlShowRules(context);
    if (live.code != 0) {
        context.staticLog.error("loaded ORVEN's own main ruleset but pfctl -sr did not answer (%{public}d) — dropping "
                                "the ownership record, so a later blackout will not write over the main ruleset",
                                live.code);
        clearMainRulesetRecord(context);
        return done(std::nullopt);
    }
    // One of our shapes replacing another must show in the listing; the
    // same listing means pfctl reported a load that did not happen.
    const bool ownBefore = previous && previous->dump && before.code == 0 &&
                           HardKillProof::normalisedDump(*previous->dump) == HardKillProof::normalisedDump(before.out);
    if (ownBefore && previous->shape != HardKillProof::rawValue(shape) &&
        HardKillProof::normalisedDump(live.out) == HardKillProof::normalisedDump(before.out))
        return done("pfctl -f reported success, but the main ruleset did not change");
    writeMainRulesetRecord(context, {std::string(HardKillProof::rawValue(shape)), live.out, params});
    return done(std::nullopt);
}

void HelperService::writeMainRulesetRecord(DaemonContext& context, const MainRulesetRecord& record)
{
    // A dump that is not valid UTF-8 could never be compared back: no record.
    const auto encoded = encodeMainRulesetRecordExactly(record);
    const auto directoryError = files::createDirectories(context.host.path(paths::stateDirectory), kStateDirectoryMode);
    if (!encoded || directoryError ||
        files::writeAtomically(context.host.path(paths::mainRulesetRecord), *encoded, kRecordMode)) {
        context.staticLog.error("could not record which main ruleset ORVEN loaded — a later blackout will leave the main "
                                "ruleset alone");
        // An older record would describe a ruleset that is no longer loaded.
        clearMainRulesetRecord(context);
    }
}

void HelperService::recordMainRulesetIntent(DaemonContext& context, const MainRulesetRecord& intent)
{
    const auto encoded = encodeMainRulesetRecordExactly(intent);
    const auto directoryError = files::createDirectories(context.host.path(paths::stateDirectory), kStateDirectoryMode);
    if (!encoded || directoryError ||
        files::writeAtomically(context.host.path(paths::mainRulesetPending), *encoded, kRecordMode)) {
        // Only a crash during this load would need it; the load goes on.
        files::remove(context.host.path(paths::mainRulesetPending));
        context.staticLog.error("could not note the main ruleset about to be loaded — if ORVEN stops during this load, "
                                "it will not recognise the ruleset as its own");
    }
}

void HelperService::recoverInterruptedMainRulesetLoad(DaemonContext& context)
{
    const std::string pendingPath = context.host.path(paths::mainRulesetPending);
    const auto content = files::read(pendingPath, kMaxMainRulesetRecordBytes);
    if (!content) return;
    const auto intent = decodeMainRulesetRecord(*content);
    if (!intent || !HardKillProof::shapeFromRawValue(intent->shape)) {
        files::remove(pendingPath);
        return;
    }
    const auto live = pfctlShowRules(context);
    if (live.code != 0) return;  // kept for the next look
    // Still what was loaded before: the load never happened.
    const bool unchanged =
        intent->dump && HardKillProof::normalisedDump(*intent->dump) == HardKillProof::normalisedDump(live.out);
    if (!unchanged) {
        writeMainRulesetRecord(context, {intent->shape, live.out, intent->params});
        context.staticLog.notice("the main ruleset an interrupted operation of ORVEN's loaded (%{public}s) is recorded "
                                 "as ORVEN's own again",
                                 intent->shape);
    }
    files::remove(pendingPath);
}

std::optional<MainRulesetRecord> HelperService::readMainRulesetRecord(DaemonContext& context)
{
    const auto content = files::read(context.host.path(paths::mainRulesetRecord), kMaxMainRulesetRecordBytes);
    if (!content) return std::nullopt;
    return decodeMainRulesetRecord(*content);
}

void HelperService::clearMainRulesetRecord(DaemonContext& context)
{
    files::remove(context.host.path(paths::mainRulesetRecord));
}

} // namespace orven
