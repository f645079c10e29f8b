// preemptingPasses, unreadableCallsBeforeOurs, quickPassRules and
// bypassReason on any ruleset listing: what is found before the system's
// anchors is a prefix of what the whole text holds, every pass found is a
// quick pass rule, every call an anchor line, and the verdict is "no reason"
// exactly when nothing was found.
#include <algorithm>

#include "HardKillProof.h"
#include "PFFuzzCheck.h"
#include "Text.h"

namespace {

bool isQuickPassLine(const std::string& line)
{
    using namespace orven;
    if (line != "pass" && !text::startsWith(line, "pass ")) return false;
    const auto words = text::splitWords(line, " \t");
    return std::find(words.begin(), words.end(), "quick") != words.end();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    using namespace orven::HardKillProof;
    const auto text = fuzz::asText(data, size);

    const auto before = preemptingPasses(text, true, appleWildcard);
    const auto whole = preemptingPasses(text, false, appleWildcard);
    fuzz::check(before.size() <= whole.size() && std::equal(before.begin(), before.end(), whole.begin()),
                "passes before the call are a prefix of all passes");
    for (const auto& pass : whole) fuzz::check(isQuickPassLine(pass), "every pass found is a quick pass rule");

    const auto calls = unreadableCallsBeforeOurs(text, appleWildcard);
    for (const auto& call : calls) fuzz::check(text::startsWith(call, "anchor "), "every call is an anchor line");

    const auto quick = quickPassRules(text);
    for (const auto& rule : quick) {
        fuzz::check(isQuickPassLine(rule) && text::trimSpacesAndTabs(rule) == rule, "sibling passes are trimmed");
    }

    const auto reason = bypassReason(true, text, std::vector<std::string>{});
    fuzz::check(reason.has_value() == (!before.empty() || !calls.empty()), "no reason exactly when nothing found");
    fuzz::check(bypassReason(true, text, std::nullopt).has_value(), "unread siblings always give a reason");
    fuzz::check(bypassReason(false, text, std::vector<std::string>{}).has_value(), "an unread ruleset always fails");
    if (!reason) {
        fuzz::check(bypassReason(true, text, quick).has_value() == !quick.empty(), "sibling passes give a reason");
    }
    return 0;
}
