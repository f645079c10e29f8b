#include "HardKillProof.h"

#include <algorithm>
#include <limits>

#include "Text.h"

namespace orven::HardKillProof {

namespace {

constexpr std::string_view kReplacedRulesetReason =
    "ORVEN's LAN isolation is no longer the pf ruleset that is loaded \u2014 something else has replaced it, so ORVEN "
    "will not write over it";

// The non-empty lines of a pf listing, each trimmed of white space.
std::vector<std::string> trimmedLines(std::string_view text)
{
    std::vector<std::string> lines = text::splitAtLineFeed(text, /*keepEmpty=*/false);
    for (auto& line : lines) line = text::trimWhitespace(line);
    return lines;
}

// pfctl lists rules with single spaces, so "pass" followed by a tab is
// deliberately not read as a pass rule.
bool isQuickPass(std::string_view line)
{
    if (line != "pass" && !text::startsWith(line, "pass ")) return false;
    const auto words = text::splitWords(line, " \t");
    return std::find(words.begin(), words.end(), "quick") != words.end();
}

// The call of the system's anchors, `anchor "com.apple/*" ...`, quotes and all.
bool isAppleCall(std::string_view line, std::string_view appleWildcard)
{
    if (!text::startsWith(line, "anchor ")) return false;
    const std::string quoted = "\"" + std::string(appleWildcard) + "\"";
    return text::contains(line, quoted);
}

std::string leafOf(std::string_view path)
{
    const auto pieces = text::splitWords(path, "/");
    return pieces.empty() ? std::string(path) : pieces.back();
}

} // namespace

std::string_view rawValue(MainRulesetShape shape)
{
    switch (shape) {
    case MainRulesetShape::isolation: return "isolation";
    case MainRulesetShape::isolationSuspended: return "isolationSuspended";
    }
    return {};
}

std::optional<MainRulesetShape> shapeFromRawValue(std::string_view raw)
{
    if (raw == "isolation") return MainRulesetShape::isolation;
    if (raw == "isolationSuspended") return MainRulesetShape::isolationSuspended;
    return std::nullopt;
}

std::string normalisedDump(std::string_view text)
{
    std::vector<std::string> lines = text::splitAtLineFeed(text, /*keepEmpty=*/true);
    for (auto& line : lines) line = text::trimWhitespace(line);
    const auto isContent = [](const std::string& line) { return !line.empty(); };
    const auto first = std::find_if(lines.begin(), lines.end(), isContent);
    if (first == lines.end()) return {};
    const auto last = std::find_if(lines.rbegin(), lines.rend(), isContent).base();
    return text::join(std::vector<std::string>(first, last), "\n");
}

std::vector<std::string> siblingAnchorNames(std::string_view anchorList, std::string_view ours)
{
    auto parentPieces = text::splitWords(ours, "/");
    if (!parentPieces.empty()) parentPieces.pop_back();
    const std::string parent = text::join(parentPieces, "/");
    const std::string ourLeaf = leafOf(ours);

    std::vector<std::string> names;
    for (const auto& line : trimmedLines(anchorList)) {
        if (line.empty() || text::startsWith(line, "#") || line.find_first_of(" \t") != std::string::npos) continue;
        // Our own anchor, whatever prefix it is listed with.
        if (leafOf(line) == ourLeaf) continue;
        if (text::contains(line, "/") || parent.empty()) {
            names.push_back(line);
        } else {
            names.push_back(parent + "/" + line);
        }
    }
    return names;
}

std::vector<std::string> preemptingPasses(std::string_view mainRuleset, bool stopAtAppleCall,
                                          std::string_view appleWildcard)
{
    std::vector<std::string> passes;
    for (const auto& line : trimmedLines(mainRuleset)) {
        // Our anchor sits under the system's call; rules after it cannot
        // preempt the blackout.
        if (stopAtAppleCall && isAppleCall(line, appleWildcard)) break;
        if (isQuickPass(line)) passes.push_back(line);
    }
    return passes;
}

std::vector<std::string> unreadableCallsBeforeOurs(std::string_view mainRuleset, std::string_view appleWildcard)
{
    std::vector<std::string> calls;
    for (const auto& line : trimmedLines(mainRuleset)) {
        if (isAppleCall(line, appleWildcard)) break;
        if (text::startsWith(line, "anchor ")) calls.push_back(line);
    }
    return calls;
}

std::optional<std::string> bypassReason(bool mainRulesetReadable, std::string_view mainRuleset,
                                        const std::optional<std::vector<std::string>>& siblingPasses)
{
    if (!mainRulesetReadable) {
        return "the current pf ruleset could not be read, so ORVEN cannot tell whether another rule would let "
               "traffic past the blackout";
    }
    const auto passes = preemptingPasses(mainRuleset, /*stopAtAppleCall=*/true, appleWildcard);
    if (!passes.empty()) {
        return "another pf rule passes traffic before ORVEN's blackout is reached, so the cut would not be "
               "complete: " +
               text::join(passes, ruleSeparator);
    }
    const auto calls = unreadableCallsBeforeOurs(mainRuleset, appleWildcard);
    if (!calls.empty()) {
        return "another firewall's rules are evaluated before ORVEN's and cannot be read from here, so the cut "
               "cannot be shown to be complete: " +
               text::join(calls, ruleSeparator);
    }
    if (!siblingPasses) {
        return "the anchors that sit beside ORVEN's under Apple's own rules could not be read, so nothing ahead of "
               "the blackout can be ruled out";
    }
    if (!siblingPasses->empty()) {
        return "a rule in another anchor under Apple's own rules passes traffic and may be evaluated before "
               "ORVEN's blackout: " +
               text::join(*siblingPasses, ruleSeparator);
    }
    return std::nullopt;
}

std::optional<std::int64_t> catchAllEvaluations(std::string_view verboseRules, std::string_view catchAll)
{
    constexpr std::string_view label = "Evaluations:";
    bool insideCatchAll = false;
    for (const auto& line : trimmedLines(verboseRules)) {
        if (!text::startsWith(line, "[")) {
            insideCatchAll = text::startsWith(line, catchAll);
            continue;
        }
        if (!insideCatchAll) continue;
        const std::size_t at = line.find(label);
        if (at == std::string::npos) continue;
        // Only the first catch-all's first counter is read, whatever it says.
        std::string_view rest = std::string_view(line).substr(at + label.size());
        const std::size_t start = rest.find_first_not_of(" \t");
        rest = start == std::string_view::npos ? std::string_view{} : rest.substr(start);
        const std::size_t end = std::min(rest.find_first_not_of("0123456789"), rest.size());
        const auto value = text::parseUnsigned(rest.substr(0, end),
                                               static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
        if (!value) return std::nullopt;
        return static_cast<std::int64_t>(*value);
    }
    return std::nullopt;
}

MainRulesetPlan planFor(const std::optional<MainRulesetRecord>& record, bool liveReadable, std::string_view liveDump)
{
    if (!record) return MainRulesetPlan::takeOver();
    const auto shape = shapeFromRawValue(record->shape);
    if (!liveReadable || !shape) return MainRulesetPlan::takeOver();
    if (!record->dump) return MainRulesetPlan::takeOver();
    if (normalisedDump(*record->dump) != normalisedDump(liveDump)) {
        return MainRulesetPlan::refuse(std::string(kReplacedRulesetReason));
    }
    return *shape == MainRulesetShape::isolation ? MainRulesetPlan::suspendIsolation()
                                                 : MainRulesetPlan::alreadySuspended();
}

std::vector<std::string> quickPassRules(std::string_view listing)
{
    std::vector<std::string> rules;
    for (const auto& line : text::splitAtLineFeed(listing, /*keepEmpty=*/false)) {
        const std::string trimmed = text::trimSpacesAndTabs(line);
        if (isQuickPass(trimmed)) rules.push_back(trimmed);
    }
    return rules;
}

} // namespace orven::HardKillProof
