// The daemon killed after each tool call of an engage, a lift and a start,
// in turn, then started again: whatever it says afterwards is true. A
// status that says the cut stands has no packet getting through; pf holds no
// reference that no file records, and no file records one pf does not hold;
// LAN isolation is there exactly when the user last asked for it.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "HelperService.h"
#include "Support/DaemonProcess.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using nlohmann::json;
using testing::Client;
using testing::DaemonProcess;
using testing::request;
using testing::SimulatedMac;
using testing::TemporaryFolder;

enum class Step { engage, lift, start };

struct CrashCase {
    const char* name;
    Step step;
    bool isolation;
};

const json kIsolationOn = json::array({true, "en0", "192.168.1.1", "192.168.1.0/24", json::array({"192.168.1.53"}),
                                       "", json::array(), json::array()});

class KilledAfterEveryCall : public ::testing::TestWithParam<CrashCase> {
protected:
    KilledAfterEveryCall() { ::chmod(sockets.path().c_str(), 0755); }

    std::unique_ptr<DaemonProcess> start(const SimulatedMac& mac)
    {
        return std::make_unique<DaemonProcess>(mac.root(), socketPath, sockets.path() + "/daemon.log");
    }
    std::unique_ptr<DaemonProcess> startListening(const SimulatedMac& mac)
    {
        auto daemon = start(mac);
        EXPECT_TRUE(daemon->waitUntilListening()) << daemon->log();
        return daemon;
    }

    static json call(const std::string& socketPath, const std::string& selector, json arguments = json::array())
    {
        Client client(socketPath);
        const auto answer = client.call(request(selector, std::move(arguments)));
        return answer ? answer->value("reply", json()) : json();
    }

    // Sets the Mac up as the user left it before the step under test.
    void prepare(const SimulatedMac& mac)
    {
        auto daemon = startListening(mac);
        if (GetParam().isolation) {
            ASSERT_EQ(call(socketPath, kIsolationSelector, kIsolationOn), json::array({true, nullptr}));
        }
        if (GetParam().step != Step::engage) {
            ASSERT_EQ(call(socketPath, "setHardKillWithEngaged:reply:", {true}), json::array({true, nullptr}));
        }
    }

    // Runs the step with the daemon killed after its tool call `skip` + 1;
    // false once the step ran to its end without reaching that call.
    bool runStepKilledAfter(const SimulatedMac& mac, int skip)
    {
        std::unique_ptr<DaemonProcess> daemon;
        if (GetParam().step != Step::start) daemon = startListening(mac);
        mac.addFault({"--tool", "*", "--skip", std::to_string(skip), "--kill-caller"});
        if (GetParam().step == Step::start) {
            daemon = start(mac);
            (void)daemon->waitUntilListening();
        } else {
            Client client(socketPath);
            client.send(request("setHardKillWithEngaged:reply:", {GetParam().step == Step::engage}));
            (void)client.readLine();
        }
        // The rule is gone once it has answered.
        const bool fired = mac.macsim("fault", {"list"}).out.empty();
        mac.clearFaults();
        if (fired) {
            EXPECT_TRUE(daemon->waitForExit().has_value()) << "killed after call " << skip + 1;
        }
        return fired;
    }

    // The user's last wish for the blackout, whatever the killed step did:
    // either outcome is allowed, as long as what is said is true.
    void expectTheTruth(const SimulatedMac& mac, int skip)
    {
        SCOPED_TRACE("killed after call " + std::to_string(skip + 1));
        auto daemon = startListening(mac);
        const auto status = call(socketPath, "readHardKillStatusWithReply:");
        ASSERT_TRUE(status.is_array() && status.size() == 3) << status.dump() << daemon->log();
        const bool cutSaid = status[0] == true;
        if (cutSaid) {
            EXPECT_TRUE(mac.leakTestPasses()) << "status says the cut stands, but traffic passes\n" << daemon->log();
        }

        const auto held = references(mac);
        const auto recorded = recordedTokens(mac);
        for (const auto& token : held)
            EXPECT_NE(std::find(recorded.begin(), recorded.end(), token), recorded.end())
                << "pf holds reference " << token << " that no file records\n" << daemon->log();
        for (const auto& token : recorded)
            EXPECT_NE(std::find(held.begin(), held.end(), token), held.end())
                << "a file records reference " << token << " that pf does not hold\n" << daemon->log();

        const auto record = mac.readFile(paths::mainRulesetRecord);
        const auto shape = record ? json::parse(*record, nullptr, false).value("shape", "") : std::string();
        if (GetParam().isolation) {
            EXPECT_EQ(shape, cutSaid ? "isolationSuspended" : "isolation") << daemon->log();
            EXPECT_TRUE(record && recordMatchesLive(mac, *record)) << "the isolation recorded is not the one loaded\n"
                                                                   << daemon->log();
        } else {
            EXPECT_FALSE(record.has_value()) << *record;
        }
        // And the daemon can still do its job from here.
        EXPECT_EQ(call(socketPath, "setHardKillWithEngaged:reply:", {true}), json::array({true, nullptr}))
            << daemon->log();
        EXPECT_TRUE(mac.leakTestPasses());
        EXPECT_EQ(call(socketPath, "setHardKillWithEngaged:reply:", {false}), json::array({true, nullptr}))
            << daemon->log();
        EXPECT_TRUE(references(mac).empty());
    }

    static bool recordMatchesLive(const SimulatedMac& mac, const std::string& record)
    {
        const auto decoded = decodeMainRulesetRecord(record);
        return decoded && decoded->dump &&
               HardKillProof::normalisedDump(*decoded->dump) == HardKillProof::normalisedDump(mac.pfctl({"-sr"}).out);
    }
    static std::vector<std::string> references(const SimulatedMac& mac)
    {
        const auto listed = HardKillState::referencesFromListing(mac.pfctl({"-s", "References"}).out);
        std::vector<std::string> tokens;
        for (const auto& reference : listed.value_or(std::vector<HardKillState::PfReference>{}))
            tokens.push_back(reference.token);
        return tokens;
    }
    static std::vector<std::string> recordedTokens(const SimulatedMac& mac)
    {
        std::vector<std::string> tokens;
        for (const auto path : {paths::primaryToken, paths::emergencyToken})
            for (auto& token : HardKillState::tokensFromFile(mac.readFile(path).value_or("")))
                if (std::find(tokens.begin(), tokens.end(), token) == tokens.end()) tokens.push_back(token);
        return tokens;
    }

    static constexpr const char* kIsolationSelector =
        "setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply:";
    TemporaryFolder sockets;
    std::string socketPath = sockets.path() + "/helper.sock";
};

TEST_P(KilledAfterEveryCall, LeavesNothingUntrueAfterTheRestart)
{
    int killedRuns = 0;
    for (int skip = 0; skip < 200; ++skip) {
        SimulatedMac mac;
        prepare(mac);
        if (HasFatalFailure()) return;
        if (!runStepKilledAfter(mac, skip)) break;
        ++killedRuns;
        expectTheTruth(mac, skip);
        if (HasFailure()) return;  // one broken case says enough
    }
    EXPECT_GT(killedRuns, 3) << "the step ran no tools to be killed after";
    RecordProperty("killed_runs", killedRuns);
}

INSTANTIATE_TEST_SUITE_P(Steps, KilledAfterEveryCall,
                         ::testing::Values(CrashCase{"Engage", Step::engage, false},
                                           CrashCase{"EngageWithIsolation", Step::engage, true},
                                           CrashCase{"Lift", Step::lift, false},
                                           CrashCase{"LiftWithIsolation", Step::lift, true},
                                           CrashCase{"Start", Step::start, false},
                                           CrashCase{"StartWithIsolation", Step::start, true}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace orven
