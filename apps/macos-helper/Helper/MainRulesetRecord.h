#pragma once
// The record of which main ruleset the daemon itself loaded: its proof of
// ownership, so it never writes over a ruleset somebody else loaded since.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "PFRuleBuilder.h"

namespace orven {

struct MainRulesetRecord {
    std::string shape;                // a HardKillProof::MainRulesetShape raw value, or unknown text
    std::optional<std::string> dump;  // what `pfctl -sr` printed right after the load
    PFRuleBuilder::LANIsolationParams params;

    bool operator==(const MainRulesetRecord&) const = default;
};

// A record file larger than this is not one of ours.
inline constexpr std::size_t kMaxMainRulesetRecordBytes = 1024 * 1024;

// JSON with the keys "shape", "dump" (omitted when absent), "params", in that order.
// Bytes that are not UTF-8 are written as U+FFFD (never throws).
std::string encodeMainRulesetRecord(const MainRulesetRecord& record);
// The same, but absent when some text is not UTF-8 and so could not be
// recorded exactly (a record that could never prove ownership again).
std::optional<std::string> encodeMainRulesetRecordExactly(const MainRulesetRecord& record);
// Absent when the text is not such a record (or is larger than the bound).
std::optional<MainRulesetRecord> decodeMainRulesetRecord(std::string_view json);

} // namespace orven
