// HomePlugAV::parse on any frame: never reads outside it; what parses
// carries the frame's source MAC, survives the reading's JSON and comes
// back equal; a frame cut short of its last byte never gains a message
// that the whole frame did not have.

#include <vector>

#include "HomePlugAV.h"
#include "PFFuzzCheck.h"
#include "PowerlineTopologyReading.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    // An exact-size copy, so a read past the end is caught by the sanitizer.
    const std::vector<std::uint8_t> frame(data, data + size);
    const auto message = HomePlugAV::parse(frame);
    if (!message) return 0;
    fuzz::check(size >= 17, "a message needs the whole header");
    const auto source = HomePlugAV::macString(std::span(frame).subspan(6, 6));

    PowerlineTopologyReading reading;
    reading.interface = "en0";
    reading.ownMAC = "00:00:00:00:00:00";
    std::visit(
        [&](const auto& confirmation) {
            fuzz::check(confirmation.source == source, "the source is the frame's");
            using T = std::decay_t<decltype(confirmation)>;
            if constexpr (std::is_same_v<T, HomePlugAV::DiscoverListConfirm>) {
                reading.discoverLists.push_back(confirmation);
            } else if constexpr (std::is_same_v<T, HomePlugAV::NetworkInfoConfirm>) {
                reading.networkInfo = confirmation;
            } else {
                PowerlineDeviceInfo info;
                if constexpr (std::is_same_v<T, HomePlugAV::SoftwareVersionConfirm>) {
                    info.softwareVersion = confirmation;
                    (void)confirmation.chip();
                    (void)confirmation.firmware();
                } else if constexpr (std::is_same_v<T, HomePlugAV::ManufacturerStringConfirm>) {
                    info.manufacturerString = confirmation;
                } else {
                    info.ethernetSettings = confirmation;
                }
                reading.deviceInfo.emplace();
                (*reading.deviceInfo)[source] = info;
            }
        },
        *message);
    const auto encoded = reading.encodedJSON();
    fuzz::check(encoded.json.has_value(), "every parsed message encodes");
    const auto decoded = PowerlineTopologyReading::decoded(std::vector<std::uint8_t>(encoded.json->begin(), encoded.json->end()));
    fuzz::check(decoded == reading, "the JSON round-trips");
    for (const auto& mac : reading.stationMACs()) fuzz::check(HomePlugAV::macBytes(mac).has_value(), "MACs parse back");
    return 0;
}
