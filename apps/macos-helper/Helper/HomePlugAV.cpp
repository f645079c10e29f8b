#include "HomePlugAV.h"

#include <algorithm>

#include "Text.h"

namespace orven::HomePlugAV {

namespace {

constexpr std::size_t headerLength = 14;  // destination, source, EtherType

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Destination, source, EtherType, MMV and MMTYPE; the FMI when MMV is not 0.
Frame header(const MACAddress& destination, const MACAddress& source, std::uint8_t mmv, std::uint16_t type)
{
    Frame frame;
    frame.reserve(minimumFrameLength);
    frame.insert(frame.end(), destination.begin(), destination.end());
    frame.insert(frame.end(), source.begin(), source.end());
    frame.push_back(static_cast<std::uint8_t>(etherType >> 8));
    frame.push_back(static_cast<std::uint8_t>(etherType & 0xFF));
    frame.push_back(mmv);
    frame.push_back(static_cast<std::uint8_t>(type & 0xFF));
    frame.push_back(static_cast<std::uint8_t>(type >> 8));
    if (mmv != 0) frame.insert(frame.end(), {0x00, 0x00});
    return frame;
}

Frame padded(Frame frame)
{
    if (frame.size() < minimumFrameLength) frame.resize(minimumFrameLength, 0x00);
    return frame;
}

Frame vendorRequest(const MACAddress& source, const MACAddress& destination, std::uint8_t mmv, std::uint16_t type)
{
    auto frame = header(destination, source, mmv, type);
    frame.insert(frame.end(), qualcommOUI.begin(), qualcommOUI.end());
    return frame;
}

bool startsWithOUI(std::span<const std::uint8_t> frame, std::size_t offset)
{
    return offset + qualcommOUI.size() <= frame.size() &&
           std::equal(qualcommOUI.begin(), qualcommOUI.end(), frame.begin() + static_cast<std::ptrdiff_t>(offset));
}

std::string macAt(std::span<const std::uint8_t> frame, std::size_t offset)
{
    return macString(frame.subspan(offset, 6));
}

std::string hexDigits(std::span<const std::uint8_t> bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const auto byte : bytes) {
        out += digits[byte >> 4];
        out += digits[byte & 0x0F];
    }
    return out;
}

int littleEndian16(std::span<const std::uint8_t> frame, std::size_t offset)
{
    return frame[offset] | (frame[offset + 1] << 8);
}

// Field offsets of one network-information layout.
struct NetworkInfoLayout {
    std::size_t countOffset;  // from the payload offset
    std::size_t shortNetworkID, tei, role, ccoMAC, ccoTEI, stationCount, firstStation;
    std::size_t stationLength, stationTEI, bridgedMAC, txRate, rxRate;
    bool wideRates;  // 16-bit little-endian rates rather than one byte
};

constexpr NetworkInfoLayout layoutVersion0{3, 7, 8, 9, 10, 16, 17, 18, 15, 6, 7, 13, 14, false};
constexpr NetworkInfoLayout layoutVersion1{8, 9, 10, 15, 16, 22, 26, 32, 24, 6, 10, 16, 20, true};

} // namespace

std::optional<std::string> SoftwareVersionConfirm::chip() const
{
    const auto pieces = text::splitWords(version, "-");
    if (pieces.size() < 2 || pieces[0] != "MAC") return std::nullopt;
    return pieces[1];
}

std::optional<std::string> SoftwareVersionConfirm::firmware() const
{
    const auto pieces = text::splitWords(version, "-");
    if (pieces.size() < 3 || pieces[0] != "MAC") return std::nullopt;
    return pieces[2];
}

std::optional<int> EthernetSettingsConfirm::speedMbps() const
{
    switch (speedCode) {
    case 0: return 10;
    case 1: return 100;
    case 2: return 1000;
    default: return std::nullopt;
    }
}

std::optional<bool> EthernetSettingsConfirm::fullDuplex() const
{
    switch (duplexCode) {
    case 0: return false;
    case 1: return true;
    default: return std::nullopt;
    }
}

std::optional<MACAddress> macBytes(std::string_view text)
{
    const auto groups = text::splitWords(text, ":-");
    if (groups.size() != 6) return std::nullopt;
    MACAddress address{};
    for (std::size_t i = 0; i < groups.size(); ++i) {
        if (groups[i].size() != 2) return std::nullopt;
        const int high = hexDigit(groups[i][0]);
        const int low = hexDigit(groups[i][1]);
        if (high < 0 || low < 0) return std::nullopt;
        address[i] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return address;
}

std::string macString(std::span<const std::uint8_t> bytes)
{
    std::string out;
    out.reserve(bytes.size() * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) out += ':';
        out += hexDigits(bytes.subspan(i, 1));
    }
    return out;
}

Frame discoverListRequest(const MACAddress& source)
{
    return padded(header(broadcastMAC, source, 1, MMType::ccDiscoverListRequest));
}

Frame networkInfoRequest(const MACAddress& source, const MACAddress& destination, std::uint8_t mmv)
{
    return padded(vendorRequest(source, destination, mmv, MMType::vsNetworkInfoRequest));
}

Frame softwareVersionRequest(const MACAddress& source, const MACAddress& destination)
{
    return padded(vendorRequest(source, destination, 0, MMType::vsSoftwareVersionRequest));
}

Frame manufacturerStringRequest(const MACAddress& source, const MACAddress& destination)
{
    return padded(vendorRequest(source, destination, 0, MMType::vsManufacturerStringRequest));
}

Frame ethernetSettingsRequest(const MACAddress& source, const MACAddress& destination)
{
    auto frame = vendorRequest(source, destination, 0, MMType::vsEthernetSettingsRequest);
    frame.push_back(0x00);  // the action byte: read the settings
    return padded(std::move(frame));
}

std::optional<Message> parse(std::span<const std::uint8_t> frame)
{
    if (frame.size() < 17 || frame[12] != 0x88 || frame[13] != 0xE1) return std::nullopt;
    const auto source = macAt(frame, 6);
    const int mmv = frame[headerLength];
    const auto type = static_cast<std::uint16_t>(littleEndian16(frame, 15));
    if (mmv != 0 && frame.size() < 19) return std::nullopt;
    const std::size_t offset = mmv != 0 ? 19 : 17;

    const auto wrap = [](auto confirmation) -> std::optional<Message> {
        if (!confirmation) return std::nullopt;
        return Message(std::move(*confirmation));
    };
    switch (type) {
    case MMType::ccDiscoverListConfirm: return wrap(parseDiscoverList(frame, offset, source));
    case MMType::vsNetworkInfoConfirm: return wrap(parseNetworkInfo(frame, offset, mmv, source));
    case MMType::vsSoftwareVersionConfirm: return wrap(parseSoftwareVersion(frame, offset, source));
    case MMType::vsManufacturerStringConfirm: return wrap(parseManufacturerString(frame, offset, source));
    case MMType::vsEthernetSettingsConfirm: return wrap(parseEthernetSettings(frame, offset, source));
    default: return std::nullopt;
    }
}

std::optional<DiscoverListConfirm> parseDiscoverList(std::span<const std::uint8_t> frame, std::size_t offset,
                                                     const std::string& source)
{
    if (offset >= frame.size()) return std::nullopt;
    const std::size_t count = frame[offset];
    DiscoverListConfirm confirmation{source, {}};
    confirmation.stations.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t p = offset + 1 + 12 * i;
        // Its MAC, TEI, flag and short network identifier; the three bytes
        // after them are not read, so the last station may end short.
        if (p + 8 >= frame.size()) return std::nullopt;
        confirmation.stations.push_back(DiscoveredStation{
            macAt(frame, p), frame[p + 6], (frame[p + 7] & 0x01) != 0, frame[p + 8] & 0x0F});
    }
    return confirmation;
}

std::optional<NetworkInfoConfirm> parseNetworkInfo(std::span<const std::uint8_t> frame, std::size_t offset, int mmv,
                                                   const std::string& source)
{
    if (!startsWithOUI(frame, offset)) return std::nullopt;
    const auto& layout = mmv == 0 ? layoutVersion0 : layoutVersion1;
    const auto fits = [&](std::size_t at, std::size_t length) { return at + length <= frame.size(); };

    std::size_t cursor = offset + layout.countOffset;
    if (!fits(cursor, 1)) return std::nullopt;
    const std::size_t networkCount = frame[cursor++];
    NetworkInfoConfirm confirmation{source, mmv, {}, {}};
    for (std::size_t n = 0; n < networkCount; ++n) {
        const std::size_t entry = cursor;
        // Only the bytes read are required: the skipped ones after the
        // station count may be missing from a short frame.
        if (!fits(entry, layout.stationCount + 1)) return std::nullopt;
        confirmation.networks.push_back(NetworkInfo{hexDigits(frame.subspan(entry, 7)),
                                                    frame[entry + layout.shortNetworkID] & 0x0F,
                                                    frame[entry + layout.tei],
                                                    frame[entry + layout.role] & 0x03,
                                                    macAt(frame, entry + layout.ccoMAC),
                                                    frame[entry + layout.ccoTEI]});
        const std::size_t stationCount = frame[entry + layout.stationCount];
        cursor = entry + layout.firstStation;
        for (std::size_t s = 0; s < stationCount; ++s) {
            if (!fits(cursor, layout.rxRate + (layout.wideRates ? 2 : 1))) return std::nullopt;
            const auto rate = [&](std::size_t at) {
                return layout.wideRates ? littleEndian16(frame, cursor + at) : int{frame[cursor + at]};
            };
            confirmation.stations.push_back(StationInfo{macAt(frame, cursor), frame[cursor + layout.stationTEI],
                                                        macAt(frame, cursor + layout.bridgedMAC),
                                                        rate(layout.txRate), rate(layout.rxRate)});
            cursor += layout.stationLength;
        }
    }
    return confirmation;
}

std::optional<std::size_t> skipQualcommPreamble(std::span<const std::uint8_t> frame, std::size_t offset)
{
    if (offset + 4 > frame.size() || !startsWithOUI(frame, offset) || frame[offset + 3] != 0x00) return std::nullopt;
    return offset + 4;
}

std::optional<std::string> readText(std::span<const std::uint8_t> frame, std::size_t& offset, long length)
{
    if (length < 0 || offset > frame.size() || static_cast<std::size_t>(length) > frame.size() - offset)
        return std::nullopt;
    auto field = frame.subspan(offset, static_cast<std::size_t>(length));
    offset += static_cast<std::size_t>(length);
    const auto end = std::find(field.begin(), field.end(), std::uint8_t{0});
    field = field.first(static_cast<std::size_t>(end - field.begin()));
    if (!std::all_of(field.begin(), field.end(), [](std::uint8_t byte) { return byte >= 0x20 && byte <= 0x7E; }))
        return std::nullopt;
    return text::trimSpacesAndTabs(
        std::string_view(reinterpret_cast<const char*>(field.data()), field.size()));
}

std::optional<SoftwareVersionConfirm> parseSoftwareVersion(std::span<const std::uint8_t> frame, std::size_t offset,
                                                           const std::string& source)
{
    auto p = skipQualcommPreamble(frame, offset);
    if (!p || *p + 1 >= frame.size()) return std::nullopt;
    const int deviceID = frame[*p];
    const long length = frame[*p + 1];
    std::size_t textOffset = *p + 2;
    auto version = readText(frame, textOffset, length);
    if (!version) return std::nullopt;
    return SoftwareVersionConfirm{source, deviceID, std::move(*version)};
}

std::optional<ManufacturerStringConfirm> parseManufacturerString(std::span<const std::uint8_t> frame,
                                                                 std::size_t offset, const std::string& source)
{
    auto p = skipQualcommPreamble(frame, offset);
    if (!p || *p >= frame.size()) return std::nullopt;
    const long length = frame[*p];
    std::size_t textOffset = *p + 1;
    auto text = readText(frame, textOffset, length);
    if (!text) return std::nullopt;
    return ManufacturerStringConfirm{source, std::move(*text)};
}

std::optional<EthernetSettingsConfirm> parseEthernetSettings(std::span<const std::uint8_t> frame, std::size_t offset,
                                                             const std::string& source)
{
    auto p = skipQualcommPreamble(frame, offset);
    if (!p || *p + 3 >= frame.size()) return std::nullopt;
    return EthernetSettingsConfirm{source, frame[*p], frame[*p + 1], frame[*p + 2], frame[*p + 3]};
}

} // namespace orven::HomePlugAV
