#include "PFRuleBuilder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>

#include "Text.h"

namespace orven::PFRuleBuilder {

namespace {

using Json = nlohmann::ordered_json;

// inet_ntop's IPv6 text never needs more than INET6_ADDRSTRLEN (46).
constexpr std::size_t kIPv6TextBuffer = 46;

std::string_view withoutZone(std::string_view text)
{
    const std::size_t percent = text.find('%');
    return percent == std::string_view::npos ? text : text.substr(0, percent);
}

std::optional<in6_addr> parseIPv6(std::string_view text)
{
    // inet_pton reads a C string: an embedded NUL would hide whatever follows
    // it, so such a text is refused rather than half-read.
    if (text.find('\0') != std::string_view::npos) return std::nullopt;
    const std::string address(withoutZone(text));
    in6_addr parsed{};
    if (inet_pton(AF_INET6, address.c_str(), &parsed) != 1) return std::nullopt;
    return parsed;
}

std::optional<std::string> ipv6String(const in6_addr& address)
{
    std::array<char, kIPv6TextBuffer> buffer{};
    if (inet_ntop(AF_INET6, &address, buffer.data(), static_cast<socklen_t>(buffer.size())) == nullptr) {
        return std::nullopt;
    }
    return std::string(buffer.data());
}

std::uint32_t maskForPrefix(int prefixLength)
{
    return prefixLength == 0 ? 0u : ~std::uint32_t{0} << (32 - prefixLength);
}

std::string cidrV4String(const CIDRv4& cidr) { return ipv4String(cidr.network) + "/" + std::to_string(cidr.prefixLength); }

std::string subnetText(std::string_view subnetV4)
{
    const auto cidr = parseCIDRv4(subnetV4);
    return cidr ? cidrV4String(*cidr) : std::string(subnetV4);
}

std::string describe(ValidationError::Kind kind, const std::string& text, const std::string& subnet)
{
    using Kind = ValidationError::Kind;
    switch (kind) {
    case Kind::invalidInterface: return "Invalid interface name: '" + text + "'";
    case Kind::invalidGatewayV4: return "Invalid IPv4 gateway: '" + text + "'";
    case Kind::invalidSubnetV4: return "Invalid IPv4 subnet (expected A.B.C.D/N): '" + text + "'";
    case Kind::gatewayNotInSubnet: return "Gateway '" + text + "' is not inside subnet '" + subnet + "'";
    case Kind::invalidDNSV4: return "Invalid IPv4 DNS server: '" + text + "'";
    case Kind::invalidGatewayV6: return "Invalid IPv6 gateway: '" + text + "'";
    case Kind::invalidSubnetV6: return "Invalid IPv6 prefix (expected addr/N, N 0\u2026128): '" + text + "'";
    case Kind::invalidDNSV6: return "Invalid IPv6 DNS server: '" + text + "'";
    }
    return {};
}

constexpr std::array<std::string_view, 12> kTakeOverHeader = {
    "#",
    "# ORVEN pf take-over ruleset \u2014 generated, transient.",
    "# Loaded via `pfctl -f -` while ORVEN is enforcing (LAN isolation or",
    "# Hard Kill); the stock /etc/pf.conf is reloaded on disengage.",
    "# Do not edit by hand.",
    "#",
    "set skip on lo0",
    "",
    "scrub-anchor \"com.apple/*\"",
    "nat-anchor \"com.apple/*\"",
    "rdr-anchor \"com.apple/*\"",
    "dummynet-anchor \"com.apple/*\"",
};

constexpr std::string_view kTakeOverTrailer =
    "anchor \"com.apple/*\"\n"
    "load anchor \"com.apple\" from \"/etc/pf.anchors/com.apple\"\n";

// Header, a blank line, the body, a blank line, the trailer: both main
// rulesets share this frame so only the middle ever differs.
std::string takeOverRuleset(std::string_view body)
{
    std::string out;
    for (const auto line : kTakeOverHeader) {
        out.append(line);
        out.push_back('\n');
    }
    out.push_back('\n');
    out.append(body);
    out.append("\n\n");
    out.append(kTakeOverTrailer);
    return out;
}

bool isStringArray(const Json& value)
{
    if (!value.is_array()) return false;
    for (const auto& element : value) {
        if (!element.is_string()) return false;
    }
    return true;
}

std::optional<std::string> requiredString(const Json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

std::optional<std::vector<std::string>> requiredStrings(const Json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end() || !isStringArray(*found)) return std::nullopt;
    return found->get<std::vector<std::string>>();
}

} // namespace

// MARK: - Parameters as JSON

nlohmann::ordered_json toJSON(const LANIsolationParams& params)
{
    Json json = Json::object();
    json["interface"] = params.interface;
    json["gatewayV4"] = params.gatewayV4;
    json["subnetV4"] = params.subnetV4;
    json["dnsV4"] = params.dnsV4;
    if (params.gatewayV6) json["gatewayV6"] = *params.gatewayV6;
    json["subnetsV6"] = params.subnetsV6;
    json["dnsV6"] = params.dnsV6;
    return json;
}

std::optional<LANIsolationParams> paramsFromJSON(const nlohmann::ordered_json& json)
{
    if (!json.is_object()) return std::nullopt;
    auto interface = requiredString(json, "interface");
    auto gatewayV4 = requiredString(json, "gatewayV4");
    auto subnetV4 = requiredString(json, "subnetV4");
    auto dnsV4 = requiredStrings(json, "dnsV4");
    auto subnetsV6 = requiredStrings(json, "subnetsV6");
    auto dnsV6 = requiredStrings(json, "dnsV6");
    if (!interface || !gatewayV4 || !subnetV4 || !dnsV4 || !subnetsV6 || !dnsV6) return std::nullopt;

    std::optional<std::string> gatewayV6;
    // A null gateway reads as none, as an optional decoder treats it.
    if (const auto found = json.find("gatewayV6"); found != json.end() && !found->is_null()) {
        if (!found->is_string()) return std::nullopt;
        gatewayV6 = found->get<std::string>();
    }
    return LANIsolationParams{std::move(*interface), std::move(*gatewayV4), std::move(*subnetV4), std::move(*dnsV4),
                              std::move(gatewayV6),  std::move(*subnetsV6), std::move(*dnsV6)};
}

// MARK: - Validation

ValidationError::ValidationError(Kind kind, std::string text, std::string subnet)
    : kind_(kind), text_(std::move(text)), subnet_(std::move(subnet)), description_(describe(kind_, text_, subnet_))
{
}

void validate(const LANIsolationParams& params)
{
    using Kind = ValidationError::Kind;
    if (!isValidInterfaceName(params.interface)) throw ValidationError(Kind::invalidInterface, params.interface);
    const auto gateway = parseIPv4(params.gatewayV4);
    if (!gateway) throw ValidationError(Kind::invalidGatewayV4, params.gatewayV4);
    const auto subnet = parseCIDRv4(params.subnetV4);
    if (!subnet) throw ValidationError(Kind::invalidSubnetV4, params.subnetV4);
    if ((*gateway & maskForPrefix(subnet->prefixLength)) != subnet->network) {
        throw ValidationError(Kind::gatewayNotInSubnet, params.gatewayV4, params.subnetV4);
    }
    for (const auto& resolver : params.dnsV4) {
        if (!parseIPv4(resolver)) throw ValidationError(Kind::invalidDNSV4, resolver);
    }
    if (params.gatewayV6 && !parseIPv6(*params.gatewayV6)) {
        throw ValidationError(Kind::invalidGatewayV6, *params.gatewayV6);
    }
    for (const auto& prefix : params.subnetsV6) {
        if (!normalizedCIDRv6(prefix)) throw ValidationError(Kind::invalidSubnetV6, prefix);
    }
    for (const auto& resolver : params.dnsV6) {
        if (!parseIPv6(resolver)) throw ValidationError(Kind::invalidDNSV6, resolver);
    }
}

// MARK: - Rendering

std::vector<std::string> renderIPv4Rules(const LANIsolationParams& params, std::string_view iface)
{
    const std::string on(iface);
    const std::string& gateway = params.gatewayV4;
    const std::string subnet = subnetText(params.subnetV4);

    std::vector<std::string> lines = {
        "# --- ORVEN LAN isolation (IPv4) ---",
        "# interface=" + on + " gateway=" + gateway + " subnet=" + subnet,
        "# Keep DHCP (broadcast \u2014 can't be pinned to the gateway).",
        "pass quick on " + on + " proto udp from any port 68 to any port 67",
        "pass quick on " + on + " proto udp from any port 67 to any port 68",
        "# Gateway reachable both ways (internet path + DNS-via-router).",
        "pass quick on " + on + " inet from " + gateway + " to any",
        "pass quick on " + on + " inet from any to " + gateway,
    };

    std::vector<std::string> resolverLines;
    for (const auto& resolver : params.dnsV4) {
        const auto address = parseIPv4(resolver);
        if (!address) continue;
        const std::string dns = ipv4String(*address);
        resolverLines.push_back("pass quick on " + on + " inet from " + dns + " to any");
        resolverLines.push_back("pass quick on " + on + " inet from any to " + dns);
    }
    if (!resolverLines.empty()) {
        lines.emplace_back("# In-subnet resolvers (e.g. Pi-hole) \u2014 keep DNS alive.");
        lines.insert(lines.end(), resolverLines.begin(), resolverLines.end());
    }

    lines.emplace_back("# Block INTRA-LAN only (both endpoints local). Silent drop.");
    lines.push_back("block drop quick on " + on + " inet from " + subnet + " to " + subnet);
    return lines;
}

std::vector<std::string> renderIPv6Rules(const LANIsolationParams& params, std::string_view iface)
{
    const std::string on(iface);
    std::vector<std::string> lines = {
        "",
        "# --- ORVEN LAN isolation (IPv6) ---",
        "# DHCPv6 (can't be pinned to the gateway).",
        "pass quick on " + on + " inet6 proto udp from any port 546 to any port 547",
        "pass quick on " + on + " inet6 proto udp from any port 547 to any port 546",
        "# NDP / Router Advertisement \u2014 without these the v6 stack dies.",
        "pass quick on " + on + " inet6 proto ipv6-icmp icmp6-type { 133, 134, 135, 136, 137 }",
    };

    if (params.gatewayV6) {
        if (const auto gateway = normalizedIPv6(*params.gatewayV6)) {
            lines.emplace_back("# v6 gateway (link-local) both ways.");
            lines.push_back("pass quick on " + on + " inet6 from " + *gateway + " to any");
            lines.push_back("pass quick on " + on + " inet6 from any to " + *gateway);
        }
    }

    std::vector<std::string> resolverLines;
    for (const auto& resolver : params.dnsV6) {
        const auto dns = normalizedIPv6(resolver);
        if (!dns) continue;
        resolverLines.push_back("pass quick on " + on + " inet6 from " + *dns + " to any");
        resolverLines.push_back("pass quick on " + on + " inet6 from any to " + *dns);
    }
    if (!resolverLines.empty()) {
        lines.emplace_back("# In-prefix resolvers \u2014 keep v6 DNS alive (load-bearing).");
        lines.insert(lines.end(), resolverLines.begin(), resolverLines.end());
    }

    lines.emplace_back("# Block INTRA-LAN v6 per prefix (both endpoints local).");
    for (const auto& entry : params.subnetsV6) {
        const std::string prefix = normalizedCIDRv6(entry).value_or(entry);
        lines.push_back("block drop quick on " + on + " inet6 from " + prefix + " to " + prefix);
    }
    lines.push_back("block drop quick on " + on + " inet6 from fe80::/10 to fe80::/10");
    return lines;
}

std::string renderIsolationRules(const LANIsolationParams& params)
{
    std::vector<std::string> lines = renderIPv4Rules(params, params.interface);
    if (params.gatewayV6 || !params.subnetsV6.empty() || !params.dnsV6.empty()) {
        auto v6 = renderIPv6Rules(params, params.interface);
        lines.insert(lines.end(), v6.begin(), v6.end());
    }
    return text::join(lines, "\n");
}

std::string renderFullRuleset(const LANIsolationParams& params) { return takeOverRuleset(renderIsolationRules(params)); }

std::string renderIsolationSuspendedRuleset()
{
    return takeOverRuleset("# --- LAN isolation SUSPENDED while Hard Kill is engaged ---\n"
                           "# Its pass rules would be evaluated before the anchor that\n"
                           "# carries the blackout, and `quick` makes the first match final.");
}

// MARK: - Addresses

bool isValidInterfaceName(std::string_view name)
{
    const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (name.empty() || name.size() > 15 || !isLetter(name.front())) return false;
    for (const char c : name) {
        if (!isLetter(c) && !isDigit(c)) return false;
    }
    return true;
}

std::optional<std::uint32_t> parseIPv4(std::string_view text)
{
    const auto pieces = text::splitKeepingEmpty(text, '.');
    if (pieces.size() != 4) return std::nullopt;
    std::uint32_t address = 0;
    for (const auto& piece : pieces) {
        if (piece.empty() || piece.size() > 3) return std::nullopt;
        const auto octet = text::parseUnsigned(piece, 255);
        if (!octet) return std::nullopt;
        address = (address << 8) | static_cast<std::uint32_t>(*octet);
    }
    return address;
}

std::optional<CIDRv4> parseCIDRv4(std::string_view text)
{
    const auto pieces = text::splitKeepingEmpty(text, '/');
    if (pieces.size() != 2) return std::nullopt;
    const auto address = parseIPv4(pieces[0]);
    if (!address) return std::nullopt;
    const auto prefix = text::parseUnsigned(pieces[1], 32);
    if (!prefix) return std::nullopt;
    const int prefixLength = static_cast<int>(*prefix);
    return CIDRv4{*address & maskForPrefix(prefixLength), prefixLength};
}

std::string ipv4String(std::uint32_t address)
{
    return std::to_string((address >> 24) & 0xFF) + "." + std::to_string((address >> 16) & 0xFF) + "." +
           std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
}

std::optional<std::string> normalizedIPv6(std::string_view text)
{
    const auto address = parseIPv6(text);
    if (!address) return std::nullopt;
    return ipv6String(*address);
}

std::optional<std::string> normalizedCIDRv6(std::string_view text)
{
    const auto pieces = text::splitKeepingEmpty(text, '/');
    if (pieces.size() != 2) return std::nullopt;
    const auto prefix = text::parseUnsigned(pieces[1], 128);
    if (!prefix) return std::nullopt;
    auto address = parseIPv6(pieces[0]);
    if (!address) return std::nullopt;

    const std::size_t prefixLength = static_cast<std::size_t>(*prefix);
    auto* bytes = address->s6_addr;
    for (std::size_t i = 0; i < 16; ++i) {
        const std::size_t firstBit = i * 8;
        if (firstBit + 8 <= prefixLength) continue;
        const std::size_t kept = prefixLength > firstBit ? prefixLength - firstBit : 0;
        bytes[i] = static_cast<std::uint8_t>(bytes[i] & static_cast<std::uint8_t>(0xFF00u >> kept));
    }
    const auto network = ipv6String(*address);
    if (!network) return std::nullopt;
    return *network + "/" + std::to_string(prefixLength);
}

} // namespace orven::PFRuleBuilder
