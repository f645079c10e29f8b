// networksetup, ifconfig, ipconfig and the preferences over the one network
// model: a change made through one view is what the others show.

#include <nlohmann/json.hpp>

#include "BinaryPlist.h"
#include "Support.h"

namespace {

using namespace macsim_test;
using nlohmann::json;

struct ToolCase {
    const char* name;
    std::string tool;
    std::vector<std::string> args;
    int status;
    std::string out, err;
};

class NetworkTools : public ::testing::TestWithParam<ToolCase> {};

TEST_P(NetworkTools, AnswerAsTheRealTools) {
    const Mac mac;
    const Result r = mac.tool(GetParam().tool, GetParam().args);
    EXPECT_EQ(r.status, GetParam().status);
    EXPECT_EQ(r.out, GetParam().out);
    EXPECT_EQ(r.err, GetParam().err);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, NetworkTools,
    ::testing::Values(
        ToolCase{"UnknownServiceOnStdout", "/usr/sbin/networksetup", {"-setdhcp", "*Wi-Fi"}, 4,
                 "*Wi-Fi is not a recognized network service.\n** Error: The parameters were not valid.\n", ""},
        ToolCase{"OptionCaseIgnored", "/usr/sbin/networksetup", {"-GetAirportPower", "en0"}, 0,
                 "Wi-Fi Power (en0): On\n", ""},
        ToolCase{"NotWiFi", "/usr/sbin/networksetup", {"-setairportpower", "bridge0", "off"}, 4,
                 "bridge0 is not a Wi-Fi interface.\n** Error: Error obtaining wireless information.\n", ""},
        ToolCase{"BadAddress", "/usr/sbin/networksetup", {"-setmanual", "Wi-Fi", "10.0.0.300", "255.0.0.0", "10.0.0.1"},
                 4, "** Error: The parameters were not valid.\n", ""},
        ToolCase{"MTURefusedExitsZero", "/sbin/ifconfig", {"en0", "mtu", "9000"}, 0, "",
                 "ifconfig: ioctl (set mtu): Invalid argument\n"},
        ToolCase{"MTUGarbageIsZero", "/sbin/ifconfig", {"utun0", "mtu", "lots"}, 0, "",
                 "ifconfig: ioctl (set mtu): Invalid argument\n"},
        ToolCase{"MTUWithoutValue", "/sbin/ifconfig", {"utun0", "mtu"}, 1, "", "ifconfig: 'mtu' requires argument\n"},
        ToolCase{"NoSuchInterface", "/sbin/ifconfig", {"utun7", "up"}, 1, "", "ifconfig: interface utun7 does not exist\n"},
        ToolCase{"TunnelListing", "/sbin/ifconfig", {"utun0"}, 0,
                 "utun0: flags=8051<UP,POINTOPOINT,RUNNING,MULTICAST> mtu 1380\n\tinet6 fe80::9a1c:4f2e:7d3b:1a05 "
                 "prefixlen 64\n",
                 ""},
        ToolCase{"DHCPOnAMissingInterface", "/usr/sbin/ipconfig", {"set", "en9", "DHCP"}, 1, "",
                 "ipconfig_set en9 DHCP failed: interface doesn't exist\n"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(NetworkModel, OneChangeIsSeenByEveryView) {
    const Mac mac;
    ASSERT_EQ(mac.macsim({"service", mac.root(), "add", "Corporate VPN", "--no-device"}).status, 0);
    ASSERT_EQ(mac.tool("/usr/sbin/networksetup", {"-setnetworkserviceenabled", "Thunderbolt Bridge", "off"}).status, 0);
    ASSERT_EQ(mac.tool("/usr/sbin/networksetup", {"-ordernetworkservices", "Corporate VPN"}).status, 0);
    EXPECT_EQ(mac.tool("/usr/sbin/networksetup", {"-listnetworkserviceorder"}).out,
              "An asterisk (*) denotes that a network service is disabled.\n"
              "(1) Corporate VPN\n(Hardware Port: com.example.vpn, Device: )\n\n"
              "(2) Wi-Fi\n(Hardware Port: Wi-Fi, Device: en0)\n\n"
              "(*) Thunderbolt Bridge\n(Hardware Port: Thunderbolt Bridge, Device: bridge0)\n\n");
    // The dynamic store publishes enabled services only; the preferences keep all.
    const json store =
        json::parse(mac.macsim({"sc", mac.root(), "copy-store", "Setup:/Network/Service/[^/]+/Interface"}).out);
    EXPECT_EQ(store.size(), 2u);
    const json prefs = json::parse(mac.macsim({"sc", mac.root(), "preferences"}).out);
    const json order = prefs["preferences"]["Sets"].begin().value()["Network"]["Global"]["IPv4"]["ServiceOrder"];
    EXPECT_EQ(order.size(), 3u);
}

TEST(NetworkModel, CommitsAreStaleAfterAChangeAndFaultsChooseTheSCError) {
    const Mac mac;
    const json before = json::parse(mac.macsim({"sc", mac.root(), "preferences"}).out);
    const std::string generation = std::to_string(before["generation"].get<long>());
    const std::string writes = R"([["/Sets/X/Network/Interface/en0", {"DisableUntilNeeded": 1}]])";
    ASSERT_EQ(mac.macsim({"fault", mac.root(), "add", "--tool", "configd", "--args", "commit", "--exit", "1",
                          "--stdout", "1003\n"})
                  .status,
              0);
    Result r = mac.macsim({"sc", mac.root(), "commit", generation, writes});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "1003\n");
    ASSERT_EQ(mac.tool("/usr/sbin/networksetup", {"-setv6off", "Wi-Fi"}).status, 0);
    r = mac.macsim({"sc", mac.root(), "commit", generation, writes});
    EXPECT_EQ(r.out, "3005\n") << "stale";
    const json now = json::parse(mac.macsim({"sc", mac.root(), "preferences"}).out);
    r = mac.macsim({"sc", mac.root(), "commit", std::to_string(now["generation"].get<long>()), writes});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(NetworkModel, InterfaceSettingsOfTheCurrentSetArePublishedInTheStore) {
    const Mac mac;
    const json prefs = json::parse(mac.macsim({"sc", mac.root(), "preferences"}).out);
    const std::string set = prefs["preferences"]["CurrentSet"].get<std::string>();
    const std::string writes = "[[\"" + set + "/Network/Interface/en0\", {\"DisableUntilNeeded\": 1, "
                               "\"AirPort\": {\"MTU\": 1400}, \"Ethernet\": {}}]]";
    const Result r =
        mac.macsim({"sc", mac.root(), "commit", std::to_string(prefs["generation"].get<long>()), writes});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const json store = json::parse(mac.macsim({"sc", mac.root(), "copy-store", "Setup:/Network/Interface/.*"}).out);
    EXPECT_EQ(store, json({{"Setup:/Network/Interface/en0", {{"DisableUntilNeeded", nullptr}}},
                           {"Setup:/Network/Interface/en0/AirPort", {{"MTU", nullptr}}}}));
}

TEST(NetworkModel, TheWiFiPasswordIsNeverRecorded) {
    const Mac mac;
    const Result r = mac.tool("/usr/sbin/networksetup",
                              {"-addpreferredwirelessnetworkatindex", "en0", "Cafe", "0", "WPA2", "hunter22"});
    ASSERT_EQ(r.status, 0) << r.out;
    const std::string calls = mac.macsim({"calls", mac.root(), "--json"}).out;
    EXPECT_EQ(calls.find("hunter22"), std::string::npos) << calls;
    EXPECT_NE(calls.find("<password>"), std::string::npos);
    EXPECT_EQ(mac.show("network").out.find("hunter22"), std::string::npos);
}

TEST(BinaryPlist, WritesTheFormatsLayout) {
    using orven::macsim::PlistValue;
    const std::string bytes = orven::macsim::encodeBinaryPlist(
        PlistValue::dictionary({{"a", PlistValue::number(1)}, {"é", PlistValue::data("xy")}}));
    // Header, dictionary of two, keys then values, 16-bit UTF-16 for é,
    // offset table and the 32-byte trailer.
    const std::string expected = std::string("bplist00\xD2\x01\x02\x03\x04\x51" "a\x61\x00\xE9\x10\x01\x42xy", 23) +
                                 std::string("\x08\x0D\x0F\x12\x14", 5) + std::string(6, '\0') + "\x01\x01" +
                                 std::string(7, '\0') + "\x05" + std::string(8, '\0') + std::string(7, '\0') + "\x17";
    EXPECT_EQ(bytes, expected);
}

} // namespace
