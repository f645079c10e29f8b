#pragma once
// Pure readings of pf's answers about the blackout and its references.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orven {

// The anchor the blackout lives in: a child of Apple's own anchor, so the
// stock main ruleset reaches it without being replaced.
inline constexpr std::string_view kBlackoutAnchor = "com.apple/999.test.orven.app";
// The blackout's catch-all rule, as pfctl lists it.
inline constexpr std::string_view kCatchAllRule = "block drop quick all";

namespace HardKillState {

// What pf says about the blackout rules. `unknown` is never `absent`.
enum class Rules { loaded, absent, unknown };

// "loaded", "absent" or "unknown".
std::string_view spelling(Rules rules);

// From `pfctl -s info`: yes for "Status: Enabled…", no for "Status: Disabled…",
// no answer otherwise.
std::optional<bool> pfStatusIsEnabled(std::string_view infoOutput);

// From a `pfctl -a … -sr` listing that pfctl answered.
Rules rulesFromListing(std::string_view listing);

// The token `pfctl -E` printed, from its standard output, a newline and its
// standard error joined; absent when no usable token line is there.
std::optional<std::string> tokenFromEnableOutput(std::string_view joinedOutput);

// The number of states in a `pfctl -s state` listing.
std::int64_t stateCountFromListing(std::string_view listing);

// The tokens of a token file, in file order.
std::vector<std::string> tokensFromFile(std::string_view content);
// The text of a token file holding `tokens`.
std::string tokenFileContent(const std::vector<std::string>& tokens);

// One row of `pfctl -s References`.
struct PfReference {
    std::string token;
    std::string processName;
    std::int64_t ageSeconds = 0;
    bool operator==(const PfReference&) const = default;
};

// The references a `pfctl -s References` listing names, newest first as pf
// prints them; absent when the text is not such a listing (never "none").
std::optional<std::vector<PfReference>> referencesFromListing(std::string_view listing);

struct RefusedToken {
    std::string token;
    std::optional<std::chrono::system_clock::time_point> writtenAt;
};

// Which refused tokens to keep: only a token known to be written before a
// known boot is dropped (pf forgets references at restart); in doubt, keep.
std::vector<std::string> keepAfterFailedRelease(const std::vector<RefusedToken>& refused,
                                                std::optional<std::chrono::system_clock::time_point> bootedAt);

} // namespace HardKillState
} // namespace orven
