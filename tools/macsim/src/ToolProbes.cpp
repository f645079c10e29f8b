// /sbin/ping, /sbin/ping6 and /usr/bin/nc: each builds the packets its
// arguments describe, asks pf about them on the way out and back, and prints
// what the real tool prints. Time-outs are simulated: a probe that gets no
// answer waits the model's probe delay instead of its real deadline.

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include <unistd.h>

#include "Format.h"
#include "Getopt.h"
#include "Probe.h"
#include "Tools.h"

namespace orven::macsim {

namespace {

std::optional<long> parseLong(const std::string& text) {
    if (text.empty())
        return std::nullopt;
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 0);
    if (*end != '\0' || errno == ERANGE)
        return std::nullopt;
    return v;
}

std::optional<double> parseDouble(const std::string& text) {
    if (text.empty())
        return std::nullopt;
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !std::isfinite(v))
        return std::nullopt;
    return v;
}

// A whole-number option within [min, max]; absent when the text is not one.
std::optional<long> longIn(const std::string& text, long min, long max = std::numeric_limits<long>::max()) {
    const auto v = parseLong(text);
    if (!v || *v < min || *v > max)
        return std::nullopt;
    return v;
}

// A positive number option (intervals).
std::optional<double> positive(const std::string& text) {
    const auto v = parseDouble(text);
    if (!v || *v <= 0)
        return std::nullopt;
    return v;
}

// Appends the tool's complaint and gives its exit status.
int refuse(ToolContext& c, const std::string& message, int status) {
    c.err += message;
    return status;
}

struct RttStats {
    long transmitted = 0, received = 0, outOfWait = 0;
    double min = 0, max = 0, sum = 0, sum2 = 0;
    void add(double t) {
        if (received == 1 || t < min)
            min = t;
        if (received == 1 || t > max)
            max = t;
        sum += t;
        sum2 += t * t;
    }
    std::string summary(const std::string& target, const char* tool, const char* stddevName, bool timing) const {
        std::string out = format("\n--- %s %s statistics ---\n", target.c_str(), tool);
        out += format("%ld packets transmitted, %ld packets received, ", transmitted, received);
        if (transmitted)
            out += format("%.1f%% packet loss",
                          static_cast<double>(transmitted - received) * 100.0 / static_cast<double>(transmitted));
        if (outOfWait)
            out += format(", %ld packets out of wait time", outOfWait);
        out += "\n";
        if (received && timing) {
            const double avg = sum / static_cast<double>(received);
            const double var = sum2 / static_cast<double>(received) - avg * avg;
            out += format("round-trip min/avg/max/%s = %.3f/%.3f/%.3f/%.3f ms\n", stddevName, min, avg, max,
                          std::sqrt(var > 0 ? var : 0));
        }
        return out;
    }
};

// One echo exchange through pf and the network model.
struct EchoResult {
    bool replied = false;
    double rtt = 0;
    int ttl = 64;
    bool tooBigLocal = false;
    int pathMtu = 0; // set when a router answered "frag needed"
};

// The round-trip time of reply `seq` of a train.
double replyTime(const RemoteHost& host, long seq) {
    if (host.rttSeries.empty())
        return jitter(host.rttMs);
    const auto last = static_cast<long>(host.rttSeries.size()) - 1;
    return host.rttSeries[static_cast<std::size_t>(std::min(seq, last))];
}

int pathMtuOf(const RemoteHost& host, const std::string& ifname) {
    const auto via = host.pathMtuVia.find(ifname);
    return via == host.pathMtuVia.end() ? host.pathMtu : via->second;
}

EchoResult echo(Session& s, const Route& route, const IpAddr& target, std::uint16_t id, std::uint32_t payload,
                bool dontFragment, long seq = 0) {
    EchoResult r;
    NetModel& net = s.net();
    const Interface* itf = net.findInterface(route.ifname);
    const std::uint32_t size = (target.family == Family::Inet ? 28 : 48) + payload;
    if (dontFragment && itf && size > static_cast<std::uint32_t>(itf->mtu)) {
        r.tooBigLocal = true;
        return r;
    }
    if (!filter(s, icmpEcho(Direction::Out, route.ifname, route.src, target, false, id, payload)).pass)
        return r;
    if (route.local) {
        // The loopback delivers the request and the reply to this Mac.
        if (!filter(s, icmpEcho(Direction::In, route.ifname, route.src, target, false, id, payload)).pass)
            return r;
        if (!filter(s, icmpEcho(Direction::Out, route.ifname, target, route.src, true, id, payload)).pass)
            return r;
        if (!filter(s, icmpEcho(Direction::In, route.ifname, target, route.src, true, id, payload)).pass)
            return r;
        r.replied = true;
        r.rtt = jitter(0.06);
        r.ttl = 64;
        return r;
    }
    RemoteHost* host = net.findHost(target);
    if (!host || !host->up)
        return r;
    if (const int mtu = pathMtuOf(*host, route.ifname); dontFragment && size > static_cast<std::uint32_t>(mtu)) {
        r.pathMtu = mtu;
        return r;
    }
    if (std::find(host->lostSeqs.begin(), host->lostSeqs.end(), seq) != host->lostSeqs.end())
        return r;
    if (!filter(s, icmpEcho(Direction::In, route.ifname, target, route.src, true, id, payload)).pass)
        return r;
    r.replied = true;
    r.rtt = replyTime(*host, seq);
    r.ttl = host->ttl;
    return r;
}

std::string ipHeaderDump(const IpAddr& src, const IpAddr& dst, std::uint32_t len, std::uint16_t id) {
    std::string out = "Vr HL TOS  Len   ID Flg  off TTL Pro  cks      Src      Dst\n";
    out += format(" 4  5  00 %04x %04x   2 0000  40  01 %04x %s  %s \n", len, id, 0x8c1e, src.str().c_str(),
                  dst.str().c_str());
    return out;
}

// What a train prints, each piece at the moment the real tool would print
// it (seconds after the start). The model is decided first, under the lock;
// the train is then played out in real time, because its length is what the
// caller's budget is about. Only the wait for echoes that never come is cut
// short to the probe delay.
class Timeline {
public:
    void out(double at, std::string text) { events_.push_back({at, std::move(text), {}}); }
    void err(double at, std::string text) { events_.push_back({at, {}, std::move(text)}); }
    void play(ToolContext& c, double end) {
        std::stable_sort(events_.begin(), events_.end(), [](const Event& a, const Event& b) { return a.at < b.at; });
        double now = 0;
        for (const auto& e : events_) {
            if (e.at > now) {
                if (c.flush)
                    c.flush();
                c.wait(e.at - now);
                now = e.at;
            }
            c.out += e.out;
            c.err += e.err;
        }
        if (end > now) {
            if (c.flush)
                c.flush();
            c.wait(end - now);
        }
    }

private:
    struct Event {
        double at;
        std::string out, err;
    };
    std::vector<Event> events_;
};

// When a train ends: at its last reply when every echo came back, else the
// probe delay after the last send (in place of the real tool's wait).
double trainEnd(long sends, double interval, double lastReplyAt, bool lost, double probeDelay) {
    const double lastSend = static_cast<double>(sends > 0 ? sends - 1 : 0) * interval;
    return lost ? std::max(lastReplyAt, lastSend + probeDelay) : lastReplyAt;
}

} // namespace

int pingMain(ToolContext& c) {
    const GetoptResult g = getopt(c.args, "AaB:b:Cc:DdfG:g:h:I:i:k:K:Ll:M:m:nop:QqRrS:s:T:t:vW:z:");
    auto usageExit = [&]() {
        c.err += "usage: ping [-AaDdfnoQqRrv] [-c count] [-G sweepmaxsize] [-g sweepminsize]\n"
                 "            [-h sweepincrsize] [-i wait] [-l preload] [-M mask | time] [-m ttl]\n"
                 "            [-p pattern] [-S src_addr] [-s packetsize] [-t timeout]\n"
                 "            [-W waittime] [-z tos] host\n";
        return 64;
    };
    if (g.error) {
        c.err += "ping: " + *g.error + "\n";
        return usageExit();
    }
    long count = -1;
    std::optional<long> timeout, waitMs;
    double interval = 1.0;
    long payload = 56;
    bool dontFragment = false, quiet = false, multicastSource = false;
    std::string bound;
    for (const auto& o : g.options) {
        switch (o.name) {
        case 'c': {
            const auto v = longIn(o.value, 1);
            if (!v)
                return refuse(c, "ping: invalid count of packets to transmit: `" + o.value + "'\n", 64);
            count = *v;
            break;
        }
        case 't': {
            const auto v = longIn(o.value, 1, 3600);
            if (!v)
                return refuse(c, "ping: invalid timeout: `" + o.value + "'\n", 64);
            timeout = *v;
            break;
        }
        case 'W': {
            const auto v = longIn(o.value, 0);
            if (!v)
                return refuse(c, "ping: invalid timing interval: `" + o.value + "'\n", 64);
            waitMs = *v;
            break;
        }
        case 'i': {
            const auto v = positive(o.value);
            if (!v)
                return refuse(c, "ping: invalid timing interval: `" + o.value + "'\n", 64);
            interval = *v;
            break;
        }
        case 's': {
            const auto v = longIn(o.value, 0);
            if (!v)
                return refuse(c, "ping: invalid packet size: `" + o.value + "'\n", 64);
            if (*v > 65507) {
                c.err += format("ping: packet size too large: %ld > %d\n", *v, 65507);
                return 64;
            }
            payload = *v;
            break;
        }
        case 'D': dontFragment = true; break;
        case 'q': quiet = true; break;
        case 'b':
        case 'B': bound = o.value; break;
        case 'I': multicastSource = true; break;
        default: break;
        }
    }
    if (g.operands.size() != 1)
        return usageExit();
    const std::string& hostArg = g.operands.front();
    auto target = IpAddr::parse(hostArg, Family::Inet);
    if (!target && hostArg == "localhost")
        target = IpAddr::parse("127.0.0.1");
    if (!target) {
        c.err += "ping: cannot resolve " + hostArg + ": Unknown host\n";
        return 68;
    }
    // -I names a multicast source address, not an interface.
    if (multicastSource && !target->isMulticast())
        return refuse(c, "ping: -I, -L, -T flags cannot be used with unicast destination\n", 64);

    RttStats stats;
    Timeline timeline;
    bool lost = false;
    double end = 0;
    const auto id = static_cast<std::uint16_t>(::getpid() & 0xffff);
    {
        Session s(c.paths);
        NetModel& net = s.net();
        if (!bound.empty() && !net.findInterface(bound)) {
            c.err += "ping: bad interface name\n";
            return 1;
        }
        c.out += format("PING %s (%s): %ld data bytes\n", hostArg.c_str(), target->str().c_str(), payload);
        auto route = net.route(*target, bound);
        long sends = count < 0 ? 1 : count;
        if (timeout) {
            // -t cuts the train short: only echoes sent before it expires count.
            const long fit = static_cast<long>(std::ceil(static_cast<double>(*timeout) / interval));
            sends = count < 0 ? fit : std::min(sends, fit);
        }
        long missedMax = 0;
        double lastReplyAt = 0;
        for (long seq = 0; seq < sends; ++seq) {
            const double sentAt = static_cast<double>(seq) * interval;
            stats.transmitted++;
            EchoResult r;
            if (!route) {
                timeline.err(sentAt, "ping: sendto: No route to host\n");
            } else {
                r = echo(s, *route, *target, id, static_cast<std::uint32_t>(payload), dontFragment, seq);
                if (r.tooBigLocal)
                    timeline.err(sentAt, "ping: sendto: Message too long\n");
            }
            if (stats.transmitted - stats.received - 1 > missedMax) {
                missedMax = stats.transmitted - stats.received - 1;
                if (!quiet)
                    timeline.out(sentAt, format("Request timeout for icmp_seq %ld\n", stats.transmitted - 2));
            }
            if (r.pathMtu && route) {
                const IpAddr gw = net.gateway4;
                Packet err = icmpEcho(Direction::In, route->ifname, gw, route->src, false, 0, 28);
                err.icmpType = 3;
                err.icmpCode = 4;
                if (filter(s, err).pass)
                    timeline.out(sentAt, format("36 bytes from %s: frag needed and DF set (MTU %d)\n",
                                                gw.str().c_str(), r.pathMtu) +
                                             ipHeaderDump(route->src, *target,
                                                          static_cast<std::uint32_t>(28 + payload), id));
            }
            if (!r.replied) {
                lost = true;
                continue;
            }
            stats.received++;
            const double repliedAt = sentAt + r.rtt / 1000.0;
            lastReplyAt = std::max(lastReplyAt, repliedAt);
            if (waitMs && r.rtt > static_cast<double>(*waitMs)) {
                stats.outOfWait++;
                continue;
            }
            stats.add(r.rtt);
            if (quiet)
                continue;
            if (payload >= 8)
                timeline.out(repliedAt, format("%ld bytes from %s: icmp_seq=%ld ttl=%d time=%.3f ms\n", payload + 8,
                                               target->str().c_str(), seq, r.ttl, r.rtt));
            else
                timeline.out(repliedAt, format("%ld bytes from %s: icmp_seq=%ld ttl=%d\n", payload + 8,
                                               target->str().c_str(), seq, r.ttl));
        }
        s.save();
        end = trainEnd(sends, interval, lastReplyAt, lost, net.probeDelayMs / 1000.0);
    }
    timeline.play(c, end);
    c.out += stats.summary(hostArg, "ping", "stddev", payload >= 8);
    return stats.received ? 0 : 2;
}

int ping6Main(ToolContext& c) {
    bool assumedOptions = false;
    {
        Session s(c.paths);
        assumedOptions = s.net().ping6AssumedOptions;
    }
    // macOS's ping6 has no wait-time option: -W is a node-information query
    // without a value, so "-W 2000" leaves 2000 as an operand (a hop).
    const GetoptResult g = getopt(c.args,
                                  assumedOptions ? "a:b:B:c:dDfg:h:HI:i:l:mnNop:qrRs:S:tvwW:z:"
                                                 : "a:b:B:c:dDfg:h:HI:i:l:mnNop:qrRs:S:tvwWz:",
                                  true);
    auto usageExit = [&]() {
        c.err += "usage: ping6 [-DdfHmnNoqrRtvwW] [-a addrtype] [-b bufsiz] [-B boundif] [-c count]\n"
                 "\t[-g gateway] [-h hoplimit] [-I interface] [-i wait] [-l preload]\n"
                 "\t[-p pattern] [-S sourceaddr] [-s packetsize] [-z tclass] [hops ...] host\n";
        return 1;
    };
    if (g.error) {
        c.err += "ping6: " + *g.error + "\n";
        return usageExit();
    }
    long count = -1;
    double interval = 1.0;
    long payload = 8;
    bool dontFragment = false, quiet = false, nodeInfo = false;
    std::string bound, scope;
    for (const auto& o : g.options) {
        switch (o.name) {
        case 'c': {
            const auto v = longIn(o.value, 1);
            if (!v)
                return refuse(c, "ping6: illegal number of packets -- " + o.value + "\n", 1);
            count = *v;
            break;
        }
        case 'i': {
            const auto v = positive(o.value);
            if (!v)
                return refuse(c, "ping6: illegal timing interval -- " + o.value + "\n", 1);
            interval = *v;
            break;
        }
        case 's': {
            const auto v = longIn(o.value, 1, 131024);
            if (!v)
                return refuse(c, "ping6: illegal datalen value -- " + o.value + "\n", 1);
            payload = *v;
            break;
        }
        case 'D': dontFragment = true; break;
        case 'q': quiet = true; break;
        case 'I': scope = o.value; break;
        case 'B': bound = o.value; break;
        case 'W':
            if (assumedOptions) {
                const auto v = longIn(o.value, 0);
                if (!v)
                    return refuse(c, "ping6: illegal wait time -- " + o.value + "\n", 1);
                break;
            }
            nodeInfo = true;
            break;
        case 'w':
        case 't': nodeInfo = true; break;
        default: break;
        }
    }
    if (g.operands.empty())
        return usageExit();
    const std::string& hostArg = g.operands.back();
    auto target = IpAddr::parse(hostArg, Family::Inet6);
    if (!target) {
        c.err += "ping6: getaddrinfo -- nodename nor servname provided, or not known\n";
        return 1;
    }
    for (std::size_t i = 0; i + 1 < g.operands.size(); ++i)
        if (!IpAddr::parse(g.operands[i], Family::Inet6)) {
            c.err += "ping6: nodename nor servname provided, or not known\n";
            return 1;
        }

    RttStats stats;
    Timeline timeline;
    bool lost = false;
    double end = 0;
    const auto id = static_cast<std::uint16_t>(::getpid() & 0xffff);
    {
        Session s(c.paths);
        NetModel& net = s.net();
        if (!scope.empty() && !net.findInterface(scope)) {
            c.err += "ping6: " + scope + ": invalid interface name\n";
            return 1;
        }
        if (!bound.empty() && !net.findInterface(bound)) {
            c.err += "ping6: bad interface name\n";
            return 1;
        }
        std::string via = !bound.empty() ? bound : scope;
        if (via.empty() && target->isLinkLocal6())
            via = net.gatewayInterface;
        auto route = net.route(*target, via);
        std::string src = route ? route->src.str() : std::string("::");
        if (route && route->src.isLinkLocal6())
            src += "%" + route->ifname;
        std::string dst = target->str();
        if (target->isLinkLocal6() && route)
            dst += "%" + route->ifname;
        c.out += format("PING6(%ld=40+8+%ld bytes) %s --> %s\n", 48 + payload, payload, src.c_str(), dst.c_str());
        const long sends = count < 0 ? 1 : count;
        double lastReplyAt = 0;
        for (long seq = 0; seq < sends; ++seq) {
            const double sentAt = static_cast<double>(seq) * interval;
            stats.transmitted++;
            EchoResult r;
            if (!route) {
                timeline.err(sentAt, "ping6: sendmsg: No route to host\n");
                timeline.out(sentAt, format("ping6: wrote %s %ld chars, ret=-1\n", hostArg.c_str(), 8 + payload));
            } else if (!nodeInfo) {
                r = echo(s, *route, *target, id, static_cast<std::uint32_t>(payload), dontFragment, seq);
                if (r.tooBigLocal) {
                    timeline.err(sentAt, "ping6: sendmsg: Message too long\n");
                    timeline.out(sentAt, format("ping6: wrote %s %ld chars, ret=-1\n", hostArg.c_str(), 8 + payload));
                }
                if (r.pathMtu) {
                    // A router's Packet Too Big, if pf lets it in.
                    Packet err = icmpEcho(Direction::In, route->ifname, net.gateway6, route->src, false, 0, 48);
                    err.icmpType = 2;
                    err.icmpCode = 0;
                    if (filter(s, err).pass)
                        timeline.out(sentAt, format("%ld bytes from %s: Packet too big mtu = %d\n", 48 + payload,
                                                    net.gateway6.str().c_str(), r.pathMtu));
                }
            }
            if (!r.replied) {
                lost = true;
                continue;
            }
            stats.received++;
            const double repliedAt = sentAt + r.rtt / 1000.0;
            lastReplyAt = std::max(lastReplyAt, repliedAt);
            stats.add(r.rtt);
            if (quiet)
                continue;
            if (payload >= 8)
                timeline.out(repliedAt, format("%ld bytes from %s, icmp_seq=%ld hlim=%d time=%.3f ms\n", payload + 8,
                                               dst.c_str(), seq, r.ttl, r.rtt));
            else
                timeline.out(repliedAt, format("%ld bytes from %s, icmp_seq=%ld hlim=%d\n", payload + 8, dst.c_str(),
                                               seq, r.ttl));
        }
        s.save();
        end = trainEnd(sends, interval, lastReplyAt, lost, net.probeDelayMs / 1000.0);
    }
    timeline.play(c, end);
    c.out += stats.summary(hostArg, "ping6", "std-dev", payload >= 8);
    return stats.received ? 0 : 2;
}

int ncMain(ToolContext& c) {
    const GetoptResult g = getopt(c.args, "46b:cCDdFG:hI:i:klnO:op:rs:tuUvw:zK:");
    auto usageExit = [&]() {
        c.err += "usage: nc [-46AacCDdEFhklMnOortUuvz] [-K tc] [-b boundif] [-i interval] [-p source_port]\n"
                 "\t  [-s source_ip_address] [-w timeout] [-X proxy_version]\n"
                 "\t  [-x proxy_address[:port]] [hostname] [port[s]]\n";
        return 1;
    };
    if (g.error) {
        c.err += "nc: " + *g.error + "\n";
        return usageExit();
    }
    bool zero = false, verbose = false, udp = false, numeric = false;
    Family want = Family::None;
    std::string bound;
    for (const auto& o : g.options) {
        switch (o.name) {
        case 'z': zero = true; break;
        case 'v': verbose = true; break;
        case 'u': udp = true; break;
        case 'n': numeric = true; break;
        case '4': want = Family::Inet; break;
        case '6': want = Family::Inet6; break;
        case 'b': bound = o.value; break;
        case 'G': {
            const auto v = longIn(o.value, 1);
            if (!v)
                return refuse(c, "nc: invalid tcp connection timeout\n", 1);
            break;
        }
        case 'w': {
            const auto v = parseLong(o.value);
            if (!v)
                return refuse(c, "nc: timeout cannot be negative\n", 1);
            break;
        }
        default: break;
        }
    }
    if (g.operands.size() != 2)
        return usageExit();
    const std::string& hostArg = g.operands[0];
    const std::string& portArg = g.operands[1];
    auto target = want == Family::None ? IpAddr::parse(hostArg) : IpAddr::parse(hostArg, want);
    if (!target) {
        c.err += "nc: getaddrinfo: nodename nor servname provided, or not known\n";
        return 1;
    }
    std::uint16_t port = 0;
    if (auto v = parseLong(portArg); v && *v > 0 && *v <= 65535)
        port = static_cast<std::uint16_t>(*v);
    else if (auto s = serviceByName(portArg))
        port = *s;
    else {
        c.err += "nc: port number invalid: " + portArg + "\n";
        return 1;
    }
    const char* proto = udp ? "udp" : "tcp";
    auto succeeded = [&]() {
        if (zero || verbose) {
            const auto name = numeric ? std::nullopt : serviceName(port, proto);
            c.err += "Connection to " + hostArg + " port " + portArg + " [" + proto + "/" + name.value_or("*") +
                     "] succeeded!\n";
        }
        return 0;
    };
    auto failed = [&](const char* why) {
        if (verbose)
            c.err += "nc: connectx to " + hostArg + " port " + portArg + " (" + proto + ") failed: " + why + "\n";
        return 1;
    };

    enum class Outcome { Connected, Refused, TimedOut, Unreachable, BadInterface };
    double delay = 0;
    const Outcome outcome = [&]() {
        Session s(c.paths);
        NetModel& net = s.net();
        delay = net.probeDelayMs / 1000.0;
        if (!bound.empty() && !net.findInterface(bound))
            return Outcome::BadInterface;
        auto route = net.route(*target, bound);
        if (!route)
            return Outcome::Unreachable;
        if (udp)
            return Outcome::Connected;
        const std::uint16_t sport = net.ephemeralPort();
        s.touchNet();
        auto send = [&](Direction dir, std::uint8_t flags) {
            const bool out = dir == Direction::Out;
            return filter(s, tcpPacket(dir, route->ifname, out ? route->src : *target, out ? sport : port,
                                       out ? *target : route->src, out ? port : sport, flags))
                .pass;
        };
        const Outcome result = [&]() {
            if (!send(Direction::Out, TcpFlag::Syn))
                return Outcome::TimedOut;
            RemoteHost* host = route->local ? nullptr : net.findHost(*target);
            const bool up = host && host->up;
            const bool listening = up && std::find(host->tcp.begin(), host->tcp.end(), port) != host->tcp.end();
            if (route->local || (up && !listening))
                return send(Direction::In, TcpFlag::Rst | TcpFlag::Ack) ? Outcome::Refused : Outcome::TimedOut;
            if (!up || !send(Direction::In, TcpFlag::Syn | TcpFlag::Ack))
                return Outcome::TimedOut;
            send(Direction::Out, TcpFlag::Ack);
            // -z closes at once: FIN, FIN+ACK, ACK.
            send(Direction::Out, TcpFlag::Fin | TcpFlag::Ack);
            send(Direction::In, TcpFlag::Fin | TcpFlag::Ack);
            send(Direction::Out, TcpFlag::Ack);
            return Outcome::Connected;
        }();
        s.save();
        return result;
    }();
    switch (outcome) {
    case Outcome::BadInterface: c.err += "nc: bad interface name\n"; return 1;
    case Outcome::Unreachable: return failed("Network is unreachable");
    case Outcome::Refused: return failed("Connection refused");
    case Outcome::TimedOut: c.wait(delay); return failed("Operation timed out");
    case Outcome::Connected: break;
    }
    return succeeded();
}

} // namespace orven::macsim
