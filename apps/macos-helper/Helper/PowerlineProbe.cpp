#include "PowerlineProbe.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <set>

namespace orven::PowerlineProbe {

namespace {

// BPF record header of this platform: 32-bit seconds and microseconds, the
// captured length at 8, the length on the wire at 12, the header length at 16.
constexpr std::size_t recordHeaderMinimum = 20;
constexpr std::size_t capturedLengthOffset = 8;
constexpr std::size_t headerLengthOffset = 16;
constexpr std::size_t recordAlignment = 4;

template <class T>
T hostOrderAt(std::span<const std::uint8_t> buffer, std::size_t offset)
{
    T value;
    std::memcpy(&value, buffer.data() + offset, sizeof value);
    return value;
}

std::string errorText(int error) { return std::strerror(error); }

// Reads until the deadline and hands every frame addressed to us, parsed,
// to `file`. A read error ends the period early, with a log line only.
template <class File>
void listen(Host& host, Host::LinkChannel& channel, const std::string& ownMAC, int millis, const Logger& log,
            File&& file)
{
    const auto deadline = host.now() + std::chrono::milliseconds(millis);
    std::vector<HomePlugAV::Frame> frames;
    for (auto now = host.now(); now < deadline; now = host.now()) {
        frames.clear();
        // Never wait past the deadline: the period ends on time, not up to
        // one read time-out late.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        const auto transfer = channel.read(frames, std::max(left, std::chrono::milliseconds(1)));
        if (transfer.count < 0) {
            if (transfer.error == EINTR || transfer.error == EAGAIN) continue;
            log.error("read: %{public}s", errorText(transfer.error));
            return;
        }
        for (const auto& frame : frames) {
            if (frame.size() < 14) continue;
            // Broadcasts and our own requests are skipped unparsed.
            if (HomePlugAV::macString(std::span(frame).first(6)) != ownMAC) continue;
            if (auto message = HomePlugAV::parse(frame)) file(std::move(*message));
        }
    }
}

std::string lowercased(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); });
    return text;
}

} // namespace

std::optional<std::string> linkAddress(Host& host, std::string_view interface)
{
    const auto address = host.linkAddress(interface);
    if (!address) return std::nullopt;
    return HomePlugAV::macString(*address);
}

bool fitsInterfaceNameField(std::string_view interface) { return interface.size() + 1 <= interfaceNameFieldLength; }

std::optional<ProbeFailure> send(const Batch& batch, Host::LinkChannel& channel, const Logger& log)
{
    bool anySent = false;
    for (const auto& [label, frame] : batch) {
        const auto transfer = channel.write(frame);
        if (transfer.count == static_cast<long>(frame.size())) {
            anySent = true;
            continue;
        }
        // A short write leaves errno untouched; report it as an I/O error.
        const auto reason = errorText(transfer.count < 0 ? transfer.error : EIO);
        log.error("write %{public}s failed: %{public}s", label, reason);
        if (!anySent) return ProbeFailure{"write " + label + ": " + reason};
    }
    return std::nullopt;
}

std::vector<HomePlugAV::Frame> records(std::span<const std::uint8_t> buffer, std::size_t length)
{
    length = std::min(length, buffer.size());
    std::vector<HomePlugAV::Frame> frames;
    std::size_t start = 0;
    while (length - start >= recordHeaderMinimum) {
        const std::size_t headerLength = hostOrderAt<std::uint16_t>(buffer, start + headerLengthOffset);
        if (headerLength == 0) break;
        const std::size_t captured = hostOrderAt<std::uint32_t>(buffer, start + capturedLengthOffset);
        const std::size_t frameStart = start + headerLength;
        if (frameStart > length || captured > length - frameStart) break;
        frames.emplace_back(buffer.begin() + static_cast<std::ptrdiff_t>(frameStart),
                            buffer.begin() + static_cast<std::ptrdiff_t>(frameStart + captured));
        const std::size_t next = start + (headerLength + captured + recordAlignment - 1) / recordAlignment * recordAlignment;
        if (next >= length) break;
        start = next;
    }
    return frames;
}

std::vector<HomePlugAV::MACAddress> deviceTargets(const PowerlineTopologyReading& reading)
{
    std::vector<HomePlugAV::MACAddress> targets{HomePlugAV::localManagementMAC};
    for (const auto& text : reading.stationMACs()) {  // sorted, each once
        if (targets.size() >= maxDeviceTargets) break;
        if (const auto mac = HomePlugAV::macBytes(text)) targets.push_back(*mac);
    }
    return targets;
}

void describeDevices(PowerlineTopologyReading& reading, Host& host, Host::LinkChannel& channel,
                     const HomePlugAV::MACAddress& source, const std::string& ownMAC, const Logger& log)
{
    Batch batch;
    for (const auto& target : deviceTargets(reading)) {
        batch.emplace_back("VS_SW_VER.REQ", HomePlugAV::softwareVersionRequest(source, target));
        batch.emplace_back("VS_MFG_STRING.REQ", HomePlugAV::manufacturerStringRequest(source, target));
        batch.emplace_back("VS_ENET_SETTINGS.REQ", HomePlugAV::ethernetSettingsRequest(source, target));
    }
    if (send(batch, channel, log)) return;

    std::map<std::string, PowerlineDeviceInfo> devices;
    listen(host, channel, ownMAC, describeListenMillis, log, [&](HomePlugAV::Message message) {
        std::visit(
            [&](auto& confirmation) {
                using T = std::decay_t<decltype(confirmation)>;
                // The last answer of each kind wins.
                if constexpr (std::is_same_v<T, HomePlugAV::SoftwareVersionConfirm>)
                    devices[confirmation.source].softwareVersion = std::move(confirmation);
                else if constexpr (std::is_same_v<T, HomePlugAV::ManufacturerStringConfirm>)
                    devices[confirmation.source].manufacturerString = std::move(confirmation);
                else if constexpr (std::is_same_v<T, HomePlugAV::EthernetSettingsConfirm>)
                    devices[confirmation.source].ethernetSettings = std::move(confirmation);
            },
            message);
    });
    if (!devices.empty()) reading.deviceInfo = std::move(devices);
    reading.listenedMillis += describeListenMillis;
}

Outcome probe(Host& host, const Logger& log, std::string_view interface, int listenMillis)
{
    const std::string name(interface);
    const auto ownAddress = linkAddress(host, interface);
    if (!ownAddress) return ProbeFailure{"no link-layer address for " + name};
    // Checked before the channel opens, so no backend sees a name that
    // cannot fit its interface name field.
    if (!fitsInterfaceNameField(interface)) return ProbeFailure{"interface name too long"};
    auto opening = host.openLinkChannel(interface);
    if (!opening.channel) return ProbeFailure{std::move(opening.error)};
    auto& channel = *opening.channel;

    const auto ownBytes = HomePlugAV::macBytes(*ownAddress).value_or(HomePlugAV::MACAddress{});
    const Batch first{
        {"CC_DISCOVER_LIST.REQ", HomePlugAV::discoverListRequest(ownBytes)},
        {"VS_NW_INFO.REQ mmv1", HomePlugAV::networkInfoRequest(ownBytes, HomePlugAV::localManagementMAC, 1)},
        {"VS_NW_INFO.REQ mmv0", HomePlugAV::networkInfoRequest(ownBytes, HomePlugAV::localManagementMAC, 0)},
    };
    if (auto failure = send(first, channel, log)) return std::move(*failure);

    const auto ownMAC = lowercased(*ownAddress);
    std::vector<HomePlugAV::DiscoverListConfirm> discoverLists;
    std::set<std::string> answered;
    std::optional<HomePlugAV::NetworkInfoConfirm> networkInfoV1, networkInfoV0;
    listen(host, channel, ownMAC, listenMillis, log, [&](HomePlugAV::Message message) {
        if (auto* list = std::get_if<HomePlugAV::DiscoverListConfirm>(&message)) {
            // The first answer of each device wins.
            if (answered.insert(list->source).second) discoverLists.push_back(std::move(*list));
        } else if (auto* info = std::get_if<HomePlugAV::NetworkInfoConfirm>(&message)) {
            auto& slot = info->mmv == 0 ? networkInfoV0 : networkInfoV1;
            if (!slot) slot = std::move(*info);
        }
    });
    std::stable_sort(discoverLists.begin(), discoverLists.end(),
                     [](const auto& a, const auto& b) { return a.source < b.source; });

    PowerlineTopologyReading reading;
    reading.format = 1;
    reading.interface = name;
    reading.ownMAC = ownMAC;
    reading.networkInfo = networkInfoV1 ? std::move(networkInfoV1) : std::move(networkInfoV0);
    reading.discoverLists = std::move(discoverLists);
    reading.listenedMillis = listenMillis;

    if (!reading.stationMACs().empty() || reading.networkInfo)
        describeDevices(reading, host, channel, ownBytes, ownMAC, log);

    const std::string networkInfoWord =
        reading.networkInfo ? "mmv" + std::to_string(reading.networkInfo->mmv) : std::string("none");
    log.notice("powerline probe on %{public}s: %ld discover answer(s), nw-info %{public}s, %ld station(s), %ld "
               "device(s) described",
               name, static_cast<long>(reading.discoverLists.size()), networkInfoWord,
               static_cast<long>(reading.stationMACs().size()),
               static_cast<long>(reading.deviceInfo ? reading.deviceInfo->size() : 0));
    return reading;
}

} // namespace orven::PowerlineProbe
