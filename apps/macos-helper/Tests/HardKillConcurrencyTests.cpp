// Many clients at once: every reply exactly once, no deadlock, the final
// state that of the last operation to complete, and never an "engaged"
// answer while traffic could still leave.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "Support/HardKillFixture.h"

namespace orven {
namespace {

using testing::HardKillFixture;
using testing::kHomeLAN;

enum class Operation { engage, lift, isolate, unisolate, status, enforcement, proof };

class HardKillConcurrency : public HardKillFixture {
protected:
    struct Completed {
        Operation operation;
        bool ok;
    };

    void perform(Operation operation)
    {
        auto service = daemon.service(501);
        std::atomic<int> answers{0};
        switch (operation) {
        case Operation::engage:
        case Operation::lift: {
            const bool engaging = operation == Operation::engage;
            service.setHardKill(engaging, ActionReply([&](bool ok, OptionalText) {
                ++answers;
                // Called under the pf lock: the state it reports is the state now.
                if (engaging && ok && !daemon.mac.leakTestPasses()) ++engagedWhileLeaking;
                const std::lock_guard guard(mutex);
                completed.push_back({operation, ok});
            }));
            break;
        }
        case Operation::isolate:
        case Operation::unisolate: {
            const auto& p = kHomeLAN;
            service.setLANIsolation(operation == Operation::isolate, p.interface, p.gatewayV4, p.subnetV4, p.dnsV4, "",
                                    p.subnetsV6, p.dnsV6, ActionReply([&](bool, OptionalText) { ++answers; }));
            break;
        }
        case Operation::status:
            service.readHardKillStatus(Reply<bool, bool, OptionalText>([&](bool, bool, OptionalText) { ++answers; }));
            break;
        case Operation::enforcement:
            service.readHardKillEnforcement(Reply<bool, bool, bool, std::int64_t, OptionalText>(
                [&](bool, bool, bool, std::int64_t, OptionalText) { ++answers; }));
            break;
        case Operation::proof:
            service.readHardKillProof(
                Reply<bool, OptionalText, OptionalText>([&](bool, OptionalText, OptionalText) { ++answers; }));
            break;
        }
        if (answers != 1) ++wrongAnswerCounts;
    }

    std::mutex mutex;
    std::vector<Completed> completed;
    std::atomic<int> engagedWhileLeaking{0};
    std::atomic<int> wrongAnswerCounts{0};
};

TEST_F(HardKillConcurrency, ManyClientsAtOnceLeaveTheStateOfTheLastOperation)
{
    const std::vector<std::vector<Operation>> scripts{
        {Operation::engage, Operation::status, Operation::lift, Operation::engage, Operation::proof},
        {Operation::isolate, Operation::engage, Operation::enforcement, Operation::lift, Operation::unisolate},
        {Operation::lift, Operation::engage, Operation::status, Operation::isolate, Operation::engage},
        {Operation::proof, Operation::lift, Operation::engage, Operation::enforcement, Operation::lift},
        {Operation::unisolate, Operation::status, Operation::engage, Operation::isolate, Operation::lift},
        {Operation::enforcement, Operation::engage, Operation::proof, Operation::lift, Operation::engage},
    };
    std::vector<std::thread> clients;
    for (const auto& script : scripts)
        clients.emplace_back([this, &script] {
            for (const auto operation : script) perform(operation);
        });
    for (auto& client : clients) client.join();

    EXPECT_EQ(wrongAnswerCounts, 0);
    EXPECT_EQ(engagedWhileLeaking, 0);
    ASSERT_FALSE(completed.empty());
    const auto last = std::find_if(completed.rbegin(), completed.rend(), [](const Completed& c) { return c.ok; });
    ASSERT_NE(last, completed.rend());
    const bool engaged = last->operation == Operation::engage;
    EXPECT_EQ(daemon.mac.leakTestPasses(), engaged);
    EXPECT_EQ(daemon.mac.fileExists(paths::hardKillMarker), engaged);
    EXPECT_EQ(daemon.context.hardKillEngaged.load(), engaged);
    EXPECT_EQ(references().size(), engaged ? 1u : 0u);
    EXPECT_EQ(HelperService::allHeldTokens(context()).size(), engaged ? 1u : 0u);
    expectNothingLost();
}

} // namespace
} // namespace orven
