#pragma once
// From a selector and its arguments to the HelperService method, the same way
// for every transport: the arguments are checked against the method table
// before the method runs (as NSXPC does), a method this build does not
// implement answers in its own shape, and every call is answered exactly once.
// The XPC object converts Foundation types to wire values; the Linux host's
// socket speaks one JSON object a line, also handled here.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "OrvenHelperProtocol.h"

namespace orven {

class HelperService;

namespace MethodDispatch {

using Bytes = std::vector<std::uint8_t>;
struct NilValue {
    bool operator==(const NilValue&) const = default;
};
// One argument or reply value: nil, Bool, Int, Double, String, [String], Data.
// An NSNumber? argument arrives as nil, Bool, Int or Double.
using WireValue = std::variant<NilValue, bool, std::int64_t, double, std::string, std::vector<std::string>, Bytes>;
using WireValues = std::vector<WireValue>;

// How a type is written in messages: "Bool", "Int", "Double", "String",
// "[String]", "Data", "NSNumber?", "String?", "Data?".
std::string_view typeName(WireType type);
// "(Bool, String)"; "()" for none.
std::string signature(std::span<const WireType> types);

// Whether a value may stand where the method table says `type`.
bool matches(const WireValue& value, WireType type);
bool matchesAll(const WireValues& values, std::span<const WireType> types);

// "Invalid arguments for <selector> — expected (<types>)"
std::string invalidArgumentsMessage(const MethodSpec& method);
// "<selector> is not available in this build"
std::string notAvailableMessage(const MethodSpec& method);

// Reply values of the method's shape that carry a refusal: false for a Bool,
// -1 for a number, nil for optional values, and `message` in the last String?
// (a reply without one, such as ping's, carries an empty String or false).
WireValues refusal(const MethodSpec& method, const std::string& message);

// Whether this build's HelperService has a method for the selector.
bool isImplemented(const MethodSpec& method);

// How a call is answered: the reply's values, and the refusal text when the
// call was turned away before the method ran (wrong arguments, not available).
using Answer = std::function<void(WireValues values, const std::optional<std::string>& refusal)>;

// Checks `arguments` against the table and runs the method, or answers the
// refusal. `answer` is called exactly once, possibly later and on another
// thread; a method that drops its reply still gets one answer.
void dispatch(HelperService& service, const MethodSpec& method, WireValues arguments, Answer answer);

// --- JSON lines ------------------------------------------------------------

inline constexpr std::size_t kMaxRequestDepth = 16;

std::string base64Encode(std::span<const std::uint8_t> bytes);
// Strict: padding required, no white space; absent when not base64.
std::optional<Bytes> base64Decode(std::string_view text);

// Booleans, integers, numbers, strings, arrays of strings, data as base64
// strings, NSNumber? as true/false/a number/null. Absent when a value does not
// have its method's type or the count differs.
std::optional<WireValues> argumentsFromJSON(const MethodSpec& method, const nlohmann::json& arguments);
// The reply values in order; data as base64, nil as null.
nlohmann::json valuesToJSON(const WireValues& values);

struct Request {
    nlohmann::json id;
    const MethodSpec* method = nullptr;
    nlohmann::json arguments;
};
// A request line, or the error line to answer it with when it is malformed
// or names no method of the table.
std::variant<Request, nlohmann::json> parseRequest(std::string_view line);

// One object a line, without the line feed; text that is not UTF-8 is replaced
// rather than refused, so an answer always goes out.
std::string dumpLine(const nlohmann::json& value);

// Serves one request line: `send` gets exactly one answer line (no line feed).
void handleLine(HelperService& service, std::string_view line, const std::function<void(std::string)>& send);

} // namespace MethodDispatch
} // namespace orven
