#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HardKillState.h"
#include "PFRuleBuilder.h"

namespace orven {
namespace {

using namespace HardKillState;
using Lines = std::vector<std::string>;

TEST(HardKillState, Spelling)
{
    EXPECT_EQ(spelling(Rules::loaded), "loaded");
    EXPECT_EQ(spelling(Rules::absent), "absent");
    EXPECT_EQ(spelling(Rules::unknown), "unknown");
}

TEST(HardKillState, PfStatusIsEnabled)
{
    const std::pair<std::string, std::optional<bool>> cases[] = {
        {"Status: Enabled for 0 days 00:12:01           Debug: Urgent\n\nState Table  Total  Rate\n", true},
        {"Status: Enabled for 0 days 00:12:01", true},
        {"Status: Disabled                              Debug: Urgent\n", false},
        {"Status:Disabled", false},
        {"Status:\tEnabled", true},
        {"Status: Unknown", std::nullopt},
        {"Status:", std::nullopt},
        {"State Table  Total  Rate\n  current entries  0\n", std::nullopt},
        {"", std::nullopt},
        {"status: Enabled", std::nullopt},
        {"Status: enabled", std::nullopt},
        {"Status: EnabledX", std::nullopt},
        {" Status: Enabled", std::nullopt},                           // must start the line
        {"No ALTQ support in kernel\r\nStatus: Enabled for 1 days", true},
        {"Status: Disabled\nStatus: Enabled", false},                 // the first line decides
        {"Status: Bogus\nStatus: Enabled", std::nullopt},
        {"x\u2028Status: Enabled", true},                             // LS is a line break
        {"Status:\u00a0Enabled", std::nullopt},                       // words split at spaces and tabs only
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(pfStatusIsEnabled(text), expected) << text;
}

TEST(HardKillState, RulesFromListing)
{
    EXPECT_EQ(rulesFromListing(PFRuleBuilder::hardKillAnchorRuleset()), Rules::loaded);
    EXPECT_EQ(rulesFromListing("pass quick on lo0 all no state\nblock drop quick all\n"), Rules::loaded);
    EXPECT_EQ(rulesFromListing("xblock drop quick all label \"y\""), Rules::loaded);  // a plain substring test
    EXPECT_EQ(rulesFromListing(""), Rules::absent);
    EXPECT_EQ(rulesFromListing("block drop all\n"), Rules::absent);
    EXPECT_EQ(rulesFromListing("block  drop quick all\n"), Rules::absent);
}

TEST(HardKillState, TokenFromEnableOutput)
{
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {"\npf enabled\nToken : 11012949885072952621\n", "11012949885072952621"},
        {"No ALTQ support in kernel\nALTQ related functions disabled\n\npf enabled\nToken : 9084387343160548126\n",
         "9084387343160548126"},
        {"Token :\nToken : 1234567890\n", std::nullopt},  // only the first Token line is read
        {"Token : \t \n", std::nullopt},
        {"Token 1234\n", std::nullopt},                    // no colon, no token
        {"Token :", std::nullopt},                         // never the word itself
        {"Token:1234", "1234"},
        {"Token : 12:34", "34"},                           // what follows the last colon
        {"Token : 1234 :", std::nullopt},
        {"Token :\t1234\t\r\n", "1234"},
        {"token : 1234", std::nullopt},                    // case-sensitive
        {"pf enabled\n", std::nullopt},
        {"", std::nullopt},
        {"MyToken = x : y", "y"},                          // any line containing the word
        {"Token : \u00a01234", "\u00a01234"},               // trimmed of spaces and tabs only
        {"Token : 1 2", "1 2"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(tokenFromEnableOutput(text), expected) << text;
}

TEST(HardKillState, StateCountFromListing)
{
    const std::pair<std::string, std::int64_t> cases[] = {
        {"", 0},
        {"\n\n  \n\t\n", 0},
        {"ALL tcp 192.168.1.13:57474 -> 23.205.82.58:443       ESTABLISHED:ESTABLISHED\n", 1},
        {"ALL tcp a -> b       ESTABLISHED:ESTABLISHED\n"
         "ALL udp c <- d       NO_TRAFFIC:SINGLE\n\n"
         "ALL icmp e -> f       0:0\n",
         3},
        {"a\r\nb\rc\u2029d", 4},
        {"  a  \n  \n b", 3},  // a blank-looking line inside the listing still counts
        {"\u00a0\n", 0},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(stateCountFromListing(text), expected) << text;
}

TEST(HardKillState, TokensFromFile)
{
    const std::pair<std::string, Lines> cases[] = {
        {"123\n\n  456 \n", {"123", "456"}},
        {"", {}},
        {"\n \t\n", {}},
        {"1\n1\n", {"1", "1"}},  // duplicates kept as written
        {"7\r\n8\r\n", {"7", "8"}},
        {"9", {"9"}},
        {"\t10\t\u000b11", {"10", "11"}},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(tokensFromFile(text), expected) << text;
}

TEST(HardKillState, TokenFileContent)
{
    EXPECT_EQ(tokenFileContent({"123"}), "123\n");
    EXPECT_EQ(tokenFileContent({"123", "456"}), "123\n456\n");
    EXPECT_EQ(tokenFileContent({}), "");
    const Lines tokens = {"11012949885072952621", "9084387343160548126"};
    EXPECT_EQ(tokensFromFile(tokenFileContent(tokens)), tokens);
}

TEST(HardKillState, KeepAfterFailedRelease)
{
    using Clock = std::chrono::system_clock;
    const Clock::time_point boot = Clock::time_point(std::chrono::seconds(1'700'000'000));
    const Clock::time_point before = boot - std::chrono::seconds(1);
    const Clock::time_point after = boot + std::chrono::seconds(1);
    struct Case {
        const char* label;
        std::vector<RefusedToken> refused;
        std::optional<Clock::time_point> bootedAt;
        Lines expected;
    };
    const Case cases[] = {
        {"written before the boot", {{"1", before}}, boot, {}},
        {"written after the boot", {{"1", after}}, boot, {"1"}},
        {"written at the boot itself", {{"1", boot}}, boot, {"1"}},
        {"unknown write time", {{"1", std::nullopt}}, boot, {"1"}},
        {"unknown boot time", {{"1", before}}, std::nullopt, {"1"}},
        {"mixed, order kept", {{"a", after}, {"b", before}, {"c", std::nullopt}, {"d", after}}, boot,
         {"a", "c", "d"}},
        {"nothing refused", {}, boot, {}},
    };
    for (const Case& c : cases) EXPECT_EQ(keepAfterFailedRelease(c.refused, c.bootedAt), c.expected) << c.label;
}

TEST(HardKillState, ReferencesFromListing)
{
    using List = std::vector<PfReference>;
    const std::string header = "TOKENS:\nPID      Process Name                 TOKEN                    TIMESTAMP\n";
    const std::pair<std::string, std::optional<List>> cases[] = {
        {"No pf starter references held\n", List{}},
        {header + "4063     pfctl                        15053025338191571182     0 days 00:00:07\n",
         List{{"15053025338191571182", "pfctl", 7}}},
        {header + "1        pfctl                        2                        3 days 01:02:03\n"
                  "88       Application Firewall         9                        0 days 00:00:00\n",
         List{{"2", "pfctl", 3 * 86400 + 3723}, {"9", "Application Firewall", 0}}},
        {header, List{}},
        // What is not such a listing is unknown, never "none".
        {"", std::nullopt},
        {"garbage\n", std::nullopt},
        {"TOKENS:\n", std::nullopt},
        {header + "4063 pfctl 15053025338191571182\n", std::nullopt},
        {header + "x pfctl 1 0 days 00:00:00\n", std::nullopt},
        {header + "1 pfctl 1a 0 days 00:00:00\n", std::nullopt},
        {header + "1 pfctl 1 0 weeks 00:00:00\n", std::nullopt},
        {header + "1 pfctl 1 0 days 00:61:00\n", std::nullopt},
        {"TOKENS:\n1 pfctl 1 0 days 00:00:00\n", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(referencesFromListing(text), expected) << text;
}

} // namespace
} // namespace orven
