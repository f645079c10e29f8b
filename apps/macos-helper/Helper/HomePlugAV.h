#pragma once
// HomePlug AV management messages (EtherType 0x88E1): builders of the
// requests the powerline probe sends and a parser of the confirmations
// adapters answer with. No I/O: builders return whole Ethernet frames,
// the parser turns one received frame into a typed message or nothing.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace orven::HomePlugAV {

using Frame = std::vector<std::uint8_t>;
using MACAddress = std::array<std::uint8_t, 6>;

inline constexpr std::uint16_t etherType = 0x88E1;
inline constexpr MACAddress localManagementMAC{0x00, 0xB0, 0x52, 0x00, 0x00, 0x01};
inline constexpr MACAddress broadcastMAC{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
inline constexpr std::array<std::uint8_t, 3> qualcommOUI{0x00, 0xB0, 0x52};
inline constexpr std::size_t minimumFrameLength = 60;

namespace MMType {
inline constexpr std::uint16_t ccDiscoverListRequest = 0x0014;
inline constexpr std::uint16_t ccDiscoverListConfirm = 0x0015;
inline constexpr std::uint16_t vsSoftwareVersionRequest = 0xA000;
inline constexpr std::uint16_t vsSoftwareVersionConfirm = 0xA001;
inline constexpr std::uint16_t vsNetworkInfoRequest = 0xA038;
inline constexpr std::uint16_t vsNetworkInfoConfirm = 0xA039;
inline constexpr std::uint16_t vsManufacturerStringRequest = 0xA054;
inline constexpr std::uint16_t vsManufacturerStringConfirm = 0xA055;
inline constexpr std::uint16_t vsEthernetSettingsRequest = 0xA06C;
inline constexpr std::uint16_t vsEthernetSettingsConfirm = 0xA06D;
} // namespace MMType

// --- Confirmations (MACs as macString text) ----------------------------------

struct DiscoveredStation {
    std::string mac;
    int tei = 0;
    bool sameNetwork = false;
    int shortNetworkID = 0;
    bool operator==(const DiscoveredStation&) const = default;
};

struct DiscoverListConfirm {
    std::string source;
    std::vector<DiscoveredStation> stations;
    bool operator==(const DiscoverListConfirm&) const = default;
};

struct NetworkInfo {
    std::string networkID;  // 14 lowercase hexadecimal digits
    int shortNetworkID = 0;
    int tei = 0;
    int role = 0;
    std::string ccoMAC;
    int ccoTEI = 0;
    bool operator==(const NetworkInfo&) const = default;
};

struct StationInfo {
    std::string mac;
    int tei = 0;
    std::string bridgedMAC;
    int txMbps = 0;
    int rxMbps = 0;
    bool operator==(const StationInfo&) const = default;
};

struct NetworkInfoConfirm {
    std::string source;
    int mmv = 0;
    std::vector<NetworkInfo> networks;
    std::vector<StationInfo> stations;  // of all networks, in wire order
    bool operator==(const NetworkInfoConfirm&) const = default;
};

struct SoftwareVersionConfirm {
    std::string source;
    int deviceID = 0;
    std::string version;
    // From a version written "MAC-<chip>-<firmware>-…"; absent otherwise.
    std::optional<std::string> chip() const;
    std::optional<std::string> firmware() const;
    bool operator==(const SoftwareVersionConfirm&) const = default;
};

struct ManufacturerStringConfirm {
    std::string source;
    std::string text;
    bool operator==(const ManufacturerStringConfirm&) const = default;
};

struct EthernetSettingsConfirm {
    std::string source;
    int speedCode = 0;
    int duplexCode = 0;
    int mdi = 0;
    int flowControl = 0;
    std::optional<int> speedMbps() const;
    std::optional<bool> fullDuplex() const;
    bool operator==(const EthernetSettingsConfirm&) const = default;
};

using Message = std::variant<DiscoverListConfirm, NetworkInfoConfirm, SoftwareVersionConfirm,
                             ManufacturerStringConfirm, EthernetSettingsConfirm>;

// --- Addresses ---------------------------------------------------------------

// Six groups of two hexadecimal digits separated by ":" or "-" (mixed too);
// empty groups are dropped before counting.
std::optional<MACAddress> macBytes(std::string_view text);
// Lowercase "%02x" pairs joined by ":".
std::string macString(std::span<const std::uint8_t> bytes);

// --- Requests (each padded to minimumFrameLength) ----------------------------

Frame discoverListRequest(const MACAddress& source);
Frame networkInfoRequest(const MACAddress& source, const MACAddress& destination, std::uint8_t mmv);
Frame softwareVersionRequest(const MACAddress& source, const MACAddress& destination);
Frame manufacturerStringRequest(const MACAddress& source, const MACAddress& destination);
Frame ethernetSettingsRequest(const MACAddress& source, const MACAddress& destination);

// --- Parsing -----------------------------------------------------------------

// One received Ethernet frame (from the destination MAC, no FCS); absent for
// anything malformed, truncated, foreign, unsuccessful or not a confirmation.
std::optional<Message> parse(std::span<const std::uint8_t> frame);

// The per-message parsers `parse` dispatches to, from the payload offset.
std::optional<DiscoverListConfirm> parseDiscoverList(std::span<const std::uint8_t> frame, std::size_t offset,
                                                     const std::string& source);
std::optional<NetworkInfoConfirm> parseNetworkInfo(std::span<const std::uint8_t> frame, std::size_t offset, int mmv,
                                                   const std::string& source);
std::optional<SoftwareVersionConfirm> parseSoftwareVersion(std::span<const std::uint8_t> frame, std::size_t offset,
                                                           const std::string& source);
std::optional<ManufacturerStringConfirm> parseManufacturerString(std::span<const std::uint8_t> frame,
                                                                 std::size_t offset, const std::string& source);
std::optional<EthernetSettingsConfirm> parseEthernetSettings(std::span<const std::uint8_t> frame, std::size_t offset,
                                                             const std::string& source);
// The OUI and a zero status byte that open every vendor confirmation but
// network information; the offset after them.
std::optional<std::size_t> skipQualcommPreamble(std::span<const std::uint8_t> frame, std::size_t offset);
// A text field of `length` bytes at `offset` (advanced past it): cut at the
// first NUL, printable ASCII only, spaces and tabs trimmed.
std::optional<std::string> readText(std::span<const std::uint8_t> frame, std::size_t& offset, long length);

} // namespace orven::HomePlugAV
