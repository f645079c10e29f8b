// decodeMainRulesetRecord (and paramsFromJSON) on any file content: a decoded
// record re-encodes exactly and decodes to the same value; decoded params
// re-encode and decode to the same value.
#include <nlohmann/json.hpp>

#include "MainRulesetRecord.h"
#include "PFFuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);

    if (const auto record = decodeMainRulesetRecord(text)) {
        fuzz::check(size <= kMaxMainRulesetRecordBytes, "oversized files are refused");
        const auto encoded = encodeMainRulesetRecordExactly(*record);
        fuzz::check(encoded.has_value(), "a decoded record is always exactly encodable");
        fuzz::check(decodeMainRulesetRecord(*encoded) == record, "a decoded record round-trips");
        fuzz::check(encodeMainRulesetRecord(*decodeMainRulesetRecord(*encoded)) == *encoded, "encoding is stable");
    }

    // The params alone, from the same bytes (small inputs only: the parser
    // itself is not what is under test).
    if (size > 64 * 1024) return 0;
    const auto json = nlohmann::ordered_json::parse(text.begin(), text.end(), nullptr, false);
    if (json.is_discarded()) return 0;
    if (const auto params = PFRuleBuilder::paramsFromJSON(json)) {
        fuzz::check(PFRuleBuilder::paramsFromJSON(PFRuleBuilder::toJSON(*params)) == params, "params round-trip");
        const MainRulesetRecord wrapped{"isolation", std::nullopt, *params};
        fuzz::check(decodeMainRulesetRecord(encodeMainRulesetRecord(wrapped)) == wrapped,
                    "decoded params fit in a record");
    }
    return 0;
}
