#include "PacketLink.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "PowerlineProbe.h"
#include "SimulatedMacHost.h"

namespace orven::PacketLink {

namespace {

std::string failure(std::string_view what, int error) { return std::string(what) + ": " + std::strerror(error); }

class PacketChannel final : public Host::LinkChannel {
public:
    explicit PacketChannel(int descriptor) : descriptor_(descriptor), buffer_(PowerlineProbe::readBufferLength) {}
    ~PacketChannel() override { ::close(descriptor_); }
    PacketChannel(const PacketChannel&) = delete;
    PacketChannel& operator=(const PacketChannel&) = delete;

    Transfer write(std::span<const std::uint8_t> frame) override
    {
        const auto count = ::send(descriptor_, frame.data(), frame.size(), 0);
        return {static_cast<long>(count), count < 0 ? errno : 0};
    }

    Transfer read(std::vector<std::vector<std::uint8_t>>& frames, std::chrono::milliseconds wait) override
    {
        pollfd ready{descriptor_, POLLIN, 0};
        const int polled = ::poll(&ready, 1, static_cast<int>(std::clamp<long long>(wait.count(), 0, 100)));
        if (polled < 0) return {-1, errno};
        if (polled == 0) return {0, 0};
        const auto count = ::recv(descriptor_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        if (count < 0) {
            // Nothing after all (the frame went to another reader): the same
            // as a read time-out.
            if (errno == EAGAIN || errno == EWOULDBLOCK) return {0, 0};
            return {-1, errno};
        }
        if (count > 0) frames.emplace_back(buffer_.begin(), buffer_.begin() + count);
        return {static_cast<long>(count), 0};
    }

private:
    int descriptor_;
    std::vector<std::uint8_t> buffer_;
};

} // namespace

Host::LinkChannelOpening open(std::string_view interface, Options options)
{
    if (!PowerlineProbe::fitsInterfaceNameField(interface)) return {nullptr, "interface name too long"};
    const std::string name(interface);

    // Protocol 0 receives nothing until bind, so no frame slips in before
    // the filter is attached.
    const int descriptor = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return {nullptr, failure("socket(AF_PACKET)", errno)};
    auto channel = std::make_unique<PacketChannel>(descriptor);

    std::array<sock_filter, PowerlineProbe::homePlugFilter.size()> instructions{};
    for (std::size_t i = 0; i < instructions.size(); ++i) {
        const auto& in = PowerlineProbe::homePlugFilter[i];
        instructions[i] = sock_filter{in.code, in.jt, in.jf, in.k};
    }
    sock_fprog program{static_cast<unsigned short>(instructions.size()), instructions.data()};
    if (::setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
        return {nullptr, failure("SO_ATTACH_FILTER", errno)};

    timeval timeout{0, 100000};
    if (::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0)
        return {nullptr, failure("SO_RCVTIMEO", errno)};

    const unsigned index = ::if_nametoindex(name.c_str());
    if (index == 0) return {nullptr, failure("bind " + name, errno)};
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    // Bound to the HomePlug type, the socket does not see our own frames
    // going out (only taps of every type do).
    address.sll_protocol = htons(HomePlugAV::etherType);
    address.sll_ifindex = static_cast<int>(index);
    if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return {nullptr, failure("bind " + name, errno)};

    if (options.promiscuous) {
        packet_mreq membership{};
        membership.mr_ifindex = static_cast<int>(index);
        membership.mr_type = PACKET_MR_PROMISC;
        if (::setsockopt(descriptor, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &membership, sizeof membership) != 0)
            return {nullptr, failure("PACKET_ADD_MEMBERSHIP", errno)};
    }
    return {std::move(channel), {}};
}

std::optional<std::array<std::uint8_t, 6>> hardwareAddress(std::string_view interface)
{
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return std::nullopt;
    std::optional<std::array<std::uint8_t, 6>> found;
    for (auto* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_name || interface != entry->ifa_name || !entry->ifa_addr) continue;
        if (entry->ifa_addr->sa_family != AF_PACKET) continue;
        const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        if (link->sll_halen != 6) continue;
        std::array<std::uint8_t, 6> bytes{};
        std::memcpy(bytes.data(), link->sll_addr, bytes.size());
        found = bytes;
        break;
    }
    ::freeifaddrs(list);
    return found;
}

} // namespace orven::PacketLink

namespace orven {

Host::LinkChannelOpening SimulatedMacHost::openLinkChannel(std::string_view interface)
{
    return PacketLink::open(interface);
}

std::optional<std::array<std::uint8_t, 6>> SimulatedMacHost::linkAddress(std::string_view interface)
{
    return PacketLink::hardwareAddress(interface);
}

} // namespace orven
