#include "Net.h"

#include <arpa/inet.h>

namespace orven::macsim {

std::optional<IpAddr> IpAddr::parse(std::string_view text) {
    if (auto v4 = parse(text, Family::Inet))
        return v4;
    return parse(text, Family::Inet6);
}

std::optional<IpAddr> IpAddr::parse(std::string_view text, Family family) {
    std::string s(text);
    IpAddr a;
    a.family = family;
    if (family == Family::Inet) {
        in_addr v4{};
        if (inet_pton(AF_INET, s.c_str(), &v4) != 1)
            return std::nullopt;
        const auto* p = reinterpret_cast<const std::uint8_t*>(&v4.s_addr);
        for (int i = 0; i < 4; ++i)
            a.bytes[static_cast<std::size_t>(i)] = p[i];
        return a;
    }
    if (family == Family::Inet6) {
        if (auto pct = s.find('%'); pct != std::string::npos)
            s.resize(pct);
        in6_addr v6{};
        if (inet_pton(AF_INET6, s.c_str(), &v6) != 1)
            return std::nullopt;
        for (std::size_t i = 0; i < 16; ++i)
            a.bytes[i] = v6.s6_addr[i];
        return a;
    }
    return std::nullopt;
}

std::string IpAddr::str() const {
    char buf[INET6_ADDRSTRLEN] = {};
    if (family == Family::Inet) {
        in_addr v4{};
        auto* p = reinterpret_cast<std::uint8_t*>(&v4.s_addr);
        for (std::size_t i = 0; i < 4; ++i)
            p[i] = bytes[i];
        inet_ntop(AF_INET, &v4, buf, sizeof buf);
    } else if (family == Family::Inet6) {
        in6_addr v6{};
        for (std::size_t i = 0; i < 16; ++i)
            v6.s6_addr[i] = bytes[i];
        inet_ntop(AF_INET6, &v6, buf, sizeof buf);
    }
    return buf;
}

bool IpAddr::isZero() const {
    for (auto b : bytes)
        if (b != 0)
            return false;
    return true;
}

bool IpAddr::isLoopback() const {
    if (family == Family::Inet)
        return bytes[0] == 127;
    if (family == Family::Inet6) {
        for (std::size_t i = 0; i < 15; ++i)
            if (bytes[i] != 0)
                return false;
        return bytes[15] == 1;
    }
    return false;
}

IpAddr masked(const IpAddr& addr, int prefix) {
    IpAddr out = addr;
    const int total = addr.maxBits();
    for (int bit = 0; bit < total; ++bit) {
        if (bit < prefix)
            continue;
        out.bytes[static_cast<std::size_t>(bit / 8)] &= static_cast<std::uint8_t>(~(0x80u >> (bit % 8)));
    }
    for (std::size_t i = static_cast<std::size_t>(total / 8); i < 16; ++i)
        out.bytes[i] = 0;
    return out;
}

bool inPrefix(const IpAddr& addr, const IpAddr& network, int prefix) {
    if (addr.family != network.family)
        return false;
    return masked(addr, prefix) == masked(network, prefix);
}

const char* familyKeyword(Family family) {
    switch (family) {
    case Family::Inet: return "inet";
    case Family::Inet6: return "inet6";
    case Family::None: break;
    }
    return "";
}

} // namespace orven::macsim
