// The simulated Mac driven as the daemon drives it: through the tools'
// links under a fresh root, checking pfctl's words and statuses, the leak
// test's verdict on a blackout, reboots, and concurrent callers.

#include <atomic>
#include <regex>
#include <sys/stat.h>
#include <thread>

#include "Stock.h"
#include "Store.h"
#include "Support.h"

namespace {

using namespace macsim_test;
using orven::macsim::joinArgs;

const std::string kUsageStart = "usage: pfctl [-AdeghmNnOqRrvz] [-a anchor] [-D macro=value] [-F modifier]\n";

struct PfctlCase {
    const char* name;
    std::vector<std::vector<std::string>> setup;
    std::vector<std::string> args;
    std::string input;
    std::string out;
    std::string err; // a regular expression for the whole of standard error
    int status;
};

class Pfctl : public ::testing::TestWithParam<PfctlCase> {};

TEST_P(Pfctl, AnswersAsOnTheMac) {
    const Mac mac;
    for (const auto& step : GetParam().setup)
        ASSERT_EQ(mac.pfctl(step).status, 0);
    const Result r = mac.pfctl(GetParam().args, GetParam().input);
    EXPECT_EQ(r.out, GetParam().out);
    EXPECT_TRUE(std::regex_match(r.err, std::regex(GetParam().err))) << r.err;
    EXPECT_EQ(r.status, GetParam().status);
}

std::string quoted(const std::string& text) { return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)"); }

INSTANTIATE_TEST_SUITE_P(
    QuickTable, Pfctl,
    ::testing::Values(
        PfctlCase{"EnableWithToken", {}, {"-E"}, "", "", "pf enabled\nToken : [1-9][0-9]{0,19}\n", 0},
        PfctlCase{"QuietEnableSaysNothing", {}, {"-q", "-E"}, "", "", "", 0},
        PfctlCase{"EnableTwiceWithTokens", {{"-E"}}, {"-E"}, "", "", "pf enabled\nToken : [0-9]+\n", 0},
        PfctlCase{"ReleaseWhileOff", {}, {"-X", "123"}, "", "", quoted("pfctl: pf not enabled\n"), 1},
        PfctlCase{"ReleaseUnknownWhileOn", {{"-e"}}, {"-X", "123"}, "", "", quoted("pfctl: pf: token invalid\n"), 1},
        PfctlCase{"ReleaseGarbage", {}, {"-X", "12x"}, "", "",
                  quoted("pfctl: Invalid token value '12x'\n" + kUsageStart) + "[^]*", 1},
        PfctlCase{"Enable", {}, {"-e"}, "", "", "pf enabled\n", 0},
        PfctlCase{"EnableWhenOn", {{"-e"}}, {"-e"}, "", "", quoted("pfctl: pf already enabled\n"), 1},
        PfctlCase{"Disable", {{"-e"}}, {"-d"}, "", "", "pf disabled\n", 0},
        PfctlCase{"DisableWhenOff", {}, {"-d"}, "", "", quoted("pfctl: pf not enabled\n"), 1},
        PfctlCase{"StockRules", {}, {"-sr"}, "",
                  "scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n", "", 0},
        PfctlCase{"StockTranslation", {}, {"-s", "nat"}, "",
                  "nat-anchor \"com.apple/*\" all\nrdr-anchor \"com.apple/*\" all\n", "", 0},
        PfctlCase{"StockAppleRules", {}, {"-a", "com.apple", "-sr"}, "",
                  "anchor \"200.AirDrop/*\" all\nanchor \"250.ApplicationFirewall/*\" all\n", "", 0},
        PfctlCase{"StockAppleChildren", {}, {"-a", "com.apple", "-s", "Anchors"}, "",
                  "  com.apple/200.AirDrop\n  com.apple/250.ApplicationFirewall\n", "", 0},
        PfctlCase{"StockTopAnchors", {}, {"-v", "-s", "Anchors"}, "",
                  "  com.apple\n  com.apple/200.AirDrop\n  com.apple/250.ApplicationFirewall\n", "", 0},
        PfctlCase{"MissingAnchorRulesStillExitZero", {}, {"-a", "nothere", "-sr"}, "", "",
                  quoted("pfctl: DIOCGETRULES: Invalid argument\n"), 0},
        PfctlCase{"EmptyAnchorListsNothing", {}, {"-a", "com.apple/200.AirDrop", "-sr"}, "", "", "", 0},
        PfctlCase{"MissingAnchorChildren", {}, {"-a", "nothere", "-s", "Anchors"}, "", "",
                  quoted("Anchor 'nothere' not found.\n"), 0},
        PfctlCase{"NoStatesNoOutput", {}, {"-s", "state"}, "", "", "", 0},
        PfctlCase{"FlushStates", {}, {"-F", "states"}, "", "", "0 states cleared\n", 0},
        PfctlCase{"FlushMissingAnchor", {}, {"-a", "x", "-F", "rules"}, "", "", "rules cleared\n", 0},
        PfctlCase{"AnchorLoadWarns", {}, {"-a", "x", "-f", "-"}, "pass all\n", "", quoted(kLoadWarning), 0},
        PfctlCase{"QuietLoadStillWarns", {}, {"-q", "-a", "x", "-f", "-"}, "pass all\n", "", quoted(kLoadWarning), 0},
        PfctlCase{"SyntaxErrorLoadsNothing", {}, {"-f", "-"}, "pass all\nbogus\n", "",
                  quoted(std::string(kLoadWarning) +
                         "stdin:2: syntax error\npfctl: Syntax error in config file: pf rules not loaded\n"),
                  1},
        PfctlCase{"UnknownShowModifier", {}, {"-s", "bogus"}, "", "",
                  quoted("pfctl: Unknown show modifier 'bogus'\n" + kUsageStart) + "[^]*", 1},
        PfctlCase{"NoReferences", {}, {"-s", "References"}, "", "No pf starter references held\n", "", 0},
        PfctlCase{"UnderscoreAnchorIsProtected", {}, {"-a", "_x", "-F", "rules"}, "", "",
                  quoted("pfctl: anchor names beginning with '_' cannot be modified from the command line\n"), 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Pfctl, FailedLoadKeepsTheOldRules) {
    const Mac mac;
    const Result before = mac.pfctl({"-sr"});
    EXPECT_EQ(mac.pfctl({"-f", "-"}, "block drop quick all\nset skip on lo0\n").status, 1);
    EXPECT_EQ(mac.pfctl({"-sr"}).out, before.out);
}

TEST(Pfctl, ReleasingTokensReportsWhatRemains) {
    const Mac mac;
    const std::string first = tokenOf(mac.pfctl({"-E"}));
    const std::string second = tokenOf(mac.pfctl({"-E"}));
    ASSERT_FALSE(first.empty());
    ASSERT_NE(first, second);
    Result r = mac.pfctl({"-X", first});
    EXPECT_EQ(r.err, "disable request successful. 1 more pf enable reference(s) remaining, pf still enabled.\n");
    EXPECT_EQ(r.status, 0);
    r = mac.pfctl({"-X", second});
    EXPECT_EQ(r.err, "pf disabled\n");
    EXPECT_EQ(mac.pfctl({"-X", second}).err, "pfctl: pf not enabled\n");
}

struct ReferenceStep {
    std::vector<std::string> args; // "TOKEN" stands for the token of the first -E
    std::string err;
    int status;
};

class PfctlReferences : public ::testing::TestWithParam<std::pair<const char*, std::vector<ReferenceStep>>> {};

TEST_P(PfctlReferences, FollowTheKernelsCount) {
    const Mac mac;
    std::string token;
    for (const auto& step : GetParam().second) {
        std::vector<std::string> args = step.args;
        for (auto& a : args)
            if (a == "TOKEN")
                a = token;
        const Result r = mac.pfctl(args);
        if (args == std::vector<std::string>{"-E"} && token.empty())
            token = tokenOf(r);
        else
            EXPECT_EQ(r.err, step.err) << joinArgs(args);
        EXPECT_EQ(r.status, step.status) << joinArgs(args);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, PfctlReferences,
    ::testing::Values(
        std::make_pair("PlainEnableUnderATokenStaysAfterIt",
                       std::vector<ReferenceStep>{
                           {{"-E"}, "", 0},
                           {{"-e"}, "pfctl: pf already enabled\n", 1},
                           {{"-X", "TOKEN"},
                            "disable request successful. 1 more pf enable reference(s) remaining, pf still enabled.\n", 0},
                           {{"-d"}, "pf disabled\n", 0}}),
        std::make_pair("DisableForgetsTheToken",
                       std::vector<ReferenceStep>{{{"-E"}, "", 0},
                                                  {{"-d"}, "pf disabled\n", 0},
                                                  {{"-X", "TOKEN"}, "pfctl: pf not enabled\n", 1},
                                                  {{"-e"}, "pf enabled\n", 0},
                                                  {{"-X", "TOKEN"}, "pfctl: pf: token invalid\n", 1}}),
        std::make_pair("HexTokensAreAccepted",
                       std::vector<ReferenceStep>{{{"-e"}, "pf enabled\n", 0},
                                                  {{"-X", "0x10"}, "pfctl: pf: token invalid\n", 1}})),
    [](const auto& info) { return std::string(info.param.first); });

TEST(Pfctl, ReferencesListTheHolder) {
    const Mac mac;
    const std::string token = tokenOf(mac.pfctl({"-E"}));
    const Result r = mac.pfctl({"-s", "References"});
    EXPECT_TRUE(std::regex_match(
        r.out, std::regex("TOKENS:\nPID      Process Name                 TOKEN                    TIMESTAMP\n"
                          "[0-9]+ +pfctl {24}" +
                          token + " +0 days 00:00:0[0-9]\n")))
        << r.out;
}

TEST(Pfctl, InfoShowsEnabledAfterAReference) {
    const Mac mac;
    mac.pfctl({"-E"});
    const Result r = mac.pfctl({"-s", "info"});
    EXPECT_TRUE(std::regex_search(r.out, std::regex("^Status: Enabled for 0 days 00:00:0[0-9] +Debug: Urgent\n\n")))
        << r.out;
    EXPECT_NE(r.out.find("State Table                          Total             Rate\n"), std::string::npos);
}

TEST(Pfctl, AltqNoticeComesFirstAndYieldsToQuiet) {
    const Mac mac;
    mac.macsim({"set", mac.root(), "altq", "on"});
    EXPECT_EQ(mac.pfctl({"-e"}).err, "No ALTQ support in kernel\nALTQ related functions disabled\npf enabled\n");
    EXPECT_EQ(mac.pfctl({"-a", "x", "-f", "-"}, "pass all\n").err,
              std::string(kLoadWarning) + "No ALTQ support in kernel\nALTQ related functions disabled\n");
    EXPECT_EQ(mac.pfctl({"-q", "-d"}).err, "");
}

TEST(Pfctl, DaemonBlackoutLoadsListsAndFlushes) {
    const Mac mac;
    EXPECT_EQ(mac.pfctl({"-a", kBlackoutAnchor, "-f", "-"}, kBlackout).status, 0);
    EXPECT_EQ(mac.pfctl({"-a", kBlackoutAnchor, "-sr"}).out, "pass quick on lo0 all no state\nblock drop quick all\n");
    EXPECT_EQ(mac.pfctl({"-a", "com.apple", "-s", "Anchors"}).out,
              "  com.apple/200.AirDrop\n  com.apple/250.ApplicationFirewall\n  com.apple/999.test.orven.app\n");
    EXPECT_EQ(mac.pfctl({"-a", kBlackoutAnchor, "-F", "rules"}).err, "rules cleared\n");
    EXPECT_EQ(mac.pfctl({"-a", kBlackoutAnchor, "-sr"}).err, "pfctl: DIOCGETRULES: Invalid argument\n");
    EXPECT_EQ(mac.pfctl({"-a", "com.apple", "-s", "Anchors"}).out,
              "  com.apple/200.AirDrop\n  com.apple/250.ApplicationFirewall\n");
}

TEST(Pfctl, ReloadingPfConfKeepsOtherAnchors) {
    const Mac mac;
    mac.pfctl({"-a", kBlackoutAnchor, "-f", "-"}, kBlackout);
    mac.pfctl({"-f", "-"}, "set skip on lo0\nanchor \"com.apple/*\"\n");
    EXPECT_EQ(mac.show("skip").out, "lo0\n");
    EXPECT_EQ(mac.pfctl({"-f", "/etc/pf.conf"}).status, 0);
    EXPECT_EQ(mac.show("skip").out, "");
    EXPECT_EQ(mac.pfctl({"-a", kBlackoutAnchor, "-sr"}).out, "pass quick on lo0 all no state\nblock drop quick all\n");
    EXPECT_EQ(mac.pfctl({"-sr"}).out,
              "scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n");
}

TEST(Pfctl, RecursiveListingFollowsCallsByTheirLastComponent) {
    const Mac mac;
    const std::string fw = "com.apple/250.ApplicationFirewall";
    ASSERT_EQ(mac.pfctl({"-a", fw, "-f", "-"}, "anchor \"inner\"\n").status, 0);
    ASSERT_EQ(mac.pfctl({"-a", fw + "/inner", "-f", "-"}, "block drop in inet proto icmp all icmp-type echoreq\n").status,
              0);
    Result r = mac.pfctl({"-a", fw + "/*", "-sr"});
    EXPECT_EQ(r.out, "anchor \"inner\" all {\n  block drop in inet proto icmp all icmp-type echoreq\n}\n");
    EXPECT_EQ(r.err, "");
    // Wildcard calls descend into an anchor named "*", which is not there.
    r = mac.pfctl({"-a", "com.apple/*", "-sr"});
    EXPECT_EQ(r.out, "anchor \"*\" all {\n}\nanchor \"*\" all {\n}\n");
    EXPECT_EQ(r.err, "pfctl: DIOCGETRULES: Invalid argument\npfctl: DIOCGETRULES: Invalid argument\n");
    EXPECT_EQ(r.status, 0);
}

TEST(Pfctl, FlushAllClearsTheMainRulesetAndMore) {
    const Mac mac;
    mac.pfctl({"-f", "-"}, "set skip on lo0\npass out all\n");
    mac.pfctl({"-e"});
    mac.tool("/usr/bin/nc", {"-z", "1.1.1.1", "443"});
    Result r = mac.pfctl({"-a", "x", "-F", "all"});
    EXPECT_EQ(r.err, "rules cleared\nnat cleared\ndummynet cleared\n0 tables deleted.\n");
    r = mac.pfctl({"-F", "all"});
    EXPECT_EQ(r.err, "rules cleared\nnat cleared\ndummynet cleared\n0 tables deleted.\n1 states cleared\n"
                     "source tracking entries cleared\npf: statistics cleared\npf: interface flags reset\n");
    EXPECT_EQ(mac.pfctl({"-sr"}).out, "");
    EXPECT_EQ(mac.show("skip").out, "");
    EXPECT_EQ(mac.pfctl({"-a", "com.apple", "-s", "Anchors"}).out,
              "  com.apple/200.AirDrop\n  com.apple/250.ApplicationFirewall\n");
}

TEST(Pfctl, ZeroingClearsTheMainFilterCountersOnly) {
    const Mac mac;
    mac.pfctl({"-f", "-"}, "pass out all\nanchor \"com.apple/*\"\n");
    mac.pfctl({"-a", kBlackoutAnchor, "-f", "-"}, kBlackout);
    mac.pfctl({"-e"});
    mac.tool("/sbin/ping", {"-c", "1", "1.1.1.1"});
    EXPECT_EQ(mac.pfctl({"-z"}).err, "pf: rule counters cleared\n");
    EXPECT_TRUE(std::regex_search(mac.pfctl({"-v", "-sr"}).out, std::regex("Evaluations: 0 ")));
    EXPECT_TRUE(std::regex_search(mac.pfctl({"-v", "-a", kBlackoutAnchor, "-sr"}).out,
                                  std::regex("block drop quick all\n  \\[ Evaluations: 1 ")));
}

TEST(Pfctl, BrokenAnchorFileLoadsNothing) {
    const Mac mac;
    mac.pfctl({"-f", "-"}, "anchor \"com.apple/*\"\n");
    ASSERT_TRUE(writeText(mac.path("/etc/pf.anchors/com.apple"), "#\n\nanchor 200.AirDrop/*\n"));
    const Result r = mac.pfctl({"-f", "/etc/pf.conf"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, std::string(kLoadWarning) + "/etc/pf.anchors/com.apple:3: syntax error\n"
                                                 "pfctl: Syntax error in config file: pf rules not loaded\n"
                                                 "pfctl: load anchors\n");
    EXPECT_EQ(mac.pfctl({"-sr"}).out, "anchor \"com.apple/*\" all\n");
}

TEST(Pfctl, ParseOnlyAndVerboseLoads) {
    const Mac mac;
    Result r = mac.pfctl({"-n", "-f", "-"}, "block drop quick all\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(mac.pfctl({"-sr"}).out,
              "scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n");
    r = mac.pfctl({"-v", "-a", "x", "-f", "-"}, "pass in proto tcp to port 22\n");
    EXPECT_EQ(r.out, "pass in proto tcp from any to any port = 22 flags S/SA keep state\n");
    EXPECT_NE(mac.pfctl({"-v", "-s", "Interfaces"}).out.find("\nen0\n"), std::string::npos);
}

// The daemon's LAN isolation ruleset, packet by packet.
struct IsolationCase {
    const char* name;
    std::vector<std::string> packet;
    bool passes;
};

class Isolation : public ::testing::TestWithParam<IsolationCase> {};

TEST_P(Isolation, PassesWhatItKeepsAndDropsTheLan) {
    const Mac mac;
    ASSERT_EQ(mac.pfctl({"-f", "-"},
                        "set skip on lo0\nscrub-anchor \"com.apple/*\"\nnat-anchor \"com.apple/*\"\n"
                        "rdr-anchor \"com.apple/*\"\ndummynet-anchor \"com.apple/*\"\n"
                        "pass quick on en0 proto udp from any port 68 to any port 67\n"
                        "pass quick on en0 proto udp from any port 67 to any port 68\n"
                        "pass quick on en0 inet from 192.168.1.1 to any\n"
                        "pass quick on en0 inet from any to 192.168.1.1\n"
                        "pass quick on en0 inet from any to 192.168.1.53\n"
                        "block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24\n"
                        "pass quick on en0 inet6 proto udp from any port 546 to any port 547\n"
                        "pass quick on en0 inet6 proto ipv6-icmp icmp6-type { 133, 134, 135, 136, 137 }\n"
                        "pass quick on en0 inet6 from fe80::1 to any\n"
                        "block drop quick on en0 inet6 from 2001:db8:1::/64 to 2001:db8:1::/64\n"
                        "block drop quick on en0 inet6 from fe80::/10 to fe80::/10\n"
                        "anchor \"com.apple/*\"\nload anchor \"com.apple\" from \"/etc/pf.anchors/com.apple\"\n")
                  .status,
              0);
    ASSERT_EQ(mac.pfctl({"-e"}).status, 0);
    std::vector<std::string> args{"packet", mac.root()};
    args.insert(args.end(), GetParam().packet.begin(), GetParam().packet.end());
    const Result r = mac.macsim(args);
    EXPECT_EQ(r.status, GetParam().passes ? 0 : 1) << r.out << r.err;
}

INSTANTIATE_TEST_SUITE_P(
    Packets, Isolation,
    ::testing::Values(
        IsolationCase{"LanPeers", {"out", "en0", "tcp", "192.168.1.23", "192.168.1.40", "--dport", "22"}, false},
        IsolationCase{"Gateway", {"out", "en0", "tcp", "192.168.1.23", "192.168.1.1", "--dport", "80"}, true},
        IsolationCase{"Resolver", {"out", "en0", "udp", "192.168.1.23", "192.168.1.53", "--dport", "53"}, true},
        IsolationCase{"DhcpBroadcast",
                      {"out", "en0", "udp", "192.168.1.23", "192.168.1.255", "--sport", "68", "--dport", "67"}, true},
        IsolationCase{"Internet", {"out", "en0", "tcp", "192.168.1.23", "1.1.1.1", "--dport", "443"}, true},
        IsolationCase{"V6LanPeers", {"out", "en0", "tcp", "2001:db8:1::23", "2001:db8:1::40", "--dport", "22"}, false},
        IsolationCase{"V6LinkLocalPeers", {"out", "en0", "udp", "fe80::23", "fe80::40", "--dport", "5353"}, false},
        IsolationCase{"RouterAdvertisement", {"in", "en0", "icmp6", "fe80::1", "ff02::1", "--icmp-type", "134"}, true},
        IsolationCase{"V6EchoToAPeer",
                      {"out", "en0", "icmp6", "2001:db8:1::23", "2001:db8:1::40", "--icmp-type", "128"}, false},
        IsolationCase{"MidFlowAckToAPeerIsDropped",
                      {"out", "en0", "tcp", "192.168.1.23", "192.168.1.40", "--dport", "22", "--flags", "A"}, false},
        IsolationCase{"LoopbackIsSkipped", {"out", "lo0", "tcp", "127.0.0.1", "127.0.0.1", "--dport", "22"}, true}),
    [](const auto& info) { return std::string(info.param.name); });

// -------------------------------------------------------------- leak test --

std::string withPassQuickAboveApple() {
    std::string conf(orven::macsim::kStockPfConf);
    const auto at = conf.find("anchor \"com.apple/*\"\nload");
    conf.insert(at, "pass quick all\n");
    return conf;
}

void engage(const Mac& mac, bool flushStates) {
    ASSERT_EQ(mac.pfctl({"-a", kBlackoutAnchor, "-f", "-"}, kBlackout).status, 0);
    ASSERT_FALSE(tokenOf(mac.pfctl({"-E"})).empty());
    if (flushStates) {
        ASSERT_EQ(mac.pfctl({"-F", "states"}).status, 0);
    }
}

TEST(LeakTest, FreshMacWithPfDisabledLeaks) {
    const Mac mac;
    const Result r = mac.macsim({"leak-test", mac.root()});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("PASSED out en0 inet tcp 192.168.1.23:"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("(pf disabled)"), std::string::npos);
}

TEST(LeakTest, BlackoutWithStatesFlushedHolds) {
    const Mac mac;
    engage(mac, true);
    const Result r = mac.macsim({"leak-test", mac.root()});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("leak-test: [1-9][0-9]* packets, 0 passed\n$"))) << r.out;
    // The packets really reached the catch-all, as the daemon's proof reads it.
    const Result v = mac.pfctl({"-v", "-a", kBlackoutAnchor, "-sr"});
    EXPECT_TRUE(std::regex_search(v.out, std::regex("block drop quick all\n  \\[ Evaluations: [1-9]"))) << v.out;
}

TEST(LeakTest, QuickPassAboveTheAppleAnchorLeaksAgain) {
    const Mac mac;
    ASSERT_EQ(mac.pfctl({"-f", "-"}, withPassQuickAboveApple()).status, 0);
    engage(mac, true);
    const Result r = mac.macsim({"leak-test", mac.root()});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("(main: pass quick all flags S/SA keep state)"), std::string::npos) << r.out;
}

TEST(LeakTest, SkippingTheStateFlushLetsTheOldFlowThrough) {
    for (const bool flush : {false, true}) {
        const Mac mac;
        // LAN isolation in force keeps state for flows to the gateway.
        ASSERT_EQ(mac.pfctl({"-f", "-"}, "pass quick on en0 inet from any to 192.168.1.1\n"
                                         "block drop quick on en0 inet from 192.168.1.0/24 to 192.168.1.0/24\n"
                                         "anchor \"com.apple/*\"\n")
                      .status,
                  0);
        ASSERT_EQ(mac.pfctl({"-e"}).status, 0);
        const Result opened = mac.macsim({"flow", mac.root(), "open", "tcp", "192.168.1.1", "80"});
        ASSERT_EQ(opened.status, 0) << opened.err;
        // The engage: isolation suspended, blackout loaded, pf referenced.
        ASSERT_EQ(mac.pfctl({"-f", "-"}, "anchor \"com.apple/*\"\n").status, 0);
        engage(mac, flush);
        const Result r = mac.macsim({"leak-test", mac.root()});
        if (flush) {
            EXPECT_EQ(r.status, 0) << r.out;
        } else {
            EXPECT_EQ(r.status, 1);
            EXPECT_TRUE(std::regex_search(r.out, std::regex("PASSED out en0 inet tcp 192\\.168\\.1\\.23:[0-9]+ -> "
                                                            "192\\.168\\.1\\.1:80 \\[PA\\]  \\(existing state\\)")))
                << r.out;
        }
    }
}

TEST(LeakTest, SkippedInterfaceLeaks) {
    const Mac mac;
    ASSERT_EQ(mac.pfctl({"-f", "-"}, "set skip on { lo0 en0 }\nanchor \"com.apple/*\"\n").status, 0);
    engage(mac, true);
    const Result r = mac.macsim({"leak-test", mac.root()});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("(interface skipped)"), std::string::npos);
    EXPECT_EQ(r.out.find("PASSED out utun0"), std::string::npos);
}

// ------------------------------------------------------------------ reboot --

std::int64_t mtimeOf(const std::string& path) {
    struct stat st {};
    ::stat(path.c_str(), &st);
    return st.st_mtime;
}

TEST(Reboot, ResetsPfAndRunAndMovesTheBootTime) {
    const Mac mac;
    engage(mac, false);
    mac.pfctl({"-f", "-"}, "set skip on lo0\npass out all\n");
    mac.macsim({"flow", mac.root(), "open", "tcp", "1.1.1.1", "443"});
    ASSERT_NE(mac.pfctl({"-s", "state"}).out, "");
    const std::string before = mac.path("/var/run/test.orven.app.hardkill.pf-token");
    ASSERT_TRUE(writeText(before));
    const std::int64_t oldBoot = std::stoll(mac.show("boottime").out);

    ASSERT_EQ(mac.macsim({"reboot", mac.root()}).status, 0);
    const std::string after = mac.path("/Library/Application Support/written-after");
    ASSERT_TRUE(writeText(after));

    const std::int64_t boot = std::stoll(mac.show("boottime").out);
    EXPECT_GT(boot, oldBoot);
    EXPECT_LE(boot, mtimeOf(after));
    EXPECT_FALSE(std::filesystem::exists(before));
    EXPECT_EQ(readText(mac.path("/.macsim/boottime")), std::to_string(boot) + "\n");
    EXPECT_TRUE(std::regex_search(mac.pfctl({"-s", "info"}).out, std::regex("^Status: Disabled +Debug")));
    EXPECT_EQ(mac.pfctl({"-s", "References"}).out, "No pf starter references held\n");
    EXPECT_EQ(mac.pfctl({"-s", "state"}).out, "");
    EXPECT_EQ(mac.show("skip").out, "");
    EXPECT_EQ(mac.pfctl({"-v", "-s", "Anchors"}).out,
              "  com.apple\n  com.apple/200.AirDrop\n  com.apple/250.ApplicationFirewall\n");
    EXPECT_EQ(mac.pfctl({"-sr"}).out,
              "scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n");
}

// A file written before the reboot is older, in whole seconds, than the boot.
TEST(Reboot, FilesWrittenBeforeAreOlderThanTheBoot) {
    const Mac mac;
    const std::string before = mac.path("/Library/Application Support/written-before");
    ASSERT_TRUE(writeText(before));
    ASSERT_EQ(mac.macsim({"reboot", mac.root()}).status, 0);
    EXPECT_LT(mtimeOf(before), std::stoll(mac.show("boottime").out));
}

// --------------------------------------------------------------- concurrency --

TEST(Concurrency, ParallelReferencesAndProbesKeepTheStateWhole) {
    const Mac mac;
    mac.pfctl({"-a", kBlackoutAnchor, "-f", "-"}, kBlackout);
    constexpr int kThreads = 4, kRounds = 4;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&]() {
            for (int i = 0; i < kRounds; ++i) {
                const std::string token = tokenOf(mac.pfctl({"-E"}));
                if (token.empty() || mac.tool("/sbin/ping", {"-c", "1", "-t", "1", "1.1.1.1"}).status != 2)
                    ++failures;
                if (mac.pfctl({"-X", token}).status != 0)
                    ++failures;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(mac.pfctl({"-s", "References"}).out, "No pf starter references held\n");
    EXPECT_EQ(mac.show("enabled").out, "disabled\n");
    const Result calls = mac.macsim({"calls", mac.root(), "--mutating"});
    EXPECT_EQ(std::count(calls.out.begin(), calls.out.end(), '\n'), 1 + 2 * kThreads * kRounds);
}

} // namespace
