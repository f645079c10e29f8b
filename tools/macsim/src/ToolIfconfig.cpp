// /sbin/ifconfig: reading an interface, `mtu N`, `up` and `down`. A refused
// MTU is only a warning: the real tool still exits 0.

#include <climits>
#include <cstdlib>

#include "Preferences.h"
#include "Tools.h"

namespace orven::macsim {

namespace {

// atoi's reading: leading blanks, a sign, digits; anything else ends it
// (garbage is 0).
long atoiLike(const std::string& text) {
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t'))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        negative = text[i++] == '-';
    long value = 0;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9' && value < INT_MAX)
        value = value * 10 + (text[i++] - '0');
    return negative ? -value : value;
}

std::string listing(const NetModel& net, const Interface& itf) {
    std::string flags;
    int bits = 0x8000 | 0x40 /* MULTICAST, RUNNING when up */;
    if (itf.kind == "tunnel") {
        flags = itf.up ? "UP,POINTOPOINT,RUNNING,MULTICAST" : "POINTOPOINT,MULTICAST";
        bits = itf.up ? 0x8051 : 0x8010;
    } else if (itf.kind == "loopback") {
        flags = itf.up ? "UP,LOOPBACK,RUNNING,MULTICAST" : "LOOPBACK,MULTICAST";
        bits = itf.up ? 0x8049 : 0x8008;
    } else {
        flags = itf.up ? "UP,BROADCAST,SMART,RUNNING,SIMPLEX,MULTICAST" : "BROADCAST,SMART,SIMPLEX,MULTICAST";
        bits = itf.up ? 0x8863 : 0x8822;
    }
    char hex[16];
    std::snprintf(hex, sizeof hex, "%x", bits);
    std::string out = itf.name + ": flags=" + hex + "<" + flags + "> mtu " + std::to_string(itf.mtu) + "\n";
    for (const auto& a : itf.addrs)
        out += std::string(a.addr.family == Family::Inet ? "\tinet " : "\tinet6 ") + a.addr.str() + " prefixlen " +
               std::to_string(a.prefix) + "\n";
    (void)net;
    return out;
}

} // namespace

int ifconfigMain(ToolContext& c) {
    if (c.args.empty()) {
        c.err += "usage: ifconfig [-L] [-d] [-m] [-r] [-u] [-v] [-C] [-D] [interface address_family [address "
                 "[dest_address]] [parameters]]\n";
        return 1;
    }
    Session s(c.paths);
    NetModel& net = s.net();
    const std::string& name = c.args[0];
    Interface* itf = net.findInterface(name);
    if (!itf || !itf->attached) {
        c.err += "ifconfig: interface " + name + " does not exist\n";
        return 1;
    }
    if (c.args.size() == 1) {
        c.out += listing(net, *itf);
        return 0;
    }
    for (std::size_t i = 1; i < c.args.size(); ++i) {
        const std::string& p = c.args[i];
        if (p == "up" || p == "down") {
            itf->up = p == "up";
        } else if (p == "mtu") {
            if (i + 1 >= c.args.size()) {
                c.err += "ifconfig: 'mtu' requires argument\n";
                return 1;
            }
            const long mtu = atoiLike(c.args[++i]);
            const auto [deviceMin, deviceMax] = net.deviceMtuRange(*itf);
            // The kernel's generic check, then the driver's own range; the
            // tool only warns and carries on.
            if (mtu < 72 || mtu > 65535 || mtu < deviceMin || mtu > deviceMax)
                c.err += "ifconfig: ioctl (set mtu): Invalid argument\n";
            else
                itf->mtu = static_cast<int>(mtu);
        } else {
            c.err += "ifconfig: " + p + ": bad value\n";
            return 1;
        }
    }
    s.touchNet();
    s.save();
    return 0;
}

} // namespace orven::macsim
