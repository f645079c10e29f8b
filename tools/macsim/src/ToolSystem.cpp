// /usr/sbin/ipconfig, /usr/sbin/pkgutil and /bin/launchctl: the few
// subcommands the daemon runs, with the real tools' words and statuses.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>

#include <unistd.h>

#include "Tools.h"

namespace orven::macsim {

namespace {

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
    return s;
}

std::string upper(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char ch) { return static_cast<char>(std::toupper(ch)); });
    return s;
}

// The DHCP server of the local link answers an interface that is up and has
// no IPv4 address yet (the agent does not wait for it; the lease simply
// appears).
void leaseAddress(NetModel& net, const std::string& ifname) {
    Interface* itf = net.findInterface(ifname);
    if (!itf || !itf->up || !itf->attached || itf->kind == "tunnel" || itf->kind == "loopback")
        return;
    for (const auto& a : itf->addrs)
        if (a.addr.family == Family::Inet)
            return;
    const std::string address = "192.168.1." + std::to_string(100 + net.leases.size());
    itf->addrs.push_back(InterfaceAddress{*IpAddr::parse(address), 24});
    net.leases[ifname] = address;
}

bool processAlive(int pid) { return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM); }

} // namespace

int ipconfigMain(ToolContext& c) {
    const std::string usage = "usage: ipconfig <command> <args>\n"
                              "where <command> is one of waitall, getifaddr, ifcount, getoption, getiflist, "
                              "getsummary, getpacket, getv6packet, getra, set, setverbose\n";
    if (c.args.empty()) {
        c.err += usage;
        return 1;
    }
    const std::string cmd = lower(c.args[0]);
    Session s(c.paths);
    NetModel& net = s.net();
    if (cmd == "getiflist") {
        std::string line;
        for (const auto& name : net.managed)
            line += (line.empty() ? "" : " ") + name;
        if (!line.empty())
            c.out += line + "\n";
        return 0;
    }
    if (cmd == "ifcount") {
        c.out += std::to_string(net.managed.size()) + "\n";
        return 0;
    }
    if (cmd == "getifaddr") {
        if (c.args.size() != 2) {
            c.err += usage;
            return 1;
        }
        if (const Interface* i = net.findInterface(c.args[1]))
            for (const auto& a : i->addrs)
                if (a.addr.family == Family::Inet) {
                    c.out += a.addr.str() + "\n";
                    return 0;
                }
        return 1;
    }
    if (cmd == "set") {
        static const std::vector<std::pair<std::string, std::size_t>> methods{
            {"NONE", 0},     {"DHCP", 0},         {"BOOTP", 0},         {"MANUAL", 2}, {"INFORM", 2},
            {"NONE-V6", 0}, {"AUTOMATIC-V6", 0}, {"MANUAL-V6", 2},     {"6TO4", 0}};
        const std::string methodUsage =
            "usage: ipconfig set <interface name> <method> <method args>\n"
            "<method> is one of NONE, DHCP, BOOTP, MANUAL, INFORM, NONE-V6, AUTOMATIC-V6, MANUAL-V6, 6TO4\n";
        if (c.args.size() < 3) {
            c.err += methodUsage;
            return 1;
        }
        const std::string& ifname = c.args[1];
        const std::string& typed = c.args[2];
        auto m = std::find_if(methods.begin(), methods.end(), [&](const auto& e) { return e.first == upper(typed); });
        if (m == methods.end()) {
            c.err += "ipconfig set: invalid method '" + typed + "'\n" + methodUsage.substr(methodUsage.find('\n') + 1);
            return 1;
        }
        if (c.args.size() != 3 + m->second) {
            c.err += methodUsage;
            return 1;
        }
        if (!net.findInterface(ifname)) {
            c.err += "ipconfig_set " + ifname + " " + typed + " failed: interface doesn't exist\n";
            return 1;
        }
        if (m->first != "NONE" && m->first != "NONE-V6" &&
            std::find(net.managed.begin(), net.managed.end(), ifname) == net.managed.end()) {
            net.managed.push_back(ifname);
            s.touchNet();
        }
        if (m->first == "DHCP")
            leaseAddress(net, ifname);
        s.touchNet();
        s.save();
        return 0;
    }
    c.err += usage;
    return 1;
}

int pkgutilMain(ToolContext& c) {
    const std::string usage = "Usage: pkgutil [options] [commands]\n";
    if (c.args.empty()) {
        c.err += usage;
        return 1;
    }
    Session s(c.paths);
    NetModel& net = s.net();
    const std::string& cmd = c.args[0];
    if (cmd == "--pkgs") {
        for (const auto& r : net.receipts)
            c.out += r + "\n";
        return 0;
    }
    if ((cmd == "--forget" || cmd == "--pkg-info") && c.args.size() == 2) {
        const std::string& id = c.args[1];
        auto it = std::find(net.receipts.begin(), net.receipts.end(), id);
        if (it == net.receipts.end()) {
            c.err += "No receipt for '" + id + "' found at '/'.\n";
            return 1;
        }
        if (cmd == "--pkg-info") {
            c.out += "package-id: " + id + "\nversion: 2.10.0\nvolume: /\nlocation: /\ninstall-time: " +
                     std::to_string(readBootTime(c.paths)) + "\n";
            return 0;
        }
        net.receipts.erase(it);
        s.touchNet();
        s.save();
        c.out += "Forgot package '" + id + "' on '/'.\n";
        return 0;
    }
    c.err += usage;
    return 1;
}

int launchctlMain(ToolContext& c) {
    const std::string bootoutUsage =
        "Usage: launchctl bootout <domain-target> [service-path1, service-path2, ...] | <service-target>\n"
        "<service-target> takes a form of <domain-target>/<service-id>.\n";
    if (c.args.empty()) {
        c.err += "Usage: launchctl <subcommand> ... | help [subcommand]\n";
        return 64;
    }
    const std::string& cmd = c.args[0];
    if (cmd != "bootout" && cmd != "print") {
        c.err += "Unrecognized subcommand: " + cmd + "\nUsage: launchctl <subcommand> ... | help [subcommand]\n";
        return 64;
    }
    if (c.args.size() != 2 || c.args[1].find('/') == std::string::npos) {
        c.err += "Unrecognized target specifier.\n" + bootoutUsage;
        return 64;
    }
    const std::string& target = c.args[1];
    const std::string label = target.substr(target.rfind('/') + 1);
    const std::string pidFile = c.paths.launchd + "/" + label + ".pid";
    Session s(c.paths);
    int pid = 0;
    if (auto text = readFile(pidFile)) {
        try {
            pid = std::stoi(*text);
        } catch (...) {
            pid = 0;
        }
    }
    const bool loaded = target.starts_with("system/") && processAlive(pid);
    if (cmd == "print") {
        if (!loaded) {
            c.err += "Could not find service \"" + label + "\" in domain for system\n";
            return 113;
        }
        c.out += target + " = {\n\tstate = running\n\tpid = " + std::to_string(pid) + "\n}\n";
        return 0;
    }
    if (!loaded) {
        ::unlink(pidFile.c_str());
        c.err += "Boot-out failed: 3: No such process\n";
        return 3;
    }
    // launchd stops the job with SIGTERM and forgets it.
    ::kill(pid, SIGTERM);
    ::unlink(pidFile.c_str());
    return 0;
}

} // namespace orven::macsim
