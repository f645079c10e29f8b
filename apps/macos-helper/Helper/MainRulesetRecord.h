#pragma once
// The record of which main ruleset the daemon itself loaded: its proof of
// ownership, so it never writes over a ruleset somebody else loaded since.

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

// JSON with the keys "shape", "dump" (omitted when absent), "params", in that order.
std::string encodeMainRulesetRecord(const MainRulesetRecord& record);
// Absent when the text is not such a record.
std::optional<MainRulesetRecord> decodeMainRulesetRecord(std::string_view json);

} // namespace orven
