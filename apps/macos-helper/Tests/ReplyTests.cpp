#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

#include "Log.h"
#include "Reply.h"

namespace orven {
namespace {

struct Answer {
    int calls = 0;
    bool ok = false;
    OptionalText message;
};

ActionReply recordingReply(Answer& answer, const Logger* log = nullptr)
{
    return ActionReply(
        [&answer](bool ok, OptionalText message) {
            ++answer.calls;
            answer.ok = ok;
            answer.message = std::move(message);
        },
        log);
}

TEST(Reply, CalledOnceDeliversAndRecords)
{
    Answer answer;
    {
        ActionReply reply = recordingReply(answer);
        EXPECT_FALSE(reply.wasCalled());
        reply(false, "MTU 9000 is above this device's maximum of 1500");
        EXPECT_TRUE(reply.wasCalled());
    }
    EXPECT_EQ(answer.calls, 1);
    EXPECT_FALSE(answer.ok);
    EXPECT_EQ(answer.message, "MTU 9000 is above this device's maximum of 1500");
}

TEST(Reply, MovedFromReplyDoesNotReport)
{
    Answer answer;
    {
        ActionReply first = recordingReply(answer);
        ActionReply second = std::move(first);
        ActionReply third;
        third = std::move(second);  // assigning over a reply that holds nothing
        third(true, std::nullopt);
        // `first` and `second` are dropped uncalled here; only `third` owed an answer.
    }
    EXPECT_EQ(answer.calls, 1);
    EXPECT_TRUE(answer.ok);
    EXPECT_EQ(answer.message, std::nullopt);
}

TEST(Reply, MovingKeepsWhetherItWasCalled)
{
    Answer answer;
    ActionReply reply = recordingReply(answer);
    reply(true, std::nullopt);
    const ActionReply moved = std::move(reply);
    EXPECT_TRUE(moved.wasCalled());
    EXPECT_EQ(answer.calls, 1);
}

#ifndef NDEBUG

using ReplyDeathTest = testing::Test;

TEST_F(ReplyDeathTest, SecondCallAborts)
{
    EXPECT_DEATH(
        {
            Answer answer;
            ActionReply reply = recordingReply(answer);
            reply(true, std::nullopt);
            reply(false, "again");
        },
        "a reply was called a second time");
}

TEST_F(ReplyDeathTest, DroppedUncalledAborts)
{
    EXPECT_DEATH(
        {
            Answer answer;
            ActionReply reply = recordingReply(answer);
        },
        "a reply was destroyed without being called");
}

TEST_F(ReplyDeathTest, AssigningOverAnUnansweredReplyAborts)
{
    EXPECT_DEATH(
        {
            Answer first;
            Answer second;
            ActionReply reply = recordingReply(first);
            reply = recordingReply(second);
            reply(true, std::nullopt);
        },
        "a reply was destroyed without being called");
}

#else

TEST(Reply, MisuseIsLoggedInReleaseBuilds)
{
    RecordingLogSink sink;
    const Logger log(sink, "Service");
    Answer answer;
    {
        ActionReply twice = recordingReply(answer, &log);
        twice(true, std::nullopt);
        twice(false, "again");
        ActionReply dropped = recordingReply(answer, &log);
    }
    EXPECT_EQ(answer.calls, 1);  // the second call is not delivered
    EXPECT_EQ(sink.messages(), (std::vector<std::string>{"a reply was called a second time",
                                                         "a reply was destroyed without being called"}));
}

#endif

} // namespace
} // namespace orven
