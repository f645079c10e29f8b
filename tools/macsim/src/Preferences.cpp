#include "Preferences.h"

#include <algorithm>

#include <sys/stat.h>

#include "BinaryPlist.h"

namespace orven::macsim {

namespace {

using nlohmann::json;

json ipv4Entity(const Service& svc) {
    json v4 = json::object();
    if (svc.ipv4.empty())
        return v4;
    v4["ConfigMethod"] = svc.ipv4;
    if (!svc.v4Address.empty())
        v4["Addresses"] = json::array({svc.v4Address});
    if (!svc.v4Mask.empty())
        v4["SubnetMasks"] = json::array({svc.v4Mask});
    if (!svc.v4Router.empty())
        v4["Router"] = svc.v4Router;
    return v4;
}

json ipv6Entity(const Service& svc) {
    json v6 = json::object();
    if (svc.ipv6.empty())
        return v6;
    v6["ConfigMethod"] = svc.ipv6;
    if (!svc.v6Address.empty()) {
        v6["Addresses"] = json::array({svc.v6Address});
        v6["PrefixLength"] = json::array({svc.v6PrefixLength});
    }
    if (!svc.v6Router.empty())
        v6["Router"] = svc.v6Router;
    return v6;
}

std::vector<std::string> components(const std::string& path) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start <= path.size()) {
        auto end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        if (end > start)
            out.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

} // namespace

json preferencesOf(const NetModel& net) {
    json services = json::object();
    json links = json::object();
    json order = json::array();
    for (const auto& svc : net.services) {
        json itf = {{"Hardware", svc.hardware}, {"Type", svc.type},
                    {"UserDefinedName", svc.hardwarePort.empty() ? svc.name : svc.hardwarePort}};
        if (svc.device)
            itf["DeviceName"] = *svc.device;
        if (!svc.subType.empty())
            itf["SubType"] = svc.subType;
        json entry = {{"UserDefinedName", svc.name}, {"Interface", itf}, {"IPv4", ipv4Entity(svc)},
                      {"IPv6", ipv6Entity(svc)}};
        if (!svc.enabled)
            entry["__INACTIVE__"] = true;
        services[svc.id] = entry;
        links[svc.id] = {{"__LINK__", "/NetworkServices/" + svc.id}};
        order.push_back(svc.id);
    }
    json prefs = {{"CurrentSet", "/Sets/" + net.setId},
                  {"NetworkServices", services},
                  {"Sets",
                   {{net.setId,
                     {{"UserDefinedName", "Automatic"},
                      {"Network",
                       {{"Global", {{"IPv4", {{"ServiceOrder", order}}}}},
                        {"Service", links},
                        {"Interface", json::object()}}}}}}}};
    for (const auto& [path, text] : net.preferencePaths) {
        json* node = &prefs;
        for (const auto& part : components(path)) {
            if (!node->is_object())
                *node = json::object();
            node = &(*node)[part];
        }
        *node = json::parse(text, nullptr, false);
    }
    return prefs;
}

json interfaceSetupKeys(const NetModel& net) {
    json keys = json::object();
    const json prefs = preferencesOf(net);
    const json::json_pointer base("/Sets/" + net.setId + "/Network/Interface");
    if (!prefs.contains(base) || !prefs.at(base).is_object())
        return keys;
    const auto publish = [&keys](const std::string& key, const json& dictionary, auto& self) -> void {
        json flat = json::object();
        for (const auto& [name, value] : dictionary.items()) {
            if (value.is_object())
                self(key + "/" + name, value, self);
            else
                flat[name] = value.is_string() ? value : json(); // the store's copies carry strings only
        }
        if (!flat.empty())
            keys[key] = flat;
    };
    for (const auto& [bsd, dictionary] : prefs.at(base).items())
        if (dictionary.is_object())
            publish("Setup:/Network/Interface/" + bsd, dictionary, publish);
    return keys;
}

void writePreference(NetModel& net, const std::string& path, const json& value) {
    std::string normal;
    for (const auto& part : components(path))
        normal += "/" + part;
    // A write replaces whatever was written below that path before.
    for (auto it = net.preferencePaths.begin(); it != net.preferencePaths.end();)
        it = it->first.starts_with(normal + "/") ? net.preferencePaths.erase(it) : std::next(it);
    net.preferencePaths[normal] = value.dump();
}

void applyPreferences(NetModel& net) {
    const json prefs = preferencesOf(net);
    const json::json_pointer base("/Sets/" + net.setId + "/Network/Interface");
    if (!prefs.contains(base))
        return;
    for (auto& itf : net.interfaces) {
        if (!itf.attached)
            continue;
        const auto reading = copyMtu(net, itf.name);
        const json::json_pointer mtu(base.to_string() + "/" + itf.name + "/" + (reading ? reading->entity : "Ethernet") +
                                     "/MTU");
        if (prefs.contains(mtu) && prefs.at(mtu).is_number_integer())
            itf.mtu = prefs.at(mtu).get<int>();
    }
}

std::optional<MtuReading> copyMtu(const NetModel& net, const std::string& bsdName) {
    const Interface* itf = net.findInterface(bsdName);
    if (!itf || !itf->attached)
        return std::nullopt;
    const auto [deviceMin, deviceMax] = net.deviceMtuRange(*itf);
    MtuReading r;
    r.current = itf->mtu;
    r.maximum = deviceMax;
    // Raised to the generic minimum, then to the IPv6 minimum, but never
    // above what the interface runs at or can do.
    r.minimum = std::max(deviceMin, 72);
    r.minimum = std::max(r.minimum, std::min({1280, r.current, r.maximum}));
    r.entity = itf->kind == "wifi" ? "AirPort" : "Ethernet";
    return r;
}

std::string knownNetworksPlist(const NetModel& net) {
    std::vector<std::pair<std::string, PlistValue>> networks;
    for (const auto& itf : net.interfaces) {
        if (itf.kind != "wifi")
            continue;
        for (const auto& p : itf.preferred) {
            const std::string key = "wifi.network.ssid." + p.ssid;
            if (std::any_of(networks.begin(), networks.end(), [&](const auto& n) { return n.first == key; }))
                continue;
            networks.emplace_back(key, PlistValue::dictionary({{"AddedAt", PlistValue::dateFromUnix(p.addedAt)},
                                                                {"SSID", PlistValue::data(p.ssid)},
                                                                {"SupportedSecurityTypes", PlistValue::string(p.security)}}));
        }
    }
    return encodeBinaryPlist(PlistValue::dictionary(std::move(networks)));
}

void writeKnownNetworks(const StorePaths& paths, const NetModel& net) {
    const std::string file = paths.host(kKnownNetworksPath);
    ::mkdir(paths.host("/Library/Preferences").c_str(), 0755);
    if (writeFileAtomic(file, knownNetworksPlist(net)))
        ::chmod(file.c_str(), 0600);
}

} // namespace orven::macsim
