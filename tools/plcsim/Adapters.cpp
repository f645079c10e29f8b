#include "Adapters.h"

#include <algorithm>
#include <stdexcept>

namespace plcsim {

namespace hp = orven::HomePlugAV;
using nlohmann::json;

namespace {

const MACAddress kOtherHost{0x02, 0x00, 0x00, 0x00, 0x00, 0x99};
constexpr std::array<std::uint8_t, 3> kForeignOUI{0x00, 0x11, 0x22};
constexpr std::size_t kVersionFieldLength = 64;  // NUL-padded, as adapters send it

MACAddress macFrom(const json& value)
{
    const auto parsed = hp::macBytes(value.get<std::string>());
    if (!parsed) throw std::invalid_argument("not a MAC address: " + value.get<std::string>());
    return *parsed;
}

void put(Frame& frame, const MACAddress& mac) { frame.insert(frame.end(), mac.begin(), mac.end()); }
void put16(Frame& frame, int value)
{
    frame.push_back(static_cast<std::uint8_t>(value & 0xFF));
    frame.push_back(static_cast<std::uint8_t>((value >> 8) & 0xFF));
}
void zeros(Frame& frame, std::size_t count) { frame.insert(frame.end(), count, 0x00); }

Frame header(const MACAddress& to, const MACAddress& from, std::uint8_t mmv, std::uint16_t type)
{
    Frame frame;
    put(frame, to);
    put(frame, from);
    frame.insert(frame.end(), {0x88, 0xE1, mmv});
    put16(frame, type);
    if (mmv != 0) zeros(frame, 2);
    return frame;
}

std::set<std::string> namesAt(const json& faults, const char* key)
{
    std::set<std::string> names;
    if (faults.contains(key)) for (const auto& name : faults.at(key)) names.insert(name.get<std::string>());
    return names;
}

Adapter adapterFrom(const json& d)
{
    Adapter a;
    a.mac = macFrom(d.at("mac"));
    a.local = d.value("local", false);
    a.discover = d.value("discover", json::array());
    a.networks = d.value("networks", json::array());
    if (d.contains("networkInfoVersions")) a.networkInfoVersions = d.at("networkInfoVersions").get<std::set<int>>();
    a.deviceID = d.value("deviceID", 0x20);
    a.firmware = d.value("firmware", "");
    a.manufacturer = d.value("manufacturer", "");
    if (d.contains("ethernet")) {
        const auto& e = d.at("ethernet");
        a.ethernet = {e.value<std::uint8_t>("speedCode", 0), e.value<std::uint8_t>("duplexCode", 0),
                      e.value<std::uint8_t>("mdi", 0), e.value<std::uint8_t>("flowControl", 0)};
    }
    a.later = d.value("later", json::object());
    const auto faults = d.value("faults", json::object());
    a.faults.twice = namesAt(faults, "twice");
    a.faults.late = namesAt(faults, "late");
    a.faults.status = namesAt(faults, "status");
    a.faults.truncated = namesAt(faults, "truncated");
    a.faults.foreign = namesAt(faults, "foreign");
    a.faults.wrongPort = namesAt(faults, "wrongPort");
    a.faults.silent = namesAt(faults, "silent");
    a.faults.lateMillis = faults.value("lateMillis", 1800);
    return a;
}

// The confirmation proper, before any fault; `status` for vendor messages.
struct Built {
    Frame frame;
    std::size_t headerLength;
};

Built discoverConfirm(const Adapter& a, const MACAddress& to, std::uint8_t mmv)
{
    auto frame = header(to, a.mac, mmv, hp::MMType::ccDiscoverListConfirm);
    const std::size_t headerLength = frame.size();
    frame.push_back(static_cast<std::uint8_t>(a.discover.size()));
    for (const auto& s : a.discover) {
        put(frame, macFrom(s.at("mac")));
        frame.push_back(s.at("tei").get<std::uint8_t>());
        frame.push_back(s.value("sameNetwork", true) ? 0x01 : 0x00);
        frame.push_back(s.value<std::uint8_t>("shortNetworkID", 0));
        frame.insert(frame.end(), {0x00, 0x0A, 0x00});  // access, signal level, average BLE
    }
    frame.push_back(0x00);  // no networks listed
    return {frame, headerLength};
}

Built networkInfoConfirm(const Adapter& a, const MACAddress& to, std::uint8_t mmv)
{
    auto frame = header(to, a.mac, mmv, hp::MMType::vsNetworkInfoConfirm);
    const std::size_t headerLength = frame.size();
    frame.insert(frame.end(), hp::qualcommOUI.begin(), hp::qualcommOUI.end());
    if (mmv != 0) frame.insert(frame.end(), {0x00, 0x00, 0x00, 0x00, 0x00});
    frame.push_back(static_cast<std::uint8_t>(a.networks.size()));
    for (const auto& n : a.networks) {
        const auto nid = n.at("networkID").get<std::string>();
        for (std::size_t i = 0; i + 1 < nid.size() && i < 14; i += 2)
            frame.push_back(static_cast<std::uint8_t>(std::stoi(nid.substr(i, 2), nullptr, 16)));
        if (mmv != 0) zeros(frame, 2);
        frame.push_back(n.at("shortNetworkID").get<std::uint8_t>());
        frame.push_back(n.at("tei").get<std::uint8_t>());
        if (mmv != 0) zeros(frame, 4);
        frame.push_back(n.at("role").get<std::uint8_t>());
        put(frame, macFrom(n.at("ccoMAC")));
        frame.push_back(n.at("ccoTEI").get<std::uint8_t>());
        if (mmv != 0) zeros(frame, 3);
        const auto stations = n.value("stations", json::array());
        frame.push_back(static_cast<std::uint8_t>(stations.size()));
        if (mmv != 0) zeros(frame, 5);
        for (const auto& s : stations) {
            put(frame, macFrom(s.at("mac")));
            frame.push_back(s.at("tei").get<std::uint8_t>());
            if (mmv != 0) zeros(frame, 3);
            put(frame, macFrom(s.at("bridgedMAC")));
            const int tx = s.at("txMbps").get<int>(), rx = s.at("rxMbps").get<int>();
            if (mmv != 0) {
                put16(frame, tx);
                zeros(frame, 2);
                put16(frame, rx);
                zeros(frame, 2);
            } else {
                frame.push_back(static_cast<std::uint8_t>(std::min(tx, 255)));
                frame.push_back(static_cast<std::uint8_t>(std::min(rx, 255)));
            }
        }
    }
    return {frame, headerLength};
}

Built vendorConfirm(const Adapter& a, const MACAddress& to, std::uint16_t type, std::uint8_t status)
{
    auto frame = header(to, a.mac, 0, type);
    const std::size_t headerLength = frame.size();
    frame.insert(frame.end(), hp::qualcommOUI.begin(), hp::qualcommOUI.end());
    frame.push_back(status);
    if (type == hp::MMType::vsSoftwareVersionConfirm) {
        frame.push_back(static_cast<std::uint8_t>(a.deviceID));
        frame.push_back(static_cast<std::uint8_t>(kVersionFieldLength));
        auto field = a.firmware.substr(0, kVersionFieldLength);
        frame.insert(frame.end(), field.begin(), field.end());
        zeros(frame, kVersionFieldLength - field.size());
    } else if (type == hp::MMType::vsManufacturerStringConfirm) {
        frame.push_back(static_cast<std::uint8_t>(std::min<std::size_t>(a.manufacturer.size(), 255)));
        frame.insert(frame.end(), a.manufacturer.begin(),
                     a.manufacturer.begin() + static_cast<long>(std::min<std::size_t>(a.manufacturer.size(), 255)));
    } else {
        frame.insert(frame.end(), a.ethernet.begin(), a.ethernet.end());
    }
    return {frame, headerLength};
}

bool addressedTo(const Adapter& a, const MACAddress& destination)
{
    return destination == a.mac || destination == hp::broadcastMAC ||
           (a.local && destination == hp::localManagementMAC);
}

Adapter withLater(const Adapter& a)
{
    if (a.later.empty()) return a;
    Adapter later = a;
    const auto& l = a.later;
    if (l.contains("discover")) later.discover = l.at("discover");
    if (l.contains("networks")) later.networks = l.at("networks");
    if (l.contains("firmware")) later.firmware = l.at("firmware").get<std::string>();
    if (l.contains("manufacturer")) later.manufacturer = l.at("manufacturer").get<std::string>();
    return later;
}

Frame padded(Frame frame)
{
    if (frame.size() < hp::minimumFrameLength) frame.resize(hp::minimumFrameLength, 0x00);
    return frame;
}

} // namespace

std::vector<Adapter> adaptersFrom(const json& description)
{
    std::vector<Adapter> adapters;
    for (const auto& d : description.at("adapters")) adapters.push_back(adapterFrom(d));
    return adapters;
}

std::vector<Answer> answersTo(const Adapter& adapter, const Frame& request)
{
    if (request.size() < 17 || request[12] != 0x88 || request[13] != 0xE1) return {};
    MACAddress destination{}, requester{};
    std::copy_n(request.begin(), 6, destination.begin());
    std::copy_n(request.begin() + 6, 6, requester.begin());
    if (!addressedTo(adapter, destination)) return {};
    const std::uint8_t mmv = request[14];
    const std::uint16_t type = static_cast<std::uint16_t>(request[15] | (request[16] << 8));

    std::string kind;
    if (type == hp::MMType::ccDiscoverListRequest) kind = "discover";
    else if (destination == hp::broadcastMAC) return {};  // only the discovery goes to everyone
    else if (type == hp::MMType::vsNetworkInfoRequest) kind = "nwinfo";
    else if (type == hp::MMType::vsSoftwareVersionRequest) kind = "swver";
    else if (type == hp::MMType::vsManufacturerStringRequest) kind = "mfg";
    else if (type == hp::MMType::vsEthernetSettingsRequest) kind = "enet";
    else return {};
    const auto& f = adapter.faults;
    if (f.silent.contains(kind) || f.silent.contains("all")) return {};
    if (kind == "nwinfo" && !adapter.networkInfoVersions.contains(mmv == 0 ? 0 : 1)) return {};

    const auto& to = f.wrongPort.contains(kind) ? kOtherHost : requester;
    const std::uint8_t status = f.status.contains(kind) ? 0x01 : 0x00;
    const auto build = [&](const Adapter& a) {
        if (kind == "discover") return discoverConfirm(a, to, mmv);
        if (kind == "nwinfo") return networkInfoConfirm(a, to, mmv);
        if (kind == "swver") return vendorConfirm(a, to, hp::MMType::vsSoftwareVersionConfirm, status);
        if (kind == "mfg") return vendorConfirm(a, to, hp::MMType::vsManufacturerStringConfirm, status);
        return vendorConfirm(a, to, hp::MMType::vsEthernetSettingsConfirm, status);
    };
    const auto finish = [&](Built built) {
        std::vector<Frame> frames;
        if (f.foreign.contains(kind)) {
            // Another vendor's OUI (or an unknown type), and a frame that is
            // not HomePlug AV at all.
            if (kind == "discover") {
                built.frame[15] = 0x46;
                built.frame[16] = 0x60;
            } else {
                std::copy_n(kForeignOUI.begin(), kForeignOUI.size(), built.frame.begin() + static_cast<long>(built.headerLength));
            }
            auto other = built.frame;
            other[12] = 0x08;
            other[13] = 0x00;
            frames.push_back(padded(std::move(other)));
        }
        if (f.truncated.contains(kind)) {
            const std::size_t payload = built.frame.size() - built.headerLength;
            built.frame.resize(built.headerLength + payload * 2 / 3);
            frames.push_back(std::move(built.frame));
        } else {
            frames.push_back(padded(std::move(built.frame)));
        }
        return frames;
    };

    const std::chrono::milliseconds delay{f.late.contains(kind) ? f.lateMillis : 0};
    std::vector<Answer> answers;
    for (auto& frame : finish(build(adapter))) answers.push_back({std::move(frame), delay});
    if (f.twice.contains(kind))
        for (auto& frame : finish(build(withLater(adapter)))) answers.push_back({std::move(frame), delay});
    return answers;
}

} // namespace plcsim
