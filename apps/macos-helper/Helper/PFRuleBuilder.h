#pragma once
// Turns the client's LAN isolation parameters into pf ruleset text, and
// checks them first. Other code finds these rules in pf's listings by their
// exact text, so every line is produced byte for byte.

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace orven::PFRuleBuilder {

struct LANIsolationParams {
    std::string interface;
    std::string gatewayV4;
    std::string subnetV4;
    std::vector<std::string> dnsV4;
    std::optional<std::string> gatewayV6;
    std::vector<std::string> subnetsV6;
    std::vector<std::string> dnsV6;

    bool operator==(const LANIsolationParams&) const = default;
};

// Keys in field order; "gatewayV6" left out when absent.
nlohmann::ordered_json toJSON(const LANIsolationParams& params);
// Absent when a required key is missing or of the wrong type.
std::optional<LANIsolationParams> paramsFromJSON(const nlohmann::ordered_json& json);

class ValidationError : public std::exception {
public:
    enum class Kind {
        invalidInterface,
        invalidGatewayV4,
        invalidSubnetV4,
        gatewayNotInSubnet,
        invalidDNSV4,
        invalidGatewayV6,
        invalidSubnetV6,
        invalidDNSV6,
    };

    ValidationError(Kind kind, std::string text, std::string subnet = {});

    Kind kind() const { return kind_; }
    const std::string& text() const { return text_; }
    const std::string& subnet() const { return subnet_; }
    // The message the client sees.
    const std::string& description() const { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }
    bool operator==(const ValidationError& other) const
    {
        return kind_ == other.kind_ && text_ == other.text_ && subnet_ == other.subnet_;
    }

private:
    Kind kind_;
    std::string text_;
    std::string subnet_;
    std::string description_;
};

// Throws the first ValidationError, in field order.
void validate(const LANIsolationParams& params);

std::string renderFullRuleset(const LANIsolationParams& params);
std::string renderIsolationSuspendedRuleset();
std::string renderIsolationRules(const LANIsolationParams& params);
std::vector<std::string> renderIPv4Rules(const LANIsolationParams& params, std::string_view iface);
std::vector<std::string> renderIPv6Rules(const LANIsolationParams& params, std::string_view iface);

// The Hard Kill anchor ruleset (computed once).
const std::string& hardKillAnchorRuleset();

bool isValidInterfaceName(std::string_view name);
std::optional<std::uint32_t> parseIPv4(std::string_view text);
struct CIDRv4 {
    std::uint32_t network;
    int prefixLength;
    bool operator==(const CIDRv4&) const = default;
};
std::optional<CIDRv4> parseCIDRv4(std::string_view text);
std::string ipv4String(std::uint32_t address);
std::optional<std::string> normalizedIPv6(std::string_view text);
std::optional<std::string> normalizedCIDRv6(std::string_view text);

} // namespace orven::PFRuleBuilder
