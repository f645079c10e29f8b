// ping and ping6 as the link diagnostics run them (trains, don't-fragment
// probes bound to an interface), and log show over the simulated log.

#include <cstdlib>

#include "Support.h"

namespace {

using namespace macsim_test;

void set(const Mac& mac, std::vector<std::string> args) {
    args.insert(args.begin(), {"set", mac.root()});
    const Result r = mac.macsim(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

std::vector<std::string> linesWith(const std::string& text, const std::string& fragment) {
    std::vector<std::string> lines;
    std::size_t from = 0;
    while (from < text.size()) {
        const std::size_t end = text.find('\n', from);
        const std::string line = text.substr(from, end == std::string::npos ? std::string::npos : end - from);
        if (line.find(fragment) != std::string::npos)
            lines.push_back(line);
        if (end == std::string::npos)
            break;
        from = end + 1;
    }
    return lines;
}

TEST(Trains, RepliesFollowTheTargetsSeriesAndLosses) {
    const Mac mac;
    set(mac, {"target", "192.168.1.1", "rtt", "30.1,2.0,2.4"});
    set(mac, {"target", "192.168.1.1", "loss", "2"});
    const Result r = mac.tool("/sbin/ping", {"-c", "4", "-i", "0.05", "-W", "100", "-b", "en0", "192.168.1.1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(linesWith(r.out, "time="),
              (std::vector<std::string>{"64 bytes from 192.168.1.1: icmp_seq=0 ttl=64 time=30.100 ms",
                                        "64 bytes from 192.168.1.1: icmp_seq=1 ttl=64 time=2.000 ms",
                                        "64 bytes from 192.168.1.1: icmp_seq=3 ttl=64 time=2.400 ms"}));
    EXPECT_EQ(linesWith(r.out, "Request timeout"), (std::vector<std::string>{"Request timeout for icmp_seq 2"}));
    EXPECT_EQ(linesWith(r.out, "packet loss"),
              (std::vector<std::string>{"4 packets transmitted, 3 packets received, 25.0% packet loss"}));
}

TEST(Trains, TheGatewaysFirstReplyIsCold) {
    const Mac mac;
    const Result r = mac.tool("/sbin/ping", {"-c", "3", "-i", "0.05", "-b", "en0", "192.168.1.1"});
    const auto replies = linesWith(r.out, "time=");
    ASSERT_EQ(replies.size(), 3u) << r.out;
    const auto rtt = [](const std::string& line) { return std::stod(line.substr(line.find("time=") + 5)); };
    EXPECT_GT(rtt(replies[0]), rtt(replies[1]));
    EXPECT_GT(rtt(replies[0]), rtt(replies[2]));
}

TEST(DontFragment, ThePathMTUDependsOnTheInterfaceLeftBy) {
    const Mac mac;
    set(mac, {"target", "1.1.1.1", "mtu", "1400", "via", "en0"});
    const Result tooBig = mac.tool("/sbin/ping", {"-c", "1", "-W", "100", "-s", "1373", "-D", "-b", "en0", "1.1.1.1"});
    EXPECT_EQ(tooBig.status, 2);
    EXPECT_EQ(linesWith(tooBig.out, "frag needed"),
              (std::vector<std::string>{"36 bytes from 192.168.1.1: frag needed and DF set (MTU 1400)"}));
    EXPECT_EQ(mac.tool("/sbin/ping", {"-c", "1", "-W", "100", "-s", "1372", "-D", "-b", "en0", "1.1.1.1"}).status, 0);
    // Another interface's path MTU does not apply to en0.
    set(mac, {"target", "1.1.1.1", "mtu", "1500", "via", "en0"});
    set(mac, {"target", "1.1.1.1", "mtu", "1280", "via", "utun0"});
    EXPECT_EQ(mac.tool("/sbin/ping", {"-c", "1", "-W", "100", "-s", "1472", "-D", "-b", "en0", "1.1.1.1"}).status, 0);
}

TEST(DontFragment, Ping6ReportsAPacketTooBig) {
    const Mac mac;
    set(mac, {"target", "2606:4700:4700::1111", "mtu", "1280"});
    const Result r = mac.tool("/sbin/ping6", {"-c", "1", "-s", "1300", "-D", "-I", "en0", "2606:4700:4700::1111"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(linesWith(r.out, "Packet too big"),
              (std::vector<std::string>{"1348 bytes from fe80::1: Packet too big mtu = 1280"}));
}

TEST(Ping6, TakesAWaitTimeOnlyWhenAskedToAssumeOne) {
    const Mac mac;
    const std::vector<std::string> args{"-c", "2", "-i", "0.05", "-W", "500", "-I", "en0", "fe80::1"};
    const Result real = mac.tool("/sbin/ping6", args);
    EXPECT_EQ(real.status, 1);
    EXPECT_EQ(real.err, "ping6: nodename nor servname provided, or not known\n");
    EXPECT_EQ(real.out, "");
    set(mac, {"ping6", "assumed"});
    const Result assumed = mac.tool("/sbin/ping6", args);
    EXPECT_EQ(assumed.status, 0) << assumed.err;
    EXPECT_EQ(linesWith(assumed.out, "time=").size(), 2u);
    set(mac, {"ping6", "real"});
    EXPECT_EQ(mac.tool("/sbin/ping6", args).status, 1);
}

TEST(Ping, RefusesAMulticastSourceForAUnicastTarget) {
    const Mac mac;
    const Result r = mac.tool("/sbin/ping", {"-c", "1", "-I", "en0", "1.1.1.1"});
    EXPECT_EQ(r.status, 64);
    EXPECT_EQ(r.err, "ping: -I, -L, -T flags cannot be used with unicast destination\n");
}

// --- log show ----------------------------------------------------------------

void addEntry(const Mac& mac, std::vector<std::string> args) {
    args.insert(args.begin(), {"log", mac.root(), "add"});
    const Result r = mac.macsim(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

const std::string kPredicate = "process == \"NEIKEv2Provider\"";
const std::string kHeader = "Timestamp                       Thread     Type        Activity             PID    TTL  \n";
const std::string kRule = std::string(116, '-') + "\n";

TEST(LogShow, PrintsTheEntriesInTheLookBackInTheRealLayout) {
    // Timestamps are local time; the tools inherit the zone.
    ::setenv("TZ", "UTC", 1);
    const Mac mac;
    set(mac, {"clock", "1700000000"});
    addEntry(mac, {"--process", "NEIKEv2Provider", "--time", "now-400", "--message", "too old"});
    addEntry(mac, {"--process", "NEIKEv2Provider", "--time", "now-30.25", "--message", "Tunnel Status connecting",
                   "--subsystem", "com.apple.networkextension", "--category", "IKEv2", "--sender",
                   "NetworkExtension"});
    addEntry(mac, {"--process", "nesessionmanager", "--time", "now-20", "--message", "another process"});
    addEntry(mac, {"--process", "NEIKEv2Provider", "--time", "now-10", "--type", "Error", "--message",
                   "Error Domain=NEIKEv2ProtocolErrorDomain Code=7 \"failed\"\n\tsecond line"});
    addEntry(mac, {"--process", "NEIKEv2Provider", "--time", "now-5", "--type", "Debug", "--message", "debug"});
    addEntry(mac, {"--process", "NEIKEv2Provider", "--time", "now+5", "--message", "not yet"});
    const Result r = mac.tool("/usr/bin/log", {"show", "--last", "65s", "--info", "--debug", "--predicate", kPredicate},
                              {});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string expected =
        "Filtering the log data using \"process == \"NEIKEv2Provider\"\"\n" + kHeader +
        "2023-11-14 22:12:49.750000+0000 0x1a2b3c   Default     0x0                  412    0    NEIKEv2Provider: "
        "(NetworkExtension) [com.apple.networkextension:IKEv2] Tunnel Status connecting\n"
        "2023-11-14 22:13:10.000000+0000 0x1a2b3c   Error       0x0                  412    0    NEIKEv2Provider: "
        "Error Domain=NEIKEv2ProtocolErrorDomain Code=7 \"failed\"\n\tsecond line\n"
        "2023-11-14 22:13:15.000000+0000 0x1a2b3c   Debug       0x0                  412    0    NEIKEv2Provider: "
        "debug\n" +
        kRule +
        "Log      - Default:          1, Info:                0, Debug:             1, Error:          1, Fault:  "
        "        0\n"
        "Activity - Create:           0, Transition:          0, Actions:           0\n";
    EXPECT_EQ(r.out, expected);
    // Without --debug the debug entry goes, and the tool says so.
    const Result noDebug = mac.tool("/usr/bin/log", {"show", "--last", "1m", "--info", "--predicate", kPredicate});
    EXPECT_EQ(linesWith(noDebug.out, "Skipping").size(), 1u);
    EXPECT_TRUE(linesWith(noDebug.out, "NEIKEv2Provider: debug").empty());
    EXPECT_EQ(linesWith(noDebug.out, "Tunnel Status connecting").size(), 1u);
}

TEST(LogShow, NothingMatchingStillPrintsHeaderAndStatistics) {
    const Mac mac;
    const Result r = mac.tool("/usr/bin/log", {"show", "--last", "6s", "--info", "--debug", "--predicate", kPredicate});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.find("Filtering the log data using"), 0u);
    EXPECT_NE(r.out.find(kHeader + kRule), std::string::npos);
}

struct LogError {
    const char* name;
    std::vector<std::string> args;
    std::string err;
};

class LogErrors : public ::testing::TestWithParam<LogError> {};

TEST_P(LogErrors, AreRefusedWithStatus64) {
    const Mac mac;
    const Result r = mac.tool("/usr/bin/log", GetParam().args);
    EXPECT_EQ(r.status, 64);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.substr(0, GetParam().err.size()), GetParam().err);
}

INSTANTIATE_TEST_SUITE_P(
    Tool, LogErrors,
    ::testing::Values(LogError{"UnknownField", {"show", "--predicate", "substructure == \"x\""},
                               "log: invalid predicate:\nno such field: substructure\n"},
                      LogError{"Unparsable", {"show", "--predicate", "process =="}, "log: invalid predicate:\n"},
                      LogError{"UnquotedValue", {"show", "--predicate", "process == NEIKEv2Provider"},
                               "log: invalid predicate:\n"},
                      LogError{"BadLast", {"show", "--last", "soon"}, "log: Invalid value for --last: soon\n"},
                      LogError{"LastWithoutValue", {"show", "--last"}, "log: option '--last' requires an argument\n"},
                      LogError{"UnknownOption", {"show", "--colour"}, "log: Unknown option: --colour\n"},
                      LogError{"UnknownSubcommand", {"list"}, "log: Unknown subcommand 'list'\n"},
                      LogError{"NoSubcommand", {}, "usage:\n"}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
