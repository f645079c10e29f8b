#pragma once
// The powerline probe: HomePlug AV requests out of one Ethernet interface,
// the adapters' answers gathered for a bounded time, one reading back.
// Runs synchronously on the caller's thread; nothing survives a call.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "HomePlugAV.h"
#include "Host.h"
#include "Log.h"
#include "PowerlineTopologyReading.h"

namespace orven::PowerlineProbe {

inline constexpr std::string_view logCategory = "PowerlineProbe";
// The second listening period, for the devices' own answers.
inline constexpr int describeListenMillis = 600;
// The local management address plus at most seven stations.
inline constexpr std::size_t maxDeviceTargets = 8;
// Asked of the link layer for its read buffer.
inline constexpr std::uint32_t readBufferLength = 65536;
// Including the NUL (IFNAMSIZ).
inline constexpr std::size_t interfaceNameFieldLength = 16;

// One classic BPF instruction, as every link layer's filter takes it.
struct FilterInstruction {
    std::uint16_t code;
    std::uint8_t jt;
    std::uint8_t jf;
    std::uint32_t k;
};
// Passes whole HomePlug AV frames (EtherType 0x88E1) and drops the rest.
inline constexpr std::array<FilterInstruction, 4> homePlugFilter{{
    {0x28, 0, 0, 12},           // load the EtherType
    {0x15, 0, 1, 0x88E1},       // equal: go on; else skip one
    {0x06, 0, 0, 0xFFFFFFFF},   // accept the whole frame
    {0x06, 0, 0, 0},            // drop
}};

struct ProbeFailure {
    std::string message;
    const std::string& description() const { return message; }
};

using Outcome = std::variant<PowerlineTopologyReading, ProbeFailure>;
// (label, frame); the label names the frame in log lines and messages.
using Batch = std::vector<std::pair<std::string, HomePlugAV::Frame>>;

Outcome probe(Host& host, const Logger& log, std::string_view interface, int listenMillis);

// The interface's own MAC as macString text, or absent.
std::optional<std::string> linkAddress(Host& host, std::string_view interface);

// Whether a name fits the interface name field with its NUL.
bool fitsInterfaceNameField(std::string_view interface);

// Writes each frame once, in order. Fails only when the first frame of the
// batch could not be written; later failures are logged.
std::optional<ProbeFailure> send(const Batch& batch, Host::LinkChannel& channel, const Logger& log);

// Splits one BPF read buffer (records of this platform's header, word
// aligned) into frames. Stops at a short, empty or cut-short record.
std::vector<HomePlugAV::Frame> records(std::span<const std::uint8_t> buffer, std::size_t length);

// The local management address, then the lowest station MACs, at most 8.
std::vector<HomePlugAV::MACAddress> deviceTargets(const PowerlineTopologyReading& reading);

// The second stage: asks every target for its software version,
// manufacturer string and port settings, and files the answers.
void describeDevices(PowerlineTopologyReading& reading, Host& host, Host::LinkChannel& channel,
                     const HomePlugAV::MACAddress& source, const std::string& ownMAC, const Logger& log);

} // namespace orven::PowerlineProbe
