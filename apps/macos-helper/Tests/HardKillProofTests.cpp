#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HardKillProof.h"
#include "PFRuleBuilder.h"

namespace orven {
namespace {

using namespace HardKillProof;
using Lines = std::vector<std::string>;

constexpr std::string_view kOurs = "com.apple/999.test.orven.app";

// The stock main ruleset as `pfctl -sr` lists it.
constexpr const char* kStockListing = "scrub-anchor \"com.apple/*\" all fragment reassemble\n"
                                      "anchor \"com.apple/*\" all\n";

// --- normalisedDump -----------------------------------------------------------

TEST(HardKillProof, NormalisedDump)
{
    const std::pair<std::string, std::string> cases[] = {
        {"\n  a\n\n b \n\n", "a\n\nb"},
        {"", ""},
        {"\n \t\n\n", ""},
        {"a", "a"},
        {"\ta\t\n\t\tb", "a\nb"},
        {"a\n\n\nb", "a\n\n\nb"},
        {"a\n   \nb", "a\n\nb"},
        {"\u00a0a\u3000\n", "a"},              // Unicode spaces count as white space
        {"a\r\nb\r\n", "a\r\nb\r"},            // only "\n" cuts lines; CR is not white space
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(normalisedDump(text), expected) << text;
}

// --- siblingAnchorNames -------------------------------------------------------

TEST(HardKillProof, SiblingAnchorNames)
{
    const std::string listing = "  com.apple/200.AirDrop\n"
                                "  com.apple/250.ApplicationFirewall\n"
                                "  com.apple/999.test.orven.app\n"
                                "999.test.orven.app\n"
                                "x/999.test.orven.app\n"
                                "\n"
                                "200.other\n"
                                "# comment\n"
                                "a b\n"
                                "a\tb\n"
                                "   \n"
                                "com.apple/200.AirDrop\n"
                                "other.top/child\n";
    const Lines expected = {"com.apple/200.AirDrop", "com.apple/250.ApplicationFirewall", "com.apple/200.other",
                            "com.apple/200.AirDrop", "other.top/child"};
    EXPECT_EQ(siblingAnchorNames(listing, kOurs), expected);
}

TEST(HardKillProof, SiblingAnchorNamesWithOddOwnPaths)
{
    struct Case {
        const char* label;
        std::string listing;
        std::string ours;
        Lines expected;
    };
    const Case cases[] = {
        {"no parent leaves bare names bare", "a\nmine\n", "mine", {"a"}},
        {"empty pieces of our path are ignored", "a\nmine\n", "/p//mine/", {"p/a"}},
        {"a path without pieces is its own leaf", "/\na\n", "/", {"a"}},
        {"nothing listed", "", std::string(kOurs), {}},
    };
    for (const Case& c : cases) EXPECT_EQ(siblingAnchorNames(c.listing, c.ours), c.expected) << c.label;
}

// --- preemptingPasses / quickPassRules ----------------------------------------

TEST(HardKillProof, PreemptingPasses)
{
    struct Case {
        const char* label;
        std::string ruleset;
        bool stop;
        Lines expected;
    };
    const std::string belowTheCall = "pass out all flags S/SA keep state\n"
                                     "anchor \"com.apple/*\" all\n"
                                     "pass quick on en0 all\n";
    const Case cases[] = {
        {"stock ruleset", kStockListing, true, {}},
        {"pass without quick", "pass out all\n" + std::string(kStockListing), true, {}},
        {"quick pass above the call", "  pass quick on lo0 all  \n" + std::string(kStockListing), true,
         {"pass quick on lo0 all"}},
        {"below the call, stopping", belowTheCall, true, {}},
        {"below the call, whole text", belowTheCall, false, {"pass quick on en0 all"}},
        {"an unquoted wildcard does not stop the walk", "anchor com.apple/* all\npass quick all\n", true,
         {"pass quick all"}},
        {"a nat-anchor call does not stop the walk", "nat-anchor \"com.apple/*\" all\npass quick all\n", true,
         {"pass quick all"}},
        {"bare pass", "pass\n", false, {}},
        {"pass followed by a tab is not a pass rule", "pass\tquick all\n", false, {}},
        {"tabs between later words count", "pass in\tquick\ton en0\n", false, {"pass in\tquick\ton en0"}},
        {"quick must be a whole word", "pass quickly all\npass in all label quick2\n", false, {}},
        {"block quick is no pass", "block drop quick all\n", false, {}},
        {"passes keep their order", "pass quick a\npass out quick b\n", true, {"pass quick a", "pass out quick b"}},
        {"upper case is not pf's", "PASS quick all\nPass quick all\n", false, {}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(preemptingPasses(c.ruleset, c.stop, appleWildcard), c.expected) << c.label;
    }
}

TEST(HardKillProof, QuickPassRulesOfASiblingListing)
{
    struct Case {
        const char* label;
        std::string listing;
        Lines expected;
    };
    const Case cases[] = {
        {"empty listing", "", {}},
        {"AirDrop's rules have no quick", "pass in on p2p0 inet6 proto udp from any to any port = 5353 keep state\n"
                                          "pass out on p2p0 proto tcp all flags any keep state\n", {}},
        {"trimmed quick pass", "\t pass quick on en0 all keep state \t\n", {"pass quick on en0 all keep state"}},
        {"the whole listing is judged, anchor calls and all",
         "anchor \"com.apple/*\" all\npass out quick all\n", {"pass out quick all"}},
        {"bare pass is a pass rule without quick", "pass\n", {}},
        {"pass and a tab is not a pass rule", "pass\tquick\n", {}},
        {"block rules never pass", "block drop quick all\n", {}},
    };
    for (const Case& c : cases) EXPECT_EQ(quickPassRules(c.listing), c.expected) << c.label;
}

// --- unreadableCallsBeforeOurs ------------------------------------------------

TEST(HardKillProof, UnreadableCallsBeforeOurs)
{
    struct Case {
        const char* label;
        std::string ruleset;
        Lines expected;
    };
    const Case cases[] = {
        {"stock ruleset", kStockListing, {}},
        {"a foreign anchor above the call", "anchor \"other\" all\n" + std::string(kStockListing),
         {"anchor \"other\" all"}},
        {"nat and rdr anchors are not filter calls", "nat-anchor \"other\" all\nrdr-anchor \"x\" all\n", {}},
        {"calls below the Apple call are not ours to judge", std::string(kStockListing) + "anchor \"late\" all\n", {}},
        {"without the Apple call every call counts", "anchor \"a\"\n  anchor \"b\" all  \n",
         {"anchor \"a\"", "anchor \"b\" all"}},
        {"an unquoted wildcard is a foreign call", "anchor com.apple/* all\n", {"anchor com.apple/* all"}},
    };
    for (const Case& c : cases) EXPECT_EQ(unreadableCallsBeforeOurs(c.ruleset, appleWildcard), c.expected) << c.label;
}

// --- bypassReason -------------------------------------------------------------

TEST(HardKillProof, BypassReasonNamesTheFirstProblem)
{
    struct Case {
        const char* label;
        bool readable;
        std::string ruleset;
        std::optional<Lines> siblings;
        std::optional<std::string> expected;
    };
    const std::string twoPasses = "pass quick on lo0 all\npass quick on en0 all\n" + std::string(kStockListing);
    const std::string twoCalls = "anchor \"a\" all\nanchor \"b\" all\n" + std::string(kStockListing);
    const Case cases[] = {
        {"unreadable ruleset", false, kStockListing, Lines{},
         "the current pf ruleset could not be read, so ORVEN cannot tell whether another rule would let traffic "
         "past the blackout"},
        {"preempting passes", true, twoPasses, Lines{},
         "another pf rule passes traffic before ORVEN's blackout is reached, so the cut would not be complete: "
         "pass quick on lo0 all; pass quick on en0 all"},
        {"passes before calls", true, "pass quick all\n" + twoCalls, std::nullopt,
         "another pf rule passes traffic before ORVEN's blackout is reached, so the cut would not be complete: "
         "pass quick all"},
        {"foreign calls", true, twoCalls, Lines{},
         "another firewall's rules are evaluated before ORVEN's and cannot be read from here, so the cut cannot be "
         "shown to be complete: anchor \"a\" all; anchor \"b\" all"},
        {"unreadable siblings", true, kStockListing, std::nullopt,
         "the anchors that sit beside ORVEN's under Apple's own rules could not be read, so nothing ahead of the "
         "blackout can be ruled out"},
        {"sibling passes", true, kStockListing, Lines{"pass quick x", "pass quick y"},
         "a rule in another anchor under Apple's own rules passes traffic and may be evaluated before ORVEN's "
         "blackout: pass quick x; pass quick y"},
        {"provably first", true, kStockListing, Lines{}, std::nullopt},
        {"our own take-over ruleset is provably first", true,
         "scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n", Lines{}, std::nullopt},
    };
    for (const Case& c : cases) EXPECT_EQ(bypassReason(c.readable, c.ruleset, c.siblings), c.expected) << c.label;
}

TEST(HardKillProof, LANIsolationRulesPreemptTheBlackout)
{
    // Why isolation is suspended during a blackout: its pass rules stand
    // before the Apple call.
    const PFRuleBuilder::LANIsolationParams params{"en0", "192.168.1.1", "192.168.1.0/24", {}, std::nullopt, {}, {}};
    const auto passes = preemptingPasses(PFRuleBuilder::renderFullRuleset(params), true, appleWildcard);
    EXPECT_EQ(passes.size(), 4u);
    EXPECT_EQ(preemptingPasses(PFRuleBuilder::renderIsolationSuspendedRuleset(), true, appleWildcard), Lines{});
    EXPECT_EQ(unreadableCallsBeforeOurs(PFRuleBuilder::renderIsolationSuspendedRuleset(), appleWildcard), Lines{});
}

// --- catchAllEvaluations ------------------------------------------------------

TEST(HardKillProof, CatchAllEvaluations)
{
    struct Case {
        const char* label;
        std::string listing;
        std::optional<std::int64_t> expected;
    };
    const std::string loopback = "pass quick on lo0 all no state\n"
                                 "  [ Evaluations: 99        Packets: 5         Bytes: 300         States: 0     ]\n"
                                 "  [ Inserted: uid 0 pid 4321 ]\n";
    const Case cases[] = {
        {"real listing", loopback + "block drop quick all\n"
                                    "  [ Evaluations: 1234      Packets: 17        Bytes: 1428        States: 0     ]\n"
                                    "  [ Inserted: uid 0 pid 4321 ]\n", 1234},
        {"zero", "block drop quick all\n[ Evaluations: 0 ]\n", 0},
        {"not a number, and no looking further",
         "block drop quick all\n[ Evaluations: abc ]\nblock drop quick all\n[ Evaluations: 5 ]\n", std::nullopt},
        {"only the first catch-all counts",
         "block drop quick all\n[ Evaluations: 7 ]\nblock drop quick all\n[ Evaluations: 5 ]\n", 7},
        {"counter lines without evaluations are passed over",
         "block drop quick all\n[ Inserted: uid 0 pid 1 ]\n[ Evaluations: 3 ]\n", 3},
        {"another rule's counter is not ours", loopback, std::nullopt},
        {"the rule text is a prefix", "block drop quick all label \"x\"\n\t[ Evaluations:\t42  ]\n", 42},
        {"no listing", "", std::nullopt},
        {"rule without counters", "block drop quick all\n", std::nullopt},
        {"counter before any rule", "[ Evaluations: 3 ]\nblock drop quick all\n", std::nullopt},
        {"largest signed 64-bit value", "block drop quick all\n[ Evaluations: 9223372036854775807 ]\n",
         INT64_C(9223372036854775807)},
        {"too large", "block drop quick all\n[ Evaluations: 9223372036854775808 ]\n", std::nullopt},
        {"negative", "block drop quick all\n[ Evaluations: -1 ]\n", std::nullopt},
        {"digits run up to the first non-digit", "block drop quick all\n[ Evaluations: 12x3 ]\n", 12},
        {"evaluations named later in the line", "block drop quick all\n[ Packets: 1  Evaluations: 8 ]\n", 8},
        {"a blank line between counts as a rule line", "block drop quick all\n   \n[ Evaluations: 8 ]\n",
         std::nullopt},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(catchAllEvaluations(c.listing, "block drop quick all"), c.expected) << c.label;
    }
}

// --- Shapes and the main-ruleset plan -----------------------------------------

TEST(HardKillProof, ShapeRawValues)
{
    EXPECT_EQ(rawValue(MainRulesetShape::isolation), "isolation");
    EXPECT_EQ(rawValue(MainRulesetShape::isolationSuspended), "isolationSuspended");
    EXPECT_EQ(shapeFromRawValue("isolation"), MainRulesetShape::isolation);
    EXPECT_EQ(shapeFromRawValue("isolationSuspended"), MainRulesetShape::isolationSuspended);
    EXPECT_EQ(shapeFromRawValue("Isolation"), std::nullopt);
    EXPECT_EQ(shapeFromRawValue(""), std::nullopt);
}

TEST(HardKillProof, PlanForTheLiveMainRuleset)
{
    const std::string dump = "block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24\n"
                             "anchor \"com.apple/*\" all\n";
    const auto record = [&](std::string shape, std::optional<std::string> recorded) {
        return std::optional<MainRulesetRecord>(MainRulesetRecord{std::move(shape), std::move(recorded), {}});
    };
    const MainRulesetPlan refused = MainRulesetPlan::refuse(
        "ORVEN's LAN isolation is no longer the pf ruleset that is loaded \u2014 something else has replaced it, so "
        "ORVEN will not write over it");
    struct Case {
        const char* label;
        std::optional<MainRulesetRecord> record;
        bool readable;
        std::string live;
        MainRulesetPlan expected;
    };
    const Case cases[] = {
        {"no record", std::nullopt, true, dump, MainRulesetPlan::takeOver()},
        {"unreadable live ruleset", record("isolation", dump), false, dump, MainRulesetPlan::takeOver()},
        {"unknown shape", record("legacy", dump), true, "something else", MainRulesetPlan::takeOver()},
        {"record without a dump", record("isolation", std::nullopt), true, dump, MainRulesetPlan::takeOver()},
        {"own isolation", record("isolation", dump), true, dump, MainRulesetPlan::suspendIsolation()},
        {"own isolation, indented and padded", record("isolation", dump), true,
         "\n\n  block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24\n\tanchor \"com.apple/*\" all\n\n\n",
         MainRulesetPlan::suspendIsolation()},
        {"own suspended ruleset", record("isolationSuspended", dump), true, dump,
         MainRulesetPlan::alreadySuspended()},
        {"replaced", record("isolation", dump), true, kStockListing, refused},
        {"replaced while suspended", record("isolationSuspended", dump), true, "", refused},
        {"an empty dump matches only an empty live ruleset", record("isolation", ""), true, "\n \n",
         MainRulesetPlan::suspendIsolation()},
    };
    for (const Case& c : cases) EXPECT_EQ(planFor(c.record, c.readable, c.live), c.expected) << c.label;
}

} // namespace
} // namespace orven
