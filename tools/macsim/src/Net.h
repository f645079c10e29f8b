#pragma once
// IP addresses as pf sees them: a family and sixteen bytes (IPv4 uses the
// first four), with the prefix arithmetic the rule matcher needs.

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orven::macsim {

enum class Family : std::uint8_t { None = 0, Inet = 4, Inet6 = 6 };

struct IpAddr {
    Family family = Family::None;
    std::array<std::uint8_t, 16> bytes{};

    // Accepts a literal of either family; an IPv6 %zone suffix is dropped.
    static std::optional<IpAddr> parse(std::string_view text);
    static std::optional<IpAddr> parse(std::string_view text, Family family);

    std::string str() const;
    int maxBits() const { return family == Family::Inet ? 32 : 128; }
    bool isZero() const;
    bool isLinkLocal6() const { return family == Family::Inet6 && bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80; }
    bool isMulticast() const { return family == Family::Inet ? (bytes[0] & 0xf0) == 0xe0 : family == Family::Inet6 && bytes[0] == 0xff; }
    bool isLoopback() const;

    auto operator<=>(const IpAddr&) const = default;
};

// The address with every bit beyond `prefix` cleared.
IpAddr masked(const IpAddr& addr, int prefix);
// Whether `addr` lies inside network/prefix (families must agree).
bool inPrefix(const IpAddr& addr, const IpAddr& network, int prefix);

const char* familyKeyword(Family family); // "inet", "inet6" or ""

} // namespace orven::macsim
