#pragma once
// The link layer of a Linux machine: an AF_PACKET socket bound to one
// interface with the HomePlug AV filter attached, and the interface's own
// hardware address. The simulated adapters use the same channel.

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Host.h"

namespace orven::PacketLink {

struct Options {
    // Also receive frames addressed to other stations (what an adapter on
    // the far side of a link sees).
    bool promiscuous = false;
};

Host::LinkChannelOpening open(std::string_view interface, Options options = {});
std::optional<std::array<std::uint8_t, 6>> hardwareAddress(std::string_view interface);

} // namespace orven::PacketLink
