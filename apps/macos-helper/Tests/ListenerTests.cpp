// The daemon's socket under clients that are hostile or broken: they stop
// reading, hold connections, flood it, send what the parser would misread,
// or start a second daemon. Each case runs the daemon as a process on a
// simulated Mac; the limits it is started with are short so nothing waits long.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <variant>
#include <vector>

#include "Linux/ListenerLimits.h"
#include "MethodDispatch.h"
#include "Support/DaemonProcess.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using nlohmann::json;
using testing::callAs;
using testing::Client;
using testing::DaemonProcess;
using testing::request;
using testing::SimulatedMac;
using testing::TemporaryFolder;
using testing::waitUntil;

using namespace std::chrono_literals;

const std::string kEngage = "setHardKillWithEngaged:reply:";
const json kOK = json::array({true, nullptr});
// Long enough for a fault to show; a daemon that never does what is waited
// for fails the test after this.
constexpr auto kShortPatience = std::chrono::milliseconds(30s);

class Listener : public ::testing::Test {
protected:
    Listener()
    {
        // Other users' clients must be able to reach the socket's folder.
        ::chmod(sockets.path().c_str(), 0755);
    }

    std::unique_ptr<DaemonProcess> launch(std::vector<std::string> options, std::vector<std::uint32_t> allowed = {},
                                          const std::string& root = "")
    {
        return std::make_unique<DaemonProcess>(root.empty() ? mac.root() : root, socketPath, logPath,
                                               std::move(allowed), std::move(options));
    }
    std::unique_ptr<DaemonProcess> start(std::vector<std::string> options = {}, std::vector<std::uint32_t> allowed = {})
    {
        auto daemon = launch(std::move(options), std::move(allowed));
        EXPECT_TRUE(daemon->waitUntilListening()) << daemon->log();
        return daemon;
    }

    static std::size_t count(const std::string& text, const std::string& fragment)
    {
        std::size_t found = 0;
        for (auto at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1)) ++found;
        return found;
    }

    SimulatedMac mac;
    TemporaryFolder sockets;
    std::string socketPath = sockets.path() + "/helper.sock";
    std::string logPath = sockets.path() + "/daemon.log";
};

// A child process as `uid` that opens `count` connections and keeps them, idle,
// until the object goes. Only system calls run between fork and exit.
class HeldConnections {
public:
    HeldConnections(std::uint32_t uid, const std::string& socketPath, int count)
    {
        int ready[2];
        int release[2];
        if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(release, O_CLOEXEC) != 0) return;
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, socketPath.data(), std::min(socketPath.size(), sizeof address.sun_path - 1));
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(ready[0]);
            ::close(release[1]);
            if (::setgroups(0, nullptr) != 0 || ::setgid(20) != 0 || ::setuid(uid) != 0) ::_exit(2);
            for (int i = 0; i < count; ++i) {
                const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
                if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                    ::_exit(3);
            }
            const char done = 'y';
            if (::write(ready[1], &done, 1) != 1) ::_exit(4);
            char byte;
            (void)::read(release[0], &byte, 1);
            ::_exit(0);
        }
        ::close(ready[1]);
        ::close(release[0]);
        release_ = release[1];
        char byte = 0;
        connected_ = pid_ > 0 && ::read(ready[0], &byte, 1) == 1 && byte == 'y';
        ::close(ready[0]);
    }
    ~HeldConnections()
    {
        if (release_ >= 0) ::close(release_);
        if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    }
    HeldConnections(const HeldConnections&) = delete;
    HeldConnections& operator=(const HeldConnections&) = delete;

    // True once every connection is open (the daemon has them in its queue,
    // ahead of any connection made after).
    bool connected() const { return connected_; }

private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool connected_ = false;
};

// --- Answers are never written from inside the pf lock ------------------------

TEST_F(Listener, AClientThatStopsReadingHoldsNobodyUpAndIsDropped)
{
    // What the daemon's socket holds unread before a write must wait.
    std::size_t socketBuffer = 0;
    std::ifstream("/proc/sys/net/core/wmem_default") >> socketBuffer;
    constexpr std::size_t kLongError = 120'000;
    if (socketBuffer == 0 || socketBuffer > 3 * kLongError)
        GTEST_SKIP() << "the socket buffer size (" << socketBuffer << ") is not one this case can fill";

    auto daemon = start({"--write-timeout", "2"});
    // The engage fails with an error text longer than what is left of the
    // client's socket buffer once an earlier answer is waiting in it.
    mac.addFault({"--tool", "pfctl", "--args", "-a com\\.apple/999\\.test\\.orven\\.app -f -", "--exit", "1",
                  "--stderr", std::string(kLongError, 'e'), "--times", "1"});
    const std::string filler(socketBuffer * 6 / 10, 'f');
    Client stalled(socketPath);
    ASSERT_TRUE(stalled.send(request(filler) + request(kEngage, {true}, "stalled")));
    ASSERT_TRUE(waitUntil([&] {
        const auto calls = mac.calls();
        return std::any_of(calls.begin(), calls.end(), [](const json& c) { return c.value("fault", false); });
    }));

    // Another client's pf work goes ahead at once, not after the lock's budget.
    Client other(socketPath);
    const auto engaged = other.call(request(kEngage, {true}, "other"));
    ASSERT_TRUE(engaged);
    EXPECT_EQ((*engaged)["reply"], kOK) << engaged->dump().substr(0, 300);
    EXPECT_EQ(other.call(request(kEngage, {false})).value_or(json())["reply"], kOK);

    // The client that does not read is cut off: its first answer is there,
    // the second never arrives whole.
    EXPECT_TRUE(waitUntil([&] { return daemon->log().find("did not take its answers within 2 s") != std::string::npos; },
                          kShortPatience))
        << daemon->log().substr(0, 4000);
    const auto first = stalled.readLine(5s);
    ASSERT_TRUE(first);
    EXPECT_NE(first->find("unknown selector"), std::string::npos);
    EXPECT_FALSE(stalled.readLine(5s));
    EXPECT_TRUE(daemon->running());
}

// --- Time-outs ---------------------------------------------------------------

struct SilentClient {
    const char* name;
    std::string sent;
    std::string expectedError;
};

class ListenerTimeOut : public Listener, public ::testing::WithParamInterface<SilentClient> {};

TEST_P(ListenerTimeOut, ClosesTheConnectionWithItsReason)
{
    auto daemon = start({"--idle-timeout", "1", "--request-timeout", "1"});
    Client client(socketPath);
    // One whole request first: a served connection is timed like a new one.
    EXPECT_EQ(client.call(request("pingWithReply:")).value_or(json())["reply"], json::array({"ORVEN Helper 2.10.0"}));
    ASSERT_TRUE(client.send(GetParam().sent));
    const auto farewell = client.readLine(kShortPatience);
    ASSERT_TRUE(farewell);
    EXPECT_EQ(json::parse(*farewell, nullptr, false).value("error", ""), GetParam().expectedError);
    const auto end = client.read(kShortPatience);
    EXPECT_FALSE(end.text);
    EXPECT_EQ(end.error, "the daemon closed the connection without an answer");
}

INSTANTIATE_TEST_SUITE_P(Cases, ListenerTimeOut,
                         ::testing::Values(SilentClient{"Idle", "", "closed after 1 s without a request"},
                                           SilentClient{"HalfARequest", "{\"id\":2,\"selector\":\"ping",
                                                        "request not completed within 1 s"}),
                         [](const auto& info) { return std::string(info.param.name); });

// --- Connection shares -------------------------------------------------------

TEST_F(Listener, OneUserHoldingConnectionsLocksOutNeitherRootNorOtherUsers)
{
    if (::geteuid() != 0) GTEST_SKIP() << "clients of other users need root to be made";
    auto daemon = start({}, {501, 502});
    const HeldConnections held(501, socketPath, 64);
    ASSERT_TRUE(held.connected());

    const auto more = callAs(501, socketPath, request("pingWithReply:"));
    ASSERT_TRUE(more);
    EXPECT_EQ(more->value("error", ""), "too many connections from uid 501");
    EXPECT_EQ(callAs(502, socketPath, request("pingWithReply:")).value_or(json())["reply"],
              json::array({"ORVEN Helper 2.10.0"}));
    Client root(socketPath);
    EXPECT_EQ(root.call(request(kEngage, {true})).value_or(json())["reply"], kOK);
    EXPECT_EQ(root.call(request(kEngage, {false})).value_or(json())["reply"], kOK);
}

TEST_F(Listener, ManyUsersTogetherLeaveRootItsReserve)
{
    if (::geteuid() != 0) GTEST_SKIP() << "clients of other users need root to be made";
    auto daemon = start({"--max-connections", "8", "--connections-per-uid", "3", "--root-reserve", "2"},
                        {501, 502, 503});
    const HeldConnections first(501, socketPath, 3);
    const HeldConnections second(502, socketPath, 3);
    ASSERT_TRUE(first.connected() && second.connected());

    // Six slots are for users; the last two only root gets.
    const auto refused = callAs(503, socketPath, request("pingWithReply:"));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->value("error", ""), "too many connections");
    Client root(socketPath);
    Client rootAgain(socketPath);
    EXPECT_EQ(root.call(request(kEngage, {true})).value_or(json())["reply"], kOK);
    EXPECT_EQ(rootAgain.call(request(kEngage, {false})).value_or(json())["reply"], kOK);
}

// --- Memory ------------------------------------------------------------------

TEST_F(Listener, UnfinishedRequestsShareOneBoundedBudget)
{
    // Each client may hold 64 KiB without asking; two unfinished 1 MiB
    // requests take the whole 2 MiB budget, so one of three is turned away.
    auto daemon = start({"--request-budget", std::to_string(2 << 20), "--request-timeout", "3600"});
    const std::string head = R"({"id":1,"selector":"pingWithReply:","arguments":[")";
    const std::string unfinished = head + std::string((1 << 20) - head.size() - 8, 'x');
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<Client>(socketPath));
        clients.back()->send(unfinished);
    }
    std::vector<std::optional<std::string>> answers(clients.size());
    ASSERT_TRUE(waitUntil(
        [&] {
            for (std::size_t i = 0; i < clients.size(); ++i)
                if (!answers[i]) answers[i] = clients[i]->readLine(0ms);
            return std::any_of(answers.begin(), answers.end(), [](const auto& a) { return a.has_value(); });
        },
        kShortPatience))
        << daemon->log();
    const auto refused = std::count_if(answers.begin(), answers.end(), [](const auto& a) { return a.has_value(); });
    EXPECT_EQ(refused, 1);
    for (std::size_t i = 0; i < clients.size(); ++i) {
        if (answers[i]) {
            EXPECT_EQ(json::parse(*answers[i], nullptr, false).value("error", ""),
                      "the daemon holds too many unfinished requests; try again later");
            continue;
        }
        // The others finish their requests and are answered.
        ASSERT_TRUE(clients[i]->send("\"]}\n"));
        const auto answer = clients[i]->readLine();
        ASSERT_TRUE(answer);
        EXPECT_EQ(json::parse(*answer, nullptr, false).value("error", ""),
                  "Invalid arguments for pingWithReply: — expected ()");
    }
}

// --- Refusals are counted, not logged one by one -----------------------------

TEST_F(Listener, AFloodOfRefusedConnectionsIsSummarised)
{
    if (::geteuid() != 0) GTEST_SKIP() << "clients of other users need root to be made";
    auto daemon = start({"--refusal-log-interval", "1"}, {501});
    constexpr int kRefused = 200;
    // One child connects again and again as a user that may not.
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(20) != 0 || ::setuid(503) != 0) ::_exit(2);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
        for (int i = 0; i < kRefused; ++i) {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) ::_exit(3);
            char byte;
            while (::read(fd, &byte, 1) == 1) {
            }
            ::close(fd);
        }
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    // Every refusal is accounted for: in full, or in a summary's count.
    const std::regex summary(R"(Refused (\d+) more connections in the last 1 s)");
    std::size_t lines = 0;
    std::size_t accounted = 0;
    EXPECT_TRUE(waitUntil(
        [&] {
            const auto log = daemon->log();
            const std::size_t full = count(log, "Refused a connection from uid 503 — not an allowed caller");
            std::size_t summarised = 0;
            std::size_t summaries = 0;
            for (std::sregex_iterator it(log.begin(), log.end(), summary), end; it != end; ++it, ++summaries)
                summarised += std::stoul((*it)[1]);
            lines = full + summaries;
            accounted = full + summarised;
            return accounted >= kRefused;
        },
        kShortPatience))
        << accounted;
    EXPECT_EQ(accounted, static_cast<std::size_t>(kRefused));
    EXPECT_LT(lines, 20u) << "refusals were logged one by one";
}

// --- The log tells the daemon's words from a client's ------------------------

TEST_F(Listener, ControlCharactersInAClientsArgumentCannotForgeOrCutALogLine)
{
    auto daemon = start();
    const std::string forged = "Hard Kill DISENGAGED and VERIFIED";
    const std::string interface = "en0\n" + forged + std::string("\0", 1) + "tail\u2028\x7f";
    Client client(socketPath);
    const auto answer = client.call(request(
        "setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply:",
        {true, interface, "192.168.1.1", "192.168.1.0/24", json::array(), "", json::array(), json::array()}));
    ASSERT_TRUE(answer);
    ASSERT_EQ((*answer)["reply"][0], false) << *answer;
    const auto log = daemon->log();
    EXPECT_EQ(log.find("\n" + forged), std::string::npos) << "a line of the log begins with the client's text";
    EXPECT_NE(log.find("en0\\n" + forged + "\\u{0}tail\\u{2028}\\u{7f}"), std::string::npos) << log;
}

// --- Requests mean one thing -------------------------------------------------

struct RepeatedKey {
    const char* name;
    std::string line;
    std::string key;
};

class ListenerRepeatedKey : public Listener, public ::testing::WithParamInterface<RepeatedKey> {};

TEST_P(ListenerRepeatedKey, IsRefusedAndRunsNothing)
{
    auto daemon = start();
    mac.clearCalls();
    Client client(socketPath);
    const auto answer = client.call(GetParam().line + "\n");
    ASSERT_TRUE(answer && answer->is_object());
    EXPECT_FALSE(answer->contains("reply")) << *answer;
    EXPECT_EQ(answer->value("error", ""),
              "malformed request: the key \"" + GetParam().key + "\" appears more than once in one object");
    EXPECT_TRUE(mac.calls().empty()) << mac.calls().front().dump();
    EXPECT_FALSE(mac.fileExists(paths::hardKillMarker));
    // The same parse as the socket's, without the process.
    EXPECT_TRUE(std::holds_alternative<json>(MethodDispatch::parseRequest(GetParam().line)));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ListenerRepeatedKey,
    ::testing::Values(
        RepeatedKey{"Selector",
                    R"({"id":1,"selector":"readHardKillStatusWithReply:","selector":"setHardKillWithEngaged:reply:","arguments":[true]})",
                    "selector"},
        RepeatedKey{"Arguments",
                    R"({"id":1,"selector":"setHardKillWithEngaged:reply:","arguments":[false],"arguments":[true]})",
                    "arguments"},
        RepeatedKey{"Id", R"({"id":1,"id":2,"selector":"setHardKillWithEngaged:reply:","arguments":[true]})", "id"},
        RepeatedKey{"InsideTheId",
                    R"({"id":{"n":1,"n":2},"selector":"setHardKillWithEngaged:reply:","arguments":[true]})", "n"},
        RepeatedKey{"InsideAnArrayInsideTheId",
                    R"({"id":[{"a":1},{"b":[{"c":1,"c":1}]}],"selector":"setHardKillWithEngaged:reply:","arguments":[true]})",
                    "c"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ListenerParse, EqualKeysInSeparateObjectsAreNotRepeats)
{
    const auto parsed = MethodDispatch::parseRequest(
        R"({"id":[{"a":1},{"a":2}],"selector":"pingWithReply:","arguments":[]})");
    ASSERT_TRUE(std::holds_alternative<MethodDispatch::Request>(parsed)) << std::get<json>(parsed).dump();
}

// --- One daemon per Mac and per socket ----------------------------------------

TEST_F(Listener, ASecondDaemonRefusesToStartAndTheFirstKeepsServing)
{
    auto first = start();
    struct stat before{};
    ASSERT_EQ(::stat(socketPath.c_str(), &before), 0);
    const SimulatedMac otherMac;
    const std::string otherSocket = sockets.path() + "/other.sock";

    struct Second {
        std::string root;
        std::string socket;
        std::string reason;
    };
    for (const auto& second : {Second{mac.root(), socketPath, "holds " + mac.root()},
                               Second{mac.root(), otherSocket, "holds " + mac.root()},
                               Second{otherMac.root(), socketPath, "holds " + socketPath + ".lock"}}) {
        const std::string log = sockets.path() + "/second.log";
        ::unlink(log.c_str());
        DaemonProcess daemon(second.root, second.socket, log);
        const auto status = daemon.waitForExit(kShortPatience);
        ASSERT_TRUE(status) << second.root << " " << second.socket;
        EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1) << *status;
        EXPECT_NE(daemon.log().find("orven-helper: refusing to start: another daemon " + second.reason),
                  std::string::npos)
            << daemon.log();
    }

    struct stat after{};
    ASSERT_EQ(::stat(socketPath.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "the socket was replaced";
    Client client(socketPath);
    EXPECT_EQ(client.call(request("pingWithReply:")).value_or(json())["reply"], json::array({"ORVEN Helper 2.10.0"}));

    // Once the first is gone, its socket and locks are no obstacle.
    ::kill(first->pid(), SIGKILL);
    first->wait();
    auto next = start();
    EXPECT_TRUE(next->running());
}

TEST_F(Listener, ARelativeRootIsRefusedAtStart)
{
    auto daemon = launch({}, {}, "relative/mac");
    const auto status = daemon->waitForExit(kShortPatience);
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 64) << *status;
    EXPECT_NE(daemon->log().find("orven-helper: --root must be an absolute path, not relative/mac"), std::string::npos)
        << daemon->log();
}

// --- The limits' own rules ---------------------------------------------------

TEST(ConnectionSlots, ShareOutBetweenUsersAndKeepRootsReserve)
{
    ConnectionSlots slots({.total = 5, .perUID = 2, .rootReserve = 2});
    struct Step {
        std::uint32_t uid;
        bool take;
        std::optional<std::string> refusal;
    };
    const std::vector<Step> steps{
        {501, true, std::nullopt},
        {501, true, std::nullopt},
        {501, true, "too many connections from uid 501"},
        {502, true, std::nullopt},
        {503, true, "too many connections"},  // the last two are root's
        {0, true, std::nullopt},
        {0, true, std::nullopt},
        {0, true, "too many connections"},
        {501, false, std::nullopt},
        {503, true, std::nullopt},
        {0, false, std::nullopt},
        {504, true, "too many connections"},  // a slot root frees stays root's
    };
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (steps[i].take) EXPECT_EQ(slots.take(steps[i].uid), steps[i].refusal) << "step " << i;
        else slots.give(steps[i].uid);
    }
    EXPECT_EQ(slots.inUse(), 4u);
}

TEST(RefusalTally, OneFullLineAndOneSummaryPerInterval)
{
    using Clock = RefusalTally::Clock;
    RefusalTally tally(10s);
    const Clock::time_point t0{};
    EXPECT_TRUE(tally.refused(t0));
    EXPECT_FALSE(tally.nextSummary());
    EXPECT_FALSE(tally.refused(t0 + 1s));
    EXPECT_FALSE(tally.refused(t0 + 2s));
    EXPECT_EQ(tally.nextSummary(), t0 + 10s);
    EXPECT_FALSE(tally.due(t0 + 9s));
    // Past the interval, a refusal is still counted while a summary is owed.
    EXPECT_FALSE(tally.refused(t0 + 11s));
    EXPECT_EQ(tally.due(t0 + 11s), 3u);
    EXPECT_FALSE(tally.due(t0 + 30s));
    EXPECT_FALSE(tally.refused(t0 + 12s));
    EXPECT_EQ(tally.due(t0 + 21s), 1u);
    // A quiet interval later, the next refusal is shown in full again.
    EXPECT_TRUE(tally.refused(t0 + 40s));
}

TEST(RequestBudget, NeverHandsOutMoreThanItHas)
{
    RequestBudget budget(100);
    EXPECT_TRUE(budget.reserve(60));
    EXPECT_FALSE(budget.reserve(41));
    EXPECT_TRUE(budget.reserve(40));
    EXPECT_FALSE(budget.reserve(1));
    budget.release(60);
    EXPECT_TRUE(budget.reserve(60));
    EXPECT_EQ(budget.reserved(), 100u);
}

} // namespace
} // namespace orven
