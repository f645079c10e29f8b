#pragma once
// Pure judges of pf listings: whether a blackout in our anchor can be shown
// complete, and whether a live main ruleset is still the one we loaded.
// A proof that cannot be made is a failed proof.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MainRulesetRecord.h"

namespace orven::HardKillProof {

inline constexpr std::string_view appleWildcard = "com.apple/*";
inline constexpr std::string_view ruleSeparator = "; ";

enum class MainRulesetShape { isolation, isolationSuspended };
std::string_view rawValue(MainRulesetShape shape);
std::optional<MainRulesetShape> shapeFromRawValue(std::string_view raw);

struct MainRulesetPlan {
    enum class Kind { takeOver, suspendIsolation, alreadySuspended, refuse };
    Kind kind = Kind::takeOver;
    std::string reason;  // only for refuse

    static MainRulesetPlan takeOver() { return {Kind::takeOver, {}}; }
    static MainRulesetPlan suspendIsolation() { return {Kind::suspendIsolation, {}}; }
    static MainRulesetPlan alreadySuspended() { return {Kind::alreadySuspended, {}}; }
    static MainRulesetPlan refuse(std::string reason) { return {Kind::refuse, std::move(reason)}; }
    bool operator==(const MainRulesetPlan&) const = default;
};

std::string normalisedDump(std::string_view text);
std::vector<std::string> siblingAnchorNames(std::string_view anchorList, std::string_view ours);
std::vector<std::string> preemptingPasses(std::string_view mainRuleset, bool stopAtAppleCall,
                                          std::string_view appleWildcard);
std::vector<std::string> unreadableCallsBeforeOurs(std::string_view mainRuleset, std::string_view appleWildcard);
std::optional<std::string> bypassReason(bool mainRulesetReadable, std::string_view mainRuleset,
                                        const std::optional<std::vector<std::string>>& siblingPasses);
std::optional<std::int64_t> catchAllEvaluations(std::string_view verboseRules, std::string_view catchAll);

// The decision of HelperService::mainRulesetPlan, given the record it read.
MainRulesetPlan planFor(const std::optional<MainRulesetRecord>& record, bool liveReadable, std::string_view liveDump);

// The passing `quick` rules of one anchor's listing (trimmed lines).
std::vector<std::string> quickPassRules(std::string_view listing);

} // namespace orven::HardKillProof
