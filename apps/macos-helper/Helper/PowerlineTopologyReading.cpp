#include "PowerlineTopologyReading.h"

#include <limits>
#include <set>
#include <utility>

#include <nlohmann/json.hpp>

namespace orven {

namespace {

// Integers must be JSON integers that fit; the decoder refuses the rest
// rather than wrap them.
template <class T>
T integerAt(const nlohmann::json& json, const char* key)
{
    const auto& value = json.at(key);
    if (!value.is_number_integer())
        throw nlohmann::json::type_error::create(302, std::string("\"") + key + "\" is not an integer", &value);
    if (value.is_number_unsigned() ? !std::in_range<T>(value.get<std::uint64_t>())
                                   : !std::in_range<T>(value.get<std::int64_t>()))
        throw nlohmann::json::out_of_range::create(406, std::string("\"") + key + "\" is out of range", &value);
    return value.is_number_unsigned() ? static_cast<T>(value.get<std::uint64_t>())
                                      : static_cast<T>(value.get<std::int64_t>());
}

std::string textAt(const nlohmann::json& json, const char* key)
{
    const auto& value = json.at(key);
    if (!value.is_string())
        throw nlohmann::json::type_error::create(302, std::string("\"") + key + "\" is not a string", &value);
    return value.get<std::string>();
}

bool flagAt(const nlohmann::json& json, const char* key)
{
    const auto& value = json.at(key);
    if (!value.is_boolean())
        throw nlohmann::json::type_error::create(302, std::string("\"") + key + "\" is not a boolean", &value);
    return value.get<bool>();
}

template <class T>
std::vector<T> listAt(const nlohmann::json& json, const char* key)
{
    const auto& value = json.at(key);
    if (!value.is_array())
        throw nlohmann::json::type_error::create(302, std::string("\"") + key + "\" is not a list", &value);
    return value.get<std::vector<T>>();
}

void requireObject(const nlohmann::json& json)
{
    if (!json.is_object()) throw nlohmann::json::type_error::create(302, "expected an object", &json);
}

template <class T>
std::optional<T> optionalAt(const nlohmann::json& json, const char* key)
{
    const auto found = json.find(key);
    if (found == json.end()) return std::nullopt;
    return found->get<T>();
}

template <class T>
void putOptional(nlohmann::json& json, const char* key, const std::optional<T>& value)
{
    if (value) json[key] = *value;
}

} // namespace

namespace HomePlugAV {

void to_json(nlohmann::json& json, const DiscoveredStation& value)
{
    json = {{"mac", value.mac}, {"tei", value.tei}, {"sameNetwork", value.sameNetwork},
            {"shortNetworkID", value.shortNetworkID}};
}
void from_json(const nlohmann::json& json, DiscoveredStation& value)
{
    requireObject(json);
    value = {textAt(json, "mac"), integerAt<int>(json, "tei"), flagAt(json, "sameNetwork"),
             integerAt<int>(json, "shortNetworkID")};
}

void to_json(nlohmann::json& json, const DiscoverListConfirm& value)
{
    json = {{"source", value.source}, {"stations", value.stations}};
}
void from_json(const nlohmann::json& json, DiscoverListConfirm& value)
{
    requireObject(json);
    value = {textAt(json, "source"), listAt<DiscoveredStation>(json, "stations")};
}

void to_json(nlohmann::json& json, const NetworkInfo& value)
{
    json = {{"networkID", value.networkID}, {"shortNetworkID", value.shortNetworkID}, {"tei", value.tei},
            {"role", value.role},           {"ccoMAC", value.ccoMAC},                 {"ccoTEI", value.ccoTEI}};
}
void from_json(const nlohmann::json& json, NetworkInfo& value)
{
    requireObject(json);
    value = {textAt(json, "networkID"), integerAt<int>(json, "shortNetworkID"), integerAt<int>(json, "tei"),
             integerAt<int>(json, "role"), textAt(json, "ccoMAC"), integerAt<int>(json, "ccoTEI")};
}

void to_json(nlohmann::json& json, const StationInfo& value)
{
    json = {{"mac", value.mac},
            {"tei", value.tei},
            {"bridgedMAC", value.bridgedMAC},
            {"txMbps", value.txMbps},
            {"rxMbps", value.rxMbps}};
}
void from_json(const nlohmann::json& json, StationInfo& value)
{
    requireObject(json);
    value = {textAt(json, "mac"), integerAt<int>(json, "tei"), textAt(json, "bridgedMAC"),
             integerAt<int>(json, "txMbps"), integerAt<int>(json, "rxMbps")};
}

void to_json(nlohmann::json& json, const NetworkInfoConfirm& value)
{
    json = {{"source", value.source}, {"mmv", value.mmv}, {"networks", value.networks}, {"stations", value.stations}};
}
void from_json(const nlohmann::json& json, NetworkInfoConfirm& value)
{
    requireObject(json);
    value = {textAt(json, "source"), integerAt<int>(json, "mmv"), listAt<NetworkInfo>(json, "networks"),
             listAt<StationInfo>(json, "stations")};
}

void to_json(nlohmann::json& json, const SoftwareVersionConfirm& value)
{
    json = {{"source", value.source}, {"deviceID", value.deviceID}, {"version", value.version}};
}
void from_json(const nlohmann::json& json, SoftwareVersionConfirm& value)
{
    requireObject(json);
    value = {textAt(json, "source"), integerAt<int>(json, "deviceID"), textAt(json, "version")};
}

void to_json(nlohmann::json& json, const ManufacturerStringConfirm& value)
{
    json = {{"source", value.source}, {"text", value.text}};
}
void from_json(const nlohmann::json& json, ManufacturerStringConfirm& value)
{
    requireObject(json);
    value = {textAt(json, "source"), textAt(json, "text")};
}

void to_json(nlohmann::json& json, const EthernetSettingsConfirm& value)
{
    json = {{"source", value.source},
            {"speedCode", value.speedCode},
            {"duplexCode", value.duplexCode},
            {"mdi", value.mdi},
            {"flowControl", value.flowControl}};
}
void from_json(const nlohmann::json& json, EthernetSettingsConfirm& value)
{
    requireObject(json);
    value = {textAt(json, "source"), integerAt<int>(json, "speedCode"), integerAt<int>(json, "duplexCode"),
             integerAt<int>(json, "mdi"), integerAt<int>(json, "flowControl")};
}

} // namespace HomePlugAV

void to_json(nlohmann::json& json, const PowerlineDeviceInfo& value)
{
    json = nlohmann::json::object();
    putOptional(json, "softwareVersion", value.softwareVersion);
    putOptional(json, "manufacturerString", value.manufacturerString);
    putOptional(json, "ethernetSettings", value.ethernetSettings);
}
void from_json(const nlohmann::json& json, PowerlineDeviceInfo& value)
{
    requireObject(json);
    value = {optionalAt<HomePlugAV::SoftwareVersionConfirm>(json, "softwareVersion"),
             optionalAt<HomePlugAV::ManufacturerStringConfirm>(json, "manufacturerString"),
             optionalAt<HomePlugAV::EthernetSettingsConfirm>(json, "ethernetSettings")};
}

namespace {

nlohmann::json readingJSON(const PowerlineTopologyReading& reading)
{
    nlohmann::json json = {{"format", reading.format},
                           {"interface", reading.interface},
                           {"ownMAC", reading.ownMAC},
                           {"discoverLists", reading.discoverLists},
                           {"listenedMillis", reading.listenedMillis}};
    putOptional(json, "networkInfo", reading.networkInfo);
    putOptional(json, "deviceInfo", reading.deviceInfo);
    return json;
}

} // namespace

std::vector<std::string> PowerlineTopologyReading::stationMACs() const
{
    std::set<std::string> macs;
    for (const auto& list : discoverLists) {
        macs.insert(list.source);
        for (const auto& station : list.stations) macs.insert(station.mac);
    }
    if (networkInfo) {
        macs.insert(networkInfo->source);
        for (const auto& station : networkInfo->stations) macs.insert(station.mac);
    }
    return {macs.begin(), macs.end()};
}

PowerlineTopologyReading::Encoding PowerlineTopologyReading::encodedJSON() const
{
    // nlohmann::json keeps object keys in a std::map: sorted at every level.
    try {
        return {readingJSON(*this).dump(), {}};
    } catch (const nlohmann::json::exception& exception) {
        return {std::nullopt, exception.what()};
    }
}

std::optional<PowerlineTopologyReading> PowerlineTopologyReading::decoded(std::span<const std::uint8_t> bytes,
                                                                          std::string* error)
{
    try {
        const auto json = nlohmann::json::parse(bytes.begin(), bytes.end());
        requireObject(json);
        PowerlineTopologyReading reading;
        reading.format = integerAt<int>(json, "format");
        reading.interface = textAt(json, "interface");
        reading.ownMAC = textAt(json, "ownMAC");
        reading.networkInfo = optionalAt<HomePlugAV::NetworkInfoConfirm>(json, "networkInfo");
        reading.discoverLists = listAt<HomePlugAV::DiscoverListConfirm>(json, "discoverLists");
        reading.listenedMillis = integerAt<std::int64_t>(json, "listenedMillis");
        if (const auto found = json.find("deviceInfo"); found != json.end()) {
            requireObject(*found);
            reading.deviceInfo = found->get<std::map<std::string, PowerlineDeviceInfo>>();
        }
        return reading;
    } catch (const nlohmann::json::exception& exception) {
        if (error) *error = exception.what();
        return std::nullopt;
    }
}

} // namespace orven

#define ORVEN_POWERLINE_HASH(TYPE)                                                       \
    std::size_t std::hash<TYPE>::operator()(const TYPE& value) const                     \
    {                                                                                    \
        return std::hash<std::string>{}(                                                  \
            nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)); \
    }
ORVEN_POWERLINE_HASH(orven::HomePlugAV::DiscoverListConfirm)
ORVEN_POWERLINE_HASH(orven::HomePlugAV::NetworkInfoConfirm)
ORVEN_POWERLINE_HASH(orven::HomePlugAV::SoftwareVersionConfirm)
ORVEN_POWERLINE_HASH(orven::HomePlugAV::ManufacturerStringConfirm)
ORVEN_POWERLINE_HASH(orven::HomePlugAV::EthernetSettingsConfirm)
ORVEN_POWERLINE_HASH(orven::PowerlineDeviceInfo)
#undef ORVEN_POWERLINE_HASH

std::size_t std::hash<orven::PowerlineTopologyReading>::operator()(const orven::PowerlineTopologyReading& value) const
{
    return std::hash<std::string>{}(orven::readingJSON(value).dump(-1, ' ', false,
                                                                    nlohmann::json::error_handler_t::replace));
}
