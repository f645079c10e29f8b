// The reading's JSON: the app's contract, written with sorted keys and no
// absent optionals, read back as its exact inverse.

#include <gtest/gtest.h>

#include <unordered_set>

#include "PowerlineTopologyReading.h"

namespace orven {
namespace {

namespace hp = HomePlugAV;

std::optional<PowerlineTopologyReading> decode(const std::string& text)
{
    return PowerlineTopologyReading::decoded(std::vector<std::uint8_t>(text.begin(), text.end()));
}

PowerlineTopologyReading sample()
{
    PowerlineTopologyReading reading;
    reading.interface = "en7";
    reading.ownMAC = "02:00:5e:10:00:01";
    reading.listenedMillis = 1600;
    reading.discoverLists = {{"00:b0:52:00:00:02", {{"00:b0:52:00:00:03", 3, true, 1}}}};
    reading.networkInfo = hp::NetworkInfoConfirm{
        "00:b0:52:00:00:02", 1, {{"0102030405060a", 1, 2, 1, "00:b0:52:00:00:02", 2}},
        {{"00:b0:52:00:00:03", 3, "3c:97:0e:00:00:03", 1201, 987}, {"00:b0:52:00:00:04", 4, "3c:97:0e:00:00:04", 5, 6}}};
    PowerlineDeviceInfo device;
    device.softwareVersion = hp::SoftwareVersionConfirm{"00:b0:52:00:00:02", 32, "MAC-QCA7420-1.5.0.0026"};
    device.ethernetSettings = hp::EthernetSettingsConfirm{"00:b0:52:00:00:02", 2, 1, 0, 3};
    reading.deviceInfo = {{"00:b0:52:00:00:02", device}};
    return reading;
}

TEST(PowerlineTopologyReading, EncodesSortedCompactAndWithoutAbsentFields)
{
    const auto full = sample();
    EXPECT_EQ(*full.encodedJSON().json,
              R"({"deviceInfo":{"00:b0:52:00:00:02":{"ethernetSettings":{"duplexCode":1,"flowControl":3,"mdi":0,)"
              R"("source":"00:b0:52:00:00:02","speedCode":2},"softwareVersion":{"deviceID":32,)"
              R"("source":"00:b0:52:00:00:02","version":"MAC-QCA7420-1.5.0.0026"}}},"discoverLists":[{"source":)"
              R"("00:b0:52:00:00:02","stations":[{"mac":"00:b0:52:00:00:03","sameNetwork":true,"shortNetworkID":1,)"
              R"("tei":3}]}],"format":1,"interface":"en7","listenedMillis":1600,"networkInfo":{"mmv":1,"networks":)"
              R"([{"ccoMAC":"00:b0:52:00:00:02","ccoTEI":2,"networkID":"0102030405060a","role":1,"shortNetworkID":1,)"
              R"("tei":2}],"source":"00:b0:52:00:00:02","stations":[{"bridgedMAC":"3c:97:0e:00:00:03","mac":)"
              R"("00:b0:52:00:00:03","rxMbps":987,"tei":3,"txMbps":1201},{"bridgedMAC":"3c:97:0e:00:00:04","mac":)"
              R"("00:b0:52:00:00:04","rxMbps":6,"tei":4,"txMbps":5}]},"ownMAC":"02:00:5e:10:00:01"})");
    EXPECT_EQ(decode(*full.encodedJSON().json), full);

    PowerlineTopologyReading bare;
    bare.interface = "en0";
    bare.ownMAC = "aa:bb:cc:dd:ee:ff";
    bare.listenedMillis = 1000;
    const auto text = *bare.encodedJSON().json;
    EXPECT_EQ(text, R"({"discoverLists":[],"format":1,"interface":"en0","listenedMillis":1000,"ownMAC":"aa:bb:cc:dd:ee:ff"})");
    EXPECT_EQ(decode(text), bare);

    // Equal values hash alike; a changed field changes the value.
    auto changed = full;
    changed.networkInfo->stations[1].rxMbps = 7;
    EXPECT_NE(changed, full);
    const std::unordered_set<PowerlineTopologyReading> readings{full, sample(), changed, bare};
    EXPECT_EQ(readings.size(), 3u);
}

TEST(PowerlineTopologyReading, DecodingRefusesWhatTheEncoderNeverWrites)
{
    const std::string bare = R"("format":1,"interface":"en0","listenedMillis":1000,"ownMAC":"a")";
    const struct {
        const char* label;
        std::string text;
        bool decodes;
    } cases[] = {
        {"every required key", "{\"discoverLists\":[]," + bare + "}", true},
        {"keys in any order, white space", "{ \"ownMAC\":\"a\", \"discoverLists\":[], \"format\":1, \"interface\":\"en0\", "
                                           "\"listenedMillis\":1000 }", true},
        {"an unknown key is ignored", "{\"discoverLists\":[],\"extra\":null," + bare + "}", true},
        {"no discover lists", "{" + bare + "}", false},
        {"no format", R"({"discoverLists":[],"interface":"en0","listenedMillis":1000,"ownMAC":"a"})", false},
        {"a format that is text", R"({"discoverLists":[],"format":"1","interface":"en0","listenedMillis":1000,"ownMAC":"a"})", false},
        {"a format that is fractional", R"({"discoverLists":[],"format":1.5,"interface":"en0","listenedMillis":1000,"ownMAC":"a"})", false},
        {"a TEI beyond an integer", "{\"discoverLists\":[{\"source\":\"s\",\"stations\":[{\"mac\":\"m\",\"tei\":"
                                    "99999999999,\"sameNetwork\":true,\"shortNetworkID\":1}]}]," + bare + "}", false},
        {"a flag that is a number", "{\"discoverLists\":[{\"source\":\"s\",\"stations\":[{\"mac\":\"m\",\"tei\":1,"
                                    "\"sameNetwork\":1,\"shortNetworkID\":1}]}]," + bare + "}", false},
        {"null network information", "{\"discoverLists\":[],\"networkInfo\":null," + bare + "}", false},
        {"device information that is a list", "{\"deviceInfo\":[],\"discoverLists\":[]," + bare + "}", false},
        {"an empty device entry", "{\"deviceInfo\":{\"m\":{}},\"discoverLists\":[]," + bare + "}", true},
        {"a list at the top", "[]", false},
        {"not JSON", "{", false},
    };
    for (const auto& c : cases) {
        std::string error;
        const auto decoded = PowerlineTopologyReading::decoded(std::vector<std::uint8_t>(c.text.begin(), c.text.end()), &error);
        EXPECT_EQ(decoded.has_value(), c.decodes) << c.label;
        EXPECT_EQ(error.empty(), c.decodes) << c.label;
    }
}

TEST(PowerlineTopologyReading, StationMACsCollapseAcrossAnswers)
{
    auto reading = sample();
    reading.discoverLists.push_back({"00:b0:52:00:00:04", {{"00:b0:52:00:00:02", 2, true, 1}}});
    // Central coordinators and bridged hosts are not stations.
    reading.networkInfo->networks[0].ccoMAC = "00:b0:52:00:00:99";
    EXPECT_EQ(reading.stationMACs(),
              (std::vector<std::string>{"00:b0:52:00:00:02", "00:b0:52:00:00:03", "00:b0:52:00:00:04"}));
    EXPECT_TRUE(PowerlineTopologyReading{}.stationMACs().empty());
    EXPECT_TRUE(PowerlineDeviceInfo{}.isEmpty());
    EXPECT_FALSE(reading.deviceInfo->begin()->second.isEmpty());
}

} // namespace
} // namespace orven
