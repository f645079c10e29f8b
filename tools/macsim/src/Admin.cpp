#include <csignal>
// `macsim <command> ROOT ...`: making, rebooting, shaping and reading a
// simulated Mac, for tests and for people.

#include "Admin.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <random>
#include <regex>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Keychain.h"
#include "PfListing.h"
#include "Preferences.h"
#include "Probe.h"
#include "Stock.h"
#include "SystemLog.h"
#include "Tools.h"

namespace orven::macsim {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kHelp = R"(usage: macsim <command> ROOT [arguments]

  init ROOT                         make a Mac under ROOT and install the tools
  reboot ROOT                       restart it: pf stock and disabled, /var/run emptied, new boot time
  run ROOT TOOL [ARGS...]           run a tool without its link (pfctl, ping, ping6, nc, ...)
  fault ROOT add --tool TOOL [--args REGEX] [--exit N] [--stdout TEXT] [--stderr TEXT]
                 [--hang] [--delay SECONDS] [--times N] [--skip N] [--kill-caller]
  fault ROOT clear | list
  calls ROOT [--json] [--mutating] | --clear
  leak-test ROOT                    send a battery of packets; exit 0 only if none passed
  packet ROOT in|out IF PROTO SRC DST [--sport N] [--dport N] [--flags F] [--icmp-type N]
                 [--icmp-code N] [--length N]
                                    ask pf about one packet; exit 0 if it passes, 1 if not
  flow ROOT open tcp|udp HOST PORT [--if IF] | list | close ID|all
  show ROOT main | anchor NAME | references | states | counters | enabled | boottime | skip
           | network | preferences
  set ROOT probe-delay MS | altq on|off | target HOST up|down|rtt MS[,MS...]|mtu N [via IF]
           | target HOST loss SEQ[,SEQ...]|none
           | interface IF up|down|mtu N|mtu-range MIN MAX|unplug|plug|wifi-power on|off
           | interface IF add loopback|wifi|ethernet|bridge|tunnel
           | ping6 real|assumed | clock EPOCH|real
  log ROOT add --process NAME --time T --message TEXT [--type TYPE] [--subsystem S]
           [--category C] [--sender S] [--pid N]
                                    add a log entry (T: seconds since 1970, or now-N)
  sc ROOT copy-store PATTERN | interfaces | refresh BSD
  sc ROOT preferences | mtu BSD | commit GENERATION WRITES | apply
  service ROOT add NAME (--device BSD | --no-device) [--disabled] | list | remove NAME
          | enable NAME | disable NAME
  bench ROOT [--iterations N]       time whole pfctl calls; prints pfctl_call_ms=<median>
  keychain ROOT list | plant-key LABEL-HEX [--type T] [--creator PATH] [--signer PATH]... [--any-application]
           | macos VERSION | headless on|off | import-key | add-certificate | delete ID
                                    the System keychain and admin trust settings
)";

struct AdminError {
    std::string message;
    int status = 1;
};

[[noreturn]] void fail(const std::string& message, int status = 1) { throw AdminError{message, status}; }

std::string selfPath() {
    std::error_code ec;
    auto p = fs::read_symlink("/proc/self/exe", ec);
    if (ec)
        fail("cannot find the macsim binary: " + ec.message());
    return p.string();
}

std::string absoluteRoot(const std::string& root) {
    std::error_code ec;
    auto p = fs::absolute(root, ec);
    if (ec)
        fail("bad root " + root);
    std::string s = p.lexically_normal().string();
    while (s.size() > 1 && s.back() == '/')
        s.pop_back();
    return s;
}

void writeText(const std::string& path, std::string_view text) {
    if (!writeFileAtomic(path, text))
        fail("cannot write " + path);
}

std::string randomUuid() {
    static std::mt19937_64 engine{std::random_device{}()};
    const char* hex = "0123456789ABCDEF";
    std::string out;
    for (int i = 0; i < 32; ++i) {
        if (i == 8 || i == 12 || i == 16 || i == 20)
            out += '-';
        out += hex[engine() % 16];
    }
    return out;
}

// Brings pf up as boot does: /etc/pf.conf loaded, pf left disabled.
void bootPf(Session& s, bool altq) {
    PfModel fresh;
    fresh.altqMessages = altq;
    s.pf() = std::move(fresh);
    s.touchPf();
    std::string out, err;
    if (!loadPfRules(s, LoadRequest{"/etc/pf.conf", "", false, 0, {}}, out, err))
        std::cerr << "macsim: /etc/pf.conf did not load at boot:\n" << err;
}

std::optional<std::string> option(std::vector<std::string>& args, const std::string& name) {
    auto it = std::find(args.begin(), args.end(), name);
    if (it == args.end())
        return std::nullopt;
    if (it + 1 == args.end())
        fail(name + " needs a value", 64);
    std::string value = *(it + 1);
    args.erase(it, it + 2);
    return value;
}

bool flag(std::vector<std::string>& args, const std::string& name) {
    auto it = std::find(args.begin(), args.end(), name);
    if (it == args.end())
        return false;
    args.erase(it);
    return true;
}

long number(const std::string& text, const std::string& what) {
    try {
        std::size_t used = 0;
        long v = std::stol(text, &used);
        if (used != text.size())
            throw std::invalid_argument(text);
        return v;
    } catch (const std::exception&) {
        fail("bad " + what + ": " + text, 64);
    }
}

// ------------------------------------------------------------------ init --

int init(const std::string& root) {
    const StorePaths paths(root);
    for (const char* dir : {"/.macsim/launchd", "/sbin", "/bin", "/usr/bin", "/usr/sbin", "/etc/pf.anchors",
                            "/Library/Application Support", "/var/run", "/Library/LaunchDaemons", "/Library/Preferences",
                            "/Library/PrivilegedHelperTools/test.orven.app/ORVEN Helper.app",
                            "/Library/Keychains", "/tmp", "/usr/libexec",
                            "/System/Library/Frameworks/NetworkExtension.framework/PlugIns/NEIKEv2Provider.appex"}) {
        std::error_code ec;
        fs::create_directories(root + dir, ec);
        if (ec)
            fail("cannot create " + root + dir + ": " + ec.message());
    }
    const std::string self = selfPath();
    for (const auto& t : tools()) {
        const std::string link = paths.host(t.installPath);
        std::error_code ec;
        fs::remove(link, ec);
        fs::create_symlink(self, link, ec);
        if (ec)
            fail("cannot link " + link + ": " + ec.message());
    }
    writeText(paths.host("/etc/pf.conf"), kStockPfConf);
    // The System keychain's items live in the state folder; the file and the
    // IKEv2 signing programs are there to be found by path.
    writeText(paths.host("/Library/Keychains/System.keychain"), "");
    writeText(paths.host("/usr/sbin/racoon"), "");
    writeText(paths.host("/usr/libexec/nehelper"), "");
    ::unlink((paths.dir + "/keychain.json").c_str());
    writeText(paths.host("/etc/pf.anchors/com.apple"), kStockAppleAnchor);
    ::unlink(paths.faults.c_str());
    ::unlink(paths.calls.c_str());
    ::unlink(paths.log.c_str());
    Session s(paths);
    s.reset(PfModel{}, NetModel::stock());
    bootPf(s, false);
    s.save();
    writeKnownNetworks(paths, s.net());
    // Booted a while ago, so everything written from now on is newer.
    writeBootTime(paths, secondsNow() - 600);
    return 0;
}

int reboot(const std::string& root) {
    const StorePaths paths(root);
    Session s(paths);
    const bool altq = s.pf().altqMessages;
    bootPf(s, altq);
    NetModel& net = s.net();
    net.flows = NetModel::stock().flows;
    s.touchNet();
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(paths.host("/var/run"), ec))
        fs::remove_all(entry.path(), ec);
    s.save();
    // The new boot is later, in whole seconds, than anything written before
    // it, and no later than anything written after.
    const std::int64_t boot = secondsNow() + 1;
    writeBootTime(paths, boot);
    // File times come from the kernel's coarse clock, which may lag the
    // real one by a tick: wait a margin past the second, not just into it.
    while (realNow() <= static_cast<double>(boot) + 0.05)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return 0;
}

// ---------------------------------------------------------------- faults --

int fault(const std::string& root, std::vector<std::string> args) {
    const StorePaths paths(root);
    if (args.empty())
        fail("fault needs add, clear or list", 64);
    const std::string sub = args.front();
    args.erase(args.begin());
    Session s(paths);
    s.net(); // a simulated Mac must exist
    if (sub == "clear") {
        s.faults().clear();
        s.touchFaults();
        s.save();
        return 0;
    }
    if (sub == "list") {
        for (const auto& f : s.faults()) {
            nlohmann::json j = {{"tool", f.tool},   {"hang", f.hang}, {"delay", f.delay},
                                {"times", f.times}, {"skip", f.skip}, {"kill-caller", f.killCaller}};
            if (f.args)
                j["args"] = *f.args;
            if (f.exitStatus)
                j["exit"] = *f.exitStatus;
            if (f.out)
                j["stdout"] = *f.out;
            if (f.err)
                j["stderr"] = *f.err;
            std::cout << j.dump() << "\n";
        }
        return 0;
    }
    if (sub != "add")
        fail("unknown fault command " + sub, 64);
    FaultRule r;
    auto tool = option(args, "--tool");
    if (!tool || tool->empty())
        fail("fault add needs --tool", 64);
    r.tool = *tool;
    r.args = option(args, "--args");
    if (r.args) {
        try {
            std::regex check(*r.args, std::regex::ECMAScript);
        } catch (const std::regex_error& e) {
            fail("bad --args pattern: " + std::string(e.what()), 64);
        }
    }
    if (auto v = option(args, "--exit"))
        r.exitStatus = static_cast<int>(number(*v, "--exit"));
    r.out = option(args, "--stdout");
    r.err = option(args, "--stderr");
    r.hang = flag(args, "--hang");
    if (auto v = option(args, "--delay")) {
        try {
            r.delay = std::stod(*v);
        } catch (const std::exception&) {
            fail("bad --delay: " + *v, 64);
        }
    }
    if (auto v = option(args, "--times"))
        r.times = static_cast<int>(number(*v, "--times"));
    if (r.times < 0)
        fail("--times must be 0 (always) or more", 64);
    if (auto v = option(args, "--skip"))
        r.skip = static_cast<int>(number(*v, "--skip"));
    if (r.skip < 0)
        fail("--skip must be 0 or more", 64);
    r.killCaller = flag(args, "--kill-caller");
    if (!args.empty())
        fail("unexpected argument " + args.front(), 64);
    s.faults().push_back(r);
    s.touchFaults();
    s.save();
    return 0;
}

int calls(const std::string& root, std::vector<std::string> args) {
    const StorePaths paths(root);
    const bool json = flag(args, "--json");
    const bool mutating = flag(args, "--mutating");
    const bool clear = flag(args, "--clear");
    if (!args.empty())
        fail("unexpected argument " + args.front(), 64);
    if (clear) {
        Session s(paths);
        writeText(paths.calls, "");
        return 0;
    }
    std::vector<CallRecord> all;
    {
        Session s(paths);
        all = readCalls(paths);
    }
    nlohmann::json arr = nlohmann::json::array();
    for (const auto& c : all) {
        if (mutating && !c.mutating)
            continue;
        if (json) {
            arr.push_back({{"tool", c.tool}, {"args", c.args}, {"fault", c.fault}, {"mutating", c.mutating},
                           {"time", c.time}, {"pid", c.pid}});
            continue;
        }
        std::string line = c.tool;
        if (!c.args.empty())
            line += " " + joinArgs(c.args);
        std::vector<std::string> marks;
        if (c.fault)
            marks.push_back("fault");
        if (c.mutating)
            marks.push_back("mutating");
        if (!marks.empty())
            line += "  [" + joinArgs(marks) + "]";
        std::cout << line << "\n";
    }
    if (json)
        std::cout << arr.dump() << "\n";
    return 0;
}

// ------------------------------------------------------------- leak test --

std::string describe(const Packet& p) {
    auto host = [&](const IpAddr& a, std::uint16_t port) {
        std::string s = a.str();
        if (p.proto == Proto::Tcp || p.proto == Proto::Udp)
            s += (a.family == Family::Inet6 ? "." : ":") + std::to_string(port);
        return s;
    };
    std::string out = std::string(p.dir == Direction::Out ? "out" : "in ") + " " + p.ifname + " " +
                      familyKeyword(p.af) + " " + protocolName(p.proto) + " " + host(p.src, p.sport) + " -> " +
                      host(p.dst, p.dport);
    if (p.proto == Proto::Tcp)
        out += " [" + tcpFlagsString(p.tcpFlags) + "]";
    if (p.icmpType >= 0)
        out += " " + icmpTypeName(p.icmpType, p.af).value_or(std::to_string(p.icmpType));
    return out;
}

std::vector<Packet> leakBattery(NetModel& net) {
    std::vector<Packet> battery;
    auto any4 = IpAddr::parse("0.0.0.0").value();
    auto bcast = IpAddr::parse("255.255.255.255").value();
    for (const auto& itf : net.interfaces) {
        if (itf.kind == "loopback" || !itf.up)
            continue;
        for (Family fam : {Family::Inet, Family::Inet6}) {
            std::optional<IpAddr> src, linkLocal;
            for (const auto& a : itf.addrs) {
                if (a.addr.family != fam)
                    continue;
                if (a.addr.isLinkLocal6())
                    linkLocal = linkLocal.value_or(a.addr);
                else if (!src)
                    src = a.addr;
            }
            if (!src)
                src = linkLocal;
            if (!src)
                continue;
            const std::string& ifn = itf.name;
            // Somewhere on the internet, and the hosts of this link.
            std::optional<IpAddr> internet;
            std::vector<IpAddr> peers;
            for (const auto& h : net.hosts) {
                if (h.addr.family != fam)
                    continue;
                bool onLink = h.addr.isLinkLocal6();
                for (const auto& a : itf.addrs)
                    if (!a.addr.isLinkLocal6() && inPrefix(h.addr, a.addr, a.prefix))
                        onLink = true;
                if (!onLink && !internet)
                    internet = h.addr;
                if (onLink && itf.name == net.gatewayInterface)
                    peers.push_back(h.addr);
            }
            if (!internet)
                internet = IpAddr::parse(fam == Family::Inet ? "8.8.8.8" : "2001:4860:4860::8888");
            auto from = [&](const IpAddr& dst) { return dst.isLinkLocal6() && linkLocal ? *linkLocal : *src; };
            battery.push_back(tcpPacket(Direction::Out, ifn, *src, net.ephemeralPort(), *internet, 443, TcpFlag::Syn));
            battery.push_back(udpPacket(Direction::Out, ifn, *src, net.ephemeralPort(), *internet, 53));
            battery.push_back(icmpEcho(Direction::Out, ifn, *src, *internet, false, net.ephemeralPort(), 56));
            for (const auto& peer : peers) {
                battery.push_back(
                    tcpPacket(Direction::Out, ifn, from(peer), net.ephemeralPort(), peer, 22, TcpFlag::Syn));
                battery.push_back(udpPacket(Direction::Out, ifn, from(peer), net.ephemeralPort(), peer, 53));
                battery.push_back(icmpEcho(Direction::Out, ifn, from(peer), peer, false, net.ephemeralPort(), 56));
            }
            battery.push_back(tcpPacket(Direction::In, ifn, *internet, net.ephemeralPort(), *src, 22, TcpFlag::Syn));
            battery.push_back(udpPacket(Direction::In, ifn, *internet, 53, *src, net.ephemeralPort()));
            battery.push_back(icmpEcho(Direction::In, ifn, *internet, *src, false, net.ephemeralPort(), 56));
            if (!peers.empty()) {
                const IpAddr& peer = peers.front();
                battery.push_back(
                    tcpPacket(Direction::In, ifn, peer, net.ephemeralPort(), from(peer), 445, TcpFlag::Syn));
                battery.push_back(udpPacket(Direction::In, ifn, peer, 5353, from(peer), 5353));
            }
        }
        // A DHCP discover, sent before there is an address to send from.
        battery.push_back(udpPacket(Direction::Out, itf.name, any4, 68, bcast, 67, 300));
    }
    // Flows that were open before: their next packets, both ways.
    for (const auto& f : net.flows) {
        if (f.proto == Proto::Tcp) {
            battery.push_back(tcpPacket(Direction::Out, f.ifname, f.local, f.localPort, f.remote, f.remotePort,
                                        TcpFlag::Ack | TcpFlag::Push));
            battery.push_back(
                tcpPacket(Direction::In, f.ifname, f.remote, f.remotePort, f.local, f.localPort, TcpFlag::Ack));
        } else {
            battery.push_back(udpPacket(Direction::Out, f.ifname, f.local, f.localPort, f.remote, f.remotePort));
            battery.push_back(udpPacket(Direction::In, f.ifname, f.remote, f.remotePort, f.local, f.localPort));
        }
    }
    return battery;
}

int leakTest(const std::string& root) {
    const StorePaths paths(root);
    Session s(paths);
    NetModel& net = s.net();
    std::vector<Packet> battery = leakBattery(net);
    s.touchNet();
    int passed = 0;
    for (const auto& p : battery) {
        Verdict v = filter(s, p);
        if (!v.pass)
            continue;
        ++passed;
        std::cout << "PASSED " << describe(p) << "  (" << v.describe() << ")\n";
    }
    s.save();
    std::cout << "leak-test: " << battery.size() << " packets, " << passed << " passed\n";
    return passed ? 1 : 0;
}

int packet(const std::string& root, std::vector<std::string> args) {
    const StorePaths paths(root);
    auto sport = option(args, "--sport");
    auto dport = option(args, "--dport");
    auto flags = option(args, "--flags");
    auto icmpType = option(args, "--icmp-type");
    auto icmpCode = option(args, "--icmp-code");
    auto length = option(args, "--length");
    if (args.size() != 5 || (args[0] != "in" && args[0] != "out"))
        fail("packet in|out IF PROTO SRC DST [--sport N] [--dport N] [--flags F] [--icmp-type N] [--icmp-code N] "
             "[--length N]",
             64);
    auto src = IpAddr::parse(args[3]);
    auto dst = IpAddr::parse(args[4]);
    if (!src || !dst || src->family != dst->family)
        fail("source and destination must be addresses of one family", 64);
    std::uint8_t proto = 0;
    if (auto p = protocolByName(args[2]))
        proto = *p;
    else
        proto = static_cast<std::uint8_t>(number(args[2], "protocol"));
    const Direction dir = args[0] == "in" ? Direction::In : Direction::Out;
    const auto port = [](const std::optional<std::string>& v) {
        return v ? static_cast<std::uint16_t>(number(*v, "port")) : std::uint16_t{0};
    };
    Packet p;
    if (proto == Proto::Tcp) {
        auto f = parseTcpFlags(flags.value_or("S"));
        if (!f)
            fail("bad --flags " + *flags, 64);
        p = tcpPacket(dir, args[1], *src, port(sport), *dst, port(dport), *f);
    } else if (proto == Proto::Udp) {
        p = udpPacket(dir, args[1], *src, port(sport), *dst, port(dport));
    } else if (proto == Proto::Icmp || proto == Proto::Icmp6) {
        p = icmpEcho(dir, args[1], *src, *dst, false, port(sport), 56);
        if (icmpType)
            p.icmpType = static_cast<int>(number(*icmpType, "icmp type"));
        if (icmpCode)
            p.icmpCode = static_cast<int>(number(*icmpCode, "icmp code"));
    } else {
        p.dir = dir;
        p.ifname = args[1];
        p.af = src->family;
        p.proto = proto;
        p.src = *src;
        p.dst = *dst;
        p.length = 60;
    }
    if ((proto == Proto::Icmp && src->family != Family::Inet) || (proto == Proto::Icmp6 && src->family != Family::Inet6))
        fail("the ICMP version does not match the addresses", 64);
    if (length)
        p.length = static_cast<std::uint32_t>(number(*length, "length"));
    Session s(paths);
    const Verdict v = filter(s, p);
    s.save();
    std::cout << (v.pass ? "pass: " : "block: ") << v.describe() << "\n";
    return v.pass ? 0 : 1;
}

// ----------------------------------------------------------------- flows --

int flow(const std::string& root, std::vector<std::string> args) {
    const StorePaths paths(root);
    if (args.empty())
        fail("flow needs open, list or close", 64);
    const std::string sub = args.front();
    args.erase(args.begin());
    Session s(paths);
    NetModel& net = s.net();
    if (sub == "list") {
        for (const auto& f : net.flows)
            std::cout << f.id << " " << protocolName(f.proto) << " " << f.local.str() << " " << f.localPort << " -> "
                      << f.remote.str() << " " << f.remotePort << " on " << f.ifname << "\n";
        return 0;
    }
    if (sub == "close") {
        if (args.size() != 1)
            fail("flow close needs an id or all", 64);
        if (args[0] == "all")
            net.flows.clear();
        else {
            const long id = number(args[0], "flow id");
            std::erase_if(net.flows, [&](const Flow& f) { return f.id == id; });
        }
        s.touchNet();
        s.save();
        return 0;
    }
    if (sub != "open")
        fail("unknown flow command " + sub, 64);
    auto bound = option(args, "--if");
    if (args.size() != 3 || (args[0] != "tcp" && args[0] != "udp"))
        fail("flow open tcp|udp HOST PORT [--if IF]", 64);
    auto remote = IpAddr::parse(args[1]);
    if (!remote)
        fail("bad host " + args[1], 64);
    const auto port = static_cast<std::uint16_t>(number(args[2], "port"));
    auto route = net.route(*remote, bound.value_or(""));
    if (!route)
        fail("no route to " + args[1]);
    Flow f;
    f.proto = args[0] == "tcp" ? Proto::Tcp : Proto::Udp;
    f.ifname = route->ifname;
    f.local = route->src;
    f.remote = *remote;
    f.localPort = net.ephemeralPort();
    f.remotePort = port;
    std::vector<Packet> opening;
    if (f.proto == Proto::Tcp) {
        opening.push_back(tcpPacket(Direction::Out, f.ifname, f.local, f.localPort, f.remote, port, TcpFlag::Syn));
        opening.push_back(tcpPacket(Direction::In, f.ifname, f.remote, port, f.local, f.localPort,
                                    TcpFlag::Syn | TcpFlag::Ack));
        opening.push_back(tcpPacket(Direction::Out, f.ifname, f.local, f.localPort, f.remote, port, TcpFlag::Ack));
    } else {
        opening.push_back(udpPacket(Direction::Out, f.ifname, f.local, f.localPort, f.remote, port));
        opening.push_back(udpPacket(Direction::In, f.ifname, f.remote, port, f.local, f.localPort));
    }
    s.touchNet();
    for (const auto& p : opening) {
        Verdict v = filter(s, p);
        if (!v.pass) {
            s.save();
            std::cerr << "macsim: flow blocked: " << describe(p) << " (" << v.describe() << ")\n";
            return 1;
        }
    }
    f.id = net.nextFlowId++;
    net.flows.push_back(f);
    s.save();
    std::cout << f.id << "\n";
    return 0;
}

// ------------------------------------------------------------ reading --

std::string rulesetReport(const PfModel& pf, const std::string& path) {
    const Ruleset* rs = pf.find(path);
    std::string out = "# loaded\n";
    if (rs) {
        out += rs->text;
        if (!rs->text.empty() && rs->text.back() != '\n')
            out += "\n";
    }
    out += "# listed\n";
    if (rs)
        for (const auto& r : rs->rules)
            out += printRule(r) + "\n";
    return out;
}

int show(const std::string& root, const std::vector<std::string>& args) {
    const StorePaths paths(root);
    if (args.empty())
        fail("show what?", 64);
    Session s(paths);
    PfModel& pf = s.pf();
    const std::string& what = args[0];
    if (what == "main") {
        std::cout << rulesetReport(pf, "");
    } else if (what == "anchor") {
        if (args.size() != 2)
            fail("show anchor NAME", 64);
        if (!pf.anchorExists(args[1]))
            fail("no anchor " + args[1]);
        std::cout << rulesetReport(pf, args[1]);
    } else if (what == "references") {
        std::cout << "enabled: " << (pf.running ? "yes" : "no") << "\nreferences: " << pf.refCount << "\n";
        for (const auto& t : pf.tokens)
            std::cout << "token " << t.token << " pid " << t.pid << " " << t.name << "\n";
    } else if (what == "states") {
        std::cout << listStates(pf);
    } else if (what == "counters") {
        std::vector<std::string> paths{""};
        for (const auto& [path, rs] : pf.rulesets)
            if (!path.empty())
                paths.push_back(path);
        for (const auto& path : paths) {
            const Ruleset* rs = pf.find(path);
            if (!rs)
                continue;
            std::cout << (path.empty() ? std::string("[main]") : "[anchor " + path + "]") << "\n";
            for (std::size_t i = 0; i < rs->rules.size(); ++i)
                std::cout << printRule(rs->rules[i]) << "\n" << counterLines(pf, path, *rs, i);
        }
    } else if (what == "enabled") {
        std::cout << (pf.running ? "enabled" : "disabled") << "\n";
    } else if (what == "boottime") {
        std::cout << readBootTime(paths) << "\n";
    } else if (what == "network") {
        std::cout << s.net().toJson().dump(2) << "\n";
    } else if (what == "preferences") {
        std::cout << preferencesOf(s.net()).dump(2) << "\n";
    } else if (what == "skip") {
        for (const auto& i : pf.skip)
            std::cout << i << "\n";
    } else {
        fail("cannot show " + what, 64);
    }
    return 0;
}

// "12.5" or a series "30.1,2.0,2.4" (exact, the last repeating).
void setRoundTrips(RemoteHost& host, const std::string& text) {
    std::vector<double> series;
    std::size_t from = 0;
    for (;;) {
        const std::size_t comma = text.find(',', from);
        const std::string piece = text.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
        char* end = nullptr;
        const double ms = std::strtod(piece.c_str(), &end);
        if (piece.empty() || *end != '\0' || !(ms >= 0) || ms > 3.6e6)
            fail("bad rtt " + text, 64);
        series.push_back(ms);
        if (comma == std::string::npos)
            break;
        from = comma + 1;
    }
    host.rttMs = series.front();
    host.rttSeries = series.size() > 1 ? series : std::vector<double>{};
}

std::vector<long> sequenceList(const std::string& text) {
    std::vector<long> seqs;
    std::size_t from = 0;
    for (;;) {
        const std::size_t comma = text.find(',', from);
        seqs.push_back(number(text.substr(from, comma == std::string::npos ? std::string::npos : comma - from),
                              "sequence number"));
        if (comma == std::string::npos)
            return seqs;
        from = comma + 1;
    }
}

int logCommand(const std::string& root, const std::vector<std::string>& args) {
    const StorePaths paths(root);
    if (args.empty() || args[0] != "add")
        fail("log ROOT add --process NAME --time T --message TEXT", 64);
    LogEntry entry;
    std::optional<std::string> time, process, message;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (i + 1 >= args.size())
            fail(args[i] + " needs a value", 64);
        const std::string& key = args[i];
        const std::string& value = args[++i];
        if (key == "--process")
            process = value;
        else if (key == "--time")
            time = value;
        else if (key == "--message")
            message = value;
        else if (key == "--type")
            entry.type = value;
        else if (key == "--subsystem")
            entry.subsystem = value;
        else if (key == "--category")
            entry.category = value;
        else if (key == "--sender")
            entry.sender = value;
        else if (key == "--pid")
            entry.pid = static_cast<int>(number(value, "pid"));
        else
            fail("unknown option " + key, 64);
    }
    if (!process || !time || !message)
        fail("log add needs --process, --time and --message", 64);
    static const std::vector<std::string> types{"Default", "Info", "Debug", "Error", "Fault"};
    if (std::find(types.begin(), types.end(), entry.type) == types.end())
        fail("bad type " + entry.type + " (Default, Info, Debug, Error or Fault)", 64);
    const auto at = parseLogTime(*time, simulatedNow(paths));
    if (!at)
        fail("bad time " + *time, 64);
    entry.time = *at;
    entry.process = *process;
    entry.message = *message;
    appendLogEntry(paths, entry);
    return 0;
}

int set(const std::string& root, const std::vector<std::string>& args) {
    const StorePaths paths(root);
    if (args.size() < 2)
        fail("set what?", 64);
    Session s(paths);
    const std::string& what = args[0];
    if (what == "probe-delay" && args.size() == 2) {
        const long ms = number(args[1], "delay");
        if (ms < 0)
            fail("the delay cannot be negative", 64);
        s.net().probeDelayMs = static_cast<int>(ms);
        s.touchNet();
    } else if (what == "altq" && args.size() == 2 && (args[1] == "on" || args[1] == "off")) {
        s.pf().altqMessages = args[1] == "on";
        s.touchPf();
    } else if (what == "target" && args.size() >= 3) {
        auto addr = IpAddr::parse(args[1]);
        if (!addr)
            fail("bad host " + args[1], 64);
        NetModel& net = s.net();
        RemoteHost* host = net.findHost(*addr);
        if (!host) {
            RemoteHost h;
            h.addr = *addr;
            h.rttMs = 20.0;
            h.ttl = 55;
            h.tcp = {443, 80};
            h.up = false;
            net.hosts.push_back(h);
            host = &net.hosts.back();
        }
        const std::string& key = args[2];
        if (key == "up" || key == "down")
            host->up = key == "up";
        else if (key == "rtt" && args.size() == 4)
            setRoundTrips(*host, args[3]);
        else if (key == "mtu" && args.size() == 4)
            host->pathMtu = static_cast<int>(number(args[3], "mtu"));
        else if (key == "mtu" && args.size() == 6 && args[4] == "via")
            host->pathMtuVia[args[5]] = static_cast<int>(number(args[3], "mtu"));
        else if (key == "loss" && args.size() == 4)
            host->lostSeqs = args[3] == "none" ? std::vector<long>{} : sequenceList(args[3]);
        else
            fail("set target HOST up|down|rtt MS[,MS...]|mtu N [via IF]|loss SEQ[,SEQ...]|none", 64);
        s.touchNet();
    } else if (what == "ping6" && args.size() == 2 && (args[1] == "real" || args[1] == "assumed")) {
        s.net().ping6AssumedOptions = args[1] == "assumed";
        s.touchNet();
    } else if (what == "clock" && args.size() == 2) {
        if (args[1] == "real") {
            s.net().clockEpoch.reset();
        } else {
            const auto epoch = parseLogTime(args[1], realNow());
            if (!epoch)
                fail("bad clock " + args[1], 64);
            s.net().clockEpoch = *epoch;
        }
        s.touchNet();
    } else if (what == "interface" && args.size() == 4 && args[2] == "add") {
        if (s.net().findInterface(args[1]))
            fail("interface " + args[1] + " exists already");
        static const std::vector<std::string> kinds{"loopback", "wifi", "ethernet", "bridge", "tunnel"};
        if (std::find(kinds.begin(), kinds.end(), args[3]) == kinds.end())
            fail("an interface is loopback, wifi, ethernet, bridge or tunnel", 64);
        Interface itf;
        itf.name = args[1];
        itf.kind = args[3];
        s.net().interfaces.push_back(itf);
        s.touchNet();
    } else if (what == "interface" && args.size() >= 3) {
        Interface* itf = s.net().findInterface(args[1]);
        if (!itf)
            fail("no interface " + args[1]);
        if (args[2] == "up" || args[2] == "down")
            itf->up = args[2] == "up";
        else if (args[2] == "mtu" && args.size() == 4)
            itf->mtu = static_cast<int>(number(args[3], "mtu"));
        else if (args[2] == "mtu-range" && args.size() == 5) {
            itf->deviceMtuMin = static_cast<int>(number(args[3], "minimum"));
            itf->deviceMtuMax = static_cast<int>(number(args[4], "maximum"));
        } else if (args[2] == "unplug" || args[2] == "plug") {
            // An unplugged device is gone from the kernel but its service stays configured.
            itf->attached = args[2] == "plug";
            itf->up = itf->attached;
        } else if (args[2] == "wifi-power" && args.size() == 4 && (args[3] == "on" || args[3] == "off"))
            itf->wifiPower = args[3] == "on";
        else
            fail("set interface IF up|down|mtu N|mtu-range MIN MAX|unplug|plug|wifi-power on|off", 64);
        s.touchNet();
    } else {
        fail("cannot set " + joinArgs(args), 64);
    }
    s.save();
    return 0;
}

// -------------------------------------------------- SystemConfiguration --

nlohmann::json dynamicStore(const NetModel& net) {
    using nlohmann::json;
    json store = json::object();
    store["Setup:"] = {{"CurrentSet", "/Sets/" + net.setId}, {"LastUpdated", nullptr}};
    store["Setup:/Network/Global/IPv4"] = {{"ServiceOrder", nullptr}};
    std::string primaryService;
    for (const auto& svc : net.services) {
        // Disabled services are not published at all.
        if (!svc.enabled)
            continue;
        const std::string base = "Setup:/Network/Service/" + svc.id;
        store[base] = {{"UserDefinedName", svc.name}};
        json itf = {{"Hardware", svc.hardware}, {"Type", svc.type}, {"UserDefinedName", svc.name}};
        if (svc.device)
            itf["DeviceName"] = *svc.device;
        if (!svc.subType.empty())
            itf["SubType"] = svc.subType;
        store[base + "/Interface"] = itf;
        if (!svc.ipv4.empty())
            store[base + "/IPv4"] = {{"ConfigMethod", svc.ipv4}};
        if (!svc.ipv6.empty())
            store[base + "/IPv6"] = {{"ConfigMethod", svc.ipv6}};
        if (svc.device && *svc.device == net.gatewayInterface && primaryService.empty())
            primaryService = svc.id;
    }
    store.update(interfaceSetupKeys(net));
    json global = {{"PrimaryInterface", net.gatewayInterface}};
    if (net.gateway4.family != Family::None)
        global["Router"] = net.gateway4.str();
    if (!primaryService.empty())
        global["PrimaryService"] = primaryService;
    store["State:/Network/Global/IPv4"] = global;
    for (const auto& i : net.interfaces) {
        store["State:/Network/Interface/" + i.name + "/Link"] = {{"Active", nullptr}};
        for (const auto& a : i.addrs)
            if (a.addr.family == Family::Inet)
                store["State:/Network/Interface/" + i.name + "/IPv4"] = {{"Addresses", nullptr},
                                                                        {"SubnetMasks", nullptr}};
    }
    return store;
}

// SCPreferencesCommitChanges and SCPreferencesApplyChanges. A failure prints
// its SCError code and exits 1; a configd fault rule chooses the code with
// its standard output (kSCStatusFailed, 1001, without one).
int scChange(Session& s, const std::vector<std::string>& args) {
    auto fault = consultFaults(s, "configd", {args[0]}, false);
    s.save();
    if (fault) {
        if (fault->delay > 0 || fault->hang)
            fail("configd faults cannot delay or hang here; use --exit", 64);
        if (fault->exitStatus && *fault->exitStatus != 0) {
            const std::string code = fault->out.value_or("");
            std::cout << (code.empty() ? std::string("1001\n") : code);
            return 1;
        }
    }
    NetModel& net = s.net();
    if (args[0] == "apply") {
        applyPreferences(net);
    } else {
        // The session read an older generation: SCPreferences refuses a stale commit.
        if (number(args[1], "generation") != net.preferencesGeneration) {
            std::cout << "3005\n";
            return 1;
        }
        const auto writes = nlohmann::json::parse(args[2], nullptr, false);
        if (!writes.is_array())
            fail("WRITES is a JSON array of [path, value] pairs", 64);
        for (const auto& w : writes) {
            if (!w.is_array() || w.size() != 2 || !w[0].is_string())
                fail("WRITES is a JSON array of [path, value] pairs", 64);
        }
        for (const auto& w : writes)
            writePreference(net, w[0].get<std::string>(), w[1]);
        net.preferencesChanged();
    }
    s.touchNet();
    s.save();
    return 0;
}

int sc(const std::string& root, const std::vector<std::string>& args) {
    const StorePaths paths(root);
    if (args.empty())
        fail("sc needs copy-store, interfaces or refresh", 64);
    Session s(paths);
    NetModel& net = s.net();
    if (args[0] == "copy-store" && args.size() == 2) {
        std::regex pattern;
        try {
            pattern = std::regex(args[1], std::regex::extended);
        } catch (const std::regex_error&) {
            fail("bad pattern " + args[1], 64);
        }
        const nlohmann::json store = dynamicStore(net);
        nlohmann::json out = nlohmann::json::object();
        for (const auto& [key, value] : store.items())
            if (std::regex_match(key, pattern))
                out[key] = value;
        std::cout << out.dump() << "\n";
        return 0;
    }
    if (args[0] == "interfaces" && args.size() == 1) {
        std::cout << nlohmann::json(net.configurableInterfaces()).dump() << "\n";
        return 0;
    }
    if (args[0] == "refresh" && args.size() == 2) {
        auto fault = consultFaults(s, "configd", {"refresh", args[1]}, false);
        s.save();
        if (fault && fault->killCaller)
            ::kill(::getppid(), SIGKILL);
        if (fault && fault->exitStatus)
            return *fault->exitStatus;
        const auto names = net.configurableInterfaces();
        return std::find(names.begin(), names.end(), args[1]) != names.end() ? 0 : 1;
    }
    if (args[0] == "preferences" && args.size() == 1) {
        // What SCPreferencesCreate reads, and the generation a commit must match.
        std::cout << nlohmann::json{{"generation", net.preferencesGeneration}, {"preferences", preferencesOf(net)}}.dump()
                  << "\n";
        return 0;
    }
    if (args[0] == "mtu" && args.size() == 2) {
        const auto reading = copyMtu(net, args[1]);
        if (!reading) {
            std::cout << "6\n"; // ENXIO: no device
            return 1;
        }
        std::cout << reading->current << " " << reading->minimum << " " << reading->maximum << " " << reading->entity
                  << "\n";
        return 0;
    }
    if ((args[0] == "commit" && args.size() == 3) || (args[0] == "apply" && args.size() == 1))
        return scChange(s, args);
    fail("sc copy-store PATTERN | interfaces | refresh BSD | preferences | mtu BSD | commit GENERATION WRITES | apply",
         64);
}

int service(const std::string& root, std::vector<std::string> args) {
    const StorePaths paths(root);
    if (args.empty())
        fail("service needs add, list, remove, enable or disable", 64);
    const std::string sub = args.front();
    args.erase(args.begin());
    Session s(paths);
    NetModel& net = s.net();
    if (sub == "list") {
        for (const auto& svc : net.services)
            std::cout << svc.id << "\t" << svc.name << "\t" << (svc.enabled ? "enabled" : "disabled") << "\t"
                      << svc.device.value_or("-") << "\n";
        return 0;
    }
    if (sub == "add") {
        auto device = option(args, "--device");
        const bool noDevice = flag(args, "--no-device");
        const bool disabled = flag(args, "--disabled");
        if (args.size() != 1 || device.has_value() == noDevice)
            fail("service add NAME (--device BSD | --no-device) [--disabled]", 64);
        Service svc;
        svc.id = randomUuid();
        svc.name = args[0];
        svc.enabled = !disabled;
        if (device) {
            svc.device = *device;
            svc.hardware = "Ethernet";
            svc.type = "Ethernet";
        } else {
            // VPN services have an Interface entity without a DeviceName.
            svc.hardware = "VPN";
            svc.type = "VPN";
            svc.subType = "com.example.vpn";
            svc.ipv4 = "Automatic";
        }
        net.services.push_back(svc);
        net.preferencesChanged();
        s.touchNet();
        s.save();
        std::cout << svc.id << "\n";
        return 0;
    }
    if ((sub == "remove" || sub == "enable" || sub == "disable") && args.size() == 1) {
        auto it = std::find_if(net.services.begin(), net.services.end(),
                               [&](const Service& svc) { return svc.name == args[0] || svc.id == args[0]; });
        if (it == net.services.end())
            fail("no service " + args[0]);
        if (sub == "remove")
            net.services.erase(it);
        else
            it->enabled = sub == "enable";
        net.preferencesChanged();
        s.touchNet();
        s.save();
        return 0;
    }
    fail("unknown service command " + sub, 64);
}

// ----------------------------------------------------------------- bench --

int bench(const std::string& root, std::vector<std::string> args) {
    const StorePaths paths(root);
    long iterations = 200;
    if (auto v = option(args, "--iterations"))
        iterations = number(*v, "--iterations");
    if (iterations < 1)
        fail("--iterations must be positive", 64);
    const std::string pfctl = paths.host("/sbin/pfctl");
    const std::vector<std::vector<std::string>> commands{{"-s", "info"}, {"-sr"}};
    std::vector<std::vector<double>> times(commands.size());
    std::vector<double> all;
    for (long i = 0; i < iterations; ++i) {
        const auto& cmd = commands[static_cast<std::size_t>(i) % commands.size()];
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(pfctl.c_str()));
        for (const auto& a : cmd)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        const auto start = std::chrono::steady_clock::now();
        const pid_t pid = ::fork();
        if (pid < 0)
            fail("fork failed");
        if (pid == 0) {
            const int devnull = ::open("/dev/null", O_RDWR);
            ::dup2(devnull, 0);
            ::dup2(devnull, 1);
            ::dup2(devnull, 2);
            ::execv(pfctl.c_str(), argv.data());
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        const double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            fail("pfctl " + joinArgs(cmd) + " failed during the benchmark");
        times[static_cast<std::size_t>(i) % commands.size()].push_back(ms);
        all.push_back(ms);
    }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        const std::size_t n = v.size();
        return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
    };
    char line[128];
    for (std::size_t k = 0; k < commands.size(); ++k) {
        if (times[k].empty())
            continue;
        std::snprintf(line, sizeof line, "pfctl %s: median %.3f ms over %zu calls\n", joinArgs(commands[k]).c_str(),
                      median(times[k]), times[k].size());
        std::cout << line;
    }
    std::snprintf(line, sizeof line, "pfctl_call_ms=%.3f\n", median(all));
    std::cout << line;
    return 0;
}

} // namespace

int adminMain(std::vector<std::string> args) {
    try {
        if (args.empty() || args[0] == "help" || args[0] == "--help" || args[0] == "-h") {
            std::cout << kHelp;
            return args.empty() ? 64 : 0;
        }
        const std::string command = args[0];
        if (args.size() < 2)
            fail(command + " needs ROOT", 64);
        const std::string root = absoluteRoot(args[1]);
        std::vector<std::string> rest(args.begin() + 2, args.end());
        if (command != "init" && !StorePaths(root).exists())
            fail("no simulated Mac at " + root + " (run: macsim init " + root + ")");
        if (command == "init")
            return init(root);
        if (command == "reboot")
            return reboot(root);
        if (command == "run") {
            if (rest.empty())
                fail("run ROOT TOOL [ARGS...]", 64);
            const ToolEntry* tool = findTool(rest[0]);
            if (!tool)
                fail("no tool " + rest[0], 64);
            return runTool(*tool, root, std::vector<std::string>(rest.begin() + 1, rest.end()));
        }
        if (command == "fault")
            return fault(root, rest);
        if (command == "calls")
            return calls(root, rest);
        if (command == "leak-test")
            return leakTest(root);
        if (command == "flow")
            return flow(root, rest);
        if (command == "packet")
            return packet(root, rest);
        if (command == "show")
            return show(root, rest);
        if (command == "set")
            return set(root, rest);
        if (command == "sc")
            return sc(root, rest);
        if (command == "log")
            return logCommand(root, rest);
        if (command == "service")
            return service(root, rest);
        if (command == "bench")
            return bench(root, rest);
        if (command == "keychain")
            return keychainCommand(root, rest);
        fail("unknown command " + command + " (try: macsim help)", 64);
    } catch (const AdminError& e) {
        std::cerr << "macsim: " << e.message << "\n";
        return e.status;
    } catch (const std::exception& e) {
        std::cerr << "macsim: " << e.what() << "\n";
        return 1;
    }
}

} // namespace orven::macsim
