#include "PfRule.h"

#include <array>
#include <cstdio>
#include <utility>

namespace orven::macsim {

namespace {

struct NamedNumber {
    std::string_view name;
    int number;
};

// The names macOS's /etc/protocols gives, in the order getprotobynumber
// would find them (the first name of a number is the one printed).
constexpr std::array<NamedNumber, 22> kProtocols{{
    {"ip", 0}, {"icmp", 1}, {"igmp", 2}, {"ggp", 3}, {"ipencap", 4}, {"tcp", 6}, {"egp", 8}, {"pup", 12},
    {"udp", 17}, {"ipv6", 41}, {"ipv6-route", 43}, {"ipv6-frag", 44}, {"rsvp", 46}, {"gre", 47}, {"esp", 50},
    {"ah", 51}, {"ipv6-icmp", 58}, {"ipv6-nonxt", 59}, {"ipv6-opts", 60}, {"ospf", 89}, {"pim", 103},
    {"sctp", 132},
}};

constexpr std::array<NamedNumber, 34> kServices{{
    {"ftp-data", 20}, {"ftp", 21}, {"ssh", 22}, {"telnet", 23}, {"smtp", 25}, {"domain", 53}, {"bootps", 67},
    {"bootpc", 68}, {"tftp", 69}, {"http", 80}, {"www", 80}, {"kerberos", 88}, {"pop3", 110}, {"sunrpc", 111},
    {"ntp", 123}, {"netbios-ns", 137}, {"netbios-dgm", 138}, {"netbios-ssn", 139}, {"imap", 143}, {"snmp", 161},
    {"ldap", 389}, {"https", 443}, {"microsoft-ds", 445}, {"isakmp", 500}, {"syslog", 514}, {"dhcpv6-client", 546},
    {"dhcpv6-server", 547}, {"submission", 587}, {"ldaps", 636}, {"imaps", 993}, {"pop3s", 995},
    {"openvpn", 1194}, {"ipsec-nat-t", 4500}, {"mdns", 5353},
}};

// pfctl_parser.c icmp_type / icmp6_type, in table order.
constexpr std::array<NamedNumber, 25> kIcmpTypes{{
    {"echoreq", 8}, {"echorep", 0}, {"unreach", 3}, {"squench", 4}, {"redir", 5}, {"althost", 6},
    {"routeradv", 9}, {"routersol", 10}, {"timex", 11}, {"paramprob", 12}, {"timereq", 13}, {"timerep", 14},
    {"inforeq", 15}, {"inforep", 16}, {"maskreq", 17}, {"maskrep", 18}, {"trace", 30}, {"dataconv", 31},
    {"mobredir", 32}, {"ipv6-where", 33}, {"ipv6-here", 34}, {"mobregreq", 35}, {"mobregrep", 36}, {"skip", 39},
    {"photuris", 40},
}};

constexpr std::array<NamedNumber, 26> kIcmp6Types{{
    {"unreach", 1}, {"toobig", 2}, {"timex", 3}, {"paramprob", 4}, {"echoreq", 128}, {"echorep", 129},
    {"groupqry", 130}, {"listqry", 130}, {"grouprep", 131}, {"listenrep", 131}, {"groupterm", 132},
    {"listendone", 132}, {"routersol", 133}, {"routeradv", 134}, {"neighbrsol", 135}, {"neighbradv", 136},
    {"redir", 137}, {"routrrenum", 138}, {"wrureq", 139}, {"wrurep", 140}, {"fqdnreq", 139}, {"fqdnrep", 140},
    {"niqry", 139}, {"nirep", 140}, {"mtraceresp", 200}, {"mtrace", 201},
}};

struct IcmpCode {
    std::string_view name;
    int type, code;
};

constexpr std::array<IcmpCode, 30> kIcmpCodes{{
    {"net-unr", 3, 0}, {"host-unr", 3, 1}, {"proto-unr", 3, 2}, {"port-unr", 3, 3}, {"needfrag", 3, 4},
    {"srcfail", 3, 5}, {"net-unk", 3, 6}, {"host-unk", 3, 7}, {"isolate", 3, 8}, {"net-prohib", 3, 9},
    {"host-prohib", 3, 10}, {"net-tos", 3, 11}, {"host-tos", 3, 12}, {"filter-prohib", 3, 13},
    {"host-preced", 3, 14}, {"cutoff-preced", 3, 15}, {"redir-net", 5, 0}, {"redir-host", 5, 1},
    {"redir-tos-net", 5, 2}, {"redir-tos-host", 5, 3}, {"normal-adv", 9, 0}, {"common-adv", 9, 16},
    {"transit", 11, 0}, {"reassemb", 11, 1}, {"badhead", 12, 0}, {"optmiss", 12, 1}, {"badlen", 12, 2},
    {"unknown-ind", 40, 1}, {"auth-fail", 40, 2}, {"decrypt-fail", 40, 3},
}};

constexpr std::array<IcmpCode, 12> kIcmp6Codes{{
    {"admin-unr", 1, 1}, {"noroute-unr", 1, 0}, {"notnbr-unr", 1, 2}, {"beyond-unr", 1, 2}, {"addr-unr", 1, 3},
    {"port-unr", 1, 4}, {"transit", 3, 0}, {"reassemb", 3, 1}, {"badhead", 4, 0}, {"nxthdr", 4, 1},
    {"redironlink", 137, 0}, {"redirrouter", 137, 1},
}};

constexpr std::string_view kTcpFlagChars = "FSRPAUEW";

std::string portOpText(PortOp op, std::uint16_t a, std::uint16_t b) {
    const std::string x = std::to_string(a), y = std::to_string(b);
    switch (op) {
    case PortOp::Inside: return " " + x + " >< " + y;
    case PortOp::Outside: return " " + x + " <> " + y;
    case PortOp::Eq: return " = " + x;
    case PortOp::Ne: return " != " + x;
    case PortOp::Lt: return " < " + x;
    case PortOp::Le: return " <= " + x;
    case PortOp::Gt: return " > " + x;
    case PortOp::Ge: return " >= " + x;
    case PortOp::Range: return " " + x + ":" + y;
    case PortOp::None: break;
    }
    return "";
}

bool isAnyAddress(const AddrMatch& s) {
    return s.type == AddrType::Mask && (s.addr.family == Family::None || (s.addr.isZero() && s.prefix == 0));
}

std::string anchorKeyword(RuleKind kind) {
    switch (kind) {
    case RuleKind::Scrub: return "scrub-anchor";
    case RuleKind::Nat: return "nat-anchor";
    case RuleKind::Rdr: return "rdr-anchor";
    case RuleKind::Dummynet: return "dummynet-anchor";
    case RuleKind::Filter: break;
    }
    return "anchor";
}

std::string actionKeyword(Action action) {
    switch (action) {
    case Action::Pass: return "pass";
    case Action::Block: return "block";
    case Action::Scrub: return "scrub";
    case Action::Nat: return "nat";
    case Action::Rdr: return "rdr";
    case Action::Dummynet: return "dummynet";
    }
    return "";
}

} // namespace

bool PortMatch::matches(std::uint16_t p) const {
    switch (op) {
    case PortOp::None: return true;
    case PortOp::Eq: return p == a;
    case PortOp::Ne: return p != a;
    case PortOp::Lt: return p < a;
    case PortOp::Le: return p <= a;
    case PortOp::Gt: return p > a;
    case PortOp::Ge: return p >= a;
    case PortOp::Range: return p >= a && p <= b;
    case PortOp::Inside: return p > a && p < b;
    case PortOp::Outside: return p < a || p > b;
    }
    return false;
}

std::string printAddress(const AddrMatch& s) {
    switch (s.type) {
    case AddrType::DynIf: return "(" + s.ifname + ")";
    case AddrType::NoRoute: return "no-route";
    case AddrType::UrpfFailed: return "urpf-failed";
    case AddrType::Mask: break;
    }
    if (isAnyAddress(s))
        return "any";
    std::string out = s.addr.str();
    if (s.prefix != s.addr.maxBits())
        out += '/' + std::to_string(s.prefix);
    return out;
}

std::string printRule(const Rule& r, std::optional<std::string_view> anchorCallShown) {
    std::string out;
    const std::string_view call = anchorCallShown ? *anchorCallShown : std::string_view(r.anchorCall);
    if (r.isAnchor) {
        out = anchorKeyword(r.kind);
        if (call.empty() || call[0] != '_')
            out += " \"" + std::string(call) + "\"";
    } else {
        out = actionKeyword(r.action);
        if (r.natPass)
            out += " pass";
    }
    if (r.action == Action::Block) {
        switch (r.block) {
        case BlockPolicy::Drop: out += " drop"; break;
        case BlockPolicy::Return: out += " return"; break;
        case BlockPolicy::ReturnRst: out += " return-rst"; break;
        case BlockPolicy::ReturnIcmp:
            if (r.af == Family::Inet)
                out += " return-icmp(port-unr)";
            else if (r.af == Family::Inet6)
                out += " return-icmp6(port-unr)";
            else
                out += " return-icmp(port-unr, port-unr)";
            break;
        }
    }
    if (r.dir == Direction::In)
        out += " in";
    else if (r.dir == Direction::Out)
        out += " out";
    if (r.log)
        out += " log";
    if (r.quick)
        out += " quick";
    if (!r.ifname.empty())
        out += (r.ifnot ? " on ! " : " on ") + r.ifname;
    if (r.af != Family::None)
        out += std::string(" ") + familyKeyword(r.af);
    if (r.proto != 0)
        out += " proto " + protocolName(r.proto);

    if (isAnyAddress(r.src) && isAnyAddress(r.dst) && !r.src.neg && !r.dst.neg && r.src.port.op == PortOp::None &&
        r.dst.port.op == PortOp::None) {
        out += " all";
    } else {
        for (const AddrMatch* side : {&r.src, &r.dst}) {
            out += side == &r.src ? " from " : " to ";
            if (side->neg)
                out += "! ";
            out += printAddress(*side);
            if (side->port.op != PortOp::None)
                out += " port" + portOpText(side->port.op, side->port.a, side->port.b);
        }
    }

    if (r.flags || r.flagset)
        out += " flags " + tcpFlagsString(r.flags) + "/" + tcpFlagsString(r.flagset);
    else if (r.action == Action::Pass && (r.proto == 0 || r.proto == Proto::Tcp) && !r.fragment && !r.isAnchor &&
             r.keep != KeepState::None)
        out += " flags any";

    if (r.icmpType) {
        const int type = r.icmpType - 1;
        out += r.af != Family::Inet6 ? " icmp-type" : " icmp6-type";
        if (auto name = icmpTypeName(type, r.af))
            out += " " + *name;
        else
            out += " " + std::to_string(type);
        if (r.icmpCode) {
            if (auto code = icmpCodeName(type, r.icmpCode - 1, r.af))
                out += " code " + *code;
            else
                out += " code " + std::to_string(r.icmpCode - 1);
        }
    }

    if (r.keep == KeepState::None && r.action == Action::Pass && !r.isAnchor)
        out += " no state";
    else if (r.keep == KeepState::Keep)
        out += " keep state";
    else if (r.keep == KeepState::Modulate)
        out += " modulate state";
    else if (r.keep == KeepState::Synproxy)
        out += " synproxy state";

    if (r.fragment)
        out += " fragment";
    if (r.noDf)
        out += " no-df";
    if (r.randomId)
        out += " random-id";
    if (r.minTtl)
        out += " min-ttl " + std::to_string(r.minTtl);
    if (r.maxMss)
        out += " max-mss " + std::to_string(r.maxMss);
    if (r.allowOpts)
        out += " allow-opts";
    if (r.action == Action::Scrub) {
        if (r.reassembleTcp)
            out += " reassemble tcp";
        out += " fragment reassemble";
    }
    if (!r.label.empty())
        out += " label \"" + r.label + "\"";
    if (!r.tag.empty())
        out += " tag " + r.tag;
    if (!r.isAnchor && (r.action == Action::Nat || r.action == Action::Rdr) && r.redirect) {
        out += " -> " + printAddress(*r.redirect);
        if (r.action == Action::Rdr && r.redirectPort)
            out += " port " + std::to_string(r.redirectPort);
    }
    return out;
}

std::optional<std::uint8_t> protocolByName(std::string_view name) {
    if (name == "icmp6" || name == "IPv6-ICMP")
        return Proto::Icmp6;
    for (const auto& p : kProtocols)
        if (p.name == name)
            return static_cast<std::uint8_t>(p.number);
    return std::nullopt;
}

std::string protocolName(std::uint8_t number) {
    for (const auto& p : kProtocols)
        if (p.number == number)
            return std::string(p.name);
    return std::to_string(number);
}

std::optional<std::uint16_t> serviceByName(std::string_view name) {
    for (const auto& s : kServices)
        if (s.name == name)
            return static_cast<std::uint16_t>(s.number);
    return std::nullopt;
}

std::optional<std::string> serviceName(std::uint16_t port, std::string_view proto) {
    (void)proto;
    for (const auto& s : kServices)
        if (s.number == port)
            return std::string(s.name);
    return std::nullopt;
}

std::optional<int> icmpTypeByName(std::string_view name, Family family) {
    if (family == Family::Inet6) {
        for (const auto& t : kIcmp6Types)
            if (t.name == name)
                return t.number;
    } else {
        for (const auto& t : kIcmpTypes)
            if (t.name == name)
                return t.number;
    }
    return std::nullopt;
}

std::optional<std::string> icmpTypeName(int type, Family family) {
    if (family == Family::Inet6) {
        for (const auto& t : kIcmp6Types)
            if (t.number == type)
                return std::string(t.name);
    } else {
        for (const auto& t : kIcmpTypes)
            if (t.number == type)
                return std::string(t.name);
    }
    return std::nullopt;
}

std::optional<int> icmpCodeByName(int type, std::string_view name, Family family) {
    if (family == Family::Inet6) {
        for (const auto& c : kIcmp6Codes)
            if (c.type == type && c.name == name)
                return c.code;
    } else {
        for (const auto& c : kIcmpCodes)
            if (c.type == type && c.name == name)
                return c.code;
    }
    return std::nullopt;
}

std::optional<std::string> icmpCodeName(int type, int code, Family family) {
    if (family == Family::Inet6) {
        for (const auto& c : kIcmp6Codes)
            if (c.type == type && c.code == code)
                return std::string(c.name);
    } else {
        for (const auto& c : kIcmpCodes)
            if (c.type == type && c.code == code)
                return std::string(c.name);
    }
    return std::nullopt;
}

std::string tcpFlagsString(std::uint8_t flags) {
    std::string out;
    for (std::size_t i = 0; i < kTcpFlagChars.size(); ++i)
        if (flags & (1u << i))
            out += kTcpFlagChars[i];
    return out;
}

std::optional<std::uint8_t> parseTcpFlags(std::string_view text) {
    std::uint8_t f = 0;
    for (char c : text) {
        auto pos = kTcpFlagChars.find(c);
        if (pos == std::string_view::npos)
            return std::nullopt;
        f = static_cast<std::uint8_t>(f | (1u << pos));
    }
    return f;
}

} // namespace orven::macsim
