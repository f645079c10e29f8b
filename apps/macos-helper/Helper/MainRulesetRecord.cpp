#include "MainRulesetRecord.h"

#include "Text.h"

namespace orven {

namespace {

using Json = nlohmann::ordered_json;

// The record is a file on disk that anyone with root can replace; a real one
// is a few kilobytes and three levels deep, so anything far beyond that is
// refused before the parser sees it.
constexpr std::size_t kMaxDepth = 32;

// Nesting depth of a JSON text, counting brackets outside strings. Only a
// bound, not a check: the parser decides what is valid.
bool nestingWithinBound(std::string_view text)
{
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxDepth) return false;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return true;
}

Json recordJSON(const MainRulesetRecord& record)
{
    Json json = Json::object();
    json["shape"] = record.shape;
    if (record.dump) json["dump"] = *record.dump;
    json["params"] = PFRuleBuilder::toJSON(record.params);
    return json;
}

bool recordIsUTF8(const MainRulesetRecord& record)
{
    const auto& p = record.params;
    const auto allValid = [](const std::vector<std::string>& texts) {
        for (const auto& t : texts) {
            if (!text::isValidUTF8(t)) return false;
        }
        return true;
    };
    return text::isValidUTF8(record.shape) && (!record.dump || text::isValidUTF8(*record.dump)) &&
           text::isValidUTF8(p.interface) && text::isValidUTF8(p.gatewayV4) && text::isValidUTF8(p.subnetV4) &&
           (!p.gatewayV6 || text::isValidUTF8(*p.gatewayV6)) && allValid(p.dnsV4) && allValid(p.subnetsV6) &&
           allValid(p.dnsV6);
}

std::optional<MainRulesetRecord> recordFromJSON(const Json& json)
{
    if (!json.is_object()) return std::nullopt;

    MainRulesetRecord record;
    const auto shape = json.find("shape");
    if (shape == json.end() || !shape->is_string()) return std::nullopt;
    record.shape = shape->get<std::string>();

    // A null dump reads as none, as an optional decoder treats it.
    if (const auto dump = json.find("dump"); dump != json.end() && !dump->is_null()) {
        if (!dump->is_string()) return std::nullopt;
        record.dump = dump->get<std::string>();
    }

    const auto params = json.find("params");
    if (params == json.end()) return std::nullopt;
    auto decoded = PFRuleBuilder::paramsFromJSON(*params);
    if (!decoded) return std::nullopt;
    record.params = std::move(*decoded);
    return record;
}

} // namespace

std::string encodeMainRulesetRecord(const MainRulesetRecord& record)
{
    // Replacing bad bytes never throws; such a dump then never matches the
    // live one again, which errs on the side of not writing over pf.
    return recordJSON(record).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<std::string> encodeMainRulesetRecordExactly(const MainRulesetRecord& record)
{
    if (!recordIsUTF8(record)) return std::nullopt;
    return encodeMainRulesetRecord(record);
}

std::optional<MainRulesetRecord> decodeMainRulesetRecord(std::string_view text)
{
    if (text.size() > kMaxMainRulesetRecordBytes || !nestingWithinBound(text)) return std::nullopt;
    try {
        const Json json = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
        return recordFromJSON(json);
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

} // namespace orven
