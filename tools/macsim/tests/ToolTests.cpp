// The probes, faults and call record, and the system tools around pf,
// driven through their links.

#include <csignal>
#include <regex>

#include <nlohmann/json.hpp>

#include "Stock.h"
#include "Support.h"

namespace {

using namespace macsim_test;

void blackout(const Mac& mac) {
    ASSERT_EQ(mac.pfctl({"-a", kBlackoutAnchor, "-f", "-"}, kBlackout).status, 0);
    ASSERT_EQ(mac.pfctl({"-E"}).status, 0);
}

struct ProbeCase {
    const char* name;
    void (*setup)(const Mac&);
    std::string tool;
    std::vector<std::string> args;
    int status;
    std::string out; // regular expressions for the whole streams
    std::string err;
};

class Probes : public ::testing::TestWithParam<ProbeCase> {};

TEST_P(Probes, AnswerAsTheRealTools) {
    const Mac mac;
    if (GetParam().setup)
        GetParam().setup(mac);
    const Result r = mac.tool(GetParam().tool, GetParam().args);
    EXPECT_EQ(r.status, GetParam().status) << r.out << r.err;
    EXPECT_TRUE(std::regex_match(r.out, std::regex(GetParam().out))) << r.out;
    EXPECT_TRUE(std::regex_match(r.err, std::regex(GetParam().err))) << r.err;
}

const std::string kPingHead = R"(PING 1\.1\.1\.1 \(1\.1\.1\.1\): 56 data bytes\n)";
const std::string kPingLost = R"(\n--- 1\.1\.1\.1 ping statistics ---\n)"
                              R"(1 packets transmitted, 0 packets received, 100\.0% packet loss\n)";
const std::string kPing6Head = R"(PING6\(56=40\+8\+8 bytes\) 2001:db8:1::23 --> 2606:4700:4700::1111\n)";

void targetDown(const Mac& mac) { mac.macsim({"set", mac.root(), "target", "1.1.1.1", "down"}); }
void pathMtu1400(const Mac& mac) { mac.macsim({"set", mac.root(), "target", "1.1.1.1", "mtu", "1400"}); }

INSTANTIATE_TEST_SUITE_P(
    Tools, Probes,
    ::testing::Values(
        ProbeCase{"PingAnswers", nullptr, "/sbin/ping", {"-c", "1", "-t", "1", "1.1.1.1"}, 0,
                  kPingHead + R"(64 bytes from 1\.1\.1\.1: icmp_seq=0 ttl=57 time=1[0-9]\.[0-9]{3} ms\n)"
                              R"(\n--- 1\.1\.1\.1 ping statistics ---\n)"
                              R"(1 packets transmitted, 1 packets received, 0\.0% packet loss\n)"
                              R"(round-trip min/avg/max/stddev = ([0-9]+\.[0-9]{3}/){3}0\.000 ms\n)",
                  ""},
        ProbeCase{"PingBlockedByTheBlackout", blackout, "/sbin/ping", {"-c", "1", "-t", "1", "1.1.1.1"}, 2,
                  kPingHead + kPingLost, ""},
        ProbeCase{"PingTargetDown", targetDown, "/sbin/ping", {"-c", "1", "-t", "1", "1.1.1.1"}, 2,
                  kPingHead + kPingLost, ""},
        ProbeCase{"PingTrainReportsEarlierLosses", targetDown, "/sbin/ping", {"-c", "3", "-i", "0.2", "1.1.1.1"}, 2,
                  kPingHead + "Request timeout for icmp_seq 0\nRequest timeout for icmp_seq 1\n" +
                      R"(\n--- 1\.1\.1\.1 ping statistics ---\n)"
                      R"(3 packets transmitted, 0 packets received, 100\.0% packet loss\n)",
                  ""},
        ProbeCase{"PingDontFragmentTooBigForTheLink", nullptr, "/sbin/ping", {"-c", "1", "-D", "-s", "1500", "1.1.1.1"},
                  2, R"(PING 1\.1\.1\.1 \(1\.1\.1\.1\): 1500 data bytes\n[^]*100\.0% packet loss\n)",
                  "ping: sendto: Message too long\n"},
        ProbeCase{"PingDontFragmentTooBigForThePath", pathMtu1400, "/sbin/ping",
                  {"-c", "1", "-D", "-s", "1400", "1.1.1.1"}, 2,
                  R"(PING [^\n]*\n36 bytes from 192\.168\.1\.1: frag needed and DF set \(MTU 1400\)\n)"
                  R"(Vr HL TOS  Len   ID Flg  off TTL Pro  cks      Src      Dst\n[^]*100\.0% packet loss\n)",
                  ""},
        ProbeCase{"PingFitsThePath", pathMtu1400, "/sbin/ping", {"-c", "1", "-D", "-s", "1372", "1.1.1.1"}, 0,
                  R"([^]*1380 bytes from 1\.1\.1\.1[^]*)", ""},
        ProbeCase{"PingBadCount", nullptr, "/sbin/ping", {"-c", "0", "1.1.1.1"}, 64, "",
                  "ping: invalid count of packets to transmit: `0'\n"},
        ProbeCase{"PingUnknownHost", nullptr, "/sbin/ping", {"-c", "1", "nowhere"}, 68, "",
                  "ping: cannot resolve nowhere: Unknown host\n"},
        ProbeCase{"PingBadInterface", nullptr, "/sbin/ping", {"-c", "1", "-b", "en9", "1.1.1.1"}, 1, "",
                  "ping: bad interface name\n"},
        ProbeCase{"PingLoopbackUnderBlackout", blackout, "/sbin/ping", {"-c", "1", "127.0.0.1"}, 0,
                  R"([^]*64 bytes from 127\.0\.0\.1: icmp_seq=0 ttl=64[^]*)", ""},
        ProbeCase{"Ping6Answers", nullptr, "/sbin/ping6", {"-c", "1", "-i", "1", "2606:4700:4700::1111"}, 0,
                  kPing6Head +
                      R"(16 bytes from 2606:4700:4700::1111, icmp_seq=0 hlim=57 time=1[0-9]\.[0-9]{3} ms\n)"
                      R"(\n--- 2606:4700:4700::1111 ping6 statistics ---\n)"
                      R"(1 packets transmitted, 1 packets received, 0\.0% packet loss\n)"
                      R"(round-trip min/avg/max/std-dev = ([0-9]+\.[0-9]{3}/){3}0\.000 ms\n)",
                  ""},
        ProbeCase{"Ping6BlockedPrintsNoLoss", blackout, "/sbin/ping6", {"-c", "1", "-i", "1", "2606:4700:4700::1111"},
                  2,
                  kPing6Head + R"(\n--- 2606:4700:4700::1111 ping6 statistics ---\n)"
                               R"(1 packets transmitted, 0 packets received, 100\.0% packet loss\n)",
                  ""},
        ProbeCase{"Ping6RefusesZeroSize", nullptr, "/sbin/ping6", {"-c", "1", "-s", "0", "2606:4700:4700::1111"}, 1,
                  "", "ping6: illegal datalen value -- 0\n"},
        ProbeCase{"Ping6HasNoWaitTime", nullptr, "/sbin/ping6",
                  {"-c", "1", "-W", "2000", "-s", "8", "-D", "-I", "en0", "2606:4700:4700::1111"}, 1, "",
                  "ping6: nodename nor servname provided, or not known\n"},
        ProbeCase{"Ping6LinkLocalShowsScope", nullptr, "/sbin/ping6", {"-c", "1", "-I", "en0", "fe80::1"}, 0,
                  R"(PING6\(56=40\+8\+8 bytes\) fe80::1c2a:3bff:fe4c:5d6e%en0 --> fe80::1%en0\n)"
                  R"(16 bytes from fe80::1%en0, icmp_seq=0 hlim=64 time=[^]*)",
                  ""},
        ProbeCase{"NcConnects", nullptr, "/usr/bin/nc", {"-z", "-G", "2", "-w", "2", "1.1.1.1", "443"}, 0, "",
                  R"(Connection to 1\.1\.1\.1 port 443 \[tcp/https\] succeeded!\n)"},
        ProbeCase{"NcBlockedIsSilent", blackout, "/usr/bin/nc", {"-z", "-G", "2", "-w", "2", "1.1.1.1", "443"}, 1, "",
                  ""},
        ProbeCase{"NcTimeoutSaysWhyWhenVerbose", blackout, "/usr/bin/nc", {"-v", "-z", "1.1.1.1", "443"}, 1, "",
                  R"(nc: connectx to 1\.1\.1\.1 port 443 \(tcp\) failed: Operation timed out\n)"},
        ProbeCase{"NcRefused", nullptr, "/usr/bin/nc", {"-v", "-z", "1.1.1.1", "22"}, 1, "",
                  R"(nc: connectx to 1\.1\.1\.1 port 22 \(tcp\) failed: Connection refused\n)"},
        ProbeCase{"NcNamesTheService", nullptr, "/usr/bin/nc", {"-z", "2606:4700:4700::1111", "53"}, 0, "",
                  R"(Connection to 2606:4700:4700::1111 port 53 \[tcp/domain\] succeeded!\n)"},
        ProbeCase{"NcUnresolvable", nullptr, "/usr/bin/nc", {"-z", "nowhere", "443"}, 1, "",
                  "nc: getaddrinfo: nodename nor servname provided, or not known\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// A probe that gets through leaves the state a real flow would.
TEST(Probes, PassingProbesKeepState) {
    const Mac mac;
    mac.pfctl({"-f", "-"}, "pass out all\n");
    mac.pfctl({"-e"});
    ASSERT_EQ(mac.tool("/usr/bin/nc", {"-z", "1.1.1.1", "443"}).status, 0);
    ASSERT_EQ(mac.tool("/sbin/ping", {"-c", "1", "1.1.1.1"}).status, 0);
    const std::string states = mac.pfctl({"-s", "state"}).out;
    EXPECT_TRUE(std::regex_search(states, std::regex(R"(ALL tcp 192\.168\.1\.23:[0-9]+ -> 1\.1\.1\.1:443 {7})")))
        << states;
    EXPECT_TRUE(std::regex_search(states, std::regex(R"(ALL icmp 192\.168\.1\.23:[0-9]+ -> 1\.1\.1\.1:[0-9]+ {7}0:0)")));
    EXPECT_EQ(mac.pfctl({"-F", "states"}).err, "2 states cleared\n");
}

// ------------------------------------------------------------------ faults --

nlohmann::json calls(const Mac& mac) { return nlohmann::json::parse(mac.macsim({"calls", mac.root(), "--json"}).out); }

TEST(Faults, ExitReplacesTheToolsEffect) {
    const Mac mac;
    ASSERT_EQ(mac.macsim({"fault", mac.root(), "add", "--tool", "pfctl", "--args", "-E", "--exit", "1", "--stderr",
                          "pfctl: DIOCSTARTREF: Cannot allocate memory\n"})
                  .status,
              0);
    const Result r = mac.pfctl({"-E"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "pfctl: DIOCSTARTREF: Cannot allocate memory\n");
    EXPECT_EQ(mac.show("enabled").out, "disabled\n");
    const auto record = calls(mac);
    ASSERT_EQ(record.size(), 1u);
    EXPECT_EQ(record[0]["tool"], "pfctl");
    EXPECT_EQ(record[0]["args"], nlohmann::json::array({"-E"}));
    EXPECT_TRUE(record[0]["fault"]);
    EXPECT_TRUE(record[0]["mutating"]);
    // Once by default: the next call is the real one.
    EXPECT_EQ(mac.pfctl({"-E"}).status, 0);
    EXPECT_EQ(mac.show("enabled").out, "enabled\n");
}

struct TimesCase {
    const char* name;
    std::vector<std::string> extra;
    std::vector<int> statuses; // of four `pfctl -s info` calls
};

class FaultTimes : public ::testing::TestWithParam<TimesCase> {};

TEST_P(FaultTimes, AnswerTheirNumberOfCalls) {
    const Mac mac;
    std::vector<std::string> add{"fault", mac.root(), "add", "--tool", "pfctl", "--exit", "7"};
    add.insert(add.end(), GetParam().extra.begin(), GetParam().extra.end());
    ASSERT_EQ(mac.macsim(add).status, 0);
    std::vector<int> statuses;
    for (int i = 0; i < 4; ++i)
        statuses.push_back(mac.pfctl({"-s", "info"}).status);
    EXPECT_EQ(statuses, GetParam().statuses);
}

INSTANTIATE_TEST_SUITE_P(Rules, FaultTimes,
                         ::testing::Values(TimesCase{"OnceByDefault", {}, {7, 0, 0, 0}},
                                           TimesCase{"Twice", {"--times", "2"}, {7, 7, 0, 0}},
                                           TimesCase{"Always", {"--times", "0"}, {7, 7, 7, 7}},
                                           TimesCase{"ArgumentsMatchWhole", {"--args", "-s", "--times", "0"},
                                                     {0, 0, 0, 0}},
                                           TimesCase{"ArgumentsJoinedBySpaces", {"--args", "-s info"}, {7, 0, 0, 0}},
                                           TimesCase{"OtherToolsUntouched", {"--args", "-E"}, {0, 0, 0, 0}}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Faults, OutputWithoutExitKeepsTheEffect) {
    const Mac mac;
    mac.macsim({"fault", mac.root(), "add", "--tool", "pfctl", "--args", "-E", "--stderr", "garbage\n", "--delay",
                "0.01"});
    const Result r = mac.pfctl({"-E"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "garbage\n");
    EXPECT_EQ(mac.show("enabled").out, "enabled\n");
}

TEST(Faults, HangBlocksUntilKilled) {
    const Mac mac;
    mac.macsim({"fault", mac.root(), "add", "--tool", "ping", "--hang"});
    const pid_t pid = ::fork();
    if (pid == 0) {
        const std::string ping = mac.path("/sbin/ping");
        ::execl(ping.c_str(), ping.c_str(), "-c", "1", "1.1.1.1", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // Once the call is on record the fault has answered it.
    while (calls(mac).empty())
        ::usleep(10000);
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, WNOHANG), 0);
    ::kill(pid, SIGKILL);
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(calls(mac)[0]["fault"]);
}

TEST(Faults, ClearRestoresTheTools) {
    const Mac mac;
    mac.macsim({"fault", mac.root(), "add", "--tool", "nc", "--exit", "1", "--times", "0"});
    EXPECT_EQ(mac.tool("/usr/bin/nc", {"-z", "1.1.1.1", "443"}).status, 1);
    mac.macsim({"fault", mac.root(), "clear"});
    EXPECT_EQ(mac.tool("/usr/bin/nc", {"-z", "1.1.1.1", "443"}).status, 0);
}

TEST(Faults, BadPatternIsRefused) {
    const Mac mac;
    EXPECT_EQ(mac.macsim({"fault", mac.root(), "add", "--tool", "pfctl", "--args", "(("}).status, 64);
}

TEST(Calls, RecordMarksPfChangesAndClears) {
    const Mac mac;
    mac.pfctl({"-sr"});
    mac.pfctl({"-a", kBlackoutAnchor, "-f", "-"}, kBlackout);
    mac.tool("/sbin/ping", {"-c", "1", "1.1.1.1"});
    mac.pfctl({"-q", "-F", "states"});
    EXPECT_EQ(mac.macsim({"calls", mac.root()}).out,
              "pfctl -sr\npfctl -a com.apple/999.test.orven.app -f -  [mutating]\nping -c 1 1.1.1.1\n"
              "pfctl -q -F states  [mutating]\n");
    EXPECT_EQ(mac.macsim({"calls", mac.root(), "--mutating"}).out,
              "pfctl -a com.apple/999.test.orven.app -f -  [mutating]\npfctl -q -F states  [mutating]\n");
    mac.macsim({"calls", mac.root(), "--clear"});
    EXPECT_EQ(mac.macsim({"calls", mac.root()}).out, "");
}

// ---------------------------------------------------------- system tools --

TEST(Pkgutil, ForgetsTheReceiptOnce) {
    const Mac mac;
    Result r = mac.tool("/usr/sbin/pkgutil", {"--forget", "test.orven.app.helper"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Forgot package 'test.orven.app.helper' on '/'.\n");
    r = mac.tool("/usr/sbin/pkgutil", {"--forget", "test.orven.app.helper"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "No receipt for 'test.orven.app.helper' found at '/'.\n");
}

TEST(Launchctl, BootoutTerminatesTheRegisteredDaemon) {
    const Mac mac;
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    const std::string pidFile = mac.path("/.macsim/launchd/test.orven.app.helper.pid");
    ASSERT_TRUE(writeText(pidFile, std::to_string(child) + "\n"));
    Result r = mac.tool("/bin/launchctl", {"bootout", "system/test.orven.app.helper"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out + r.err, "");
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    r = mac.tool("/bin/launchctl", {"bootout", "system/test.orven.app.helper"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "Boot-out failed: 3: No such process\n");
}

TEST(Ipconfig, ListsManagedInterfacesOnOneLine) {
    const Mac mac;
    EXPECT_EQ(mac.tool("/usr/sbin/ipconfig", {"getiflist"}).out, "en0 bridge0\n");
    const Result r = mac.tool("/usr/sbin/ipconfig", {"set", "en5", "DHCP"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "ipconfig_set en5 DHCP failed: interface doesn't exist\n");
    EXPECT_EQ(mac.tool("/usr/sbin/ipconfig", {"set", "utun0", "dhcp"}).status, 0);
    EXPECT_EQ(mac.tool("/usr/sbin/ipconfig", {"getiflist"}).out, "en0 bridge0 utun0\n");
}

TEST(SystemConfiguration, StoreShowsServicesAndAVpnWithoutDevice) {
    const Mac mac;
    const std::string vpn = mac.macsim({"service", mac.root(), "add", "Corp VPN", "--no-device"}).out;
    ASSERT_FALSE(vpn.empty());
    mac.macsim({"service", mac.root(), "add", "Old Ethernet", "--device", "en7", "--disabled"});
    const auto store =
        nlohmann::json::parse(mac.macsim({"sc", mac.root(), "copy-store", "Setup:/Network/Service/[^/]+/Interface"}).out);
    ASSERT_EQ(store.size(), 3u);
    int withoutDevice = 0;
    for (const auto& [key, value] : store.items()) {
        EXPECT_TRUE(value.is_object());
        if (!value.contains("DeviceName")) {
            ++withoutDevice;
            EXPECT_EQ(key, "Setup:/Network/Service/" + vpn.substr(0, vpn.size() - 1) + "/Interface");
        }
    }
    EXPECT_EQ(withoutDevice, 1);
    const auto setup = nlohmann::json::parse(mac.macsim({"sc", mac.root(), "copy-store", "Setup:"}).out);
    EXPECT_TRUE(setup["Setup:"]["CurrentSet"].get<std::string>().starts_with("/Sets/"));
    EXPECT_TRUE(setup["Setup:"]["LastUpdated"].is_null());
}

TEST(SystemConfiguration, InterfacesLeaveOutTunnelsAndLoopback) {
    const Mac mac;
    EXPECT_EQ(mac.macsim({"sc", mac.root(), "interfaces"}).out, "[\"en0\",\"bridge0\"]\n");
    EXPECT_EQ(mac.macsim({"sc", mac.root(), "refresh", "en0"}).status, 0);
    EXPECT_EQ(mac.macsim({"sc", mac.root(), "refresh", "utun0"}).status, 1);
    const auto record = calls(mac);
    ASSERT_EQ(record.size(), 2u);
    EXPECT_EQ(record[0]["tool"], "configd");
    EXPECT_EQ(record[0]["args"], nlohmann::json::array({"refresh", "en0"}));
    mac.macsim({"fault", mac.root(), "add", "--tool", "configd", "--exit", "1"});
    EXPECT_EQ(mac.macsim({"sc", mac.root(), "refresh", "en0"}).status, 1);
}

// ---------------------------------------------------------- reading state --

TEST(Show, MainHoldsTheLoadedTextAndItsListing) {
    const Mac mac;
    EXPECT_EQ(mac.show("main").out, "# loaded\n" + std::string(orven::macsim::kStockPfConf) +
                                        "# listed\nscrub-anchor \"com.apple/*\" all fragment reassemble\n"
                                        "nat-anchor \"com.apple/*\" all\nrdr-anchor \"com.apple/*\" all\n"
                                        "dummynet-anchor \"com.apple/*\" all\nanchor \"com.apple/*\" all\n");
    EXPECT_EQ(mac.macsim({"show", mac.root(), "anchor", "com.apple/999.test.orven.app"}).status, 1);
    EXPECT_EQ(mac.macsim({"set", mac.root(), "probe-delay", "soon"}).status, 64);
}

TEST(Flows, OpenOnlyWhenPfLetsThemThrough) {
    const Mac mac;
    blackout(mac);
    const Result r = mac.macsim({"flow", mac.root(), "open", "tcp", "1.1.1.1", "443"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("macsim: flow blocked: out en0 inet tcp 192.168.1.23:"), std::string::npos) << r.err;
    EXPECT_EQ(mac.macsim({"flow", mac.root(), "list"}).out, "1 tcp 192.168.1.23 52001 -> 1.1.1.1 443 on en0\n");
    mac.macsim({"flow", mac.root(), "close", "all"});
    EXPECT_EQ(mac.macsim({"flow", mac.root(), "list"}).out, "");
}

// ------------------------------------------------------------ edge cases --

struct ErrorCase {
    const char* name;
    std::string tool;
    std::vector<std::string> args;
    int status;
    std::string err;
};

class ToolErrors : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(ToolErrors, UseTheRealWordsAndStatuses) {
    const Mac mac;
    const Result r = mac.tool(GetParam().tool, GetParam().args);
    EXPECT_EQ(r.status, GetParam().status);
    EXPECT_EQ(r.err, GetParam().err);
    EXPECT_EQ(r.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Tools, ToolErrors,
    ::testing::Values(
        ErrorCase{"Ping6BadBoundInterface", "/sbin/ping6", {"-c", "1", "-B", "en9", "::1"}, 1,
                  "ping6: bad interface name\n"},
        ErrorCase{"Ping6BadScope", "/sbin/ping6", {"-c", "1", "-I", "en9", "::1"}, 1,
                  "ping6: en9: invalid interface name\n"},
        ErrorCase{"Ping6BadCount", "/sbin/ping6", {"-c", "x", "::1"}, 1, "ping6: illegal number of packets -- x\n"},
        ErrorCase{"Ping6UnknownHost", "/sbin/ping6", {"-c", "1", "nowhere"}, 1,
                  "ping6: getaddrinfo -- nodename nor servname provided, or not known\n"},
        ErrorCase{"NcBadInterface", "/usr/bin/nc", {"-z", "-b", "en9", "1.1.1.1", "443"}, 1, "nc: bad interface name\n"},
        ErrorCase{"NcBadConnectionTimeout", "/usr/bin/nc", {"-z", "-G", "soon", "1.1.1.1", "443"}, 1,
                  "nc: invalid tcp connection timeout\n"},
        ErrorCase{"LaunchctlMalformedTarget", "/bin/launchctl", {"bootout", "test.orven.app.helper"}, 64,
                  "Unrecognized target specifier.\nUsage: launchctl bootout <domain-target> [service-path1, "
                  "service-path2, ...] | <service-target>\n<service-target> takes a form of "
                  "<domain-target>/<service-id>.\n"},
        ErrorCase{"LaunchctlPrintUnknown", "/bin/launchctl", {"print", "system/test.orven.app.helper"}, 113,
                  "Could not find service \"test.orven.app.helper\" in domain for system\n"},
        ErrorCase{"IpconfigBadMethod", "/usr/sbin/ipconfig", {"set", "en0", "SLAAC"}, 1,
                  "ipconfig set: invalid method 'SLAAC'\n<method> is one of NONE, DHCP, BOOTP, MANUAL, INFORM, "
                  "NONE-V6, AUTOMATIC-V6, MANUAL-V6, 6TO4\n"},
        ErrorCase{"PkgutilUnknownPackage", "/usr/sbin/pkgutil", {"--pkg-info", "com.example.none"}, 1,
                  "No receipt for 'com.example.none' found at '/'.\n"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Probes, NoRouteWhenTheInterfaceIsDown) {
    const Mac mac;
    mac.macsim({"set", mac.root(), "interface", "en0", "down"});
    const Result r = mac.tool("/sbin/ping", {"-c", "1", "1.1.1.1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "ping: sendto: No route to host\n");
    EXPECT_EQ(mac.tool("/usr/bin/nc", {"-z", "1.1.1.1", "443"}).status, 1);
}

TEST(Probes, UdpConnectSucceedsWithoutTraffic) {
    const Mac mac;
    blackout(mac);
    const Result r = mac.tool("/usr/bin/nc", {"-u", "-z", "1.1.1.1", "53"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "Connection to 1.1.1.1 port 53 [udp/domain] succeeded!\n");
}

TEST(LeakBattery, CoversEveryInterfaceFamilyProtocolAndDirection) {
    const Mac mac;
    const std::string out = mac.macsim({"leak-test", mac.root()}).out;
    for (const char* needle :
         {"PASSED out en0 inet tcp ", "PASSED out en0 inet udp ", "PASSED out en0 inet icmp ",
          "PASSED in  en0 inet tcp ", "PASSED in  en0 inet udp ", "PASSED in  en0 inet icmp ",
          "PASSED out en0 inet6 tcp ", "PASSED out en0 inet6 udp ", "PASSED out en0 inet6 ipv6-icmp ",
          "PASSED in  en0 inet6 tcp ", "PASSED in  en0 inet6 udp ", "PASSED in  en0 inet6 ipv6-icmp ",
          "PASSED out utun0 inet6 tcp ", "PASSED out bridge0 inet udp 0.0.0.0:68 -> 255.255.255.255:67",
          "-> 192.168.1.1:53", "-> 2001:db8:1::77.22", "PASSED out en0 inet tcp 192.168.1.23:52001 -> 1.1.1.1:443 [PA]",
          "PASSED in  en0 inet tcp 1.1.1.1:443 -> 192.168.1.23:52001 [A]"})
        EXPECT_NE(out.find(needle), std::string::npos) << needle << "\n" << out;
    EXPECT_EQ(out.find(" lo0 "), std::string::npos);
}

TEST(Show, StatesAndCountersFollowTheTraffic) {
    const Mac mac;
    mac.pfctl({"-f", "-"}, "pass out proto tcp all\n");
    mac.pfctl({"-e"});
    ASSERT_EQ(mac.macsim({"flow", mac.root(), "open", "tcp", "1.1.1.1", "443"}).status, 0);
    EXPECT_TRUE(std::regex_match(
        mac.show("states").out,
        std::regex(R"(ALL tcp 192\.168\.1\.23:[0-9]+ -> 1\.1\.1\.1:443       ESTABLISHED:ESTABLISHED\n)")));
    EXPECT_TRUE(std::regex_search(mac.show("counters").out,
                                  std::regex(R"(\[main\]\npass out proto tcp all flags S/SA keep state\n)"
                                             R"(  \[ Evaluations: 1 +Packets: 3 +Bytes: [0-9]+ +States: 1 +\]\n)")))
        << mac.show("counters").out;
    EXPECT_EQ(mac.show("references").out, "enabled: yes\nreferences: 1\n");
}

TEST(Init, StartsOverEvenOnAnUsedMac) {
    const Mac mac;
    mac.pfctl({"-E"});
    mac.macsim({"fault", mac.root(), "add", "--tool", "pfctl", "--exit", "3", "--times", "0"});
    ASSERT_EQ(mac.macsim({"init", mac.root()}).status, 0);
    EXPECT_EQ(mac.pfctl({"-s", "References"}).out, "No pf starter references held\n");
    EXPECT_EQ(calls(mac).size(), 1u);
    EXPECT_EQ(mac.macsim({"fault", mac.root(), "list"}).out, "");
}

TEST(Init, RefusesToWorkWithoutAMac) {
    const Mac mac;
    const Result r = mac.macsim({"show", mac.root() + "/nothing", "enabled"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("no simulated Mac at"), std::string::npos);
}

} // namespace
