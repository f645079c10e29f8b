// validate on fuzzed parameters (fields one a line, list entries split at
// ","; a missing seventh line means no IPv6 gateway). A refusal quotes the
// offending text; anything accepted renders a ruleset in which no field can
// have smuggled in a rule: every line is plain text and the passes before
// the system's anchors are exactly the ones the parameters ask for.
#include <string>
#include <vector>

#include "HardKillProof.h"
#include "PFFuzzCheck.h"
#include "PFRuleBuilder.h"
#include "Text.h"

namespace {

using namespace orven;

std::vector<std::string> list(const std::string& field)
{
    if (field.empty()) return {};
    return text::splitKeepingEmpty(field, ',');
}

bool isPlainLine(std::string_view line)
{
    // Printable ASCII, plus the em dash the comments carry.
    for (std::size_t i = 0; i < line.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(line[i]);
        if (c >= 0x20 && c < 0x7F) continue;
        if (line.substr(i, 3) == "\u2014" && line.front() == '#') {
            i += 2;
            continue;
        }
        return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto fields = text::splitKeepingEmpty(fuzz::asText(data, size), '\n');
    const auto field = [&](std::size_t i) { return i < fields.size() ? fields[i] : std::string(); };

    PFRuleBuilder::LANIsolationParams params{field(0), field(1), field(2), list(field(3)), std::nullopt,
                                             list(field(4)), list(field(5))};
    if (fields.size() > 6) params.gatewayV6 = field(6);

    try {
        PFRuleBuilder::validate(params);
    } catch (const PFRuleBuilder::ValidationError& error) {
        fuzz::check(text::contains(error.description(), error.text()), "a refusal quotes the text as sent");
        fuzz::check(error == PFRuleBuilder::ValidationError(error.kind(), error.text(), error.subnet()),
                    "errors compare by case and payload");
        return 0;
    }

    const std::string ruleset = PFRuleBuilder::renderFullRuleset(params);
    constexpr std::string_view lastLine = "\nload anchor \"com.apple\" from \"/etc/pf.anchors/com.apple\"\n";
    fuzz::check(text::startsWith(ruleset, "#\n") && ruleset.ends_with(lastLine),
                "one final newline after the load anchor line");
    for (const auto& line : text::splitAtLineFeed(ruleset, true)) {
        fuzz::check(isPlainLine(line), "validated parameters render plain lines");
    }

    const bool hasIPv6 = params.gatewayV6 || !params.subnetsV6.empty() || !params.dnsV6.empty();
    const std::size_t expectedPasses = 4 + 2 * params.dnsV4.size() +
                                       (hasIPv6 ? 3 + (params.gatewayV6 ? 2 : 0) + 2 * params.dnsV6.size() : 0);
    const auto passes =
        HardKillProof::preemptingPasses(ruleset, /*stopAtAppleCall=*/true, HardKillProof::appleWildcard);
    fuzz::check(passes.size() == expectedPasses, "only the asked-for passes stand before the system's anchors");
    fuzz::check(HardKillProof::unreadableCallsBeforeOurs(ruleset, HardKillProof::appleWildcard).empty(),
                "the take-over ruleset calls no foreign anchor");
    return 0;
}
