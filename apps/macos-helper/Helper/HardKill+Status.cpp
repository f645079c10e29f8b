// Read-only answers about the blackout. No lock: a query during an
// operation may see an intermediate state, and an unreadable state is never
// reported as clear.

#include "HelperService.h"

namespace orven {

namespace {

const std::string kUnreadableAnchor =
    "pfctl -a com.apple/999.test.orven.app -sr did not answer — ORVEN's blackout state is UNKNOWN, not clear";

const std::string kEnforcementUnknown =
    "pfctl -s info did not report a status — whether ORVEN's blackout is enforced is UNKNOWN, not clear";
const std::string kNotEnforced =
    "ORVEN's blackout rules are loaded but pf is disabled, so they block nothing — this Mac is NOT cut off";

} // namespace

void HelperService::readHardKillStatus(Reply<bool, bool, OptionalText> reply)
{
    const auto rules = blackoutRuleState(context_);
    const bool marker = hardKillFlagExists(context_);
    if (rules == HardKillState::Rules::unknown) return reply(false, marker, kUnreadableAnchor);
    if (rules == HardKillState::Rules::absent) return reply(false, marker, std::nullopt);
    // The app reads "loaded" as "cut off": rules pf does not enforce are no cut.
    const auto enabled = pfIsEnabled(context_);
    if (!enabled) return reply(false, marker, kEnforcementUnknown);
    if (!*enabled) return reply(false, marker, kNotEnforced);
    reply(true, marker, std::nullopt);
}

void HelperService::readHardKillEnforcement(Reply<bool, bool, bool, std::int64_t, OptionalText> reply)
{
    const auto rules = blackoutRuleState(context_);
    const bool marker = hardKillFlagExists(context_);
    if (rules == HardKillState::Rules::unknown) return reply(false, false, marker, -1, kUnreadableAnchor);
    const bool loaded = rules == HardKillState::Rules::loaded;
    const auto enabled = pfIsEnabled(context_);
    if (!enabled) return reply(loaded, false, marker, -1, std::string("pfctl -s info did not report a status"));
    const std::int64_t count = pfStateCount(context_).value_or(-1);
    if (loaded && *enabled && count >= 1)
        log_.notice("Hard Kill status: %{public}ld state table entries under a blackout ruleset", count);
    reply(loaded, *enabled, marker, count, std::nullopt);
}

void HelperService::readHardKillResidueWithToken(Reply<bool, bool, bool, OptionalText> reply)
{
    const bool marker = hardKillFlagExists(context_);
    const bool tokensHeld = !allHeldTokens(context_).empty();
    const auto rules = blackoutRuleState(context_);
    if (rules == HardKillState::Rules::unknown) return reply(false, marker, tokensHeld, kUnreadableAnchor);
    reply(rules == HardKillState::Rules::loaded, marker, tokensHeld, std::nullopt);
}

void HelperService::readHardKillProof(Reply<bool, OptionalText, OptionalText> reply)
{
    const auto live = pfctlShowRules(context_);
    const auto siblingPasses = siblingAnchorPasses(context_);
    if (auto reason = HardKillProof::bypassReason(live.code == 0, live.out, siblingPasses))
        return reply(false, std::move(reason), std::nullopt);
    const auto evaluated = catchAllWasEvaluated(context_);
    if (!evaluated) return reply(false, std::nullopt, std::string("could not read whether pf evaluates the blackout rules"));
    if (!*evaluated)
        return reply(false, std::nullopt,
                     std::string("pf has not yet evaluated ORVEN's blackout rules — no traffic has been offered to them "
                                 "since they were loaded, so the cut is not confirmed effective"));
    reply(true, std::nullopt, std::nullopt);
}

} // namespace orven
