#pragma once
// Packets the simulated Mac sends and receives, and their trip through pf.

#include <cstdint>
#include <string>

#include "Store.h"

namespace orven::macsim {

Packet tcpPacket(Direction dir, const std::string& ifname, const IpAddr& src, std::uint16_t sport, const IpAddr& dst,
                 std::uint16_t dport, std::uint8_t flags);
Packet udpPacket(Direction dir, const std::string& ifname, const IpAddr& src, std::uint16_t sport, const IpAddr& dst,
                 std::uint16_t dport, std::uint32_t payload = 32);
Packet icmpEcho(Direction dir, const std::string& ifname, const IpAddr& src, const IpAddr& dst, bool reply,
                std::uint16_t id, std::uint32_t payload);

// Asks pf about a packet, as the kernel does on the way in or out.
Verdict filter(Session& session, const Packet& packet);

// A round-trip time around the model's value, slightly varying as real ones do.
double jitter(double rttMs);

} // namespace orven::macsim
