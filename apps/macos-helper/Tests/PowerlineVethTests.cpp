// The probe end to end on a real link layer: simulated adapters behind the
// far end of a veth pair in a private network namespace. Each probe costs
// its listening periods (1.6 s), so one probe serves many assertions.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <regex>
#include <thread>

#include <nlohmann/json.hpp>

#include "Linux/SimulatedMacHost.h"
#include "MethodDispatch.h"
#include "PowerlineProbe.h"
#include "Support/SimulatedMac.h"
#include "VethSegment.h"

namespace orven {
namespace {

using nlohmann::json;

#define ORVEN_NEED_SEGMENT(segment)                                                     \
    if ((segment).unavailable()) GTEST_SKIP() << *(segment).unavailable()

// Adapters of every kind of behaviour on one segment.
const json kCrowd = json::parse(R"({"adapters": [
  {"mac": "00:b0:52:00:00:a1", "local": true, "networkInfoVersions": [0],
   "discover": [{"mac": "00:b0:52:00:00:b2", "tei": 2, "sameNetwork": true, "shortNetworkID": 5},
                {"mac": "00:b0:52:00:00:c3", "tei": 3, "sameNetwork": false, "shortNetworkID": 5}],
   "networks": [{"networkID": "0123456789abcd", "shortNetworkID": 5, "tei": 1, "role": 2,
                 "ccoMAC": "00:b0:52:00:00:a1", "ccoTEI": 1,
                 "stations": [{"mac": "00:b0:52:00:00:b2", "tei": 2, "bridgedMAC": "3c:97:0e:00:00:b2",
                               "txMbps": 210, "rxMbps": 180}]}],
   "firmware": "MAC-QCA7420-1.5.0.0026-A-20230101-CS", "manufacturer": "ORVEN test adapter A",
   "ethernet": {"speedCode": 2, "duplexCode": 1, "mdi": 0, "flowControl": 0},
   "later": {"discover": [], "firmware": "MAC-QCA7420-1.5.0.0027-B-20240101-CS"},
   "faults": {"twice": ["discover", "swver"]}},
  {"mac": "00:b0:52:00:00:a2", "local": true, "networkInfoVersions": [1],
   "networks": [{"networkID": "0123456789abcd", "shortNetworkID": 5, "tei": 3, "role": 0,
                 "ccoMAC": "00:b0:52:00:00:a1", "ccoTEI": 1,
                 "stations": [{"mac": "00:b0:52:00:00:b2", "tei": 2, "bridgedMAC": "3c:97:0e:00:00:b2",
                               "txMbps": 1201, "rxMbps": 987},
                              {"mac": "00:b0:52:00:00:a1", "tei": 1, "bridgedMAC": "3c:97:0e:00:00:a1",
                               "txMbps": 1100, "rxMbps": 1050}]}],
   "faults": {"late": ["nwinfo"], "lateMillis": 300, "silent": ["discover", "swver", "mfg", "enet"]}},
  {"mac": "00:b0:52:00:00:b2",
   "discover": [{"mac": "00:b0:52:00:00:a1", "tei": 1, "sameNetwork": true, "shortNetworkID": 5}],
   "firmware": "MAC-QCA7500-2.10.0.0032-X", "manufacturer": "ORVEN test adapter B",
   "ethernet": {"speedCode": 1, "duplexCode": 0, "mdi": 1, "flowControl": 1},
   "faults": {"status": ["enet"]}},
  {"mac": "00:b0:52:00:00:c3", "firmware": "v3", "manufacturer": "C",
   "discover": [{"mac": "00:b0:52:00:00:d4", "tei": 4}],
   "faults": {"truncated": ["discover"], "foreign": ["swver"], "wrongPort": ["mfg"], "late": ["enet"]}},
  {"mac": "00:b0:52:00:00:d4", "firmware": "v4", "faults": {"silent": ["all"]}},
  {"mac": "00:b0:52:00:00:e5", "faults": {"late": ["discover"], "lateMillis": 1300}}
]})");

// What the crowd's reading must be, byte for byte ("IF" stands for the
// interface's name).
const std::string kCrowdReading =
    R"({"deviceInfo":{"00:b0:52:00:00:a1":{"ethernetSettings":{"duplexCode":1,"flowControl":0,"mdi":0,)"
    R"("source":"00:b0:52:00:00:a1","speedCode":2},"manufacturerString":{"source":"00:b0:52:00:00:a1",)"
    R"("text":"ORVEN test adapter A"},"softwareVersion":{"deviceID":32,"source":"00:b0:52:00:00:a1",)"
    R"("version":"MAC-QCA7420-1.5.0.0027-B-20240101-CS"}},"00:b0:52:00:00:b2":{"manufacturerString":)"
    R"({"source":"00:b0:52:00:00:b2","text":"ORVEN test adapter B"},"softwareVersion":{"deviceID":32,)"
    R"("source":"00:b0:52:00:00:b2","version":"MAC-QCA7500-2.10.0.0032-X"}}},)"
    R"("discoverLists":[{"source":"00:b0:52:00:00:a1","stations":[{"mac":"00:b0:52:00:00:b2",)"
    R"("sameNetwork":true,"shortNetworkID":5,"tei":2},{"mac":"00:b0:52:00:00:c3","sameNetwork":false,)"
    R"("shortNetworkID":5,"tei":3}]},{"source":"00:b0:52:00:00:b2","stations":[{"mac":"00:b0:52:00:00:a1",)"
    R"("sameNetwork":true,"shortNetworkID":5,"tei":1}]}],"format":1,"interface":"IF","listenedMillis":1600,)"
    R"("networkInfo":{"mmv":1,"networks":[{"ccoMAC":"00:b0:52:00:00:a1","ccoTEI":1,)"
    R"("networkID":"0123456789abcd","role":0,"shortNetworkID":5,"tei":3}],"source":"00:b0:52:00:00:a2",)"
    R"("stations":[{"bridgedMAC":"3c:97:0e:00:00:b2","mac":"00:b0:52:00:00:b2","rxMbps":987,"tei":2,)"
    R"("txMbps":1201},{"bridgedMAC":"3c:97:0e:00:00:a1","mac":"00:b0:52:00:00:a1","rxMbps":1050,"tei":1,)"
    R"("txMbps":1100}]},"ownMAC":"02:00:5e:10:00:01"})";

std::string withInterface(std::string text, const std::string& name)
{
    return std::regex_replace(text, std::regex(R"("interface":"IF")"), "\"interface\":\"" + name + "\"");
}

struct Probed {
    PowerlineProbe::Outcome outcome;
    std::vector<std::string> log;
};

Probed probeOn(const std::string& interface)
{
    RecordingLogSink sink;
    SimulatedMacHost host("/nonexistent", sink);
    const Logger log(sink, std::string(PowerlineProbe::logCategory));
    auto outcome = PowerlineProbe::probe(host, log, interface, 1000);
    return {std::move(outcome), sink.messages()};
}

TEST(PowerlineOnVeth, TheReadingIsWhatTheAdaptersSaidAndNothingElse)
{
    plcsim::VethSegment segment;
    ORVEN_NEED_SEGMENT(segment);
    ASSERT_EQ(segment.startAdapters(kCrowd), std::nullopt);

    const auto probed = probeOn(segment.hostInterface());
    ASSERT_TRUE(std::holds_alternative<PowerlineTopologyReading>(probed.outcome))
        << std::get<PowerlineProbe::ProbeFailure>(probed.outcome).message;
    const auto& reading = std::get<PowerlineTopologyReading>(probed.outcome);
    const auto encoded = reading.encodedJSON();
    ASSERT_TRUE(encoded.json) << encoded.error;
    // The first discover answer of A wins; the MMV 1 answer of A2 wins over
    // A's earlier MMV 0 one; A's later software version overwrites the
    // first; B's failed status, C's cut, foreign, misaddressed and late
    // answers, D's silence and E's late discovery leave nothing.
    EXPECT_EQ(*encoded.json, withInterface(kCrowdReading, segment.hostInterface()));
    EXPECT_EQ(probed.log.back(), "powerline probe on " + segment.hostInterface() +
                                     ": 2 discover answer(s), nw-info mmv1, 4 station(s), 2 device(s) described");

    const auto decoded = PowerlineTopologyReading::decoded(
        std::vector<std::uint8_t>(encoded.json->begin(), encoded.json->end()));
    EXPECT_EQ(decoded, reading);
}

TEST(PowerlineOnVeth, ASilentSegmentGivesAnEmptyReadingAfterTheFirstPeriod)
{
    plcsim::VethSegment segment;
    ORVEN_NEED_SEGMENT(segment);
    ASSERT_EQ(segment.startAdapters(json::parse(
                  R"({"adapters": [{"mac": "00:b0:52:00:00:d4", "local": true, "faults": {"silent": ["all"]}}]})")),
              std::nullopt);

    const auto probed = probeOn(segment.hostInterface());
    const auto& reading = std::get<PowerlineTopologyReading>(probed.outcome);
    EXPECT_EQ(*reading.encodedJSON().json,
              R"({"discoverLists":[],"format":1,"interface":")" + segment.hostInterface() +
                  R"(","listenedMillis":1000,"ownMAC":"02:00:5e:10:00:01"})");
    EXPECT_EQ(probed.log, std::vector<std::string>{"powerline probe on " + segment.hostInterface() +
                                                   ": 0 discover answer(s), nw-info none, 0 station(s), 0 device(s) "
                                                   "described"});

    // An interface that is not there has no hardware address.
    EXPECT_EQ(std::get<PowerlineProbe::ProbeFailure>(probeOn("nosuch0").outcome).message,
              "no link-layer address for nosuch0");
}

// The daemon process answers the app's method over its socket, as orvenctl
// calls it from a Linux machine with adapters on its Ethernet port.
TEST(PowerlineOnVeth, TheDaemonAnswersThroughOrvenctl)
{
    plcsim::VethSegment segment;
    ORVEN_NEED_SEGMENT(segment);
    ASSERT_EQ(segment.startAdapters(json::parse(R"({"adapters": [
        {"mac": "00:b0:52:00:00:a1", "local": true, "discover": [],
         "networks": [{"networkID": "00000000000001", "shortNetworkID": 1, "tei": 1, "role": 2,
                       "ccoMAC": "00:b0:52:00:00:a1", "ccoTEI": 1, "stations": []}],
         "firmware": "MAC-QCA7420-1.5.0.0026", "manufacturer": "Adapter", "ethernet": {"speedCode": 2,
         "duplexCode": 1}}]})")),
              std::nullopt);

    testing::SimulatedMac mac;
    const std::string socket = mac.root() + "/helper.sock";
    const pid_t daemon = ::fork();
    if (daemon == 0) {
        const int log = ::open("/dev/null", O_WRONLY);
        ::dup2(log, STDERR_FILENO);
        ::execl(ORVEN_HELPER_PATH, ORVEN_HELPER_PATH, "--root", mac.root().c_str(), "--socket", socket.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ASSERT_GT(daemon, 0);
    // Stopped however the test ends.
    const std::unique_ptr<const pid_t, void (*)(const pid_t*)> stopDaemon(&daemon, [](const pid_t* pid) {
        ::kill(*pid, SIGTERM);
        ::waitpid(*pid, nullptr, 0);
    });
    const auto call = [&](const std::string& name) {
        return BoundedProcess::run(ORVEN_ORVENCTL_PATH,
                                   {"--socket", socket, "readPowerlineTopologyWithInterfaceName:reply:", name},
                                   std::nullopt, 30.0, 1.0);
    };
    // The daemon listens once its start-up is done.
    auto answer = call("nosuch0");
    for (int tries = 0; answer.code == 2 && tries < 300; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        answer = call("nosuch0");
    }
    ASSERT_EQ(answer.code, 0) << answer.err;
    EXPECT_EQ(json::parse(answer.out).at("reply"), json::parse(R"([null, "no link-layer address for nosuch0"])"));

    answer = call(segment.hostInterface());
    ASSERT_EQ(answer.code, 0) << answer.out << answer.err;
    const auto line = json::parse(answer.out);
    const auto bytes = MethodDispatch::base64Decode(line.at("reply").at(0).get<std::string>());
    ASSERT_TRUE(bytes);
    EXPECT_TRUE(line.at("reply").at(1).is_null());
    EXPECT_EQ(std::string(bytes->begin(), bytes->end()),
              R"({"deviceInfo":{"00:b0:52:00:00:a1":{"ethernetSettings":{"duplexCode":1,"flowControl":0,"mdi":0,)"
              R"("source":"00:b0:52:00:00:a1","speedCode":2},"manufacturerString":{"source":"00:b0:52:00:00:a1",)"
              R"("text":"Adapter"},"softwareVersion":{"deviceID":32,"source":"00:b0:52:00:00:a1",)"
              R"("version":"MAC-QCA7420-1.5.0.0026"}}},"discoverLists":[{"source":"00:b0:52:00:00:a1",)"
              R"("stations":[]}],"format":1,"interface":")" +
                  segment.hostInterface() +
                  R"(","listenedMillis":1600,"networkInfo":{"mmv":1,"networks":[{"ccoMAC":"00:b0:52:00:00:a1",)"
                  R"("ccoTEI":1,"networkID":"00000000000001","role":2,"shortNetworkID":1,"tei":1}],)"
                  R"("source":"00:b0:52:00:00:a1","stations":[]},"ownMAC":"02:00:5e:10:00:01"})");
}

} // namespace
} // namespace orven
