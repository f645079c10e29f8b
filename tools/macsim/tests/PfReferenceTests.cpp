// pf enable references as XNU counts them: -E tokens, plain -e, -X and -d.

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Pf.h"

namespace {

using namespace orven::macsim;

// One step: "E" takes a token, "e" a plain enable, "d" disables, "X<n>"
// releases the n-th token taken so far ("X?" a token never issued). The
// expected answer is "ok", "exists", "off" or "invalid", with the remaining
// reference count after a release.
struct Step {
    std::string op;
    std::string answer = "ok";
    std::uint64_t remaining = 0;
};

struct RefCase {
    const char* name;
    std::vector<Step> steps;
    bool running;
    std::uint64_t refCount;
    std::size_t tokens;
};

class References : public ::testing::TestWithParam<RefCase> {};

TEST_P(References, CountAsTheKernelDoes) {
    PfModel pf;
    std::vector<std::uint64_t> issued;
    std::uint64_t next = 1000;
    const auto random = [&next]() { return next++; };
    std::int64_t now = 100;
    for (const auto& step : GetParam().steps) {
        ++now;
        std::string answer;
        std::uint64_t remaining = 0;
        if (step.op == "E") {
            issued.push_back(pf.startRef(42, "pfctl", now, random));
            answer = "ok";
        } else if (step.op == "e") {
            answer = pf.start(now) ? "ok" : "exists";
        } else if (step.op == "d") {
            answer = pf.stop(now) ? "ok" : "off";
        } else {
            const std::uint64_t token = step.op == "X?" ? 7 : issued.at(std::stoul(step.op.substr(1)));
            switch (pf.stopRef(token, now, remaining)) {
            case PfModel::StopRef::NotRunning: answer = "off"; break;
            case PfModel::StopRef::Invalid: answer = "invalid"; break;
            case PfModel::StopRef::Released: answer = "ok"; break;
            }
        }
        EXPECT_EQ(answer, step.answer) << "step " << step.op;
        if (step.op.starts_with("X") && answer == "ok") {
            EXPECT_EQ(remaining, step.remaining) << "step " << step.op;
        }
    }
    EXPECT_EQ(pf.running, GetParam().running);
    EXPECT_EQ(pf.refCount, GetParam().refCount);
    EXPECT_EQ(pf.tokens.size(), GetParam().tokens);
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, References,
    ::testing::Values(
        RefCase{"LastReferenceDisables", {{"E"}, {"X0", "ok", 0}}, false, 0, 0},
        RefCase{"OtherReferencesKeepItOn", {{"E"}, {"E"}, {"X0", "ok", 1}}, true, 1, 1},
        RefCase{"ReleasedInAnyOrder", {{"E"}, {"E"}, {"X1", "ok", 1}, {"X0", "ok", 0}}, false, 0, 0},
        RefCase{"PlainEnableOverTokensLeavesAnAnonymousReference",
                {{"E"}, {"e", "exists"}, {"X0", "ok", 1}},
                true,
                1,
                0},
        RefCase{"PlainEnableFirstIsAReferenceToo", {{"e"}, {"E"}, {"X0", "ok", 1}}, true, 1, 0},
        RefCase{"SecondPlainEnableAddsNothing", {{"e"}, {"e", "exists"}}, true, 1, 0},
        RefCase{"DisableForgetsEveryToken", {{"E"}, {"E"}, {"d"}, {"X0", "off"}}, false, 0, 0},
        RefCase{"StaleTokenIsInvalidOnceReEnabled", {{"E"}, {"d"}, {"E"}, {"X0", "invalid"}, {"X1", "ok", 0}},
                false, 0, 0},
        RefCase{"UnknownTokenIsInvalid", {{"E"}, {"X?", "invalid"}}, true, 1, 1},
        RefCase{"DisableWhenOff", {{"d", "off"}}, false, 0, 0},
        RefCase{"ReleaseWhenOff", {{"E"}, {"X0", "ok", 0}, {"X0", "off"}}, false, 0, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(References, TokensAreNonZeroUniqueAndNewestFirst) {
    PfModel pf;
    std::vector<std::uint64_t> draws{0, 5, 5, 9};
    std::size_t i = 0;
    const auto random = [&]() { return draws[i++]; };
    EXPECT_EQ(pf.startRef(1, "pfctl", 10, random), 5u);
    EXPECT_EQ(pf.startRef(2, "pfctl", 11, random), 9u);
    ASSERT_EQ(pf.tokens.size(), 2u);
    EXPECT_EQ(pf.tokens[0].token, 9u);
    EXPECT_EQ(pf.tokens[1].token, 5u);
}

TEST(References, SinceMarksEveryStartAndStop) {
    PfModel pf;
    EXPECT_EQ(pf.since, 0);
    pf.start(50);
    EXPECT_EQ(pf.since, 50);
    pf.start(60);
    EXPECT_EQ(pf.since, 50);
    pf.stop(70);
    EXPECT_EQ(pf.since, 70);
}

} // namespace
