// The HomePlug AV codec against frames built by hand, byte by byte, and
// frames shaped like what adapters answer.

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "HomePlugAV.h"

namespace orven {
namespace {

namespace hp = HomePlugAV;
using Bytes = std::vector<std::uint8_t>;

const hp::MACAddress kHost{0x02, 0x00, 0x00, 0x00, 0x00, 0x10};
const hp::MACAddress kAdapter{0x00, 0xB0, 0x52, 0xAA, 0xBB, 0x01};
const std::string kAdapterText = "00:b0:52:aa:bb:01";

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes mac(const hp::MACAddress& address) { return Bytes(address.begin(), address.end()); }

// To the host from the adapter: destination, source, EtherType, MMV, MMTYPE
// (and FMI for MMV 1).
Bytes answerHeader(std::uint8_t mmv, std::uint16_t type)
{
    auto out = concat({mac(kHost), mac(kAdapter), {0x88, 0xE1, mmv, static_cast<std::uint8_t>(type & 0xFF),
                                                    static_cast<std::uint8_t>(type >> 8)}});
    if (mmv != 0) out.insert(out.end(), {0x00, 0x00});
    return out;
}

Bytes padTo60(Bytes frame)
{
    if (frame.size() < 60) frame.resize(60, 0);
    return frame;
}

TEST(HomePlugAV, BuildersWriteEveryRequestByteForByte)
{
    const Bytes to = {0x00, 0xB0, 0x52, 0x00, 0x00, 0x01};
    const Bytes from = mac(kHost);
    const struct {
        const char* label;
        hp::Frame built;
        Bytes meaningful;
    } cases[] = {
        {"discover list", hp::discoverListRequest(kHost),
         concat({{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, from, {0x88, 0xE1, 0x01, 0x14, 0x00, 0x00, 0x00}})},
        {"network info mmv 0", hp::networkInfoRequest(kHost, hp::localManagementMAC, 0),
         concat({to, from, {0x88, 0xE1, 0x00, 0x38, 0xA0, 0x00, 0xB0, 0x52}})},
        {"network info mmv 1", hp::networkInfoRequest(kHost, hp::localManagementMAC, 1),
         concat({to, from, {0x88, 0xE1, 0x01, 0x38, 0xA0, 0x00, 0x00, 0x00, 0xB0, 0x52}})},
        {"network info mmv 2 keeps its byte", hp::networkInfoRequest(kHost, hp::localManagementMAC, 2),
         concat({to, from, {0x88, 0xE1, 0x02, 0x38, 0xA0, 0x00, 0x00, 0x00, 0xB0, 0x52}})},
        {"software version", hp::softwareVersionRequest(kHost, hp::localManagementMAC),
         concat({to, from, {0x88, 0xE1, 0x00, 0x00, 0xA0, 0x00, 0xB0, 0x52}})},
        {"manufacturer string", hp::manufacturerStringRequest(kHost, hp::localManagementMAC),
         concat({to, from, {0x88, 0xE1, 0x00, 0x54, 0xA0, 0x00, 0xB0, 0x52}})},
        {"ethernet settings", hp::ethernetSettingsRequest(kHost, hp::localManagementMAC),
         concat({to, from, {0x88, 0xE1, 0x00, 0x6C, 0xA0, 0x00, 0xB0, 0x52, 0x00}})},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.built.size(), 60u) << c.label;
        EXPECT_EQ(c.built, padTo60(c.meaningful)) << c.label;
    }
}

TEST(HomePlugAV, MACTextsParseAndPrint)
{
    const hp::MACAddress expected{0x00, 0xB0, 0x52, 0x00, 0x00, 0x01};
    const struct {
        const char* text;
        bool parses;
    } cases[] = {
        {"00-B0-52-00-00-01", true}, {"00:b0:52:00:00:01", true}, {"00:B0-52:00-00:01", true},
        {"00::b0:52:00:00:01", true},  // empty groups are dropped
        {"0:b0:52:00:00:01", false},   {"00:b0:52:00:00", false},  {"00:b0:52:00:00:0g", false},
        {"00:b0:52:00:00:01:02", false}, {"000:b0:52:00:00:01", false}, {"", false},
        {"00 b0 52 00 00 01", false},
    };
    for (const auto& c : cases) {
        const auto parsed = hp::macBytes(c.text);
        EXPECT_EQ(parsed.has_value(), c.parses) << c.text;
        if (c.parses && parsed) {
            EXPECT_EQ(*parsed, expected) << c.text;
        }
    }
    EXPECT_EQ(hp::macString(expected), "00:b0:52:00:00:01");
    EXPECT_EQ(hp::macString(Bytes{0xAB, 0xCD, 0xEF}), "ab:cd:ef");
    EXPECT_EQ(hp::macString(Bytes{}), "");
}

TEST(HomePlugAV, FramesThatAreNotConfirmationsParseToNothing)
{
    const auto discover = concat({answerHeader(1, 0x0015), {0x00}});
    const struct {
        const char* label;
        Bytes frame;
    } cases[] = {
        {"16 bytes", Bytes(discover.begin(), discover.begin() + 16)},
        {"EtherType 0x88E2", [&] {
             auto f = padTo60(discover);
             f[13] = 0xE2;
             return f;
         }()},
        {"17-byte MMV 0 frame of an unknown type", answerHeader(0, 0x1234)},
        {"17-byte MMV 1 discover list", Bytes(discover.begin(), discover.begin() + 17)},
        {"18-byte MMV 1 discover list", Bytes(discover.begin(), discover.begin() + 18)},
        {"a request echoed back", hp::networkInfoRequest(kHost, hp::localManagementMAC, 1)},
        {"a discover request", hp::discoverListRequest(kHost)},
        {"an indication", padTo60(concat({answerHeader(0, 0xA03A), {0x00, 0xB0, 0x52, 0x00}}))},
    };
    for (const auto& c : cases) EXPECT_FALSE(hp::parse(c.frame).has_value()) << c.label;
}

hp::Message parsed(const Bytes& frame)
{
    auto message = hp::parse(frame);
    EXPECT_TRUE(message.has_value());
    return message.value_or(hp::Message{});
}

TEST(HomePlugAV, DiscoverListsNeedEveryStationWhole)
{
    const Bytes stationA = {0x00, 0xB0, 0x52, 0x00, 0x00, 0x02, 0x05, 0x03, 0xF7, 0x11, 0x22, 0x33};
    const Bytes stationB = {0x00, 0xB0, 0x52, 0x00, 0x00, 0x03, 0x09, 0x00, 0x02, 0x00, 0x00, 0x00};
    const auto two = concat({answerHeader(1, 0x0015), {0x02}, stationA, stationB});

    const auto list = std::get<hp::DiscoverListConfirm>(parsed(padTo60(two)));
    EXPECT_EQ(list.source, kAdapterText);
    ASSERT_EQ(list.stations.size(), 2u);
    // The flag is bit 0 only; the short network identifier the low 4 bits.
    EXPECT_EQ(list.stations[0], (hp::DiscoveredStation{"00:b0:52:00:00:02", 5, true, 7}));
    EXPECT_EQ(list.stations[1], (hp::DiscoveredStation{"00:b0:52:00:00:03", 9, false, 2}));

    // The last station's three unread bytes may be missing.
    EXPECT_TRUE(hp::parse(Bytes(two.begin(), two.end() - 3)).has_value());
    // One and a half stations for two announced: nothing, not a list of one.
    EXPECT_FALSE(hp::parse(Bytes(two.begin(), two.end() - 6)).has_value());
    EXPECT_FALSE(hp::parse(Bytes(two.begin(), two.end() - 4)).has_value());
    // No count byte at all.
    EXPECT_FALSE(hp::parse(answerHeader(1, 0x0015)).has_value());

    const auto empty = std::get<hp::DiscoverListConfirm>(parsed(padTo60(concat({answerHeader(0, 0x0015), {0x00}}))));
    EXPECT_TRUE(empty.stations.empty());
}

// An MMV 0 network entry and station entry as an older adapter writes them.
Bytes networkV0(std::uint8_t stations)
{
    return concat({{0x1A, 0x2B, 0x3C, 0x4D, 0x5E, 0x6F, 0x70},  // network identifier
                   {0xF3, 0x02, 0xFD},                          // short NID 3, TEI 2, role 1
                   {0x00, 0xB0, 0x52, 0x00, 0x00, 0x09, 0x01},  // CCo MAC and TEI
                   {stations}});
}
Bytes stationV0(std::uint8_t last, std::uint8_t tei, std::uint8_t tx, std::uint8_t rx)
{
    return concat({{0x00, 0xB0, 0x52, 0x00, 0x00, last, tei}, {0x3C, 0x97, 0x0E, 0x00, 0x00, last}, {tx, rx}});
}

// The MMV 1 layout: wider entries, 16-bit little-endian rates.
Bytes networkV1(std::uint8_t stations)
{
    return concat({{0x1A, 0x2B, 0x3C, 0x4D, 0x5E, 0x6F, 0x70},
                   {0xEE, 0xEE},
                   {0x0A, 0x07},
                   {0xEE, 0xEE, 0xEE, 0xEE},
                   {0x02},
                   {0x00, 0xB0, 0x52, 0x00, 0x00, 0x09, 0x01},
                   {0xEE, 0xEE, 0xEE},
                   {stations},
                   {0xEE, 0xEE, 0xEE, 0xEE, 0xEE}});
}
Bytes stationV1(std::uint8_t last, std::uint8_t tei, std::uint16_t tx, std::uint16_t rx)
{
    return concat({{0x00, 0xB0, 0x52, 0x00, 0x00, last, tei},
                   {0xEE, 0xEE, 0xEE},
                   {0x3C, 0x97, 0x0E, 0x00, 0x00, last},
                   {static_cast<std::uint8_t>(tx & 0xFF), static_cast<std::uint8_t>(tx >> 8)},
                   {0xEE, 0xEE},
                   {static_cast<std::uint8_t>(rx & 0xFF), static_cast<std::uint8_t>(rx >> 8)},
                   {0xEE, 0xEE}});
}

TEST(HomePlugAV, NetworkInformationOfBothVersionsWithSeveralStations)
{
    const auto v0 = concat({answerHeader(0, 0xA039), {0x00, 0xB0, 0x52, 0x02}, networkV0(2), stationV0(0x02, 5, 120, 98),
                            stationV0(0x03, 6, 255, 1), networkV0(1), stationV0(0x04, 7, 0, 0)});
    const auto info0 = std::get<hp::NetworkInfoConfirm>(parsed(v0));
    EXPECT_EQ(info0.source, kAdapterText);
    EXPECT_EQ(info0.mmv, 0);
    ASSERT_EQ(info0.networks.size(), 2u);
    EXPECT_EQ(info0.networks[0], (hp::NetworkInfo{"1a2b3c4d5e6f70", 3, 2, 1, "00:b0:52:00:00:09", 1}));
    ASSERT_EQ(info0.stations.size(), 3u);
    EXPECT_EQ(info0.stations[0], (hp::StationInfo{"00:b0:52:00:00:02", 5, "3c:97:0e:00:00:02", 120, 98}));
    EXPECT_EQ(info0.stations[1], (hp::StationInfo{"00:b0:52:00:00:03", 6, "3c:97:0e:00:00:03", 255, 1}));
    EXPECT_EQ(info0.stations[2].mac, "00:b0:52:00:00:04");

    const auto v1 = concat({answerHeader(1, 0xA039), {0x00, 0xB0, 0x52, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0x01},
                            networkV1(3), stationV1(0x02, 5, 1201, 987), stationV1(0x03, 6, 2, 65535),
                            stationV1(0x05, 8, 300, 301)});
    const auto info1 = std::get<hp::NetworkInfoConfirm>(parsed(v1));
    EXPECT_EQ(info1.mmv, 1);
    ASSERT_EQ(info1.networks.size(), 1u);
    EXPECT_EQ(info1.networks[0], (hp::NetworkInfo{"1a2b3c4d5e6f70", 10, 7, 2, "00:b0:52:00:00:09", 1}));
    ASSERT_EQ(info1.stations.size(), 3u);
    EXPECT_EQ(info1.stations[0], (hp::StationInfo{"00:b0:52:00:00:02", 5, "3c:97:0e:00:00:02", 1201, 987}));
    EXPECT_EQ(info1.stations[1].rxMbps, 65535);
    EXPECT_EQ(info1.stations[2].txMbps, 300);

    // The last station's two unread bytes may be missing; one more byte may not.
    EXPECT_TRUE(hp::parse(Bytes(v1.begin(), v1.end() - 2)).has_value());
    for (std::size_t cut = 3; cut <= v1.size() - 19 - 9; cut += 5)
        EXPECT_FALSE(hp::parse(Bytes(v1.begin(), v1.end() - static_cast<long>(cut))).has_value()) << cut;
    for (std::size_t cut = 1; cut < v0.size() - 17 - 4; cut += 3)
        EXPECT_FALSE(hp::parse(Bytes(v0.begin(), v0.end() - static_cast<long>(cut))).has_value()) << cut;

    // Another OUI, or a frame ending inside it, is not this message.
    auto foreign = v0;
    foreign[18] = 0xB1;
    EXPECT_FALSE(hp::parse(foreign).has_value());
    EXPECT_FALSE(hp::parse(Bytes(v0.begin(), v0.begin() + 19)).has_value());

    // No networks: empty lists.
    const auto none = std::get<hp::NetworkInfoConfirm>(parsed(padTo60(concat({answerHeader(2, 0xA039), {0x00, 0xB0, 0x52}}))));
    EXPECT_EQ(none.mmv, 2);
    EXPECT_TRUE(none.networks.empty());
    EXPECT_TRUE(none.stations.empty());
}

Bytes vendorAnswer(std::uint16_t type, std::uint8_t status, const Bytes& rest)
{
    return padTo60(concat({answerHeader(0, type), {0x00, 0xB0, 0x52, status}, rest}));
}

Bytes textField(const std::string& text) { return Bytes(text.begin(), text.end()); }

TEST(HomePlugAV, SoftwareVersionTextsAndTheirChipAndFirmware)
{
    const struct {
        const char* label;
        Bytes field;  // the length byte is added
        std::optional<std::string> version;
        std::optional<std::string> chip, firmware;
    } cases[] = {
        {"chip and firmware", textField("MAC-AB1234-1.5.0.0026-X-20230101"), "MAC-AB1234-1.5.0.0026-X-20230101",
         "AB1234", "1.5.0.0026"},
        {"empty pieces dropped", textField("MAC--QCA7420--2.8.0.3"), "MAC--QCA7420--2.8.0.3", "QCA7420", "2.8.0.3"},
        {"chip only", textField("MAC-1234"), "MAC-1234", "1234", std::nullopt},
        {"no pattern", textField("AB-1234"), "AB-1234", std::nullopt, std::nullopt},
        {"lowercase mac is not the pattern", textField("mac-ab-1"), "mac-ab-1", std::nullopt, std::nullopt},
        {"NUL ends the text", concat({textField("ABC"), {0x00, 0xFF, 0x09, 0x80}}), "ABC", std::nullopt, std::nullopt},
        {"spaces around are trimmed", textField("  ABC  "), "ABC", std::nullopt, std::nullopt},
        {"a tab inside is refused", textField("AB\tC"), std::nullopt, std::nullopt, std::nullopt},
        {"a high byte is refused", concat({textField("AB"), {0x80, 0x00}}), std::nullopt, std::nullopt, std::nullopt},
        {"empty text", Bytes{}, "", std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        const auto frame = concat({answerHeader(0, 0xA001), {0x00, 0xB0, 0x52, 0x00, 0x20,
                                                             static_cast<std::uint8_t>(c.field.size())},
                                   c.field});
        const auto message = hp::parse(frame);
        ASSERT_EQ(message.has_value(), c.version.has_value()) << c.label;
        if (!message) continue;
        const auto& confirm = std::get<hp::SoftwareVersionConfirm>(*message);
        EXPECT_EQ(confirm.deviceID, 0x20) << c.label;
        EXPECT_EQ(confirm.version, *c.version) << c.label;
        EXPECT_EQ(confirm.chip(), c.chip) << c.label;
        EXPECT_EQ(confirm.firmware(), c.firmware) << c.label;
    }

    // A length past the frame's end, and an error status, give nothing.
    EXPECT_FALSE(hp::parse(concat({answerHeader(0, 0xA001), {0x00, 0xB0, 0x52, 0x00, 0x20, 0x05, 'A', 'B'}})));
    EXPECT_FALSE(hp::parse(vendorAnswer(0xA001, 0x01, concat({{0x20, 0x03}, textField("ABC")}))));
    EXPECT_FALSE(hp::parse(concat({answerHeader(0, 0xA001), {0x00, 0xB0, 0x52, 0x00, 0x20}})));
}

TEST(HomePlugAV, ManufacturerStringsAndPortSettings)
{
    const auto text = std::get<hp::ManufacturerStringConfirm>(
        parsed(vendorAnswer(0xA055, 0x00, concat({{0x10}, textField(" Powerline 1200 \t"), {0x00}}))));
    EXPECT_EQ(text, (hp::ManufacturerStringConfirm{kAdapterText, "Powerline 1200"}));
    EXPECT_FALSE(hp::parse(vendorAnswer(0xA055, 0x00, concat({{0x03}, {'A', 0x7F, 'B'}}))));
    EXPECT_FALSE(hp::parse(vendorAnswer(0xA055, 0x02, concat({{0x01}, {'A'}}))));
    EXPECT_FALSE(hp::parse(concat({answerHeader(0, 0xA055), {0x00, 0xB0, 0x52, 0x00}})));

    const struct {
        std::uint8_t speed, duplex;
        std::optional<int> mbps;
        std::optional<bool> full;
    } settings[] = {{0, 0, 10, false}, {1, 1, 100, true}, {2, 1, 1000, true}, {3, 2, std::nullopt, std::nullopt}};
    for (const auto& s : settings) {
        const auto confirm =
            std::get<hp::EthernetSettingsConfirm>(parsed(vendorAnswer(0xA06D, 0x00, {s.speed, s.duplex, 0x01, 0x03})));
        EXPECT_EQ(confirm, (hp::EthernetSettingsConfirm{kAdapterText, s.speed, s.duplex, 1, 3}));
        EXPECT_EQ(confirm.speedMbps(), s.mbps);
        EXPECT_EQ(confirm.fullDuplex(), s.full);
    }
    // The four setting bytes must all be there; the status must be 0.
    EXPECT_FALSE(hp::parse(concat({answerHeader(0, 0xA06D), {0x00, 0xB0, 0x52, 0x00, 0x02, 0x01, 0x00}})));
    EXPECT_FALSE(hp::parse(vendorAnswer(0xA06D, 0x01, {0x02, 0x01, 0x00, 0x00})));
}

TEST(HomePlugAV, TextReaderBounds)
{
    const Bytes frame = {'x', 'A', 'B', 0x00, 'C'};
    std::size_t offset = 1;
    EXPECT_EQ(hp::readText(frame, offset, 4), "AB");
    EXPECT_EQ(offset, 5u);
    offset = 1;
    EXPECT_FALSE(hp::readText(frame, offset, 5));
    EXPECT_FALSE(hp::readText(frame, offset, -1));
    offset = 6;
    EXPECT_FALSE(hp::readText(frame, offset, 0));
    offset = 5;
    EXPECT_EQ(hp::readText(frame, offset, 0), "");
}

} // namespace
} // namespace orven
