// The pf command layer: one pfctl command line per wrapper, one message
// shape per failure, and readers that never turn a silent pf into "absent".

#include <algorithm>
#include <cctype>

#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

BoundedProcess::Result pfctl(DaemonContext& context, const std::vector<std::string>& arguments,
                             const std::optional<std::string>& standardInput = std::nullopt)
{
    return HelperService::runPfctl(context, arguments, standardInput);
}

std::string failure(std::string_view prefix, const BoundedProcess::Result& result)
{
    return std::string(prefix) + std::to_string(result.code) + "): " + text::trimWhitespaceAndNewlines(result.err);
}

OptionalText runChecked(DaemonContext& context, const std::vector<std::string>& arguments, std::string_view prefix,
                        const std::optional<std::string>& standardInput = std::nullopt)
{
    const auto result = pfctl(context, arguments, standardInput);
    if (result.code == 0) return std::nullopt;
    return failure(prefix, result);
}

bool containsIgnoringCase(std::string_view haystack, std::string_view needle)
{
    const auto lower = [](std::string_view s) {
        std::string out(s);
        std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
        return out;
    };
    return text::contains(lower(haystack), lower(needle));
}

const std::string kAnchor{kBlackoutAnchor};

} // namespace

BoundedProcess::Result HelperService::runPfctl(DaemonContext& context, const std::vector<std::string>& arguments,
                                               const std::optional<std::string>& standardInput)
{
    return runProcess(context, paths::pfctl, arguments, standardInput, context.pfctlTimeoutSeconds);
}

OptionalText HelperService::pfctlLoad(DaemonContext& context, const std::optional<std::string>& ruleset)
{
    if (ruleset) return runChecked(context, {"-f", "-"}, "pfctl -f failed (", ruleset);
    return runChecked(context, {"-f", std::string(paths::pfConf)}, "pfctl -f failed (");
}

OptionalText HelperService::pfctlLoadAnchor(DaemonContext& context, std::string_view ruleset)
{
    return runChecked(context, {"-a", kAnchor, "-f", "-"}, "pfctl -a … -f - failed (", std::string(ruleset));
}

OptionalText HelperService::pfctlEnable(DaemonContext& context)
{
    const auto result = pfctl(context, {"-e"});
    // pf already on is all the caller wanted.
    if (result.code == 0 || containsIgnoringCase(result.err, "already enabled")) return std::nullopt;
    return failure("pfctl -e failed (", result);
}

HelperService::EnableWithToken HelperService::pfctlEnableWithToken(DaemonContext& context)
{
    const auto result = pfctl(context, {"-E"});
    if (result.code != 0) return {std::nullopt, failure("pfctl -E failed (", result)};
    auto token = HardKillState::tokenFromEnableOutput(result.out + "\n" + result.err);
    if (!token) return {std::nullopt, std::string("pfctl -E returned no token")};
    return {std::move(token), std::nullopt};
}

OptionalText HelperService::pfctlReleaseToken(DaemonContext& context, std::string_view token)
{
    return runChecked(context, {"-X", std::string(token)}, "pfctl -X failed (");
}

OptionalText HelperService::pfctlFlushStates(DaemonContext& context)
{
    return runChecked(context, {"-F", "states"}, "pfctl -F states failed (");
}

OptionalText HelperService::pfctlFlushAnchor(DaemonContext& context)
{
    return runChecked(context, {"-a", kAnchor, "-F", "rules"}, "pfctl -a … -F rules failed (");
}

HardKillState::Rules HelperService::blackoutRuleState(DaemonContext& context)
{
    const auto result = pfctl(context, {"-a", kAnchor, "-sr"});
    if (result.code != 0) {
        context.staticLog.error("pfctl -a … -sr did not answer (%{public}d) — treating the blackout state as UNKNOWN",
                                result.code);
        return HardKillState::Rules::unknown;
    }
    return HardKillState::rulesFromListing(result.out);
}

std::optional<bool> HelperService::catchAllWasEvaluated(DaemonContext& context)
{
    const auto result = pfctl(context, {"-v", "-a", kAnchor, "-sr"});
    if (result.code != 0) return std::nullopt;
    const auto evaluations = HardKillProof::catchAllEvaluations(result.out, kCatchAllRule);
    if (!evaluations) return std::nullopt;
    return *evaluations >= 1;
}

std::optional<std::int64_t> HelperService::pfStateCount(DaemonContext& context)
{
    const auto result = pfctl(context, {"-s", "state"});
    if (result.code != 0) return std::nullopt;
    return HardKillState::stateCountFromListing(result.out);
}

BoundedProcess::Result HelperService::pfctlShowInfo(DaemonContext& context) { return pfctl(context, {"-s", "info"}); }

BoundedProcess::Result HelperService::pfctlShowRules(DaemonContext& context) { return pfctl(context, {"-sr"}); }

std::optional<bool> HelperService::pfIsEnabled(DaemonContext& context)
{
    const auto info = pfctlShowInfo(context);
    if (info.code != 0) return std::nullopt;
    return HardKillState::pfStatusIsEnabled(info.out);
}

bool HelperService::cutIsStanding(DaemonContext& context)
{
    const auto rules = blackoutRuleState(context);
    return pfIsEnabled(context) == true && rules == HardKillState::Rules::loaded;
}

OptionalText HelperService::pfctlLoadEnableAndFlush(DaemonContext& context, std::string_view ruleset,
                                                    const PFRuleBuilder::LANIsolationParams& params)
{
    if (auto error = loadOwnMainRuleset(context, ruleset, HardKillProof::MainRulesetShape::isolation, params))
        return error;
    if (auto error = pfctlEnable(context)) return error;
    // Isolation blocks new flows anyway; a failed flush only lets old ones finish.
    if (auto error = pfctlFlushStates(context))
        context.staticLog.notice("state flush failed, continuing (isolation blocks new flows anyway): %{public}s",
                                 *error);
    return std::nullopt;
}

} // namespace orven
