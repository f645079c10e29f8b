#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "PFRuleBuilder.h"

namespace orven {
namespace {

using namespace PFRuleBuilder;
using Kind = ValidationError::Kind;

// Golden rulesets, written out by hand line for line.

constexpr const char* kGoldenIPv4Only = R"(#
# ORVEN pf take-over ruleset — generated, transient.
# Loaded via `pfctl -f -` while ORVEN is enforcing (LAN isolation or
# Hard Kill); the stock /etc/pf.conf is reloaded on disengage.
# Do not edit by hand.
#
set skip on lo0

scrub-anchor "com.apple/*"
nat-anchor "com.apple/*"
rdr-anchor "com.apple/*"
dummynet-anchor "com.apple/*"

# --- ORVEN LAN isolation (IPv4) ---
# interface=en0 gateway=192.168.1.1 subnet=192.168.1.0/24
# Keep DHCP (broadcast — can't be pinned to the gateway).
pass quick on en0 proto udp from any port 68 to any port 67
pass quick on en0 proto udp from any port 67 to any port 68
# Gateway reachable both ways (internet path + DNS-via-router).
pass quick on en0 inet from 192.168.1.1 to any
pass quick on en0 inet from any to 192.168.1.1
# Block INTRA-LAN only (both endpoints local). Silent drop.
block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24

anchor "com.apple/*"
load anchor "com.apple" from "/etc/pf.anchors/com.apple"
)";

constexpr const char* kGoldenIPv4Resolvers = R"(#
# ORVEN pf take-over ruleset — generated, transient.
# Loaded via `pfctl -f -` while ORVEN is enforcing (LAN isolation or
# Hard Kill); the stock /etc/pf.conf is reloaded on disengage.
# Do not edit by hand.
#
set skip on lo0

scrub-anchor "com.apple/*"
nat-anchor "com.apple/*"
rdr-anchor "com.apple/*"
dummynet-anchor "com.apple/*"

# --- ORVEN LAN isolation (IPv4) ---
# interface=bridge100 gateway=10.20.0.1 subnet=10.20.0.0/16
# Keep DHCP (broadcast — can't be pinned to the gateway).
pass quick on bridge100 proto udp from any port 68 to any port 67
pass quick on bridge100 proto udp from any port 67 to any port 68
# Gateway reachable both ways (internet path + DNS-via-router).
pass quick on bridge100 inet from 10.20.0.1 to any
pass quick on bridge100 inet from any to 10.20.0.1
# In-subnet resolvers (e.g. Pi-hole) — keep DNS alive.
pass quick on bridge100 inet from 10.20.0.53 to any
pass quick on bridge100 inet from any to 10.20.0.53
pass quick on bridge100 inet from 10.0.0.1 to any
pass quick on bridge100 inet from any to 10.0.0.1
pass quick on bridge100 inet from 1.1.1.1 to any
pass quick on bridge100 inet from any to 1.1.1.1
# Block INTRA-LAN only (both endpoints local). Silent drop.
block drop quick on bridge100 inet from 10.20.0.0/16 to 10.20.0.0/16

anchor "com.apple/*"
load anchor "com.apple" from "/etc/pf.anchors/com.apple"
)";

constexpr const char* kGoldenFullIPv6 = R"(#
# ORVEN pf take-over ruleset — generated, transient.
# Loaded via `pfctl -f -` while ORVEN is enforcing (LAN isolation or
# Hard Kill); the stock /etc/pf.conf is reloaded on disengage.
# Do not edit by hand.
#
set skip on lo0

scrub-anchor "com.apple/*"
nat-anchor "com.apple/*"
rdr-anchor "com.apple/*"
dummynet-anchor "com.apple/*"

# --- ORVEN LAN isolation (IPv4) ---
# interface=en0 gateway=192.168.1.1 subnet=192.168.1.0/24
# Keep DHCP (broadcast — can't be pinned to the gateway).
pass quick on en0 proto udp from any port 68 to any port 67
pass quick on en0 proto udp from any port 67 to any port 68
# Gateway reachable both ways (internet path + DNS-via-router).
pass quick on en0 inet from 192.168.1.1 to any
pass quick on en0 inet from any to 192.168.1.1
# In-subnet resolvers (e.g. Pi-hole) — keep DNS alive.
pass quick on en0 inet from 192.168.1.2 to any
pass quick on en0 inet from any to 192.168.1.2
# Block INTRA-LAN only (both endpoints local). Silent drop.
block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24

# --- ORVEN LAN isolation (IPv6) ---
# DHCPv6 (can't be pinned to the gateway).
pass quick on en0 inet6 proto udp from any port 546 to any port 547
pass quick on en0 inet6 proto udp from any port 547 to any port 546
# NDP / Router Advertisement — without these the v6 stack dies.
pass quick on en0 inet6 proto ipv6-icmp icmp6-type { 133, 134, 135, 136, 137 }
# v6 gateway (link-local) both ways.
pass quick on en0 inet6 from fe80::1 to any
pass quick on en0 inet6 from any to fe80::1
# In-prefix resolvers — keep v6 DNS alive (load-bearing).
pass quick on en0 inet6 from fe80::53 to any
pass quick on en0 inet6 from any to fe80::53
pass quick on en0 inet6 from 2001:db8::53 to any
pass quick on en0 inet6 from any to 2001:db8::53
# Block INTRA-LAN v6 per prefix (both endpoints local).
block drop quick on en0 inet6 from 2001:db8::/64 to 2001:db8::/64
block drop quick on en0 inet6 from fd12:3456:789a::/60 to fd12:3456:789a::/60
block drop quick on en0 inet6 from fe80::/10 to fe80::/10

anchor "com.apple/*"
load anchor "com.apple" from "/etc/pf.anchors/com.apple"
)";

constexpr const char* kGoldenSuspended = R"(#
# ORVEN pf take-over ruleset — generated, transient.
# Loaded via `pfctl -f -` while ORVEN is enforcing (LAN isolation or
# Hard Kill); the stock /etc/pf.conf is reloaded on disengage.
# Do not edit by hand.
#
set skip on lo0

scrub-anchor "com.apple/*"
nat-anchor "com.apple/*"
rdr-anchor "com.apple/*"
dummynet-anchor "com.apple/*"

# --- LAN isolation SUSPENDED while Hard Kill is engaged ---
# Its pass rules would be evaluated before the anchor that
# carries the blackout, and `quick` makes the first match final.

anchor "com.apple/*"
load anchor "com.apple" from "/etc/pf.anchors/com.apple"
)";

constexpr const char* kGoldenAnchor = R"(# ORVEN Hard Kill — loaded into com.apple/999.test.orven.app, transient.
# The main ruleset is NOT touched; this is added and removed.
pass quick on lo0 all no state
block drop quick all
)";

LANIsolationParams homeLAN()
{
    return {"en0", "192.168.1.1", "192.168.1.0/24", {}, std::nullopt, {}, {}};
}

LANIsolationParams dualStackLAN()
{
    return {"en0",
            "192.168.1.1",
            "192.168.1.0/24",
            {"192.168.1.2"},
            "FE80:0:0::1%en0",
            {"2001:db8::1234/64", "fd12:3456:789a:1::5/60"},
            {"fe80::53%en0", "bogus", "2001:DB8::53"}};
}

// --- Golden rulesets ----------------------------------------------------------

TEST(PFRuleBuilder, RulesetsMatchTheirGoldenTexts)
{
    LANIsolationParams ipv4Only = homeLAN();
    ipv4Only.subnetV4 = "192.168.1.77/24";  // host bits are masked in the rules

    const LANIsolationParams resolvers{
        "bridge100", "10.20.0.1", "10.20.0.0/16", {"10.20.0.53", "not-an-ip", "010.000.000.001", "1.1.1", "1.1.1.1"},
        std::nullopt, {}, {}};

    EXPECT_EQ(renderFullRuleset(ipv4Only), kGoldenIPv4Only);
    EXPECT_EQ(renderFullRuleset(resolvers), kGoldenIPv4Resolvers);
    EXPECT_EQ(renderFullRuleset(dualStackLAN()), kGoldenFullIPv6);
    EXPECT_EQ(renderIsolationSuspendedRuleset(), kGoldenSuspended);
    EXPECT_EQ(hardKillAnchorRuleset(), kGoldenAnchor);
}

TEST(PFRuleBuilder, IsolationRulesAreJoinedWithoutTrailingNewline)
{
    const std::string rules = renderIsolationRules(homeLAN());
    EXPECT_EQ(rules.substr(0, rules.find('\n')), "# --- ORVEN LAN isolation (IPv4) ---");
    EXPECT_EQ(rules.substr(rules.rfind('\n') + 1),
              "block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24");
}

TEST(PFRuleBuilder, IPv6SectionAppearsOnlyWithIPv6Data)
{
    struct Case {
        const char* label;
        std::function<void(LANIsolationParams&)> change;
        bool hasSection;
    };
    const Case cases[] = {
        {"no IPv6 data", [](LANIsolationParams&) {}, false},
        {"gateway only", [](LANIsolationParams& p) { p.gatewayV6 = "fe80::1"; }, true},
        {"an unparsable gateway still opens the section", [](LANIsolationParams& p) { p.gatewayV6 = "nope"; }, true},
        {"prefix only", [](LANIsolationParams& p) { p.subnetsV6 = {"fd00::/64"}; }, true},
        {"resolver only", [](LANIsolationParams& p) { p.dnsV6 = {"fd00::53"}; }, true},
    };
    for (const Case& c : cases) {
        LANIsolationParams params = homeLAN();
        c.change(params);
        const std::string rules = renderIsolationRules(params);
        EXPECT_EQ(rules.find("IPv6") != std::string::npos, c.hasSection) << c.label;
        // Without IPv6 data not even the section's leading empty line is there.
        EXPECT_EQ(rules.find("\n\n") != std::string::npos, c.hasSection) << c.label;
    }
}

TEST(PFRuleBuilder, RenderersTolerateWhatValidationWouldRefuse)
{
    LANIsolationParams params = homeLAN();
    params.subnetV4 = "192.168.1/24";
    params.dnsV4 = {"x", "300.1.1.1"};
    params.gatewayV6 = "fe80::zz";
    params.subnetsV6 = {"garbage/99", "fd00::1/64"};
    params.dnsV6 = {"::g"};

    const std::vector<std::string> v4 = renderIPv4Rules(params, "en9");
    const std::vector<std::string> expectedV4 = {
        "# --- ORVEN LAN isolation (IPv4) ---",
        "# interface=en9 gateway=192.168.1.1 subnet=192.168.1/24",
        "# Keep DHCP (broadcast \u2014 can't be pinned to the gateway).",
        "pass quick on en9 proto udp from any port 68 to any port 67",
        "pass quick on en9 proto udp from any port 67 to any port 68",
        "# Gateway reachable both ways (internet path + DNS-via-router).",
        "pass quick on en9 inet from 192.168.1.1 to any",
        "pass quick on en9 inet from any to 192.168.1.1",
        "# Block INTRA-LAN only (both endpoints local). Silent drop.",
        "block drop quick on en9 inet from 192.168.1/24 to 192.168.1/24",
    };
    EXPECT_EQ(v4, expectedV4);

    const std::vector<std::string> v6 = renderIPv6Rules(params, "en9");
    const std::vector<std::string> expectedV6 = {
        "",
        "# --- ORVEN LAN isolation (IPv6) ---",
        "# DHCPv6 (can't be pinned to the gateway).",
        "pass quick on en9 inet6 proto udp from any port 546 to any port 547",
        "pass quick on en9 inet6 proto udp from any port 547 to any port 546",
        "# NDP / Router Advertisement \u2014 without these the v6 stack dies.",
        "pass quick on en9 inet6 proto ipv6-icmp icmp6-type { 133, 134, 135, 136, 137 }",
        "# Block INTRA-LAN v6 per prefix (both endpoints local).",
        "block drop quick on en9 inet6 from garbage/99 to garbage/99",
        "block drop quick on en9 inet6 from fd00::/64 to fd00::/64",
        "block drop quick on en9 inet6 from fe80::/10 to fe80::/10",
    };
    EXPECT_EQ(v6, expectedV6);
}

// --- Addresses ----------------------------------------------------------------

TEST(PFRuleBuilder, InterfaceNames)
{
    const std::pair<const char*, bool> cases[] = {
        {"en0", true},         {"bridge100", true}, {"utun10", true},   {"a", true},
        {"abcdefghijklmno", true},                  {"abcdefghijklmnop", false},
        {"", false},           {"0en", false},      {"en0:1", false},   {"en0.1", false},
        {"en-0", false},       {"en_0", false},     {"en 0", false},    {"\u00e9n0", false},
        {"en0\n", false},
    };
    for (const auto& [name, valid] : cases) EXPECT_EQ(isValidInterfaceName(name), valid) << name;
}

TEST(PFRuleBuilder, ParseIPv4)
{
    const std::pair<const char*, std::optional<std::uint32_t>> cases[] = {
        {"1.2.3.4", 0x01020304},         {"255.255.255.255", 0xFFFFFFFF}, {"0.0.0.0", 0},
        {"001.002.003.004", 0x01020304}, {"010.0.0.1", 0x0A000001},
        {"1.2.3", std::nullopt},         {"1.2.3.4.5", std::nullopt},     {"1..3.4", std::nullopt},
        {"256.1.1.1", std::nullopt},     {"1.2.3.0004", std::nullopt},    {"", std::nullopt},
        {"1.2.3.", std::nullopt},        {" 1.2.3.4", std::nullopt},      {"1.2.3.4 ", std::nullopt},
        {"+1.2.3.4", std::nullopt},      {"0x1.2.3.4", std::nullopt},     {"1.2.3.-4", std::nullopt},
        {"\u0661.2.3.4", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(parseIPv4(text), expected) << text;
}

TEST(PFRuleBuilder, ParseCIDRv4MasksTheNetwork)
{
    const std::pair<const char*, std::optional<CIDRv4>> cases[] = {
        {"10.1.2.3/24", CIDRv4{0x0A010200, 24}},
        {"10.9.8.7/0", CIDRv4{0, 0}},
        {"10.9.8.7/32", CIDRv4{0x0A090807, 32}},
        {"192.168.1.255/31", CIDRv4{0xC0A801FE, 31}},
        {"10.0.0.0/008", CIDRv4{0x0A000000, 8}},
        {"10.0.0.0/33", std::nullopt},
        {"10.0.0.0/", std::nullopt},
        {"10.0.0.0", std::nullopt},
        {"10.0.0.0/8/8", std::nullopt},
        {"/8", std::nullopt},
        {"10.0.0/8", std::nullopt},
        {"10.0.0.0/-1", std::nullopt},
        {"10.0.0.0/ 8", std::nullopt},
        {"10.0.0.0/99999999999999999999999", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(parseCIDRv4(text), expected) << text;
}

TEST(PFRuleBuilder, IPv4String)
{
    EXPECT_EQ(ipv4String(0x01020304), "1.2.3.4");
    EXPECT_EQ(ipv4String(0), "0.0.0.0");
    EXPECT_EQ(ipv4String(0xFFFFFFFF), "255.255.255.255");
    EXPECT_EQ(ipv4String(0xC0A8000A), "192.168.0.10");
}

TEST(PFRuleBuilder, NormalisedIPv6)
{
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {"FE80:0:0::1%en0", "fe80::1"},
        {"fe80::1%", "fe80::1"},
        {"2001:0DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
        {"::", "::"},
        {"::ffff:192.168.1.1", "::ffff:192.168.1.1"},
        {"2606:4700:4700::1111", "2606:4700:4700::1111"},
        {"%en0", std::nullopt},
        {"", std::nullopt},
        {"fe80::1%en0%x", "fe80::1"},
        {"fe80:::1", std::nullopt},
        {"fe80::1/64", std::nullopt},
        {"192.168.1.1", std::nullopt},
        {" fe80::1", std::nullopt},
        {std::string("::1\0junk", 8), std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(normalizedIPv6(text), expected) << text;
}

TEST(PFRuleBuilder, NormalisedCIDRv6ClearsHostBits)
{
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"2001:db8::1234/64", "2001:db8::/64"},
        {"fd12:3456:789a:1::5/60", "fd12:3456:789a::/60"},
        {"fd00::1/128", "fd00::1/128"},
        {"fd00::1/0", "::/0"},
        {"ffff:ffff::/17", "ffff:8000::/17"},
        {"FE80::1%en0/10", "fe80::/10"},
        {"fd00::1/0064", "fd00::/64"},
        {"fd00::1/129", std::nullopt},
        {"fd00::1/", std::nullopt},
        {"fd00::1", std::nullopt},
        {"/64", std::nullopt},
        {"fd00::1/64/64", std::nullopt},
        {"fd00::1/+64", std::nullopt},
        {"10.0.0.0/8", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(normalizedCIDRv6(text), expected) << text;
}

// --- Validation ---------------------------------------------------------------

std::optional<ValidationError> validationFailure(const LANIsolationParams& params)
{
    try {
        validate(params);
    } catch (const ValidationError& error) {
        return error;
    }
    return std::nullopt;
}

TEST(PFRuleBuilder, ValidateAcceptsGoodParameters)
{
    struct Case {
        const char* label;
        std::function<void(LANIsolationParams&)> change;
    };
    const Case cases[] = {
        {"IPv4 only", [](LANIsolationParams&) {}},
        {"dual stack with zones", [](LANIsolationParams& p) { p = dualStackLAN(); p.dnsV6 = {"fe80::53%en0"}; }},
        {"resolver outside the subnet", [](LANIsolationParams& p) { p.dnsV4 = {"8.8.8.8"}; }},
        {"unmasked subnet text", [](LANIsolationParams& p) { p.subnetV4 = "192.168.1.200/24"; }},
        {"a /0 subnet holds every gateway", [](LANIsolationParams& p) { p.subnetV4 = "10.0.0.0/0"; }},
        {"fifteen-character interface", [](LANIsolationParams& p) { p.interface = "abcdefghijklmn0"; }},
    };
    for (const Case& c : cases) {
        LANIsolationParams params = homeLAN();
        c.change(params);
        EXPECT_EQ(validationFailure(params), std::nullopt) << c.label;
    }
}

TEST(PFRuleBuilder, ValidateRefusesTheFirstBadField)
{
    struct Case {
        const char* label;
        std::function<void(LANIsolationParams&)> change;
        ValidationError expected;
        const char* description;
    };
    const Case cases[] = {
        {"empty interface", [](LANIsolationParams& p) { p.interface = ""; },
         {Kind::invalidInterface, ""}, "Invalid interface name: ''"},
        {"dotted interface", [](LANIsolationParams& p) { p.interface = "en0.1"; },
         {Kind::invalidInterface, "en0.1"}, "Invalid interface name: 'en0.1'"},
        {"interface before gateway", [](LANIsolationParams& p) { p.interface = "0en"; p.gatewayV4 = "x"; },
         {Kind::invalidInterface, "0en"}, "Invalid interface name: '0en'"},
        {"gateway", [](LANIsolationParams& p) { p.gatewayV4 = "192.168.1.256"; },
         {Kind::invalidGatewayV4, "192.168.1.256"}, "Invalid IPv4 gateway: '192.168.1.256'"},
        {"subnet without length", [](LANIsolationParams& p) { p.subnetV4 = "192.168.1.0"; },
         {Kind::invalidSubnetV4, "192.168.1.0"}, "Invalid IPv4 subnet (expected A.B.C.D/N): '192.168.1.0'"},
        {"gateway outside the subnet", [](LANIsolationParams& p) { p.subnetV4 = "192.168.2.0/24"; },
         {Kind::gatewayNotInSubnet, "192.168.1.1", "192.168.2.0/24"},
         "Gateway '192.168.1.1' is not inside subnet '192.168.2.0/24'"},
        {"texts as sent in the containment message",
         [](LANIsolationParams& p) { p.gatewayV4 = "192.168.001.1"; p.subnetV4 = "192.168.2.9/24"; },
         {Kind::gatewayNotInSubnet, "192.168.001.1", "192.168.2.9/24"},
         "Gateway '192.168.001.1' is not inside subnet '192.168.2.9/24'"},
        {"first bad resolver", [](LANIsolationParams& p) { p.dnsV4 = {"1.1.1.1", "8.8.8", "x"}; },
         {Kind::invalidDNSV4, "8.8.8"}, "Invalid IPv4 DNS server: '8.8.8'"},
        {"IPv4 resolver before IPv6 gateway", [](LANIsolationParams& p) { p.dnsV4 = {"x"}; p.gatewayV6 = "y"; },
         {Kind::invalidDNSV4, "x"}, "Invalid IPv4 DNS server: 'x'"},
        {"IPv6 gateway keeps its zone", [](LANIsolationParams& p) { p.gatewayV6 = "fe80::zz%en0"; },
         {Kind::invalidGatewayV6, "fe80::zz%en0"}, "Invalid IPv6 gateway: 'fe80::zz%en0'"},
        {"present but empty IPv6 gateway", [](LANIsolationParams& p) { p.gatewayV6 = ""; },
         {Kind::invalidGatewayV6, ""}, "Invalid IPv6 gateway: ''"},
        {"prefix length", [](LANIsolationParams& p) { p.subnetsV6 = {"fd00::/64", "fd00::1/129"}; },
         {Kind::invalidSubnetV6, "fd00::1/129"},
         "Invalid IPv6 prefix (expected addr/N, N 0\u2026128): 'fd00::1/129'"},
        {"IPv6 resolver", [](LANIsolationParams& p) { p.dnsV6 = {"fe80::1%en0", "::g%en0"}; },
         {Kind::invalidDNSV6, "::g%en0"}, "Invalid IPv6 DNS server: '::g%en0'"},
    };
    for (const Case& c : cases) {
        LANIsolationParams params = homeLAN();
        c.change(params);
        const auto failure = validationFailure(params);
        ASSERT_TRUE(failure.has_value()) << c.label;
        EXPECT_EQ(*failure, c.expected) << c.label;
        EXPECT_EQ(failure->description(), c.description) << c.label;
        EXPECT_STREQ(failure->what(), c.description) << c.label;
    }
}

TEST(PFRuleBuilder, ValidationErrorsCompareCaseAndPayload)
{
    EXPECT_EQ(ValidationError(Kind::invalidDNSV4, "x"), ValidationError(Kind::invalidDNSV4, "x"));
    EXPECT_FALSE(ValidationError(Kind::invalidDNSV4, "x") == ValidationError(Kind::invalidDNSV6, "x"));
    EXPECT_FALSE(ValidationError(Kind::invalidDNSV4, "x") == ValidationError(Kind::invalidDNSV4, "y"));
    EXPECT_FALSE(ValidationError(Kind::gatewayNotInSubnet, "a", "b") ==
                 ValidationError(Kind::gatewayNotInSubnet, "a", "c"));
}

// --- Parameters as JSON -------------------------------------------------------

TEST(PFRuleBuilder, ParametersEncodeWithKeysInFieldOrder)
{
    EXPECT_EQ(toJSON(dualStackLAN()).dump(),
              R"({"interface":"en0","gatewayV4":"192.168.1.1","subnetV4":"192.168.1.0/24","dnsV4":["192.168.1.2"],)"
              R"("gatewayV6":"FE80:0:0::1%en0","subnetsV6":["2001:db8::1234/64","fd12:3456:789a:1::5/60"],)"
              R"("dnsV6":["fe80::53%en0","bogus","2001:DB8::53"]})");
    EXPECT_EQ(toJSON(homeLAN()).dump(),
              R"({"interface":"en0","gatewayV4":"192.168.1.1","subnetV4":"192.168.1.0/24","dnsV4":[],)"
              R"("subnetsV6":[],"dnsV6":[]})");
}

TEST(PFRuleBuilder, ParametersDecodeWhatTheyEncode)
{
    for (const auto& params : {homeLAN(), dualStackLAN()}) {
        EXPECT_EQ(paramsFromJSON(toJSON(params)), params);
    }
    auto withNull = toJSON(homeLAN());
    withNull["gatewayV6"] = nullptr;
    withNull["unknownKey"] = 5;
    EXPECT_EQ(paramsFromJSON(withNull), homeLAN());
}

TEST(PFRuleBuilder, ParametersRefuseMissingKeysAndWrongTypes)
{
    for (const char* key : {"interface", "gatewayV4", "subnetV4", "dnsV4", "subnetsV6", "dnsV6"}) {
        auto json = toJSON(dualStackLAN());
        json.erase(key);
        EXPECT_EQ(paramsFromJSON(json), std::nullopt) << "without " << key;
    }
    struct Case {
        const char* key;
        nlohmann::ordered_json value;
    };
    using Json = nlohmann::ordered_json;
    const Case wrong[] = {
        {"interface", 1},
        {"gatewayV4", nullptr},
        {"subnetV4", Json::array({"192.168.1.0/24"})},
        {"dnsV4", "1.1.1.1"},
        {"dnsV4", Json::array({"1.1.1.1", 2})},
        {"gatewayV6", 6},
        {"gatewayV6", Json::array({"fe80::1"})},
        {"subnetsV6", nullptr},
        {"dnsV6", Json::object({{"a", "b"}})},
        {"dnsV6", Json::array({Json::array({"fe80::1"})})},
    };
    for (const Case& c : wrong) {
        auto json = toJSON(dualStackLAN());
        json[c.key] = c.value;
        EXPECT_EQ(paramsFromJSON(json), std::nullopt) << c.key << " = " << c.value.dump();
    }
    EXPECT_EQ(paramsFromJSON(nlohmann::ordered_json::array()), std::nullopt);
    EXPECT_EQ(paramsFromJSON("en0"), std::nullopt);
}

} // namespace
} // namespace orven
