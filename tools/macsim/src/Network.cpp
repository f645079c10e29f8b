#include "Network.h"

#include <algorithm>
#include <array>
#include <cctype>

#include <nlohmann/json.hpp>

namespace orven::macsim {

namespace {

IpAddr ip(std::string_view text) { return IpAddr::parse(text).value_or(IpAddr{}); }

InterfaceAddress ifaddr(std::string_view text, int prefix) { return InterfaceAddress{ip(text), prefix}; }

RemoteHost remote(std::string_view addr, double rtt, int ttl, std::vector<std::uint16_t> tcp,
                  std::vector<std::uint16_t> udp) {
    RemoteHost h;
    h.addr = ip(addr);
    h.rttMs = rtt;
    h.ttl = ttl;
    h.tcp = std::move(tcp);
    h.udp = std::move(udp);
    return h;
}

} // namespace

NetModel NetModel::stock() {
    NetModel n;
    n.interfaces.push_back({"lo0", "loopback", true, 16384,
                            {ifaddr("127.0.0.1", 8), ifaddr("::1", 128)}});
    n.interfaces.push_back({"en0", "wifi", true, 1500,
                            {ifaddr("192.168.1.23", 24), ifaddr("2001:db8:1::23", 64),
                             ifaddr("fe80::1c2a:3bff:fe4c:5d6e", 64)}});
    n.interfaces.push_back({"bridge0", "bridge", true, 1500, {}});
    n.interfaces.push_back({"utun0", "tunnel", true, 1380, {ifaddr("fe80::9a1c:4f2e:7d3b:1a05", 64)}});
    n.gateway4 = ip("192.168.1.1");
    n.gateway6 = ip("fe80::1");
    // The internet the probes reach, and a few hosts of the local network.
    n.hosts.push_back(remote("1.1.1.1", 12.0, 57, {443, 80, 53}, {53}));
    n.hosts.push_back(remote("2606:4700:4700::1111", 12.5, 57, {443, 80, 53}, {53}));
    n.hosts.push_back(remote("192.168.1.1", 2.1, 64, {53, 80}, {53, 67}));
    n.hosts.push_back(remote("fe80::1", 2.2, 64, {53}, {53, 547}));
    // The gateways' first reply pays for address resolution.
    n.hosts[n.hosts.size() - 2].rttSeries = {6.4, 2.1, 1.9, 2.3, 2.0};
    n.hosts[n.hosts.size() - 1].rttSeries = {7.1, 2.2, 2.0, 2.4, 2.1};
    n.hosts.push_back(remote("192.168.1.53", 1.4, 64, {53}, {53}));
    n.hosts.push_back(remote("192.168.1.77", 1.8, 64, {22, 445}, {5353}));
    n.hosts.push_back(remote("2001:db8:1::77", 1.9, 64, {22, 445}, {5353}));
    n.setId = "3C1E9A52-6B0D-4F7E-8A21-5D9C0B7F4E13";
    Service wifi;
    wifi.id = "8A1F3C2E-4B5D-4E6F-9A7B-0C1D2E3F4A5B";
    wifi.name = "Wi-Fi";
    wifi.device = "en0";
    wifi.hardware = "AirPort";
    wifi.type = "Ethernet";
    n.services.push_back(wifi);
    Service bridge;
    bridge.id = "5E7D9B1A-3C2F-4A6E-8D0B-1F2E3D4C5B6A";
    bridge.name = "Thunderbolt Bridge";
    bridge.device = "bridge0";
    bridge.hardware = "Bridge";
    bridge.type = "Bridge";
    n.services.push_back(bridge);
    n.managed = {"en0", "bridge0"};
    n.findService("Wi-Fi")->hardwarePort = "Wi-Fi";
    n.findInterface("en0")->preferred.push_back({"Home", "WPA2 Personal", true, 1700000000});
    n.receipts = {"test.orven.app.helper"};
    // A connection the Mac already had open when the simulation starts.
    Flow f;
    f.id = n.nextFlowId++;
    f.proto = 6;
    f.ifname = "en0";
    f.local = ip("192.168.1.23");
    f.remote = ip("1.1.1.1");
    f.localPort = 52001;
    f.remotePort = 443;
    n.flows.push_back(f);
    return n;
}

Interface* NetModel::findInterface(std::string_view name) {
    for (auto& i : interfaces)
        if (i.name == name)
            return &i;
    return nullptr;
}

const Interface* NetModel::findInterface(std::string_view name) const {
    for (const auto& i : interfaces)
        if (i.name == name)
            return &i;
    return nullptr;
}

RemoteHost* NetModel::findHost(const IpAddr& addr) {
    for (auto& h : hosts)
        if (h.addr == addr)
            return &h;
    return nullptr;
}

bool NetModel::isLocalAddress(const IpAddr& addr) const {
    for (const auto& i : interfaces)
        for (const auto& a : i.addrs)
            if (a.addr == addr)
                return true;
    return false;
}

std::vector<IpAddr> NetModel::addressesOf(std::string_view ifname) const {
    std::vector<IpAddr> out;
    if (const Interface* i = findInterface(ifname))
        for (const auto& a : i->addrs)
            out.push_back(a.addr);
    return out;
}

std::optional<Route> NetModel::route(const IpAddr& dst, std::string_view bound) const {
    auto sourceOn = [&](const Interface& i) -> std::optional<IpAddr> {
        std::optional<IpAddr> linkLocal;
        for (const auto& a : i.addrs) {
            if (a.addr.family != dst.family)
                continue;
            if (dst.family == Family::Inet6 && a.addr.isLinkLocal6() != dst.isLinkLocal6()) {
                if (a.addr.isLinkLocal6())
                    linkLocal = a.addr;
                continue;
            }
            return a.addr;
        }
        return linkLocal;
    };
    if (!bound.empty()) {
        const Interface* i = findInterface(bound);
        if (!i || !i->up)
            return std::nullopt;
        auto src = sourceOn(*i);
        if (!src)
            return std::nullopt;
        return Route{i->name, *src, i->kind == "loopback"};
    }
    if (dst.isLoopback() || isLocalAddress(dst)) {
        IpAddr src = dst;
        if (dst.isLoopback())
            src = ip(dst.family == Family::Inet ? "127.0.0.1" : "::1");
        return Route{"lo0", src, true};
    }
    for (const auto& i : interfaces) {
        if (!i.up || i.kind == "loopback")
            continue;
        for (const auto& a : i.addrs)
            if (a.addr.family == dst.family && !a.addr.isLinkLocal6() && inPrefix(dst, a.addr, a.prefix))
                return Route{i.name, a.addr, false};
    }
    const Interface* gw = findInterface(gatewayInterface);
    if (!gw || !gw->up)
        return std::nullopt;
    if (dst.family == Family::Inet && gateway4.family == Family::None)
        return std::nullopt;
    if (dst.family == Family::Inet6 && gateway6.family == Family::None && !dst.isLinkLocal6())
        return std::nullopt;
    auto src = sourceOn(*gw);
    if (!src)
        return std::nullopt;
    return Route{gw->name, *src, false};
}

std::uint16_t NetModel::ephemeralPort() {
    const std::uint16_t port = nextPort;
    nextPort = nextPort >= 65535 ? 49152 : static_cast<std::uint16_t>(nextPort + 1);
    return port;
}

std::vector<std::string> NetModel::configurableInterfaces() const {
    static constexpr std::array<std::string_view, 9> hidden{"lo", "utun", "ipsec", "awdl", "llw", "gif", "stf",
                                                            "anpi", "ap"};
    std::vector<std::string> out;
    for (const auto& i : interfaces) {
        bool hide = false;
        for (auto prefix : hidden)
            if (i.name.starts_with(prefix) && i.name.size() > prefix.size() &&
                std::isdigit(static_cast<unsigned char>(i.name[prefix.size()])))
                hide = true;
        if (!hide)
            out.push_back(i.name);
    }
    return out;
}

Service* NetModel::findService(std::string_view name) {
    for (auto& s : services)
        if (s.name == name)
            return &s;
    return nullptr;
}

std::pair<int, int> NetModel::deviceMtuRange(const Interface& itf) const {
    // What drivers report: Wi-Fi stops at 1500, wired and bridges take
    // jumbo frames, tunnels take anything the kernel's generic check allows.
    int lo = 72, hi = 1500;
    if (itf.kind == "ethernet" || itf.kind == "bridge")
        hi = 9000;
    else if (itf.kind == "tunnel")
        hi = 65535;
    else if (itf.kind == "loopback")
        hi = 16384;
    return {itf.deviceMtuMin > 0 ? itf.deviceMtuMin : lo, itf.deviceMtuMax > 0 ? itf.deviceMtuMax : hi};
}

nlohmann::json NetModel::toJson() const {
    using nlohmann::json;
    json j;
    json ifs = json::array();
    for (const auto& i : interfaces) {
        json addrs = json::array();
        for (const auto& a : i.addrs)
            addrs.push_back(a.addr.str() + "/" + std::to_string(a.prefix));
        json preferred = json::array();
        for (const auto& p : i.preferred)
            preferred.push_back({{"ssid", p.ssid}, {"security", p.security}, {"keychain", p.passwordInKeychain},
                                 {"addedAt", p.addedAt}});
        ifs.push_back({{"name", i.name}, {"kind", i.kind}, {"up", i.up}, {"mtu", i.mtu}, {"addrs", addrs},
                       {"deviceMtuMin", i.deviceMtuMin}, {"deviceMtuMax", i.deviceMtuMax}, {"attached", i.attached},
                       {"wifiPower", i.wifiPower}, {"preferred", preferred}});
    }
    j["interfaces"] = ifs;
    j["gatewayInterface"] = gatewayInterface;
    j["gateway4"] = gateway4.family == Family::None ? "" : gateway4.str();
    j["gateway6"] = gateway6.family == Family::None ? "" : gateway6.str();
    json hs = json::array();
    for (const auto& h : hosts)
        hs.push_back({{"addr", h.addr.str()}, {"up", h.up}, {"rtt", h.rttMs}, {"ttl", h.ttl}, {"mtu", h.pathMtu},
                      {"rttSeries", h.rttSeries}, {"mtuVia", h.pathMtuVia}, {"lost", h.lostSeqs},
                      {"tcp", h.tcp}, {"udp", h.udp}});
    j["hosts"] = hs;
    j["set"] = setId;
    json svcs = json::array();
    for (const auto& s : services) {
        json o = {{"id", s.id},     {"name", s.name}, {"enabled", s.enabled}, {"hardware", s.hardware},
                  {"type", s.type}, {"subType", s.subType}, {"ipv4", s.ipv4}, {"ipv6", s.ipv6},
                  {"v4Address", s.v4Address}, {"v4Mask", s.v4Mask}, {"v4Router", s.v4Router},
                  {"v6Address", s.v6Address}, {"v6Router", s.v6Router}, {"v6PrefixLength", s.v6PrefixLength},
                  {"hardwarePort", s.hardwarePort}};
        if (s.device)
            o["device"] = *s.device;
        svcs.push_back(o);
    }
    j["services"] = svcs;
    j["managed"] = managed;
    json fl = json::array();
    for (const auto& f : flows)
        fl.push_back({{"id", f.id}, {"proto", f.proto}, {"if", f.ifname}, {"local", f.local.str()},
                      {"remote", f.remote.str()}, {"lport", f.localPort}, {"rport", f.remotePort}});
    j["flows"] = fl;
    j["nextFlow"] = nextFlowId;
    j["nextPort"] = nextPort;
    j["probeDelayMs"] = probeDelayMs;
    j["ping6Assumed"] = ping6AssumedOptions;
    if (clockEpoch)
        j["clock"] = *clockEpoch;
    j["receipts"] = receipts;
    j["preferencePaths"] = preferencePaths;
    j["preferencesGeneration"] = preferencesGeneration;
    j["leases"] = leases;
    return j;
}

NetModel NetModel::fromJson(const nlohmann::json& j) {
    NetModel n;
    for (const auto& i : j.at("interfaces")) {
        Interface itf;
        itf.name = i.at("name").get<std::string>();
        itf.kind = i.value("kind", "ethernet");
        itf.up = i.value("up", true);
        itf.mtu = i.value("mtu", 1500);
        for (const auto& a : i.at("addrs")) {
            std::string text = a.get<std::string>();
            auto slash = text.find('/');
            InterfaceAddress ia;
            ia.addr = ip(text.substr(0, slash));
            ia.prefix = slash == std::string::npos ? ia.addr.maxBits() : std::stoi(text.substr(slash + 1));
            itf.addrs.push_back(ia);
        }
        itf.deviceMtuMin = i.value("deviceMtuMin", 0);
        itf.deviceMtuMax = i.value("deviceMtuMax", 0);
        itf.attached = i.value("attached", true);
        itf.wifiPower = i.value("wifiPower", true);
        for (const auto& p : i.value("preferred", nlohmann::json::array()))
            itf.preferred.push_back({p.value("ssid", ""), p.value("security", ""), p.value("keychain", false),
                                     p.value("addedAt", std::int64_t{0})});
        n.interfaces.push_back(itf);
    }
    n.gatewayInterface = j.value("gatewayInterface", "en0");
    n.gateway4 = ip(j.value("gateway4", ""));
    n.gateway6 = ip(j.value("gateway6", ""));
    for (const auto& h : j.at("hosts")) {
        RemoteHost r;
        r.addr = ip(h.at("addr").get<std::string>());
        r.up = h.value("up", true);
        r.rttMs = h.value("rtt", 12.0);
        r.ttl = h.value("ttl", 57);
        r.pathMtu = h.value("mtu", 1500);
        r.rttSeries = h.value("rttSeries", std::vector<double>{});
        r.pathMtuVia = h.value("mtuVia", std::map<std::string, int>{});
        r.lostSeqs = h.value("lost", std::vector<long>{});
        r.tcp = h.value("tcp", std::vector<std::uint16_t>{});
        r.udp = h.value("udp", std::vector<std::uint16_t>{});
        n.hosts.push_back(r);
    }
    n.setId = j.value("set", "");
    for (const auto& s : j.at("services")) {
        Service svc;
        svc.id = s.at("id").get<std::string>();
        svc.name = s.at("name").get<std::string>();
        svc.enabled = s.value("enabled", true);
        if (s.contains("device"))
            svc.device = s["device"].get<std::string>();
        svc.hardware = s.value("hardware", "");
        svc.type = s.value("type", "");
        svc.subType = s.value("subType", "");
        svc.ipv4 = s.value("ipv4", "DHCP");
        svc.ipv6 = s.value("ipv6", "Automatic");
        svc.v4Address = s.value("v4Address", "");
        svc.v4Mask = s.value("v4Mask", "");
        svc.v4Router = s.value("v4Router", "");
        svc.v6Address = s.value("v6Address", "");
        svc.v6Router = s.value("v6Router", "");
        svc.v6PrefixLength = s.value("v6PrefixLength", 0);
        svc.hardwarePort = s.value("hardwarePort", "");
        n.services.push_back(svc);
    }
    n.managed = j.value("managed", std::vector<std::string>{});
    for (const auto& f : j.value("flows", nlohmann::json::array())) {
        Flow fl;
        fl.id = f.at("id").get<int>();
        fl.proto = f.at("proto").get<std::uint8_t>();
        fl.ifname = f.at("if").get<std::string>();
        fl.local = ip(f.at("local").get<std::string>());
        fl.remote = ip(f.at("remote").get<std::string>());
        fl.localPort = f.at("lport").get<std::uint16_t>();
        fl.remotePort = f.at("rport").get<std::uint16_t>();
        n.flows.push_back(fl);
    }
    n.nextFlowId = j.value("nextFlow", 1);
    n.nextPort = j.value("nextPort", std::uint16_t{49152});
    n.probeDelayMs = j.value("probeDelayMs", 50);
    n.ping6AssumedOptions = j.value("ping6Assumed", false);
    if (j.contains("clock"))
        n.clockEpoch = j["clock"].get<double>();
    n.receipts = j.value("receipts", std::vector<std::string>{});
    n.preferencePaths = j.value("preferencePaths", std::map<std::string, std::string>{});
    n.preferencesGeneration = j.value("preferencesGeneration", std::int64_t{1});
    n.leases = j.value("leases", std::map<std::string, std::string>{});
    return n;
}

} // namespace orven::macsim
