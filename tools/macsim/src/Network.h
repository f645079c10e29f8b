#pragma once
// The network around the simulated Mac: interfaces and their addresses,
// routing, a small internet (who answers, how fast, path MTU), the
// configured network services, open flows, package receipts.

#include <cstdint>
#include <map>
#include <utility>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "PfParser.h"

namespace orven::macsim {

struct PreferredNetwork {
    std::string ssid;
    std::string security;
    bool passwordInKeychain = false; // the password itself is never kept here
    std::int64_t addedAt = 0;        // seconds since 1970
};

struct Interface {
    std::string name;
    std::string kind; // loopback, wifi, ethernet, bridge, tunnel
    bool up = true;
    int mtu = 1500;
    std::vector<InterfaceAddress> addrs;
    // What the device itself accepts (SIOCGIFDEVMTU); 0 means the default
    // of its kind (see deviceMtuRange).
    int deviceMtuMin = 0, deviceMtuMax = 0;
    bool attached = true; // false: the device was unplugged
    bool wifiPower = true;
    std::vector<PreferredNetwork> preferred{}; // Wi-Fi only, top first
};

struct RemoteHost {
    IpAddr addr;
    bool up = true;
    double rttMs = 12.0;
    int ttl = 57;
    int pathMtu = 1500;
    // Round-trip times of a train's replies in order, exact; the last one
    // repeats. Empty: rttMs, slightly varied. A first value above the rest
    // is the cold first reply.
    std::vector<double> rttSeries;
    // Path MTU when the probe leaves by that interface (overrides pathMtu).
    std::map<std::string, int> pathMtuVia;
    // Echo sequence numbers of every train that are lost on the way.
    std::vector<long> lostSeqs;
    std::vector<std::uint16_t> tcp; // listening ports
    std::vector<std::uint16_t> udp;
};

struct Service {
    std::string id;
    std::string name;
    bool enabled = true;
    std::optional<std::string> device; // absent for VPN-type services
    std::string hardware, type, subType;
    std::string ipv4 = "DHCP", ipv6 = "Automatic";
    // Manual and INFORM addressing; empty otherwise.
    std::string v4Address, v4Mask, v4Router;
    std::string v6Address, v6Router;
    int v6PrefixLength = 0;
    // The interface's display name networksetup shows as the hardware port;
    // empty means the service name.
    std::string hardwarePort;
};

struct Flow {
    int id = 0;
    std::uint8_t proto = 6;
    std::string ifname;
    IpAddr local, remote;
    std::uint16_t localPort = 0, remotePort = 0;
};

struct Route {
    std::string ifname;
    IpAddr src;
    bool local = false; // the destination is this Mac
};

struct NetModel {
    std::vector<Interface> interfaces;
    std::string gatewayInterface = "en0";
    IpAddr gateway4, gateway6;
    std::vector<RemoteHost> hosts;
    std::string setId;
    std::vector<Service> services; // in service order
    std::vector<std::string> managed; // interfaces IPConfiguration has a service on
    std::vector<Flow> flows;
    int nextFlowId = 1;
    std::uint16_t nextPort = 49152;
    int probeDelayMs = 50;
    // ping6 as the daemon assumes it (-W takes a wait time in ms) instead of
    // as macOS ships it (-W is a flag without value).
    bool ping6AssumedOptions = false;
    // The simulated clock (seconds since 1970); absent: the real clock.
    std::optional<double> clockEpoch;
    std::vector<std::string> receipts;
    // SystemConfiguration preferences beyond the modelled services: values
    // written at a path (JSON text), e.g. an interface's MTU or its
    // DisableUntilNeeded flag; and how often the preferences changed.
    std::map<std::string, std::string> preferencePaths;
    std::int64_t preferencesGeneration = 1;
    std::map<std::string, std::string> leases; // interface -> IPv4 address from DHCP

    static NetModel stock();

    Interface* findInterface(std::string_view name);
    const Interface* findInterface(std::string_view name) const;
    RemoteHost* findHost(const IpAddr& addr);
    bool isLocalAddress(const IpAddr& addr) const;
    std::vector<IpAddr> addressesOf(std::string_view ifname) const;
    // Where a packet to `dst` leaves and with which source; `bound` forces
    // the interface (ping -b, ping6 -B/-I). Nothing when there is no route.
    std::optional<Route> route(const IpAddr& dst, std::string_view bound = {}) const;
    std::uint16_t ephemeralPort();
    // The interfaces SCNetworkInterfaceCopyAll would list.
    std::vector<std::string> configurableInterfaces() const;
    Service* findService(std::string_view name);
    // The range the device accepts, by its kind unless it was set.
    std::pair<int, int> deviceMtuRange(const Interface& itf) const;
    // A service or preferences change: open preference sessions go stale.
    void preferencesChanged() { ++preferencesGeneration; }

    nlohmann::json toJson() const;
    static NetModel fromJson(const nlohmann::json& json);
};

} // namespace orven::macsim
