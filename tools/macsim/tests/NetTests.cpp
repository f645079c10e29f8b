// Addresses, routing and option parsing: the small pieces every probe and
// every tool call relies on.

#include <gtest/gtest.h>

#include "Getopt.h"
#include "Network.h"

namespace {

using namespace orven::macsim;

struct MaskCase {
    const char* addr;
    int prefix;
    const char* masked;
};

class Masking : public ::testing::TestWithParam<MaskCase> {};

TEST_P(Masking, ClearsHostBits) {
    EXPECT_EQ(masked(*IpAddr::parse(GetParam().addr), GetParam().prefix).str(), GetParam().masked);
}

INSTANTIATE_TEST_SUITE_P(Prefixes, Masking,
                         ::testing::Values(MaskCase{"192.168.1.77", 24, "192.168.1.0"},
                                           MaskCase{"192.168.1.77", 0, "0.0.0.0"},
                                           MaskCase{"192.168.1.77", 32, "192.168.1.77"},
                                           MaskCase{"10.255.255.255", 9, "10.128.0.0"},
                                           MaskCase{"2001:db8:1:2::5", 48, "2001:db8:1::"},
                                           MaskCase{"fe80::1c2a:3bff:fe4c:5d6e", 10, "fe80::"},
                                           MaskCase{"fd12:3456:789a:1::5", 60, "fd12:3456:789a::"}));

TEST(Addresses, ZonesAreDroppedAndFamiliesKeptApart) {
    EXPECT_EQ(IpAddr::parse("fe80::1%en0")->str(), "fe80::1");
    EXPECT_FALSE(IpAddr::parse("1.2.3", Family::Inet));
    EXPECT_FALSE(IpAddr::parse("::1", Family::Inet));
    EXPECT_FALSE(inPrefix(*IpAddr::parse("10.0.0.1"), *IpAddr::parse("::"), 0));
    EXPECT_TRUE(inPrefix(*IpAddr::parse("10.0.0.1"), *IpAddr::parse("0.0.0.0"), 0));
}

struct RouteCase {
    const char* name;
    const char* dst;
    const char* bound;
    const char* ifname; // "" when there is no route
    const char* src;
    bool local;
};

class Routing : public ::testing::TestWithParam<RouteCase> {};

TEST_P(Routing, ChoosesInterfaceAndSource) {
    const NetModel net = NetModel::stock();
    const auto route = net.route(*IpAddr::parse(GetParam().dst), GetParam().bound);
    if (!*GetParam().ifname) {
        EXPECT_FALSE(route);
        return;
    }
    ASSERT_TRUE(route);
    EXPECT_EQ(route->ifname, GetParam().ifname);
    EXPECT_EQ(route->src.str(), GetParam().src);
    EXPECT_EQ(route->local, GetParam().local);
}

INSTANTIATE_TEST_SUITE_P(
    Destinations, Routing,
    ::testing::Values(RouteCase{"Internet4", "1.1.1.1", "", "en0", "192.168.1.23", false},
                      RouteCase{"Internet6", "2606:4700:4700::1111", "", "en0", "2001:db8:1::23", false},
                      RouteCase{"OnLink", "192.168.1.77", "", "en0", "192.168.1.23", false},
                      RouteCase{"LinkLocalGateway", "fe80::1", "", "en0", "fe80::1c2a:3bff:fe4c:5d6e", false},
                      RouteCase{"Loopback4", "127.0.0.1", "", "lo0", "127.0.0.1", true},
                      RouteCase{"Loopback6", "::1", "", "lo0", "::1", true},
                      RouteCase{"OwnAddressGoesOverLoopback", "192.168.1.23", "", "lo0", "192.168.1.23", true},
                      RouteCase{"BoundToTheTunnel", "2606:4700:4700::1111", "utun0", "utun0",
                                "fe80::9a1c:4f2e:7d3b:1a05", false},
                      RouteCase{"BoundInterfaceWithoutTheFamily", "1.1.1.1", "utun0", "", "", false},
                      RouteCase{"BoundToNothing", "1.1.1.1", "en9", "", "", false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Routing, DownInterfaceLosesTheDefaultRoute) {
    NetModel net = NetModel::stock();
    net.findInterface("en0")->up = false;
    EXPECT_FALSE(net.route(*IpAddr::parse("1.1.1.1")));
}

TEST(Routing, EphemeralPortsWrapAroundTheRange) {
    NetModel net = NetModel::stock();
    net.nextPort = 65535;
    EXPECT_EQ(net.ephemeralPort(), 65535);
    EXPECT_EQ(net.ephemeralPort(), 49152);
}

struct GetoptCase {
    const char* name;
    std::vector<std::string> args;
    const char* optstring;
    bool permute;
    std::string options; // name=value pairs joined by spaces
    std::vector<std::string> operands;
    const char* error;
};

class Options : public ::testing::TestWithParam<GetoptCase> {};

TEST_P(Options, ParseAsBsdGetopt) {
    const GetoptResult r = getopt(GetParam().args, GetParam().optstring, GetParam().permute);
    std::string options;
    for (const auto& o : r.options)
        options += std::string(options.empty() ? "" : " ") + o.name + "=" + o.value;
    EXPECT_EQ(options, GetParam().options);
    EXPECT_EQ(r.operands, GetParam().operands);
    EXPECT_EQ(r.error.value_or(""), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Vectors, Options,
    ::testing::Values(
        GetoptCase{"Clustered", {"-vsr"}, "vs:", false, "v= s=r", {}, ""},
        GetoptCase{"SeparateValue", {"-a", "com.apple", "-sr"}, "a:s:", false, "a=com.apple s=r", {}, ""},
        GetoptCase{"StopsAtFirstOperand", {"-c", "1", "host", "-v"}, "c:v", false, "c=1", {"host", "-v"}, ""},
        GetoptCase{"PermutesLikeGetoptLong", {"-c", "1", "-W", "2000", "-D", "host"}, "c:WD", true, "c=1 W= D=",
                   {"2000", "host"}, ""},
        GetoptCase{"DoubleDashEnds", {"-q", "--", "-E"}, "qE", false, "q=", {"-E"}, ""},
        GetoptCase{"IllegalOption", {"-Q"}, "q", false, "", {}, "illegal option -- Q"},
        GetoptCase{"MissingValue", {"-a"}, "a:", false, "", {}, "option requires an argument -- a"},
        GetoptCase{"LoneDashIsAnOperand", {"-f", "-"}, "f:", false, "f=-", {}, ""}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
