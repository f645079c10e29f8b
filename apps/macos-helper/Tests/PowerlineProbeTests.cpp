// The probe's listening and filing over a scripted link layer with a clock
// that moves only when the probe reads, so no test waits for real time; the
// record walk and the device targets as pure functions.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <future>
#include <mutex>
#include <thread>

#include "ForwardingHost.h"
#include "HelperService.h"
#include "Linux/SimulatedMacHost.h"
#include "PowerlineProbe.h"

namespace orven {
namespace {

namespace hp = HomePlugAV;
using Bytes = std::vector<std::uint8_t>;

const hp::MACAddress kOwn{0x02, 0x00, 0x5E, 0x10, 0x00, 0x01};
const std::string kOwnText = "02:00:5e:10:00:01";

// --- The record walk ---------------------------------------------------------

Bytes record(const Bytes& frame, std::uint16_t headerLength = 18, std::optional<std::uint32_t> captured = {})
{
    Bytes out(headerLength, 0);
    const std::uint32_t length = captured.value_or(static_cast<std::uint32_t>(frame.size()));
    if (headerLength >= 20) {
        std::memcpy(out.data() + 8, &length, 4);
        std::memcpy(out.data() + 12, &length, 4);
        std::memcpy(out.data() + 16, &headerLength, 2);
    }
    out.insert(out.end(), frame.begin(), frame.end());
    while (out.size() % 4 != 0) out.push_back(0xCC);
    return out;
}

Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

TEST(PowerlineRecords, WalkStopsAtShortEmptyOrCutRecords)
{
    const Bytes a(61, 0xA1), b(60, 0xB2), c(64, 0xC3);
    const auto three = join({record(a, 20), record(b, 20), record(c, 20)});
    const struct {
        const char* label;
        Bytes buffer;
        std::size_t length;
        std::vector<Bytes> frames;
    } cases[] = {
        {"three whole records, the first padded to a word", three, three.size(), {a, b, c}},
        {"the last cut short", three, three.size() - 5, {a, b}},
        {"a longer header is skipped", join({record(a, 24), record(b, 20)}), 0, {a, b}},
        {"a header length of 0 ends the walk", join({record(a, 20), Bytes(24, 0), record(b, 20)}), 0, {a}},
        {"a zero-length capture is an empty frame", join({record({}, 20), record(b, 20)}), 0, {{}, b}},
        {"fewer than 20 bytes left", join({record(a, 20), Bytes(19, 0x14)}), 0, {a}},
        {"a capture claiming more than the buffer", record(a, 20, 0xFFFFFFF0u), 0, {}},
        {"a header length past the end", [&] {
             auto r = record(a, 20);
             r[16] = 0xF0;
             r[17] = 0xFF;
             return r;
         }(), 0, {}},
        {"nothing read", three, 0, {}},
    };
    for (const auto& c : cases) {
        const std::size_t length = c.length == 0 && std::string(c.label) != "nothing read" ? c.buffer.size() : c.length;
        EXPECT_EQ(PowerlineProbe::records(c.buffer, length), c.frames) << c.label;
    }
    // A length beyond the buffer is held to the buffer.
    EXPECT_EQ(PowerlineProbe::records(three, three.size() + 100).size(), 3u);
}

// --- Device targets ----------------------------------------------------------

std::string stationText(int n)
{
    char text[18];
    std::snprintf(text, sizeof text, "00:b0:52:00:00:%02x", n);
    return text;
}

TEST(PowerlineTargets, LocalManagementFirstThenTheSevenLowestStations)
{
    PowerlineTopologyReading reading;
    // Eleven distinct stations, spread over answers and out of order, one
    // named twice, and a text that does not parse sorted among them.
    hp::DiscoverListConfirm first{stationText(0x30), {}};
    for (int n : {0x29, 0x21, 0x25, 0x23}) first.stations.push_back({stationText(n), n, true, 1});
    hp::DiscoverListConfirm second{stationText(0x27), {{stationText(0x21), 1, true, 1}, {"00:b0:52:00:00:2", 2, true, 1}}};
    reading.discoverLists = {first, second};
    reading.networkInfo = hp::NetworkInfoConfirm{stationText(0x22), 1, {}, {}};
    for (int n : {0x24, 0x26, 0x28, 0x2A}) reading.networkInfo->stations.push_back({stationText(n), n, "", 1, 1});
    ASSERT_EQ(reading.stationMACs().size(), 12u);  // eleven stations and the text that is not one

    const auto targets = PowerlineProbe::deviceTargets(reading);
    std::vector<std::string> texts;
    for (const auto& target : targets) texts.push_back(hp::macString(target));
    EXPECT_EQ(texts, (std::vector<std::string>{"00:b0:52:00:00:01", stationText(0x21), stationText(0x22),
                                               stationText(0x23), stationText(0x24), stationText(0x25),
                                               stationText(0x26), stationText(0x27)}));
    EXPECT_EQ(PowerlineProbe::deviceTargets(PowerlineTopologyReading{}).size(), 1u);
}

// --- A scripted link layer ---------------------------------------------------

// Answers read by read. Entries marked `afterDescribe` come only once the
// second batch went out. An empty read moves the clock by the read time-out.
class ScriptedLink final : public ForwardingHost {
public:
    struct Read {
        std::vector<Bytes> frames;
        int error = 0;
        bool afterDescribe = false;
    };

    explicit ScriptedLink(Host& inner) : ForwardingHost(inner) {}

    std::deque<Read> script;
    std::vector<Bytes> written;
    std::optional<hp::MACAddress> address = kOwn;
    std::string openError;
    int failWritesFrom = -1;  // the index of the first refused write
    int reads = 0;

    SteadyClock::time_point now() const override { return SteadyClock::time_point{} + elapsed_; }
    std::optional<std::array<std::uint8_t, 6>> linkAddress(std::string_view) override { return address; }
    LinkChannelOpening openLinkChannel(std::string_view) override
    {
        if (!openError.empty()) return {nullptr, openError};
        return {std::make_unique<Channel>(*this), {}};
    }

private:
    class Channel final : public LinkChannel {
    public:
        explicit Channel(ScriptedLink& link) : link_(link) {}
        Transfer write(std::span<const std::uint8_t> frame) override
        {
            const int index = static_cast<int>(link_.written.size());
            link_.written.emplace_back(frame.begin(), frame.end());
            if (link_.failWritesFrom >= 0 && index >= link_.failWritesFrom) return {-1, ENOBUFS};
            return {static_cast<long>(frame.size()), 0};
        }
        Transfer read(std::vector<Bytes>& frames, std::chrono::milliseconds wait) override
        {
            EXPECT_GE(wait.count(), 1);
            ++link_.reads;
            auto& script = link_.script;
            const bool described = link_.written.size() > 3;
            // What the first period did not read is gone by the second.
            while (described && !script.empty() && !script.front().afterDescribe) script.pop_front();
            if (!script.empty() && script.front().afterDescribe == described) {
                auto next = std::move(script.front());
                script.pop_front();
                link_.elapsed_ += std::chrono::milliseconds(1);
                if (next.error != 0) return {-1, next.error};
                long total = 0;
                for (auto& frame : next.frames) {
                    total += static_cast<long>(frame.size());
                    frames.push_back(std::move(frame));
                }
                return {total, 0};
            }
            link_.elapsed_ += std::min(wait, std::chrono::milliseconds(100));
            return {0, 0};
        }

    private:
        ScriptedLink& link_;
    };

    std::chrono::milliseconds elapsed_{0};
};

Bytes header(const hp::MACAddress& to, std::uint8_t last, std::uint8_t mmv, std::uint16_t type)
{
    Bytes out(to.begin(), to.end());
    out.insert(out.end(), {0x00, 0xB0, 0x52, 0x00, 0x00, last, 0x88, 0xE1, mmv, static_cast<std::uint8_t>(type & 0xFF),
                           static_cast<std::uint8_t>(type >> 8)});
    if (mmv != 0) out.insert(out.end(), {0x00, 0x00});
    return out;
}

Bytes padded(Bytes frame)
{
    if (frame.size() < 60) frame.resize(60, 0);
    return frame;
}

// A discover list from adapter `last` naming stations `stations`.
Bytes discoverAnswer(std::uint8_t last, std::initializer_list<std::uint8_t> stations, const hp::MACAddress& to = kOwn)
{
    auto frame = header(to, last, 1, 0x0015);
    frame.push_back(static_cast<std::uint8_t>(stations.size()));
    for (const auto station : stations)
        frame.insert(frame.end(), {0x00, 0xB0, 0x52, 0x00, 0x00, station, station, 0x01, 0x01, 0, 0, 0});
    return padded(frame);
}

// A network information answer with one network and no stations.
Bytes networkAnswer(std::uint8_t last, std::uint8_t mmv)
{
    auto frame = header(kOwn, last, mmv, 0xA039);
    frame.insert(frame.end(), {0x00, 0xB0, 0x52});
    if (mmv != 0) frame.insert(frame.end(), 5, 0x00);
    frame.push_back(1);
    frame.insert(frame.end(), {1, 2, 3, 4, 5, 6, 7});
    if (mmv != 0) frame.insert(frame.end(), 2, 0x00);
    frame.insert(frame.end(), {0x01, 0x02});
    if (mmv != 0) frame.insert(frame.end(), 4, 0x00);
    frame.insert(frame.end(), {0x00, 0x00, 0xB0, 0x52, 0x00, 0x00, last, 0x02});
    if (mmv != 0) frame.insert(frame.end(), 3, 0x00);
    frame.push_back(0);
    return padded(frame);
}

Bytes versionAnswer(std::uint8_t last, const std::string& version)
{
    auto frame = header(kOwn, last, 0, 0xA001);
    frame.insert(frame.end(), {0x00, 0xB0, 0x52, 0x00, 0x20, static_cast<std::uint8_t>(version.size())});
    frame.insert(frame.end(), version.begin(), version.end());
    return padded(frame);
}

struct ProbeRun {
    PowerlineProbe::Outcome outcome;
    std::vector<std::string> log;
};

class ScriptedProbe : public ::testing::Test {
protected:
    ProbeRun run(const std::string& interface = "en7")
    {
        sink.clear();
        const Logger log(sink, "PowerlineProbe");
        auto outcome = PowerlineProbe::probe(link, log, interface, 1000);
        return {std::move(outcome), sink.messages()};
    }
    static const PowerlineTopologyReading& reading(const ProbeRun& run)
    {
        return std::get<PowerlineTopologyReading>(run.outcome);
    }

    RecordingLogSink sink;
    SimulatedMacHost inner{"/nonexistent", sink};
    ScriptedLink link{inner};
};

TEST_F(ScriptedProbe, FirstAnswersWinAndNetworkInformationPrefersVersionOne)
{
    link.script = {
        {{discoverAnswer(0x02, {0x03}), networkAnswer(0x02, 0)}},
        // Not ours: to another host, to everyone, too short; then our own
        // request coming back.
        {{discoverAnswer(0x09, {}, hp::MACAddress{0x02, 0, 0, 0, 0, 0x99}), discoverAnswer(0x0A, {}, hp::broadcastMAC),
          Bytes(13, 0x02), hp::discoverListRequest(kOwn)}},
        {{discoverAnswer(0x02, {0x04, 0x05}), networkAnswer(0x02, 1), discoverAnswer(0x01, {0x02})}},
        {{networkAnswer(0x03, 1), versionAnswer(0x02, "too early")}},
        {{versionAnswer(0x02, "MAC-A-1"), versionAnswer(0x03, "MAC-B-2")}, 0, true},
        {{versionAnswer(0x02, "MAC-A-3"), discoverAnswer(0x07, {})}, 0, true},
    };
    const auto result = run();
    ASSERT_TRUE(std::holds_alternative<PowerlineTopologyReading>(result.outcome));
    const auto& r = reading(result);
    EXPECT_EQ(r.ownMAC, kOwnText);
    EXPECT_EQ(r.interface, "en7");
    ASSERT_EQ(r.discoverLists.size(), 2u);
    EXPECT_EQ(r.discoverLists[0].source, "00:b0:52:00:00:01");  // sorted by source
    EXPECT_EQ(r.discoverLists[1].source, "00:b0:52:00:00:02");
    EXPECT_EQ(r.discoverLists[1].stations.size(), 1u);  // the first answer, not the second
    ASSERT_TRUE(r.networkInfo);
    EXPECT_EQ(r.networkInfo->mmv, 1);
    EXPECT_EQ(r.networkInfo->source, "00:b0:52:00:00:02");  // the first MMV 1 answer
    ASSERT_TRUE(r.deviceInfo);
    EXPECT_EQ(r.deviceInfo->size(), 2u);
    EXPECT_EQ(r.deviceInfo->at("00:b0:52:00:00:02").softwareVersion->version, "MAC-A-3");  // the last answer
    EXPECT_EQ(r.deviceInfo->at("00:b0:52:00:00:03").softwareVersion->version, "MAC-B-2");
    EXPECT_EQ(r.listenedMillis, 1600);

    // Three requests first, then three for each of the four targets: the
    // local management address and the stations 01, 02 and 03 (04 and 05
    // were only in the answer that came second).
    ASSERT_EQ(link.written.size(), 3u + 3u * 4u);
    EXPECT_EQ(link.written[0], hp::discoverListRequest(kOwn));
    EXPECT_EQ(link.written[1], hp::networkInfoRequest(kOwn, hp::localManagementMAC, 1));
    EXPECT_EQ(link.written[2], hp::networkInfoRequest(kOwn, hp::localManagementMAC, 0));
    EXPECT_EQ(link.written[3], hp::softwareVersionRequest(kOwn, hp::localManagementMAC));
    EXPECT_EQ(link.written[4], hp::manufacturerStringRequest(kOwn, hp::localManagementMAC));
    EXPECT_EQ(link.written[5], hp::ethernetSettingsRequest(kOwn, hp::localManagementMAC));
    EXPECT_EQ(link.written[6], hp::softwareVersionRequest(kOwn, *hp::macBytes("00:b0:52:00:00:01")));
    EXPECT_EQ(link.written.back(), hp::ethernetSettingsRequest(kOwn, *hp::macBytes("00:b0:52:00:00:03")));
    EXPECT_EQ(result.log.back(),
              "powerline probe on en7: 2 discover answer(s), nw-info mmv1, 3 station(s), 2 device(s) described");
}

TEST_F(ScriptedProbe, AnMMVZeroAnswerAloneIsKept)
{
    link.script = {{{networkAnswer(0x02, 0)}}};
    const auto result = run();
    const auto& r = reading(result);
    ASSERT_TRUE(r.networkInfo);
    EXPECT_EQ(r.networkInfo->mmv, 0);
    EXPECT_FALSE(r.deviceInfo);  // no device answered the second batch
    EXPECT_EQ(r.listenedMillis, 1600);
    EXPECT_EQ(result.log.back(),
              "powerline probe on en7: 0 discover answer(s), nw-info mmv0, 1 station(s), 0 device(s) described");
}

TEST_F(ScriptedProbe, ASilentSegmentIsAnEmptyReadingWithoutTheSecondStage)
{
    const auto result = run();
    const auto& r = reading(result);
    EXPECT_TRUE(r.discoverLists.empty());
    EXPECT_FALSE(r.networkInfo);
    EXPECT_FALSE(r.deviceInfo);
    EXPECT_EQ(r.listenedMillis, 1000);
    EXPECT_EQ(link.written.size(), 3u);
    EXPECT_EQ(result.log, (std::vector<std::string>{
                              "powerline probe on en7: 0 discover answer(s), nw-info none, 0 station(s), 0 device(s) described"}));
}

TEST_F(ScriptedProbe, AReadErrorEndsTheListeningEarlyAndTheProbeGoesOn)
{
    link.script = {{{discoverAnswer(0x02, {})}}, {{}, EIO}, {{discoverAnswer(0x03, {})}}, {{}, EINTR, true},
                   {{versionAnswer(0x02, "v")}, 0, true}};
    const auto result = run();
    const auto& r = reading(result);
    EXPECT_EQ(r.discoverLists.size(), 1u);  // the answer after the error was not read
    ASSERT_TRUE(r.deviceInfo);
    EXPECT_EQ(r.deviceInfo->size(), 1u);
    EXPECT_EQ(result.log.front(), std::string("read: ") + std::strerror(EIO));
}

TEST_F(ScriptedProbe, FailuresCarryTheirMessages)
{
    link.address.reset();
    EXPECT_EQ(std::get<PowerlineProbe::ProbeFailure>(run().outcome).message, "no link-layer address for en7");
    link.address = kOwn;

    EXPECT_TRUE(std::holds_alternative<PowerlineTopologyReading>(run("abcdefghijklmno").outcome));
    EXPECT_EQ(std::get<PowerlineProbe::ProbeFailure>(run("abcdefghijklmnop").outcome).message,
              "interface name too long");

    link.openError = "no free /dev/bpf descriptor";
    EXPECT_EQ(std::get<PowerlineProbe::ProbeFailure>(run().outcome).message, "no free /dev/bpf descriptor");
    link.openError.clear();

    link.written.clear();
    link.failWritesFrom = 0;
    const auto refused = run();
    EXPECT_EQ(std::get<PowerlineProbe::ProbeFailure>(refused.outcome).message,
              std::string("write CC_DISCOVER_LIST.REQ: ") + std::strerror(ENOBUFS));
    EXPECT_EQ(refused.log.size(), 1u);  // the write's own line, no summary
}

TEST_F(ScriptedProbe, AWriteFailingAfterTheFirstIsOnlyLogged)
{
    link.failWritesFrom = 1;
    link.script = {{{discoverAnswer(0x02, {})}}};
    const auto result = run();
    ASSERT_TRUE(std::holds_alternative<PowerlineTopologyReading>(result.outcome));
    const std::string reason = std::strerror(ENOBUFS);
    EXPECT_EQ(result.log[0], "write VS_NW_INFO.REQ mmv1 failed: " + reason);
    EXPECT_EQ(result.log[1], "write VS_NW_INFO.REQ mmv0 failed: " + reason);
    // The second batch's first frame failed too: no device stage, no 600 ms.
    EXPECT_EQ(reading(result).listenedMillis, 1000);
    EXPECT_FALSE(reading(result).deviceInfo);
    EXPECT_EQ(result.log.back(),
              "powerline probe on en7: 1 discover answer(s), nw-info none, 1 station(s), 0 device(s) described");
}

// --- The XPC method ------------------------------------------------------------

struct DataAnswer {
    std::optional<Bytes> data;
    std::optional<std::string> error;
};

DataAnswer ask(HelperService& service, const std::string& name)
{
    auto answer = std::make_shared<std::promise<DataAnswer>>();
    auto count = std::make_shared<std::atomic<int>>(0);
    service.readPowerlineTopology(name, HelperService::PowerlineReply([answer, count](auto data, auto error) {
        if (count->fetch_add(1) == 0) answer->set_value({std::move(data), std::move(error)});
    }));
    auto result = answer->get_future().get();
    EXPECT_EQ(count->load(), 1);
    return result;
}

TEST_F(ScriptedProbe, TheMethodAnswersWithTheReadingsJSONOrTheFailure)
{
    DaemonContext context(link);
    HelperService service(context, 501);

    const auto refused = ask(service, "en0;rm");
    EXPECT_FALSE(refused.data);
    EXPECT_EQ(refused.error, "Invalid interface name.");
    EXPECT_EQ(link.reads, 0);

    link.script = {{{discoverAnswer(0x02, {})}}};
    const auto answered = ask(service, "en7");
    ASSERT_TRUE(answered.data);
    EXPECT_FALSE(answered.error);
    const auto decoded = PowerlineTopologyReading::decoded(*answered.data);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->discoverLists.size(), 1u);
    EXPECT_EQ(decoded->interface, "en7");

    link.address.reset();
    sink.clear();
    const auto failed = ask(service, "en7");
    EXPECT_FALSE(failed.data);
    EXPECT_EQ(failed.error, "no link-layer address for en7");
    EXPECT_TRUE(sink.contains("readPowerlineTopology(en7) failed: no link-layer address for en7"));
}

TEST_F(ScriptedProbe, AFullPoolIsARefusalAnsweredAtOnce)
{
    // Outlives the pool, whose last queued jobs run as it is destroyed.
    std::atomic<int> running{0};
    DaemonContext context(link);
    HelperService service(context, 501);
    // Occupy every worker and every queue place.
    std::promise<void> release;
    const auto released = release.get_future().share();
    int accepted = 0;
    const auto fill = [&] {
        while (context.backgroundWork.submit([released, &running] {
            ++running;
            released.wait();
        }))
            ++accepted;
    };
    fill();
    // Threads still starting take jobs off the queue: once every one runs
    // a job, nothing drains it any more, and it is topped up.
    while (running.load() < static_cast<int>(context.backgroundWork.threadCount())) std::this_thread::yield();
    fill();
    ASSERT_GT(accepted, 0);

    const auto refused = ask(service, "en7");
    release.set_value();
    EXPECT_FALSE(refused.data);
    EXPECT_EQ(refused.error,
              "The powerline probe was not started: too many requests are waiting. Try again shortly.");
    EXPECT_EQ(link.reads, 0);
}

} // namespace
} // namespace orven
