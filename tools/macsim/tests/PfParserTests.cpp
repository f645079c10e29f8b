// pf.conf text in, pfctl's listing out: parser defaults, list expansion,
// normalised printing, statement order and the error lines.

#include <gtest/gtest.h>

#include "PfParser.h"
#include "Stock.h"

namespace {

using namespace orven::macsim;

std::string listed(const ParsedRuleset& parsed) {
    std::string out;
    for (const auto& r : parsed.rules)
        out += printRule(r) + "\n";
    return out;
}

std::string errors(const ParsedRuleset& parsed) {
    std::string out;
    for (const auto& e : parsed.errors)
        out += e + "\n";
    return out;
}

ParseContext context(std::string anchor = {}) {
    ParseContext ctx;
    ctx.anchorPath = std::move(anchor);
    ctx.anchorLoad = !ctx.anchorPath.empty();
    ctx.interfaceAddresses = [](std::string_view name) -> std::optional<std::vector<InterfaceAddress>> {
        if (name != "en0")
            return std::nullopt;
        return std::vector<InterfaceAddress>{{*IpAddr::parse("192.168.1.23"), 24},
                                             {*IpAddr::parse("2001:db8:1::23"), 64}};
    };
    return ctx;
}

struct PrintCase {
    const char* name;
    const char* loaded;
    const char* listed;
};

class Printing : public ::testing::TestWithParam<PrintCase> {};

TEST_P(Printing, ListsAsPfctlDoes) {
    const ParsedRuleset parsed = parseRuleset(GetParam().loaded, context());
    ASSERT_TRUE(parsed.ok()) << errors(parsed);
    EXPECT_EQ(listed(parsed), GetParam().listed);
}

// A listed rule, loaded again, lists the same: the simulator stores rules
// in their listed form.
TEST_P(Printing, ListingLoadsBackUnchanged) {
    const std::string first = listed(parseRuleset(GetParam().loaded, context()));
    ParseContext ctx = context();
    ctx.requireOrder = false;
    const ParsedRuleset again = parseRuleset(first, ctx);
    ASSERT_TRUE(again.ok()) << errors(again);
    EXPECT_EQ(listed(again), first);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, Printing,
    ::testing::Values(
        PrintCase{"LoopbackNoState", "pass quick on lo0 all no state\n", "pass quick on lo0 all no state\n"},
        PrintCase{"CatchAll", "block drop quick all\n", "block drop quick all\n"},
        PrintCase{"BareBlockDrops", "block all\n", "block drop all\n"},
        PrintCase{"PassOutKeepsState", "pass out all\n", "pass out all flags S/SA keep state\n"},
        PrintCase{"UdpPortsAreNumeric", "pass quick on en0 proto udp from any port 68 to any port 67\n",
                  "pass quick on en0 proto udp from any port = 68 to any port = 67 keep state\n"},
        PrintCase{"FamilyFromHost", "pass quick on en0 from 192.168.1.1 to any\n",
                  "pass quick on en0 inet from 192.168.1.1 to any flags S/SA keep state\n"},
        PrintCase{"DestinationHost", "pass quick on en0 inet from any to 192.168.1.53\n",
                  "pass quick on en0 inet from any to 192.168.1.53 flags S/SA keep state\n"},
        PrintCase{"HostBitsMasked", "block drop quick on en0 inet from 192.168.1.5/24 to 192.168.1.0/24\n",
                  "block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24\n"},
        PrintCase{"Ipv6PrefixMasked", "block drop quick on en0 inet6 from 2001:db8:1::77/64 to fe80::1/10\n",
                  "block drop quick on en0 inet6 from 2001:db8:1::/64 to fe80::/10\n"},
        PrintCase{"Icmp6TypesExpand",
                  "pass quick on en0 inet6 proto ipv6-icmp icmp6-type { 133, 134, 135, 136, 137 }\n",
                  "pass quick on en0 inet6 proto ipv6-icmp all icmp6-type routersol keep state\n"
                  "pass quick on en0 inet6 proto ipv6-icmp all icmp6-type routeradv keep state\n"
                  "pass quick on en0 inet6 proto ipv6-icmp all icmp6-type neighbrsol keep state\n"
                  "pass quick on en0 inet6 proto ipv6-icmp all icmp6-type neighbradv keep state\n"
                  "pass quick on en0 inet6 proto ipv6-icmp all icmp6-type redir keep state\n"},
        PrintCase{"SharedIcmp6NumberPrintsFirstName", "pass inet6 proto icmp6 icmp6-type { listqry, 200 }\n",
                  "pass inet6 proto ipv6-icmp all icmp6-type groupqry keep state\n"
                  "pass inet6 proto ipv6-icmp all icmp6-type mtraceresp keep state\n"},
        PrintCase{"IcmpTypeAndCode", "block in inet proto icmp icmp-type unreach code needfrag\n",
                  "block drop in inet proto icmp all icmp-type unreach code needfrag\n"},
        PrintCase{"TcpPortWithoutSource", "pass in on en0 proto tcp to port 22\n",
                  "pass in on en0 proto tcp from any to any port = 22 flags S/SA keep state\n"},
        PrintCase{"AnchorCall", "anchor \"com.apple/*\"\n", "anchor \"com.apple/*\" all\n"},
        PrintCase{"ExpansionOrder", "pass out on { en0 en1 } proto { tcp udp } to { 10.0.0.1 10.0.0.2 } port 53\n",
                  "pass out on en0 inet proto tcp from any to 10.0.0.1 port = 53 flags S/SA keep state\n"
                  "pass out on en0 inet proto tcp from any to 10.0.0.2 port = 53 flags S/SA keep state\n"
                  "pass out on en0 inet proto udp from any to 10.0.0.1 port = 53 keep state\n"
                  "pass out on en0 inet proto udp from any to 10.0.0.2 port = 53 keep state\n"
                  "pass out on en1 inet proto tcp from any to 10.0.0.1 port = 53 flags S/SA keep state\n"
                  "pass out on en1 inet proto tcp from any to 10.0.0.2 port = 53 flags S/SA keep state\n"
                  "pass out on en1 inet proto udp from any to 10.0.0.1 port = 53 keep state\n"
                  "pass out on en1 inet proto udp from any to 10.0.0.2 port = 53 keep state\n"},
        PrintCase{"PortOperators",
                  "pass proto tcp to port { != 80, < 1024, <= 9, > 5, >= 7, 1000:2000, 10 >< 20, 30 <> 40 }\n",
                  "pass proto tcp from any to any port != 80 flags S/SA keep state\n"
                  "pass proto tcp from any to any port < 1024 flags S/SA keep state\n"
                  "pass proto tcp from any to any port <= 9 flags S/SA keep state\n"
                  "pass proto tcp from any to any port > 5 flags S/SA keep state\n"
                  "pass proto tcp from any to any port >= 7 flags S/SA keep state\n"
                  "pass proto tcp from any to any port 1000:2000 flags S/SA keep state\n"
                  "pass proto tcp from any to any port 10 >< 20 flags S/SA keep state\n"
                  "pass proto tcp from any to any port 30 <> 40 flags S/SA keep state\n"},
        PrintCase{"ServiceNamesPrintNumbers", "pass proto tcp to port { https domain }\n",
                  "pass proto tcp from any to any port = 443 flags S/SA keep state\n"
                  "pass proto tcp from any to any port = 53 flags S/SA keep state\n"},
        PrintCase{"Negation", "block on ! en0 from ! 10.0.0.0/8 to any\n",
                  "block drop on ! en0 inet from ! 10.0.0.0/8 to any\n"},
        PrintCase{"MixedFamiliesSplit", "pass from { 10.0.0.1, 2001:db8::1 } to any\n",
                  "pass inet from 10.0.0.1 to any flags S/SA keep state\n"
                  "pass inet6 from 2001:db8::1 to any flags S/SA keep state\n"},
        PrintCase{"FamilyFiltersHosts", "pass inet6 from { 10.0.0.1, 2001:db8::1 } to any\n",
                  "pass inet6 from 2001:db8::1 to any flags S/SA keep state\n"},
        PrintCase{"FlagsAny", "pass proto tcp all flags any\n", "pass proto tcp all flags any keep state\n"},
        PrintCase{"ExplicitFlagsClearedForUdp", "pass proto { tcp udp } all flags S/SA\n",
                  "pass proto tcp all flags S/SA keep state\n"
                  "pass proto udp all keep state\n"},
        PrintCase{"ReturnPolicies", "block return in proto tcp all\nblock return-rst proto tcp all\n",
                  "block return in proto tcp all\nblock return-rst proto tcp all\n"},
        PrintCase{"ProtocolNumber", "pass proto 47 all\n", "pass proto gre all keep state\n"},
        PrintCase{"InterfaceNameAsAddress", "pass out from en0 to any\n",
                  "pass out inet from 192.168.1.23 to any flags S/SA keep state\n"
                  "pass out inet6 from 2001:db8:1::23 to any flags S/SA keep state\n"},
        PrintCase{"InterfaceNetwork", "block in from en0:network to any\n",
                  "block drop in inet from 192.168.1.0/24 to any\n"
                  "block drop in inet6 from 2001:db8:1::/64 to any\n"},
        PrintCase{"DynamicAddress", "pass in inet proto tcp to (en0) port 22\n",
                  "pass in inet proto tcp from any to (en0) port = 22 flags S/SA keep state\n"},
        PrintCase{"MacrosAndContinuation", "ext = \"en0\"\nports = \"{ 80 443 }\"\npass in on $ext proto tcp \\\n"
                                           "  to any port $ports\n",
                  "pass in on en0 proto tcp from any to any port = 80 flags S/SA keep state\n"
                  "pass in on en0 proto tcp from any to any port = 443 flags S/SA keep state\n"},
        PrintCase{"LabelAndLog", "pass log quick proto udp all label \"dns\"\n",
                  "pass log quick proto udp all keep state label \"dns\"\n"},
        PrintCase{"ScrubRule", "scrub in all\n", "scrub in all fragment reassemble\n"},
        PrintCase{"AnchorKinds",
                  "scrub-anchor \"com.apple/*\"\nnat-anchor \"com.apple/*\"\nrdr-anchor \"com.apple/*\"\n"
                  "dummynet-anchor \"com.apple/*\"\nanchor \"com.apple/*\"\n",
                  "scrub-anchor \"com.apple/*\" all fragment reassemble\nnat-anchor \"com.apple/*\" all\n"
                  "rdr-anchor \"com.apple/*\" all\ndummynet-anchor \"com.apple/*\" all\nanchor \"com.apple/*\" all\n"},
        PrintCase{"Redirect", "rdr pass on lo0 inet proto tcp from any to any port 80 -> 127.0.0.1 port 8080\n",
                  "rdr pass on lo0 inet proto tcp from any to any port = 80 -> 127.0.0.1 port 8080\n"},
        PrintCase{"CommentsWithPunctuation", "# Keep DHCP (broadcast \u2014 can't be pinned) `pfctl -f -` \"x\"\n"
                                             "pass quick on lo0 all no state # trailing\n",
                  "pass quick on lo0 all no state\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// The whole ruleset the daemon generates for LAN isolation, in its listed form.
TEST(Printing, DaemonIsolationRuleset) {
    const char* text =
        "#\n# ORVEN pf take-over ruleset \u2014 generated, transient.\n"
        "# Loaded via `pfctl -f -` while ORVEN is enforcing (LAN isolation or\n"
        "# Hard Kill); the stock /etc/pf.conf is reloaded on disengage.\n# Do not edit by hand.\n#\n"
        "set skip on lo0\n\nscrub-anchor \"com.apple/*\"\nnat-anchor \"com.apple/*\"\n"
        "rdr-anchor \"com.apple/*\"\ndummynet-anchor \"com.apple/*\"\n\n"
        "pass quick on en0 proto udp from any port 68 to any port 67\n"
        "pass quick on en0 inet from 192.168.1.1 to any\n"
        "pass quick on en0 inet from any to 192.168.1.53\n"
        "block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24\n"
        "pass quick on en0 inet6 proto udp from any port 546 to any port 547\n"
        "pass quick on en0 inet6 from fe80::1 to any\n"
        "block drop quick on en0 inet6 from 2001:db8:1::/64 to 2001:db8:1::/64\n"
        "block drop quick on en0 inet6 from fe80::/10 to fe80::/10\n\n"
        "anchor \"com.apple/*\"\nload anchor \"com.apple\" from \"/etc/pf.anchors/com.apple\"\n";
    const ParsedRuleset parsed = parseRuleset(text, context());
    ASSERT_TRUE(parsed.ok()) << errors(parsed);
    EXPECT_EQ(listed(parsed), "scrub-anchor \"com.apple/*\" all fragment reassemble\n"
                              "nat-anchor \"com.apple/*\" all\n"
                              "rdr-anchor \"com.apple/*\" all\n"
                              "dummynet-anchor \"com.apple/*\" all\n"
                              "pass quick on en0 proto udp from any port = 68 to any port = 67 keep state\n"
                              "pass quick on en0 inet from 192.168.1.1 to any flags S/SA keep state\n"
                              "pass quick on en0 inet from any to 192.168.1.53 flags S/SA keep state\n"
                              "block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24\n"
                              "pass quick on en0 inet6 proto udp from any port = 546 to any port = 547 keep state\n"
                              "pass quick on en0 inet6 from fe80::1 to any flags S/SA keep state\n"
                              "block drop quick on en0 inet6 from 2001:db8:1::/64 to 2001:db8:1::/64\n"
                              "block drop quick on en0 inet6 from fe80::/10 to fe80::/10\n"
                              "anchor \"com.apple/*\" all\n");
    EXPECT_TRUE(parsed.skipSet);
    EXPECT_EQ(parsed.skip, std::vector<std::string>{"lo0"});
    ASSERT_EQ(parsed.loadAnchors.size(), 1u);
    EXPECT_EQ(parsed.loadAnchors[0].anchor, "com.apple");
    EXPECT_EQ(parsed.loadAnchors[0].file, "/etc/pf.anchors/com.apple");
}

TEST(Printing, StockFilesResolveTheirAnchors) {
    const ParsedRuleset main = parseRuleset(kStockPfConf, context());
    ASSERT_TRUE(main.ok()) << errors(main);
    ASSERT_EQ(main.rules.size(), 5u);
    for (const auto& r : main.rules) {
        EXPECT_TRUE(r.isAnchor);
        EXPECT_EQ(r.anchorTarget, "com.apple");
        EXPECT_TRUE(r.wildcard);
    }
    const ParsedRuleset apple = parseRuleset(kStockAppleAnchor, context("com.apple"));
    ASSERT_TRUE(apple.ok()) << errors(apple);
    ASSERT_EQ(apple.rules.size(), 2u);
    EXPECT_EQ(apple.rules[0].anchorTarget, "com.apple/200.AirDrop");
    EXPECT_EQ(apple.rules[1].anchorTarget, "com.apple/250.ApplicationFirewall");
    EXPECT_EQ(listed(apple), "anchor \"200.AirDrop/*\" all\nanchor \"250.ApplicationFirewall/*\" all\n");
}

// An anchor load ignores options and `load anchor` lines.
TEST(Printing, AnchorLoadIgnoresOptions) {
    const ParsedRuleset parsed =
        parseRuleset("set skip on en0\npass all\nload anchor \"x\" from \"/tmp/x\"\n", context("a"));
    ASSERT_TRUE(parsed.ok()) << errors(parsed);
    EXPECT_FALSE(parsed.skipSet);
    EXPECT_TRUE(parsed.loadAnchors.empty());
}

struct ErrorCase {
    const char* name;
    const char* text;
    const char* errors;
};

class Errors : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(Errors, ReportsAsPfctlDoes) {
    const ParsedRuleset parsed = parseRuleset(GetParam().text, context());
    EXPECT_EQ(errors(parsed), GetParam().errors);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, Errors,
    ::testing::Values(
        ErrorCase{"GarbageLine", "pass all\nfoo bar\n", "stdin:2: syntax error\n"},
        ErrorCase{"EveryBadLineReported", "frob\npass all\nblock nowhere\n",
                  "stdin:1: syntax error\nstdin:3: syntax error\n"},
        ErrorCase{"OptionAfterFilter", "pass all\nset skip on lo0\n",
                  "stdin:2: Rules must be in order: options, normalization, queueing, translation, filtering\n"},
        ErrorCase{"ScrubAnchorAfterFilter", "anchor \"a\"\nscrub-anchor \"com.apple/*\"\n",
                  "stdin:2: Rules must be in order: options, normalization, queueing, translation, filtering\n"},
        ErrorCase{"TranslationAfterDummynet", "dummynet-anchor \"x\"\nrdr-anchor \"y\"\n",
                  "stdin:2: Rules must be in order: options, normalization, queueing, translation, filtering\n"},
        ErrorCase{"PortWithoutProtocol", "pass all\npass to port 22\n",
                  "stdin:2: port only applies to tcp/udp\nstdin:2: skipping rule due to errors\n"
                  "stdin:2: rule expands to no valid combination\n"},
        ErrorCase{"FlagsOnUdp", "pass proto udp all flags S/SA\n", "stdin:1: flags only apply to tcp\n"},
        ErrorCase{"KeepStateOnBlock", "block all keep state\n",
                  "stdin:1: keep state on block rules doesn't make sense\nstdin:1: skipping rule due to errors\n"
                  "stdin:1: rule expands to no valid combination\n"},
        ErrorCase{"IcmpTypeNeedsFamily", "pass proto icmp icmp-type echoreq\n",
                  "stdin:1: must indicate address family with icmp-type/code\n"
                  "stdin:1: skipping rule due to errors\nstdin:1: rule expands to no valid combination\n"},
        ErrorCase{"UndefinedMacro", "pass on $ext all\n",
                  "stdin:1: macro 'ext' not defined\nstdin:1: syntax error\n"},
        ErrorCase{"UnknownProtocol", "pass proto frob all\n", "stdin:1: unknown protocol frob\n"},
        ErrorCase{"UnresolvableHost", "pass to nowhere.example\n", "stdin:1: no IP address found for nowhere.example\n"},
        ErrorCase{"ContinuedLineCountsTwice", "pass \\\n all\nfoo\n", "stdin:3: syntax error\n"},
        ErrorCase{"FamilyMismatchExpandsToNothing", "pass inet from 2001:db8::1 to any\n",
                  "stdin:1: rule expands to no valid combination\n"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Errors, UnmodelledFeaturesSaySo) {
    const std::vector<std::pair<const char*, const char*>> cases{
        {"table <bad> { 10.0.0.1 }\n", "stdin:1: syntax error\n"},
        {"block from <bad> to any\n", "stdin:1: tables are not supported by this simulation\n"},
        {"pass out route-to (en0 192.168.1.1) all\n", "stdin:1: route options are not supported by this simulation\n"},
        {"pass out proto tcp all user 501\n", "stdin:1: 'user' is not supported by this simulation\n"},
        {"anchor \"x\" {\n pass all\n}\n", "stdin:1: inline anchors are not supported by this simulation\n"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(errors(parseRuleset(text, context())), expected) << text;
}

TEST(Errors, FileNameLeadsTheLine) {
    ParseContext ctx = context();
    ctx.fileName = "/etc/pf.conf";
    EXPECT_EQ(errors(parseRuleset("\n\nbogus\n", ctx)), "/etc/pf.conf:3: syntax error\n");
}

// `set skip` takes effect while parsing, so a file that fails later has
// still set it, as on the Mac.
TEST(Errors, SkipSetBeforeAFailureStaysSet) {
    const ParsedRuleset parsed = parseRuleset("set skip on { lo0 en0 }\nbogus\n", context());
    EXPECT_FALSE(parsed.ok());
    EXPECT_TRUE(parsed.skipSet);
    EXPECT_EQ(parsed.skip, (std::vector<std::string>{"lo0", "en0"}));
}

struct AnchorPathCase {
    const char* base;
    const char* call;
    const char* path;
    bool wildcard;
};

class AnchorPaths : public ::testing::TestWithParam<AnchorPathCase> {};

TEST_P(AnchorPaths, ResolveAsTheKernelDoes) {
    std::string path;
    bool wildcard = false;
    ASSERT_TRUE(resolveAnchorCall(GetParam().base, GetParam().call, path, wildcard));
    EXPECT_EQ(path, GetParam().path);
    EXPECT_EQ(wildcard, GetParam().wildcard);
}

INSTANTIATE_TEST_SUITE_P(Calls, AnchorPaths,
                         ::testing::Values(AnchorPathCase{"", "com.apple/*", "com.apple", true},
                                           AnchorPathCase{"com.apple", "200.AirDrop/*", "com.apple/200.AirDrop", true},
                                           AnchorPathCase{"a/b", "c", "a/b/c", false},
                                           AnchorPathCase{"a/b", "../c", "a/c", false},
                                           AnchorPathCase{"a/b", "/x/y/*", "x/y", true},
                                           AnchorPathCase{"", "*", "*", false}));

TEST(AnchorPaths, ClimbingAboveTheMainRulesetFails) {
    std::string path;
    bool wildcard = false;
    EXPECT_FALSE(resolveAnchorCall("", "../x", path, wildcard));
}

} // namespace
