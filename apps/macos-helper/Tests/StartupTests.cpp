#include <gtest/gtest.h>

#include <algorithm>

#include "Files.h"
#include "HelperService.h"
#include "Startup.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using testing::TemporaryFolder;

struct BareHost {
    TemporaryFolder folder;
    RecordingLogSink log;
    SimulatedMacHost host{folder.path(), log};
    DaemonContext context{host};

    std::ptrdiff_t indexOf(std::string_view fragment) const
    {
        const auto messages = log.messages();
        const auto found = std::find_if(messages.begin(), messages.end(), [&](const std::string& message) {
            return message.find(fragment) != std::string::npos;
        });
        return found == messages.end() ? -1 : found - messages.begin();
    }
};

TEST(Startup, BootWorkFinishesBeforeTheListenerIsResumed)
{
    BareHost fixture;
    // A reboot marker makes the re-apply do (and log) work; no tool can run here.
    fixture.folder.writeFile("Library/Application Support/test.orven.app/hardkill.engaged", "");
    std::size_t recordsWhenResumed = 0;
    const auto error = Startup::run(fixture.context, 0, [&]() -> std::optional<std::string> {
        recordsWhenResumed = fixture.log.records().size();
        return std::nullopt;
    });
    EXPECT_FALSE(error);

    const auto records = fixture.log.records();
    ASSERT_GE(records.size(), 4u);
    EXPECT_EQ(records.front().category, "Bootstrap");
    EXPECT_EQ(records.front().level, LogLevel::info);
    EXPECT_EQ(records.front().message, "ORVEN Helper starting (uid=0)");
    EXPECT_EQ(records[1].message, "install path: cannot stat /Library/PrivilegedHelperTools");

    const auto reapply = fixture.indexOf("re-apply");
    ASSERT_GT(reapply, 1) << "the re-apply left no line";
    EXPECT_LT(static_cast<std::size_t>(reapply), recordsWhenResumed);

    EXPECT_EQ(records.back().category, "Bootstrap");
    EXPECT_EQ(records.back().level, LogLevel::info);
    EXPECT_EQ(records.back().message, "Listener resumed on test.orven.app.helper");
    EXPECT_EQ(recordsWhenResumed, records.size() - 1);
}

TEST(Startup, LogsTheRealUserId)
{
    BareHost fixture;
    EXPECT_FALSE(Startup::run(fixture.context, 501, [] { return std::optional<std::string>(); }));
    EXPECT_EQ(fixture.log.messages().front(), "ORVEN Helper starting (uid=501)");
}

TEST(Startup, AListenerThatCannotStartIsReportedAndNotAnnounced)
{
    BareHost fixture;
    const auto error = Startup::run(fixture.context, 0, [] { return std::optional<std::string>("bind: in use"); });
    EXPECT_EQ(error, "bind: in use");
    EXPECT_TRUE(fixture.log.contains("Listener could not be started: bind: in use"));
    EXPECT_EQ(fixture.indexOf("Listener resumed"), -1);
}

} // namespace
} // namespace orven
