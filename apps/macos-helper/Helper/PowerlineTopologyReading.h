#pragma once
// What the powerline probe learnt, as one value, and its JSON form: the
// contract with the app (sorted keys, compact, absent optionals left out).

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "HomePlugAV.h"

namespace orven {

struct PowerlineDeviceInfo {
    std::optional<HomePlugAV::SoftwareVersionConfirm> softwareVersion;
    std::optional<HomePlugAV::ManufacturerStringConfirm> manufacturerString;
    std::optional<HomePlugAV::EthernetSettingsConfirm> ethernetSettings;

    bool isEmpty() const { return !softwareVersion && !manufacturerString && !ethernetSettings; }
    bool operator==(const PowerlineDeviceInfo&) const = default;
};

struct PowerlineTopologyReading {
    int format = 1;
    std::string interface;
    std::string ownMAC;
    std::optional<HomePlugAV::NetworkInfoConfirm> networkInfo;
    std::vector<HomePlugAV::DiscoverListConfirm> discoverLists;
    std::int64_t listenedMillis = 0;
    std::optional<std::map<std::string, PowerlineDeviceInfo>> deviceInfo;

    bool operator==(const PowerlineTopologyReading&) const = default;

    // Every station MAC the discover lists and the network information name
    // (answering sources included), each once, in ascending text order.
    std::vector<std::string> stationMACs() const;

    struct Encoding {
        std::optional<std::string> json;
        std::string error;  // the encoder's own words when there is no JSON
    };
    Encoding encodedJSON() const;
    // The inverse of encodedJSON; absent (with the decoder's words in
    // `error` when given) for anything else.
    static std::optional<PowerlineTopologyReading> decoded(std::span<const std::uint8_t> json,
                                                           std::string* error = nullptr);
};

// The JSON of each record, as the reading writes it.
namespace HomePlugAV {
void to_json(nlohmann::json& json, const DiscoveredStation& value);
void from_json(const nlohmann::json& json, DiscoveredStation& value);
void to_json(nlohmann::json& json, const DiscoverListConfirm& value);
void from_json(const nlohmann::json& json, DiscoverListConfirm& value);
void to_json(nlohmann::json& json, const NetworkInfo& value);
void from_json(const nlohmann::json& json, NetworkInfo& value);
void to_json(nlohmann::json& json, const StationInfo& value);
void from_json(const nlohmann::json& json, StationInfo& value);
void to_json(nlohmann::json& json, const NetworkInfoConfirm& value);
void from_json(const nlohmann::json& json, NetworkInfoConfirm& value);
void to_json(nlohmann::json& json, const SoftwareVersionConfirm& value);
void from_json(const nlohmann::json& json, SoftwareVersionConfirm& value);
void to_json(nlohmann::json& json, const ManufacturerStringConfirm& value);
void from_json(const nlohmann::json& json, ManufacturerStringConfirm& value);
void to_json(nlohmann::json& json, const EthernetSettingsConfirm& value);
void from_json(const nlohmann::json& json, EthernetSettingsConfirm& value);
} // namespace HomePlugAV
void to_json(nlohmann::json& json, const PowerlineDeviceInfo& value);
void from_json(const nlohmann::json& json, PowerlineDeviceInfo& value);

} // namespace orven

// Hashing over every stored field, by way of the compact JSON that holds
// exactly those fields.
#define ORVEN_POWERLINE_HASH(TYPE)                          \
    template <>                                             \
    struct std::hash<TYPE> {                                \
        std::size_t operator()(const TYPE& value) const;    \
    };
ORVEN_POWERLINE_HASH(orven::HomePlugAV::DiscoverListConfirm)
ORVEN_POWERLINE_HASH(orven::HomePlugAV::NetworkInfoConfirm)
ORVEN_POWERLINE_HASH(orven::HomePlugAV::SoftwareVersionConfirm)
ORVEN_POWERLINE_HASH(orven::HomePlugAV::ManufacturerStringConfirm)
ORVEN_POWERLINE_HASH(orven::HomePlugAV::EthernetSettingsConfirm)
ORVEN_POWERLINE_HASH(orven::PowerlineDeviceInfo)
ORVEN_POWERLINE_HASH(orven::PowerlineTopologyReading)
#undef ORVEN_POWERLINE_HASH
