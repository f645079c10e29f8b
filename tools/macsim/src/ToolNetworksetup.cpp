// /usr/sbin/networksetup: the service, order and Wi-Fi commands the daemon
// uses, over the one network model. Like the real tool it prints its errors
// on standard output and leaves standard error empty.

#include <algorithm>
#include <array>
#include <cctype>

#include "Preferences.h"
#include "Tools.h"

namespace orven::macsim {

namespace {

constexpr std::string_view kInvalidParameters = "** Error: The parameters were not valid.\n";

constexpr std::array<std::string_view, 11> kSecurityTypes{
    "OPEN", "WEP", "WPA", "WPA2", "WPAE", "WPA2E", "WPA/WPA2 Personal", "WPA/WPA2 Enterprise",
    "WPA3 Personal", "WPA3 Enterprise", "8021XWEP"};

std::string lowered(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
    return s;
}

int invalid(ToolContext& c) {
    c.out += kInvalidParameters;
    return 4;
}

int unknownService(ToolContext& c, const std::string& name) {
    c.out += name + " is not a recognized network service.\n";
    return invalid(c);
}

bool isAddress(const std::string& text, Family family) {
    const auto addr = IpAddr::parse(text);
    return addr && addr->family == family;
}

std::string hardwarePort(const Service& svc) {
    if (!svc.hardwarePort.empty())
        return svc.hardwarePort;
    if (!svc.device)
        return svc.subType.empty() ? svc.type : svc.subType; // a VPN shows its type or provider
    return svc.name;
}

// A Wi-Fi device named by its BSD name or by its hardware port.
Interface* wifiDevice(NetModel& net, const std::string& name) {
    Interface* itf = net.findInterface(name);
    if (!itf) {
        for (const auto& svc : net.services)
            if (svc.device && hardwarePort(svc) == name)
                itf = net.findInterface(*svc.device);
    }
    return itf && itf->kind == "wifi" && itf->attached ? itf : nullptr;
}

int notWifi(ToolContext& c, const std::string& name) {
    c.out += name + " is not a Wi-Fi interface.\n** Error: Error obtaining wireless information.\n";
    return 4;
}

std::string listOrder(const NetModel& net) {
    std::string out = "An asterisk (*) denotes that a network service is disabled.\n";
    int number = 0;
    for (const auto& svc : net.services) {
        // A disabled service takes no number.
        out += (svc.enabled ? "(" + std::to_string(++number) + ")" : std::string("(*)")) + " " + svc.name + "\n";
        out += "(Hardware Port: " + hardwarePort(svc) + ", Device: " + svc.device.value_or("") + ")\n\n";
    }
    return out;
}

std::string info(const NetModel& net, const Service& svc) {
    std::string out;
    const Interface* itf = svc.device ? net.findInterface(*svc.device) : nullptr;
    std::string address = svc.v4Address, mask = svc.v4Mask, router = svc.v4Router;
    if (svc.ipv4 == "DHCP" || svc.ipv4 == "INFORM") {
        if (itf)
            for (const auto& a : itf->addrs)
                if (a.addr.family == Family::Inet && address.empty()) {
                    address = a.addr.str();
                    const std::uint32_t bits = a.prefix == 0 ? 0 : 0xFFFFFFFFu << (32 - a.prefix);
                    mask = std::to_string(bits >> 24) + "." + std::to_string((bits >> 16) & 255) + "." +
                           std::to_string((bits >> 8) & 255) + "." + std::to_string(bits & 255);
                }
        if (router.empty() && itf && itf->name == net.gatewayInterface && net.gateway4.family != Family::None)
            router = net.gateway4.str();
    }
    if (svc.ipv4 == "DHCP")
        out += "DHCP Configuration\n";
    else if (svc.ipv4 == "Manual")
        out += "Manual Configuration\n";
    else if (svc.ipv4 == "INFORM")
        out += "Manually Using DHCP Router Configuration\n";
    if (!svc.ipv4.empty()) {
        out += "IP address: " + address + "\nSubnet mask: " + mask + "\nRouter: " + router + "\n";
        if (svc.ipv4 == "DHCP")
            out += "Client ID: \n";
    }
    out += "IPv6: " + (svc.ipv6.empty() ? std::string("Off") : svc.ipv6) + "\n";
    out += "IPv6 IP address: " + (svc.v6Address.empty() ? "none" : svc.v6Address) + "\n";
    out += "IPv6 Router: " + (svc.v6Router.empty() ? "none" : svc.v6Router) + "\n";
    return out;
}

} // namespace

int networksetupMain(ToolContext& c) {
    if (c.args.empty()) {
        c.out += "Usage: networksetup -<command> <arguments>\n";
        return 0;
    }
    // Option names are matched without regard to case.
    const std::string command = lowered(c.args[0]);
    const std::vector<std::string> a(c.args.begin() + 1, c.args.end());
    Session s(c.paths);
    NetModel& net = s.net();
    const auto changed = [&] {
        net.preferencesChanged();
        s.touchNet();
        s.save();
        return 0;
    };

    if (command == "-listnetworkserviceorder" && a.empty()) {
        c.out += listOrder(net);
        return 0;
    }
    if (command == "-listallnetworkservices" && a.empty()) {
        c.out += "An asterisk (*) denotes that a network service is disabled.\n";
        for (const auto& svc : net.services)
            c.out += (svc.enabled ? "" : "*") + svc.name + "\n";
        return 0;
    }
    if (command == "-ordernetworkservices") {
        if (a.empty())
            return invalid(c);
        std::vector<Service> ordered;
        for (const auto& name : a) {
            auto it = std::find_if(net.services.begin(), net.services.end(),
                                   [&](const Service& svc) { return svc.name == name; });
            if (it == net.services.end()) {
                // Already moved (a name given twice) is not an error.
                if (std::none_of(ordered.begin(), ordered.end(), [&](const Service& svc) { return svc.name == name; }))
                    return unknownService(c, name);
                continue;
            }
            ordered.push_back(*it);
            net.services.erase(it);
        }
        // Services the list does not name keep their order behind it.
        ordered.insert(ordered.end(), net.services.begin(), net.services.end());
        net.services = std::move(ordered);
        return changed();
    }

    // Wi-Fi commands name a device, not a service.
    if (command == "-setairportpower" || command == "-getairportpower") {
        if (a.size() != (command == "-setairportpower" ? 2u : 1u))
            return invalid(c);
        Interface* itf = wifiDevice(net, a[0]);
        if (!itf)
            return notWifi(c, a[0]);
        if (command == "-getairportpower") {
            c.out += "Wi-Fi Power (" + itf->name + "): " + (itf->wifiPower ? "On" : "Off") + "\n";
            return 0;
        }
        const std::string state = lowered(a[1]);
        if (state != "on" && state != "off")
            return invalid(c);
        itf->wifiPower = state == "on";
        s.touchNet();
        s.save();
        return 0;
    }
    if (command == "-addpreferredwirelessnetworkatindex") {
        if (a.size() != 4 && a.size() != 5)
            return invalid(c);
        Interface* itf = wifiDevice(net, a[0]);
        if (!itf)
            return notWifi(c, a[0]);
        const std::string& ssid = a[1];
        const bool indexIsNumber =
            !a[2].empty() && a[2].size() < 6 && std::all_of(a[2].begin(), a[2].end(), [](unsigned char ch) {
                return std::isdigit(ch);
            });
        if (ssid.empty() || ssid.size() > 32 || !indexIsNumber ||
            std::find(kSecurityTypes.begin(), kSecurityTypes.end(), a[3]) == kSecurityTypes.end())
            return invalid(c);
        auto& list = itf->preferred;
        list.erase(std::remove_if(list.begin(), list.end(), [&](const auto& p) { return p.ssid == ssid; }),
                   list.end());
        const auto index = std::min(static_cast<std::size_t>(std::stoul(a[2])), list.size());
        // The password goes to the keychain; the model only knows there is one.
        list.insert(list.begin() + static_cast<std::ptrdiff_t>(index),
                    PreferredNetwork{ssid, a[3], a.size() == 5, secondsNow()});
        s.touchNet();
        s.save();
        writeKnownNetworks(c.paths, net);
        return 0;
    }
    if (command == "-listpreferredwirelessnetworks" && a.size() == 1) {
        Interface* itf = wifiDevice(net, a[0]);
        if (!itf)
            return notWifi(c, a[0]);
        c.out += "Preferred networks on " + itf->name + ":\n";
        for (const auto& p : itf->preferred)
            c.out += "\t" + p.ssid + "\n";
        return 0;
    }

    // Everything else names a service first.
    static const std::vector<std::pair<std::string_view, std::size_t>> serviceCommands{
        {"-setdhcp", 1},         {"-setmanual", 4},      {"-setmanualwithdhcprouter", 2},
        {"-setv4off", 1},        {"-setv6automatic", 1}, {"-setv6linklocal", 1},
        {"-setv6off", 1},        {"-setv6manual", 4},    {"-setnetworkserviceenabled", 2},
        {"-getnetworkserviceenabled", 1}, {"-getinfo", 1}};
    const auto known = std::find_if(serviceCommands.begin(), serviceCommands.end(),
                                    [&](const auto& e) { return e.first == command; });
    if (known == serviceCommands.end()) {
        c.out += c.args[0] + " is not a valid command. Run networksetup -help for usage.\n";
        return 4;
    }
    // -setdhcp takes an optional client id.
    if (a.size() != known->second && !(command == "-setdhcp" && a.size() == 2))
        return invalid(c);
    Service* svc = net.findService(a[0]);
    if (!svc)
        return unknownService(c, a[0]);
    if (command == "-getnetworkserviceenabled") {
        c.out += svc->enabled ? "Enabled\n" : "Disabled\n";
        return 0;
    }
    if (command == "-getinfo") {
        c.out += info(net, *svc);
        return 0;
    }
    if (command == "-setnetworkserviceenabled") {
        const std::string state = lowered(a[1]);
        if (state != "on" && state != "off")
            return invalid(c);
        svc->enabled = state == "on";
        return changed();
    }
    if (command == "-setdhcp" || command == "-setv4off") {
        svc->ipv4 = command == "-setdhcp" ? "DHCP" : "";
        svc->v4Address = svc->v4Mask = svc->v4Router = "";
        return changed();
    }
    if (command == "-setmanual") {
        if (!isAddress(a[1], Family::Inet) || !isAddress(a[2], Family::Inet) || !isAddress(a[3], Family::Inet))
            return invalid(c);
        svc->ipv4 = "Manual";
        svc->v4Address = a[1];
        svc->v4Mask = a[2];
        svc->v4Router = a[3];
        return changed();
    }
    if (command == "-setmanualwithdhcprouter") {
        if (!isAddress(a[1], Family::Inet))
            return invalid(c);
        svc->ipv4 = "INFORM";
        svc->v4Address = a[1];
        svc->v4Mask = svc->v4Router = "";
        return changed();
    }
    if (command == "-setv6manual") {
        const bool prefixOk = !a[2].empty() && a[2].size() <= 3 &&
                              std::all_of(a[2].begin(), a[2].end(), [](unsigned char ch) { return std::isdigit(ch); }) &&
                              std::stoi(a[2]) <= 128;
        if (!isAddress(a[1], Family::Inet6) || !prefixOk || !isAddress(a[3], Family::Inet6))
            return invalid(c);
        svc->ipv6 = "Manual";
        svc->v6Address = a[1];
        svc->v6PrefixLength = std::stoi(a[2]);
        svc->v6Router = a[3];
        return changed();
    }
    // -setv6automatic, -setv6linklocal, -setv6off
    svc->ipv6 = command == "-setv6automatic" ? "Automatic" : command == "-setv6linklocal" ? "LinkLocal" : "";
    svc->v6Address = svc->v6Router = "";
    svc->v6PrefixLength = 0;
    return changed();
}

} // namespace orven::macsim
