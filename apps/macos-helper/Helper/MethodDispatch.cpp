#include "MethodDispatch.h"

#include <atomic>
#include <cstdio>
#include <limits>
#include <memory>
#include <set>
#include <tuple>
#include <type_traits>
#include <utility>

#include "HelperService.h"
#include "Text.h"

namespace orven::MethodDispatch {

namespace {

// --- What a C++ parameter or reply value may stand for -----------------------

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

// Parameters that are views borrow from storage of their owning type.
template <class D>
struct StorageFor {
    using type = D;
};
template <>
struct StorageFor<std::string_view> {
    using type = std::string;
};
template <>
struct StorageFor<std::span<const std::uint8_t>> {
    using type = Bytes;
};
template <class P>
using Storage = typename StorageFor<std::remove_cvref_t<P>>::type;

template <class D>
constexpr bool argumentFits(WireType type)
{
    using enum WireType;
    if constexpr (std::is_same_v<D, bool>) return type == boolean;
    else if constexpr (std::is_integral_v<D>) return type == integer;
    else if constexpr (std::is_floating_point_v<D>) return type == real;
    else if constexpr (std::is_same_v<D, std::string>) return type == string || type == data;
    else if constexpr (std::is_same_v<D, std::vector<std::string>>) return type == stringArray;
    else if constexpr (std::is_same_v<D, Bytes>) return type == data;
    else if constexpr (std::is_same_v<D, std::optional<bool>> || std::is_same_v<D, std::optional<std::int64_t>> ||
                       std::is_same_v<D, std::optional<double>>)
        return type == optionalNumber;
    else return false;
}

template <class R>
constexpr bool replyFits(WireType type)
{
    using enum WireType;
    if constexpr (std::is_same_v<R, bool>) return type == boolean;
    else if constexpr (std::is_integral_v<R>) return type == integer;
    else if constexpr (std::is_floating_point_v<R>) return type == real;
    else if constexpr (std::is_same_v<R, std::string>) return type == string;
    else if constexpr (std::is_same_v<R, std::optional<std::string>>) return type == optionalString || type == optionalData;
    else if constexpr (std::is_same_v<R, Bytes>) return type == data;
    else if constexpr (std::is_same_v<R, std::optional<Bytes>>) return type == optionalData;
    else return false;
}

// Values were matched against the table already; what remains is a number
// out of a narrower parameter's range.
template <class D>
bool convert(const WireValue& value, D& out)
{
    if constexpr (std::is_same_v<D, bool>) {
        if (!std::holds_alternative<bool>(value)) return false;
        out = std::get<bool>(value);
    } else if constexpr (std::is_integral_v<D>) {
        if (!std::holds_alternative<std::int64_t>(value)) return false;
        const auto number = std::get<std::int64_t>(value);
        if (!std::in_range<D>(number)) return false;
        out = static_cast<D>(number);
    } else if constexpr (std::is_floating_point_v<D>) {
        if (const auto* real = std::get_if<double>(&value)) out = static_cast<D>(*real);
        else if (const auto* integer = std::get_if<std::int64_t>(&value)) out = static_cast<D>(*integer);
        else return false;
    } else if constexpr (std::is_same_v<D, std::string>) {
        if (const auto* text = std::get_if<std::string>(&value)) out = *text;
        else if (const auto* bytes = std::get_if<Bytes>(&value)) out.assign(bytes->begin(), bytes->end());
        else return false;
    } else if constexpr (std::is_same_v<D, std::vector<std::string>> || std::is_same_v<D, Bytes>) {
        if (!std::holds_alternative<D>(value)) return false;
        out = std::get<D>(value);
    } else if constexpr (IsOptional<D>::value) {
        using Inner = typename D::value_type;
        // NSNumber's own conversions: boolValue, longLongValue, doubleValue.
        if (std::holds_alternative<Nil>(value)) out.reset();
        else if (const auto* flag = std::get_if<bool>(&value)) out = static_cast<Inner>(*flag);
        else if (const auto* integer = std::get_if<std::int64_t>(&value))
            out = std::is_same_v<Inner, bool> ? static_cast<Inner>(*integer != 0) : static_cast<Inner>(*integer);
        else if (const auto* real = std::get_if<double>(&value))
            out = std::is_same_v<Inner, bool> ? static_cast<Inner>(*real != 0) : static_cast<Inner>(*real);
        else return false;
    } else {
        static_assert(sizeof(D) == 0, "no wire conversion for this parameter type");
    }
    return true;
}

template <class P>
decltype(auto) pass(Storage<P>& stored)
{
    if constexpr (std::is_reference_v<P>) return static_cast<Storage<P>&>(stored);
    else return std::remove_cvref_t<P>(std::move(stored));
}

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

template <class R>
WireValue toWire(R&& value, WireType type)
{
    using D = std::remove_cvref_t<R>;
    const bool asData = type == WireType::data || type == WireType::optionalData;
    if constexpr (std::is_same_v<D, bool>) return value;
    else if constexpr (std::is_integral_v<D>) return static_cast<std::int64_t>(value);
    else if constexpr (std::is_floating_point_v<D>) return static_cast<double>(value);
    else if constexpr (std::is_same_v<D, std::string>) return asData ? WireValue(bytesOf(value)) : WireValue(std::move(value));
    else if constexpr (std::is_same_v<D, std::optional<std::string>>) {
        if (!value) return Nil{};
        return asData ? WireValue(bytesOf(*value)) : WireValue(std::move(*value));
    } else if constexpr (std::is_same_v<D, Bytes>) return std::move(value);
    else if constexpr (std::is_same_v<D, std::optional<Bytes>>) {
        if (!value) return Nil{};
        return std::move(*value);
    } else {
        static_assert(sizeof(D) == 0, "no wire conversion for this reply type");
    }
}

// --- Exactly one answer ------------------------------------------------------

// Shared by the reply and the dispatcher: the first answer goes out, later
// ones are dropped, and a reply destroyed unanswered still answers.
class Once {
public:
    Once(Answer answer, const MethodSpec& method) : answer_(std::move(answer)), method_(method) {}
    Once(const Once&) = delete;
    Once& operator=(const Once&) = delete;
    ~Once()
    {
        if (answered_.load()) return;
        const std::string message = std::string(method_.selector) + " ended without answering";
        try {
            answer_(refusal(method_, message), message);
        } catch (...) {
            // Nothing more can be said to a client that is gone.
        }
    }

    void operator()(WireValues values, const std::optional<std::string>& refused)
    {
        if (answered_.exchange(true)) return;
        answer_(std::move(values), refused);
    }
    const MethodSpec& method() const { return method_; }

private:
    Answer answer_;
    MethodSpec method_;
    std::atomic<bool> answered_{false};
};

template <class ReplyType>
struct ReplyMaker;

template <class... R>
struct ReplyMaker<Reply<R...>> {
    static Reply<R...> make(std::shared_ptr<Once> once, const Logger& log)
    {
        return Reply<R...>(
            [once = std::move(once)](R... values) {
                const auto& types = once->method().reply;
                WireValues out;
                out.reserve(sizeof...(R));
                std::size_t index = 0;
                (out.push_back(toWire(std::move(values), types[index++])), ...);
                (*once)(std::move(out), std::nullopt);
            },
            &log);
    }
};

template <class ReplyType>
struct ReplyShape;

template <class... R>
struct ReplyShape<Reply<R...>> {
    static constexpr bool fits(std::span<const WireType> types)
    {
        if (sizeof...(R) != types.size()) return false;
        std::size_t index = 0;
        return (replyFits<std::remove_cvref_t<R>>(types[index++]) && ... && true);
    }
};

// The member's parameters against the table's argument and reply types,
// checked when this file is compiled: a mismatch is a build error here.
template <std::size_t Index, class... P>
consteval bool shapeFits()
{
    constexpr MethodSpec method = kOrvenHelperMethods[Index];
    if constexpr (sizeof...(P) != method.arguments.size() + 1) {
        return false;
    } else {
        using Params = std::tuple<P...>;
        using ReplyType = std::remove_cvref_t<std::tuple_element_t<sizeof...(P) - 1, Params>>;
        const bool argumentsFit = []<std::size_t... I>(std::index_sequence<I...>) {
            return (argumentFits<Storage<std::tuple_element_t<I, Params>>>(kOrvenHelperMethods[Index].arguments[I]) &&
                    ... && true);
        }(std::make_index_sequence<sizeof...(P) - 1>{});
        return argumentsFit && ReplyShape<ReplyType>::fits(method.reply);
    }
}

template <class S, class... P, std::size_t... I>
void callWith(S& service, void (S::*member)(P...), std::index_sequence<I...>, const WireValues& arguments,
              const std::shared_ptr<Once>& once)
{
    using Params = std::tuple<P...>;
    using ReplyType = std::remove_cvref_t<std::tuple_element_t<sizeof...(P) - 1, Params>>;
    std::tuple<Storage<std::tuple_element_t<I, Params>>...> stored;
    if (!(convert(arguments[I], std::get<I>(stored)) && ... && true)) {
        const auto message = invalidArgumentsMessage(once->method());
        (*once)(refusal(once->method(), message), message);
        return;
    }
    auto reply = ReplyMaker<ReplyType>::make(once, service.log());
    (service.*member)(pass<std::tuple_element_t<I, Params>>(std::get<I>(stored))..., std::move(reply));
}

template <std::size_t Index, class S, class... P>
void call(S& service, void (S::*member)(P...), const WireValues& arguments, const std::shared_ptr<Once>& once)
{
    static_assert(shapeFits<Index, P...>(), "a HelperService method disagrees with its entry in the method table");
    callWith(service, member, std::make_index_sequence<sizeof...(P) - 1>{}, arguments, once);
}

// Routes a selector to the member of the same name when this build has it;
// false when it does not. Without a service, only says whether it would.
template <class S>
bool route(S* service, std::string_view selector, const WireValues& arguments, const std::shared_ptr<Once>& once)
{
#define ORVEN_ROUTE(INDEX, SELECTOR, MEMBER)                                                           \
    static_assert(kOrvenHelperMethods[INDEX].selector == SELECTOR);                                      \
    if (selector == SELECTOR) {                                                                        \
        if constexpr (requires { &S::MEMBER; }) {                                                      \
            if (service) call<INDEX>(*service, &S::MEMBER, arguments, once);                           \
            return true;                                                                               \
        } else {                                                                                       \
            return false;                                                                              \
        }                                                                                              \
    }

    ORVEN_ROUTE(0, "pingWithReply:", ping)
    ORVEN_ROUTE(1, "setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply:",
                setLANIsolation)
    ORVEN_ROUTE(2, "setHardKillWithEngaged:reply:", setHardKill)
    ORVEN_ROUTE(3, "readHardKillStatusWithReply:", readHardKillStatus)
    ORVEN_ROUTE(4, "readHardKillEnforcementWithReply:", readHardKillEnforcement)
    ORVEN_ROUTE(5, "readHardKillResidueWithTokenWithReply:", readHardKillResidueWithToken)
    ORVEN_ROUTE(6, "readHardKillProofWithReply:", readHardKillProof)
    ORVEN_ROUTE(7, "applyIPv4WithServiceName:mode:ip:subnetMask:router:reply:", applyIPv4)
    ORVEN_ROUTE(8, "applyIPv6WithServiceName:mode:router:address:prefixLength:reply:", applyIPv6)
    ORVEN_ROUTE(9, "listServiceOrderWithReply:", listServiceOrder)
    ORVEN_ROUTE(10, "setServiceOrderWithOrderedServiceNames:reply:", setServiceOrder)
    ORVEN_ROUTE(11, "setInterfaceMTUWithBsdName:mtu:reply:", setInterfaceMTU)
    ORVEN_ROUTE(12, "setRawInterfaceMTUWithBsdName:mtu:reply:", setRawInterfaceMTU)
    ORVEN_ROUTE(13, "setInterfaceHoldUntilNeededWithBsdName:hold:reply:", setInterfaceHoldUntilNeeded)
    ORVEN_ROUTE(14, "restoreDriverProvisionedInterfaceWithBsdName:reply:", restoreDriverProvisionedInterface)
    ORVEN_ROUTE(15, "pingWithDontFragmentWithTarget:payloadBytes:boundInterface:timeoutMillis:reply:",
                pingWithDontFragment)
    ORVEN_ROUTE(16, "gatewayPingRTTWithTarget:count:spacingMillis:boundInterface:timeoutMillis:reply:",
                gatewayPingRTT)
    ORVEN_ROUTE(17, "readIKEv2DiagnosticLogSinceEpoch:serverAddress:reply:", readIKEv2DiagnosticLog)
    ORVEN_ROUTE(18, "readPowerlineTopologyWithInterfaceName:reply:", readPowerlineTopology)
    ORVEN_ROUTE(19, "installVPNIdentityWithPkcs12:passphrase:reply:", installVPNIdentity)
    ORVEN_ROUTE(20, "releaseVPNIdentityWithPkcs12:passphrase:reply:", releaseVPNIdentity)
    ORVEN_ROUTE(21, "installTrustedCAWithCertificateDER:reply:", installTrustedCA)
    ORVEN_ROUTE(22, "removeTrustedCAWithCertificateDER:reply:", removeTrustedCA)
    ORVEN_ROUTE(23, "setWiFiPowerWithServiceName:on:reply:", setWiFiPower)
    ORVEN_ROUTE(24, "addPreferredWiFiNetworkWithServiceName:ssid:securityType:password:reply:",
                addPreferredWiFiNetwork)
    ORVEN_ROUTE(25, "readKnownWiFiPlistDataWithReply:", readKnownWiFiPlistData)
    ORVEN_ROUTE(26, "uninstallSelfWithReply:", uninstallSelf)
    ORVEN_ROUTE(27, "selfTerminateWithReply:", selfTerminate)
#undef ORVEN_ROUTE
    return false;
}

static_assert(std::size(kOrvenHelperMethods) == 28, "every selector of the table has a route above");

// --- JSON --------------------------------------------------------------------

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Digit(char c)
{
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

std::optional<WireValue> valueFromJSON(const nlohmann::json& value, WireType type)
{
    using enum WireType;
    switch (type) {
    case boolean:
        if (value.is_boolean()) return value.get<bool>();
        return std::nullopt;
    case integer:
        if (value.is_number_unsigned()) {
            const auto number = value.get<std::uint64_t>();
            if (!std::in_range<std::int64_t>(number)) return std::nullopt;
            return static_cast<std::int64_t>(number);
        }
        if (value.is_number_integer()) return value.get<std::int64_t>();
        return std::nullopt;
    case real:
        if (value.is_number()) return value.get<double>();
        return std::nullopt;
    case string:
        if (value.is_string()) return value.get<std::string>();
        return std::nullopt;
    case optionalString:
        if (value.is_null()) return Nil{};
        if (value.is_string()) return value.get<std::string>();
        return std::nullopt;
    case stringArray: {
        if (!value.is_array()) return std::nullopt;
        std::vector<std::string> items;
        items.reserve(value.size());
        for (const auto& item : value) {
            if (!item.is_string()) return std::nullopt;
            items.push_back(item.get<std::string>());
        }
        return items;
    }
    case optionalData:
        if (value.is_null()) return Nil{};
        [[fallthrough]];
    case data: {
        if (!value.is_string()) return std::nullopt;
        auto bytes = base64Decode(value.get_ref<const std::string&>());
        if (!bytes) return std::nullopt;
        return std::move(*bytes);
    }
    case optionalNumber:
        if (value.is_null()) return Nil{};
        if (value.is_boolean()) return value.get<bool>();
        if (value.is_number_float()) return value.get<double>();
        if (value.is_number_unsigned() && !std::in_range<std::int64_t>(value.get<std::uint64_t>()))
            return value.get<double>();
        if (value.is_number_integer()) return value.get<std::int64_t>();
        return std::nullopt;
    }
    return std::nullopt;
}

// Deeper nesting than any request needs is refused before the parser sees it.
bool nestsTooDeeply(std::string_view line)
{
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : line) {
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
            continue;
        }
        if (c == '"') inString = true;
        else if (c == '[' || c == '{') {
            if (++depth > kMaxRequestDepth) return true;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

// The parser keeps the last of two equal keys; a request must not mean one
// thing to its writer and another here, so a repeated key (at any depth) is
// noted for the caller to refuse.
nlohmann::json parseNotingDuplicateKeys(std::string_view line, std::optional<std::string>& duplicate)
{
    std::vector<std::set<std::string>> openObjects;
    const nlohmann::json::parser_callback_t watch = [&](int, nlohmann::json::parse_event_t event,
                                                        nlohmann::json& parsed) {
        using Event = nlohmann::json::parse_event_t;
        if (event == Event::object_start) openObjects.emplace_back();
        else if (event == Event::object_end && !openObjects.empty()) openObjects.pop_back();
        else if (event == Event::key && !openObjects.empty() && !duplicate &&
                 !openObjects.back().insert(parsed.get<std::string>()).second)
            duplicate = parsed.get<std::string>();
        return true;
    };
    return nlohmann::json::parse(line, watch, false);
}

// A client's key named in an error line stays short.
std::string excerpt(const std::string& text)
{
    constexpr std::size_t kMaxEcho = 200;
    if (text.size() <= kMaxEcho) return text;
    std::size_t cut = kMaxEcho;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    return text.substr(0, cut) + "…";
}

nlohmann::json errorLine(const nlohmann::json& id, std::string message)
{
    nlohmann::json line = nlohmann::json::object();
    if (!id.is_discarded()) line["id"] = id;
    line["error"] = std::move(message);
    return line;
}

} // namespace

// --- Types and refusals ------------------------------------------------------

std::string_view typeName(WireType type)
{
    switch (type) {
    case WireType::string: return "String";
    case WireType::data: return "Data";
    case WireType::stringArray: return "[String]";
    case WireType::optionalNumber: return "NSNumber?";
    case WireType::boolean: return "Bool";
    case WireType::integer: return "Int";
    case WireType::real: return "Double";
    case WireType::optionalString: return "String?";
    case WireType::optionalData: return "Data?";
    }
    return "?";
}

std::string signature(std::span<const WireType> types)
{
    std::string out = "(";
    for (std::size_t i = 0; i < types.size(); ++i) {
        if (i > 0) out += ", ";
        out += typeName(types[i]);
    }
    return out + ")";
}

bool matches(const WireValue& value, WireType type)
{
    using enum WireType;
    switch (type) {
    case string: return std::holds_alternative<std::string>(value);
    case data: return std::holds_alternative<Bytes>(value);
    case stringArray: return std::holds_alternative<std::vector<std::string>>(value);
    case optionalNumber:
        return std::holds_alternative<Nil>(value) || std::holds_alternative<bool>(value) ||
               std::holds_alternative<std::int64_t>(value) || std::holds_alternative<double>(value);
    case boolean: return std::holds_alternative<bool>(value);
    case integer: return std::holds_alternative<std::int64_t>(value);
    case real: return std::holds_alternative<double>(value) || std::holds_alternative<std::int64_t>(value);
    case optionalString: return std::holds_alternative<Nil>(value) || std::holds_alternative<std::string>(value);
    case optionalData: return std::holds_alternative<Nil>(value) || std::holds_alternative<Bytes>(value);
    }
    return false;
}

bool matchesAll(const WireValues& values, std::span<const WireType> types)
{
    if (values.size() != types.size()) return false;
    for (std::size_t i = 0; i < values.size(); ++i)
        if (!matches(values[i], types[i])) return false;
    return true;
}

std::string invalidArgumentsMessage(const MethodSpec& method)
{
    return "Invalid arguments for " + std::string(method.selector) + " — expected " + signature(method.arguments);
}

std::string notAvailableMessage(const MethodSpec& method)
{
    return std::string(method.selector) + " is not available in this build";
}

WireValues refusal(const MethodSpec& method, const std::string& message)
{
    std::size_t messageSlot = method.reply.size();
    for (std::size_t i = method.reply.size(); i-- > 0;) {
        if (method.reply[i] == WireType::optionalString) {
            messageSlot = i;
            break;
        }
    }
    WireValues values;
    values.reserve(method.reply.size());
    for (std::size_t i = 0; i < method.reply.size(); ++i) {
        using enum WireType;
        switch (method.reply[i]) {
        case boolean: values.emplace_back(false); break;
        case integer: values.emplace_back(std::int64_t{-1}); break;
        case real: values.emplace_back(-1.0); break;
        case string: values.emplace_back(std::string()); break;
        case data: values.emplace_back(Bytes()); break;
        case stringArray: values.emplace_back(std::vector<std::string>()); break;
        case optionalString:
            if (i == messageSlot) values.emplace_back(message);
            else values.emplace_back(Nil{});
            break;
        case optionalNumber:
        case optionalData: values.emplace_back(Nil{}); break;
        }
    }
    return values;
}

bool isImplemented(const MethodSpec& method)
{
    return route<HelperService>(nullptr, method.selector, {}, nullptr);
}

void dispatch(HelperService& service, const MethodSpec& method, WireValues arguments, Answer answer)
{
    auto once = std::make_shared<Once>(std::move(answer), method);
    if (!matchesAll(arguments, method.arguments)) {
        const auto message = invalidArgumentsMessage(method);
        (*once)(refusal(method, message), message);
        return;
    }
    bool routed = false;
    try {
        routed = route<HelperService>(&service, method.selector, arguments, once);
    } catch (const std::exception& exception) {
        // Methods do not throw; if one does, its dropped reply still answers.
        service.log().error("%{public}s threw: %{public}s", method.selector, exception.what());
        routed = true;
    }
    if (!routed) {
        const auto message = notAvailableMessage(method);
        (*once)(refusal(method, message), message);
    }
}

// --- JSON lines --------------------------------------------------------------

std::string base64Encode(std::span<const std::uint8_t> bytes)
{
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t group = (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
        out += kBase64Alphabet[(group >> 18) & 63];
        out += kBase64Alphabet[(group >> 12) & 63];
        out += kBase64Alphabet[(group >> 6) & 63];
        out += kBase64Alphabet[group & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t group = std::uint32_t{bytes[i]} << 16;
        if (rest == 2) group |= std::uint32_t{bytes[i + 1]} << 8;
        out += kBase64Alphabet[(group >> 18) & 63];
        out += kBase64Alphabet[(group >> 12) & 63];
        out += rest == 2 ? kBase64Alphabet[(group >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::optional<Bytes> base64Decode(std::string_view text)
{
    if (text.size() % 4 != 0) return std::nullopt;
    Bytes out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int digits[4];
        int padding = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = text[i + static_cast<std::size_t>(k)];
            if (c == '=' && last && k >= 2) {
                ++padding;
                digits[k] = 0;
                continue;
            }
            if (padding > 0) return std::nullopt;  // a digit after padding
            digits[k] = base64Digit(c);
            if (digits[k] < 0) return std::nullopt;
        }
        const std::uint32_t group = (static_cast<std::uint32_t>(digits[0]) << 18) |
                                    (static_cast<std::uint32_t>(digits[1]) << 12) |
                                    (static_cast<std::uint32_t>(digits[2]) << 6) | static_cast<std::uint32_t>(digits[3]);
        out.push_back(static_cast<std::uint8_t>(group >> 16));
        if (padding < 2) out.push_back(static_cast<std::uint8_t>(group >> 8));
        if (padding < 1) out.push_back(static_cast<std::uint8_t>(group));
    }
    return out;
}

std::optional<WireValues> argumentsFromJSON(const MethodSpec& method, const nlohmann::json& arguments)
{
    if (!arguments.is_array() || arguments.size() != method.arguments.size()) return std::nullopt;
    WireValues values;
    values.reserve(arguments.size());
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        auto value = valueFromJSON(arguments[i], method.arguments[i]);
        if (!value) return std::nullopt;
        values.push_back(std::move(*value));
    }
    return values;
}

nlohmann::json valuesToJSON(const WireValues& values)
{
    nlohmann::json out = nlohmann::json::array();
    for (const auto& value : values) {
        std::visit(
            [&out](const auto& item) {
                using T = std::decay_t<decltype(item)>;
                if constexpr (std::is_same_v<T, Nil>) out.push_back(nullptr);
                else if constexpr (std::is_same_v<T, Bytes>) out.push_back(base64Encode(item));
                else out.push_back(item);
            },
            value);
    }
    return out;
}

std::variant<Request, nlohmann::json> parseRequest(std::string_view line)
{
    const nlohmann::json none(nlohmann::json::value_t::discarded);
    if (nestsTooDeeply(line))
        return errorLine(none, "malformed request: nested deeper than " + std::to_string(kMaxRequestDepth) + " levels");
    std::optional<std::string> duplicate;
    auto object = parseNotingDuplicateKeys(line, duplicate);
    if (object.is_discarded() || !object.is_object())
        return errorLine(none, "malformed request: expected one JSON object on a line");
    Request request;
    request.id = object.contains("id") ? object["id"] : nlohmann::json(nullptr);
    if (duplicate)
        return errorLine(*duplicate == "id" ? none : request.id,
                         "malformed request: the key \"" + excerpt(*duplicate) + "\" appears more than once in one object");
    const auto selector = object.find("selector");
    if (selector == object.end() || !selector->is_string())
        return errorLine(request.id, "malformed request: \"selector\" must be a string");
    const auto arguments = object.find("arguments");
    if (arguments == object.end()) request.arguments = nlohmann::json::array();
    else if (arguments->is_array()) request.arguments = std::move(*arguments);
    else return errorLine(request.id, "malformed request: \"arguments\" must be an array");
    request.method = findMethod(selector->get_ref<const std::string&>());
    if (!request.method) return errorLine(request.id, "unknown selector: " + selector->get<std::string>());
    return request;
}

std::string dumpLine(const nlohmann::json& value)
{
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void handleLine(HelperService& service, std::string_view line, const std::function<void(std::string)>& send)
{
    auto parsed = parseRequest(line);
    if (auto* error = std::get_if<nlohmann::json>(&parsed)) {
        send(dumpLine(*error));
        return;
    }
    auto& request = std::get<Request>(parsed);
    const MethodSpec& method = *request.method;
    const auto answer = [send, id = request.id](WireValues values, const std::optional<std::string>& refused) {
        nlohmann::json out = nlohmann::json::object();
        out["id"] = id;
        out["reply"] = valuesToJSON(values);
        if (refused) out["error"] = *refused;
        send(dumpLine(out));
    };
    auto arguments = argumentsFromJSON(method, request.arguments);
    if (!arguments) {
        const auto message = invalidArgumentsMessage(method);
        answer(refusal(method, message), message);
        return;
    }
    dispatch(service, method, std::move(*arguments), answer);
}

} // namespace orven::MethodDispatch
