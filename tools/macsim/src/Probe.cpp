#include "Probe.h"

#include <random>

namespace orven::macsim {

namespace {

std::uint32_t ipHeader(const IpAddr& a) { return a.family == Family::Inet ? 20 : 40; }

} // namespace

Packet tcpPacket(Direction dir, const std::string& ifname, const IpAddr& src, std::uint16_t sport, const IpAddr& dst,
                 std::uint16_t dport, std::uint8_t flags) {
    Packet p;
    p.dir = dir;
    p.ifname = ifname;
    p.af = src.family;
    p.proto = Proto::Tcp;
    p.src = src;
    p.dst = dst;
    p.sport = sport;
    p.dport = dport;
    p.tcpFlags = flags;
    // A SYN carries the options macOS sends (MSS, window scale, timestamps, SACK).
    p.length = ipHeader(src) + ((flags & TcpFlag::Syn) ? 44 : 32);
    return p;
}

Packet udpPacket(Direction dir, const std::string& ifname, const IpAddr& src, std::uint16_t sport, const IpAddr& dst,
                 std::uint16_t dport, std::uint32_t payload) {
    Packet p;
    p.dir = dir;
    p.ifname = ifname;
    p.af = src.family;
    p.proto = Proto::Udp;
    p.src = src;
    p.dst = dst;
    p.sport = sport;
    p.dport = dport;
    p.length = ipHeader(src) + 8 + payload;
    return p;
}

Packet icmpEcho(Direction dir, const std::string& ifname, const IpAddr& src, const IpAddr& dst, bool reply,
                std::uint16_t id, std::uint32_t payload) {
    Packet p;
    p.dir = dir;
    p.ifname = ifname;
    p.af = src.family;
    const bool v6 = src.family == Family::Inet6;
    p.proto = v6 ? Proto::Icmp6 : Proto::Icmp;
    p.src = src;
    p.dst = dst;
    // pf keys ICMP echo states on the echo id, on both sides.
    p.sport = id;
    p.dport = id;
    p.icmpType = v6 ? (reply ? 129 : 128) : (reply ? 0 : 8);
    p.icmpCode = 0;
    p.length = ipHeader(src) + 8 + payload;
    return p;
}

Verdict filter(Session& session, const Packet& packet) {
    NetModel& net = session.net();
    Verdict v = session.pf().test(packet, secondsNow(),
                                  [&net](std::string_view ifname) { return net.addressesOf(ifname); });
    if (v.how != Verdict::How::Disabled && v.how != Verdict::How::Skipped)
        session.touchPf();
    return v;
}

double jitter(double rttMs) {
    static std::mt19937_64 engine{std::random_device{}()};
    std::uniform_real_distribution<double> spread(-0.06, 0.06);
    return rttMs * (1.0 + spread(engine));
}

} // namespace orven::macsim
