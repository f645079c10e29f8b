// The link layer on macOS: a /dev/bpfN device bound to one interface with
// the HomePlug AV filter, and the interface's AF_LINK address. Each step is
// one system call; its failure keeps the call's name in the message.

#include <fcntl.h>
#include <ifaddrs.h>
#include <net/bpf.h>
#include <net/if.h>
#include <net/if_dl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "DarwinHost.h"
#include "PowerlineProbe.h"

namespace orven {

namespace {

constexpr int lastBPFDevice = 255;

std::string failure(std::string_view what, int error) { return std::string(what) + ": " + std::strerror(error); }

class BPFChannel final : public Host::LinkChannel {
public:
    explicit BPFChannel(int descriptor) : descriptor_(descriptor) {}
    ~BPFChannel() override { ::close(descriptor_); }
    BPFChannel(const BPFChannel&) = delete;
    BPFChannel& operator=(const BPFChannel&) = delete;

    int descriptor() const { return descriptor_; }
    // A BPF read must ask for exactly the buffer length the device granted.
    void setBufferLength(u_int length) { buffer_.assign(length, 0); }

    Transfer write(std::span<const std::uint8_t> frame) override
    {
        const auto count = ::write(descriptor_, frame.data(), frame.size());
        return {static_cast<long>(count), count < 0 ? errno : 0};
    }

    Transfer read(std::vector<std::vector<std::uint8_t>>& frames, std::chrono::milliseconds wait) override
    {
        // select, not poll: poll does not support devices on this platform.
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(descriptor_, &readable);
        struct timeval limit = {0, static_cast<suseconds_t>(std::clamp<long long>(wait.count(), 0, 100) * 1000)};
        const int selected = ::select(descriptor_ + 1, &readable, nullptr, nullptr, &limit);
        if (selected < 0) return {-1, errno};
        if (selected == 0) return {0, 0};
        const auto count = ::read(descriptor_, buffer_.data(), buffer_.size());
        if (count < 0) return {-1, errno};
        auto received = PowerlineProbe::records(buffer_, static_cast<std::size_t>(count));
        frames.insert(frames.end(), std::make_move_iterator(received.begin()),
                      std::make_move_iterator(received.end()));
        return {static_cast<long>(count), 0};
    }

private:
    int descriptor_;
    std::vector<std::uint8_t> buffer_;
};

// The first /dev/bpfN that opens; only a busy device moves on to the next.
int openBPF()
{
    for (int number = 0; number <= lastBPFDevice; ++number) {
        const std::string path = "/dev/bpf" + std::to_string(number);
        const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (descriptor >= 0) return descriptor;
        if (errno != EBUSY) return -1;
    }
    return -1;
}

} // namespace

Host::LinkChannelOpening DarwinHost::openLinkChannel(std::string_view interface)
{
    const int descriptor = openBPF();
    if (descriptor < 0) return {nullptr, "no free /dev/bpf descriptor"};
    auto channel = std::make_unique<BPFChannel>(descriptor);

    u_int bufferLength = PowerlineProbe::readBufferLength;
    if (::ioctl(descriptor, BIOCSBLEN, &bufferLength) != 0) return {nullptr, failure("BIOCSBLEN", errno)};
    channel->setBufferLength(bufferLength);

    if (!PowerlineProbe::fitsInterfaceNameField(interface)) return {nullptr, "interface name too long"};
    struct ifreq request;
    std::memset(&request, 0, sizeof request);
    std::memcpy(request.ifr_name, interface.data(), interface.size());
    if (::ioctl(descriptor, BIOCSETIF, &request) != 0)
        return {nullptr, failure("BIOCSETIF " + std::string(interface), errno)};

    u_int on = 1;
    if (::ioctl(descriptor, BIOCIMMEDIATE, &on) != 0) return {nullptr, failure("BIOCIMMEDIATE", errno)};
    // Our frames carry their own source address.
    if (::ioctl(descriptor, BIOCSHDRCMPLT, &on) != 0) return {nullptr, failure("BIOCSHDRCMPLT", errno)};
    struct timeval timeout = {0, 100000};
    if (::ioctl(descriptor, BIOCSRTIMEOUT, &timeout) != 0) return {nullptr, failure("BIOCSRTIMEOUT", errno)};

    struct bpf_insn instructions[PowerlineProbe::homePlugFilter.size()];
    for (std::size_t i = 0; i < PowerlineProbe::homePlugFilter.size(); ++i) {
        const auto& in = PowerlineProbe::homePlugFilter[i];
        instructions[i] = bpf_insn{in.code, in.jt, in.jf, in.k};
    }
    struct bpf_program program;
    program.bf_len = static_cast<u_int>(PowerlineProbe::homePlugFilter.size());
    program.bf_insns = instructions;
    if (::ioctl(descriptor, BIOCSETF, &program) != 0) return {nullptr, failure("BIOCSETF", errno)};
    return {std::move(channel), {}};
}

std::optional<std::array<std::uint8_t, 6>> DarwinHost::linkAddress(std::string_view interface)
{
    struct ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return std::nullopt;
    std::optional<std::array<std::uint8_t, 6>> found;
    for (auto* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_name || interface != entry->ifa_name || !entry->ifa_addr) continue;
        if (entry->ifa_addr->sa_family != AF_LINK) continue;
        const auto* link = reinterpret_cast<const struct sockaddr_dl*>(entry->ifa_addr);
        if (link->sdl_alen != 6) continue;
        std::array<std::uint8_t, 6> bytes{};
        std::memcpy(bytes.data(), LLADDR(link), bytes.size());
        found = bytes;
        break;
    }
    ::freeifaddrs(list);
    return found;
}

} // namespace orven
