// Packets through the pf model: last match vs quick, anchors and their
// order, skipped interfaces, states, a disabled pf, and the counters.

#include <map>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Pf.h"
#include "PfListing.h"
#include "Probe.h"

namespace {

using namespace orven::macsim;

IpAddr ip(const char* text) { return *IpAddr::parse(text); }

const IpAddr kLocal = ip("192.168.1.23");
const IpAddr kRemote = ip("1.1.1.1");

PfModel model(const std::string& main, const std::map<std::string, std::string>& anchors = {}) {
    PfModel pf;
    ParseContext ctx;
    ParsedRuleset parsed = parseRuleset(main, ctx);
    EXPECT_TRUE(parsed.ok()) << (parsed.errors.empty() ? "" : parsed.errors.front());
    pf.skip = parsed.skip;
    pf.replace("", main, parsed.rules, 1);
    for (const auto& [path, text] : anchors) {
        ParseContext actx;
        actx.anchorPath = path;
        actx.anchorLoad = true;
        ParsedRuleset a = parseRuleset(text, actx);
        EXPECT_TRUE(a.ok()) << path;
        pf.replace(path, text, a.rules, 1);
    }
    pf.running = true;
    return pf;
}

Packet synOut(const std::string& ifname = "en0", std::uint16_t dport = 443) {
    return tcpPacket(Direction::Out, ifname, kLocal, 49152, kRemote, dport, TcpFlag::Syn);
}

std::vector<IpAddr> addresses(std::string_view ifname) {
    if (ifname == "en0")
        return {kLocal};
    return {};
}

struct EvalCase {
    const char* name;
    std::string main;
    std::map<std::string, std::string> anchors;
    Packet packet;
    bool pass;
    const char* decidedBy; // the deciding rule, "" when no rule matched
    const char* ruleset = "";
};

class Evaluation : public ::testing::TestWithParam<EvalCase> {};

TEST_P(Evaluation, DecidesAsPfDoes) {
    const EvalCase& c = GetParam();
    PfModel pf = model(c.main, c.anchors);
    const Verdict v = pf.test(c.packet, 1000, addresses);
    EXPECT_EQ(v.pass, c.pass) << v.describe();
    EXPECT_EQ(v.rule, c.decidedBy);
    if (*c.decidedBy) {
        EXPECT_EQ(v.rulesetPath, c.ruleset);
    } else {
        EXPECT_NE(v.how, Verdict::How::Rule);
    }
}

const std::string kBlackout = "pass quick on lo0 all no state\nblock drop quick all\n";

INSTANTIATE_TEST_SUITE_P(
    Packets, Evaluation,
    ::testing::Values(
        EvalCase{"NoRuleMatchedPasses", "", {}, synOut(), true, ""},
        EvalCase{"LastMatchWins", "block all\npass out all\n", {}, synOut(), true,
                 "pass out all flags S/SA keep state"},
        EvalCase{"LaterBlockWins", "pass all\nblock all\n", {}, synOut(), false, "block drop all"},
        EvalCase{"QuickIsFinal", "block quick all\npass all\n", {}, synOut(), false, "block drop quick all"},
        EvalCase{"QuickInAnchorEndsEverything", "anchor \"a\"\npass all\n", {{"a", "block quick all\n"}}, synOut(),
                 false, "block drop quick all", "a"},
        EvalCase{"PlainMatchInAnchorIsOverridden", "anchor \"a\"\npass all\n", {{"a", "block all\n"}}, synOut(),
                 true, "pass all flags S/SA keep state"},
        EvalCase{"PlainMatchInAnchorStandsLast", "pass all\nanchor \"a\"\n", {{"a", "block all\n"}}, synOut(), false,
                 "block drop all", "a"},
        EvalCase{"QuickAnchorStopsAfterInnerMatch", "anchor \"a\" quick\npass all\n", {{"a", "block all\n"}},
                 synOut(), false, "block drop all", "a"},
        EvalCase{"QuickAnchorWithoutInnerMatchGoesOn", "anchor \"a\" quick\nblock all\n", {{"a", "pass in all\n"}},
                 synOut(), false, "block drop all"},
        EvalCase{"WildcardChildrenInStrcmpOrder", "anchor \"com.apple/*\"\n",
                 {{"com.apple/999.x", "block drop quick all\n"}, {"com.apple/200.y", "pass quick all\n"}}, synOut(),
                 true, "pass quick all flags S/SA keep state", "com.apple/200.y"},
        EvalCase{"CapitalsSortAfterDigits", "anchor \"com.apple/*\"\n",
                 {{"com.apple/Zz", "pass quick all\n"}, {"com.apple/999.x", "block drop quick all\n"}}, synOut(),
                 false, "block drop quick all", "com.apple/999.x"},
        EvalCase{"WildcardSkipsTheParentsOwnRules", "anchor \"com.apple/*\"\n",
                 {{"com.apple", "block drop quick all\n"}}, synOut(), true, ""},
        EvalCase{"NestedAnchorsAreFollowed", "anchor \"com.apple/*\"\n",
                 {{"com.apple/250.fw", "anchor \"inner\"\n"}, {"com.apple/250.fw/inner", "block quick all\n"}},
                 synOut(), false, "block drop quick all", "com.apple/250.fw/inner"},
        EvalCase{"AnchorCriteriaGateItsRules", "anchor \"a\" on en1\n", {{"a", "block quick all\n"}}, synOut(), true,
                 ""},
        EvalCase{"SkippedInterfaceIsNeverFiltered", "set skip on en0\nblock drop quick all\n", {}, synOut(), true,
                 ""},
        EvalCase{"SkipIsPerInterface", "set skip on en0\nblock drop quick all\n", {}, synOut("utun0"), false,
                 "block drop quick all"},
        EvalCase{"BlackoutKeepsLoopback", "anchor \"com.apple/*\"\n", {{"com.apple/999.test.orven.app", kBlackout}},
                 tcpPacket(Direction::Out, "lo0", ip("127.0.0.1"), 5000, ip("127.0.0.1"), 6000, TcpFlag::Syn), true,
                 "pass quick on lo0 all no state", "com.apple/999.test.orven.app"},
        EvalCase{"BlackoutDropsEn0", "anchor \"com.apple/*\"\n", {{"com.apple/999.test.orven.app", kBlackout}},
                 synOut(), false, "block drop quick all", "com.apple/999.test.orven.app"},
        EvalCase{"BlackoutDropsInboundIpv6", "anchor \"com.apple/*\"\n", {{"com.apple/999.test.orven.app", kBlackout}},
                 icmpEcho(Direction::In, "en0", ip("2606:4700:4700::1111"), ip("2001:db8:1::23"), true, 7, 8), false,
                 "block drop quick all", "com.apple/999.test.orven.app"},
        EvalCase{"QuickPassAboveTheAnchorDefeatsTheBlackout", "pass quick all\nanchor \"com.apple/*\"\n",
                 {{"com.apple/999.test.orven.app", kBlackout}}, synOut(), true,
                 "pass quick all flags S/SA keep state"},
        EvalCase{"PassBelowTheAnchorDoesNot", "anchor \"com.apple/*\"\npass quick all\n",
                 {{"com.apple/999.test.orven.app", kBlackout}}, synOut(), false, "block drop quick all",
                 "com.apple/999.test.orven.app"},
        EvalCase{"FlagsSAMissesMidFlowPackets", "block all\npass out proto tcp all\n", {},
                 tcpPacket(Direction::Out, "en0", kLocal, 49152, kRemote, 443, TcpFlag::Ack), false,
                 "block drop all"},
        EvalCase{"FlagsSAMatchesSyn", "block all\npass out proto tcp all\n", {}, synOut(), true,
                 "pass out proto tcp all flags S/SA keep state"},
        EvalCase{"IcmpTypeMatches", "block all\npass inet proto icmp icmp-type echoreq\n", {},
                 icmpEcho(Direction::Out, "en0", kLocal, kRemote, false, 9, 56), true,
                 "pass inet proto icmp all icmp-type echoreq keep state"},
        EvalCase{"IcmpTypeMisses", "block all\npass inet proto icmp icmp-type echoreq\n", {},
                 icmpEcho(Direction::In, "en0", kRemote, kLocal, true, 9, 56), false, "block drop all"},
        EvalCase{"PortRangeInside", "block all\npass proto tcp to port 400:500\n", {}, synOut("en0", 443), true,
                 "pass proto tcp from any to any port 400:500 flags S/SA keep state"},
        EvalCase{"PortRangeOutside", "block all\npass proto tcp to port 400:500\n", {}, synOut("en0", 501), false,
                 "block drop all"},
        EvalCase{"NegatedSourceExcludes", "block all\npass from ! 192.168.0.0/16 to any\n", {}, synOut(), false,
                 "block drop all"},
        EvalCase{"NegatedInterfaceMatchesOthers", "block on ! en0 all\n", {}, synOut("utun0"), false,
                 "block drop on ! en0 all"},
        EvalCase{"NegatedInterfaceSparesItself", "block on ! en0 all\n", {}, synOut(), true, ""},
        EvalCase{"FamilyMustMatch", "block inet6 all\n", {}, synOut(), true, ""},
        EvalCase{"DynamicAddressIsTheInterfaces", "block all\npass in inet proto tcp to (en0) port 22\n", {},
                 tcpPacket(Direction::In, "en0", kRemote, 40000, kLocal, 22, TcpFlag::Syn), true,
                 "pass in inet proto tcp from any to (en0) port = 22 flags S/SA keep state"},
        EvalCase{"DynamicAddressIsOnlyTheInterfaces", "block all\npass in inet proto tcp to (en0) port 22\n", {},
                 tcpPacket(Direction::In, "en0", kRemote, 40000, ip("192.168.1.99"), 22, TcpFlag::Syn), false,
                 "block drop all"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Evaluation, BlockPolicyTravelsWithTheVerdict) {
    PfModel pf = model("set block-policy return\nblock in all\nblock drop out all\n");
    Verdict v = pf.test(tcpPacket(Direction::In, "en0", kRemote, 5000, kLocal, 22, TcpFlag::Syn), 1000);
    EXPECT_FALSE(v.pass);
    EXPECT_EQ(v.block, BlockPolicy::Return);
    EXPECT_EQ(v.rule, "block return in all");
    v = pf.test(synOut(), 1000);
    EXPECT_EQ(v.block, BlockPolicy::Drop);
}

TEST(Evaluation, DisabledPfPassesWithoutLookingOrCounting) {
    PfModel pf = model("block drop quick all\n");
    pf.running = false;
    const Verdict v = pf.test(synOut(), 1000);
    EXPECT_TRUE(v.pass);
    EXPECT_EQ(v.how, Verdict::How::Disabled);
    EXPECT_EQ(pf.find("")->counters[0].evaluations, 0u);
    EXPECT_TRUE(pf.states.empty());
}

// ------------------------------------------------------------------ states --

TEST(States, AdmitTheReplyAgainstALaterBlock) {
    PfModel pf = model("block in all\npass out all\n");
    ASSERT_TRUE(pf.test(synOut(), 1000).stateCreated);
    const Verdict reply = pf.test(
        tcpPacket(Direction::In, "en0", kRemote, 443, kLocal, 49152, TcpFlag::Syn | TcpFlag::Ack), 1000);
    EXPECT_TRUE(reply.pass);
    EXPECT_EQ(reply.how, Verdict::How::State);
}

TEST(States, NoStateMeansTheReplyIsJudgedAlone) {
    PfModel pf = model("block in all\npass out all no state\n");
    EXPECT_FALSE(pf.test(synOut(), 1000).stateCreated);
    EXPECT_FALSE(pf.test(tcpPacket(Direction::In, "en0", kRemote, 443, kLocal, 49152, TcpFlag::Syn | TcpFlag::Ack),
                         1000)
                     .pass);
}

TEST(States, SurviveANewRulesetUntilFlushed) {
    PfModel pf = model("pass out all\n");
    pf.test(synOut(), 1000);
    ParsedRuleset blackout = parseRuleset("block drop quick all\n", ParseContext{});
    pf.replace("", "block drop quick all\n", blackout.rules, 2);
    const Packet next = tcpPacket(Direction::Out, "en0", kLocal, 49152, kRemote, 443, TcpFlag::Ack);
    EXPECT_EQ(pf.test(next, 1001).how, Verdict::How::State);
    EXPECT_EQ(pf.flushStates(), 1u);
    EXPECT_FALSE(pf.test(next, 1002).pass);
}

TEST(States, AreNeitherUsedNorMadeWhileDisabled) {
    PfModel pf = model("block in all\npass out all\n");
    pf.test(synOut(), 1000);
    pf.running = false;
    pf.test(tcpPacket(Direction::Out, "en0", kLocal, 50000, kRemote, 443, TcpFlag::Syn), 1000);
    EXPECT_EQ(pf.states.size(), 1u);
    EXPECT_EQ(pf.states.front().packets, 1u);
}

struct StateLineCase {
    const char* name;
    std::vector<Packet> packets;
    const char* line;
};

class StateLines : public ::testing::TestWithParam<StateLineCase> {};

TEST_P(StateLines, PrintAsPfctlDoes) {
    PfModel pf = model("pass all\n");
    for (const auto& p : GetParam().packets)
        pf.test(p, 1000);
    ASSERT_EQ(pf.states.size(), 1u);
    EXPECT_EQ(pf.states.front().print(), GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Flows, StateLines,
    ::testing::Values(
        StateLineCase{"TcpHandshake",
                      {synOut(),
                       tcpPacket(Direction::In, "en0", kRemote, 443, kLocal, 49152, TcpFlag::Syn | TcpFlag::Ack),
                       tcpPacket(Direction::Out, "en0", kLocal, 49152, kRemote, 443, TcpFlag::Ack)},
                      "ALL tcp 192.168.1.23:49152 -> 1.1.1.1:443       ESTABLISHED:ESTABLISHED"},
        StateLineCase{"TcpSynOnly", {synOut()}, "ALL tcp 192.168.1.23:49152 -> 1.1.1.1:443       SYN_SENT:CLOSED"},
        StateLineCase{"UdpExchange",
                      {udpPacket(Direction::Out, "en0", kLocal, 5353, kRemote, 53),
                       udpPacket(Direction::In, "en0", kRemote, 53, kLocal, 5353)},
                      "ALL udp 192.168.1.23:5353 -> 1.1.1.1:53       MULTIPLE:SINGLE"},
        StateLineCase{"InboundUdpLocalFirst",
                      {udpPacket(Direction::In, "en0", ip("2001:db8:1::77"), 53, ip("2001:db8:1::23"), 56973)},
                      "ALL udp 2001:db8:1::23[56973] <- 2001:db8:1::77[53]       NO_TRAFFIC:SINGLE"},
        StateLineCase{"IcmpEcho", {icmpEcho(Direction::Out, "en0", kLocal, kRemote, false, 4321, 56)},
                      "ALL icmp 192.168.1.23:4321 -> 1.1.1.1:4321       0:0"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------- counters --

TEST(Counters, SkipStepsLeaveRulesUncounted) {
    PfModel pf = model("pass in on en1 proto tcp all\npass in on en1 proto udp all\nblock drop all\n");
    pf.test(synOut(), 1000);
    const Ruleset& rs = *pf.find("");
    EXPECT_EQ(rs.counters[0].evaluations, 1u);
    EXPECT_EQ(rs.counters[1].evaluations, 0u);
    EXPECT_EQ(rs.counters[2].evaluations, 1u);
}

TEST(Counters, DecidingRuleAndItsTopAnchorCountPacketsAndBytes) {
    PfModel pf = model("anchor \"com.apple/*\"\n", {{"com.apple/999.test.orven.app", kBlackout}});
    const Packet p = synOut();
    pf.test(p, 1000);
    pf.test(p, 1000);
    const Ruleset& blackout = *pf.find("com.apple/999.test.orven.app");
    EXPECT_EQ(blackout.counters[0].evaluations, 2u);
    EXPECT_EQ(blackout.counters[0].packets, 0u);
    EXPECT_EQ(blackout.counters[1].evaluations, 2u);
    EXPECT_EQ(blackout.counters[1].packets, 2u);
    EXPECT_EQ(blackout.counters[1].bytes, 2u * p.length);
    EXPECT_EQ(pf.find("")->counters[0].packets, 2u);
}

TEST(Counters, VerboseLinesCarryStatesOfTheRule) {
    PfModel pf = model("pass out all\n");
    pf.test(synOut(), 1000);
    const Ruleset& rs = *pf.find("");
    EXPECT_EQ(counterLines(pf, "", rs, 0),
              "  [ Evaluations: 1         Packets: 1         Bytes: 64          States: 1     ]\n"
              "  [ Inserted: uid 0 pid 1 ]\n");
}

TEST(Counters, PacketsOfAStateCountForTheRuleThatMadeIt) {
    PfModel pf = model("block in all\npass out all\n");
    pf.test(synOut(), 1000);
    pf.test(tcpPacket(Direction::In, "en0", kRemote, 443, kLocal, 49152, TcpFlag::Syn | TcpFlag::Ack), 1000);
    const Ruleset& rs = *pf.find("");
    EXPECT_EQ(rs.counters[1].packets, 2u);
    EXPECT_EQ(rs.counters[0].packets, 0u);
}

// ----------------------------------------------------------------- anchors --

TEST(Anchors, ExistWhileTheyHoldRulesOrAreCalled) {
    PfModel pf = model("anchor \"com.apple/*\"\n",
                       {{"com.apple", "anchor \"200.AirDrop/*\"\n"}, {"com.apple/999.test.orven.app", kBlackout}});
    EXPECT_EQ(pf.children("com.apple"),
              (std::vector<std::string>{"com.apple/200.AirDrop", "com.apple/999.test.orven.app"}));
    pf.clear("com.apple/999.test.orven.app", {RuleKind::Scrub, RuleKind::Filter});
    EXPECT_FALSE(pf.anchorExists("com.apple/999.test.orven.app"));
    EXPECT_TRUE(pf.anchorExists("com.apple/200.AirDrop"));
    pf.replace("com.apple", "", {}, 1);
    EXPECT_FALSE(pf.anchorExists("com.apple/200.AirDrop"));
    EXPECT_TRUE(pf.anchorExists("com.apple"));
}

TEST(Anchors, ModelSurvivesItsStoredForm) {
    PfModel pf = model("set skip on lo0\nanchor \"com.apple/*\"\npass out proto udp all\n",
                       {{"com.apple/999.test.orven.app", kBlackout}});
    pf.test(udpPacket(Direction::Out, "en0", kLocal, 5000, kRemote, 53), 1000);
    const PfModel back = PfModel::fromJson(pf.toJson());
    std::string err;
    for (const auto& path : {std::string(), std::string("com.apple/999.test.orven.app")}) {
        EXPECT_EQ(listRules(back, path, {RuleKind::Filter}, 1, false, err),
                  listRules(pf, path, {RuleKind::Filter}, 1, false, err));
        EXPECT_EQ(back.find(path)->text, pf.find(path)->text);
    }
    EXPECT_EQ(listStates(back), listStates(pf));
    EXPECT_EQ(back.skip, pf.skip);
    EXPECT_TRUE(err.empty());
}

} // namespace
