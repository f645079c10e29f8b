#include "Pf.h"

#include <algorithm>
#include <array>

#include <nlohmann/json.hpp>

namespace orven::macsim {

namespace {

enum Skip { SkipIfp, SkipDir, SkipAf, SkipProto, SkipSrcAddr, SkipSrcPort, SkipDstAddr, SkipDstPort, SkipCount };

bool sameCriterion(const Rule& a, const Rule& b, int criterion) {
    switch (criterion) {
    case SkipIfp: return a.ifname == b.ifname && a.ifnot == b.ifnot;
    case SkipDir: return a.dir == b.dir;
    case SkipAf: return a.af == b.af;
    case SkipProto: return a.proto == b.proto;
    case SkipSrcAddr: return a.src.sameAddress(b.src);
    case SkipSrcPort: return a.src.port == b.src.port;
    case SkipDstAddr: return a.dst.sameAddress(b.dst);
    case SkipDstPort: return a.dst.port == b.dst.port;
    default: return false;
    }
}

enum TcpState : std::uint8_t { Closed = 0, SynSent = 2, Established = 4, Closing = 7, FinWait2 = 9, TimeWait = 10 };

constexpr std::array<const char*, 11> kTcpStates{"CLOSED",      "LISTEN",     "SYN_SENT",   "SYN_RCVD",
                                                 "ESTABLISHED", "CLOSE_WAIT", "FIN_WAIT_1", "CLOSING",
                                                 "LAST_ACK",    "FIN_WAIT_2", "TIME_WAIT"};
constexpr std::array<const char*, 3> kOtherStates{"NO_TRAFFIC", "SINGLE", "MULTIPLE"};

void advanceTcp(std::uint8_t& src, std::uint8_t& dst, std::uint8_t flags) {
    if ((flags & TcpFlag::Syn) && src < SynSent)
        src = SynSent;
    if ((flags & TcpFlag::Fin) && src < Closing)
        src = Closing;
    if (flags & TcpFlag::Ack) {
        if (dst == SynSent)
            dst = Established;
        else if (dst == Closing)
            dst = FinWait2;
    }
    if (flags & TcpFlag::Rst)
        src = dst = TimeWait;
}

void advanceOther(std::uint8_t& src, std::uint8_t& dst) {
    if (src < 1)
        src = 1;
    if (dst == 1)
        dst = 2;
}

bool addressMatches(const AddrMatch& m, const IpAddr& addr, const PfModel::InterfaceAddresses& addresses) {
    bool match = false;
    switch (m.type) {
    case AddrType::Mask:
        match = m.addr.family == Family::None || (m.addr.isZero() && m.prefix == 0) ||
                inPrefix(addr, m.addr, m.prefix);
        break;
    case AddrType::DynIf:
        if (addresses)
            for (const auto& a : addresses(m.ifname))
                if (a == addr)
                    match = true;
        break;
    case AddrType::NoRoute:
    case AddrType::UrpfFailed: match = false; break;
    }
    return match != m.neg;
}

std::string host(const IpAddr& addr, std::uint16_t port) {
    std::string out = addr.str();
    if (port) {
        const bool v4 = addr.family == Family::Inet;
        out += v4 ? ':' : '[';
        out += std::to_string(port);
        if (!v4)
            out += ']';
    }
    return out;
}

struct Walk {
    const Packet& packet;
    PfModel& pf;
    const PfModel::InterfaceAddresses& addresses;
    bool stop = false;
    // The deciding rule so far and the top-level anchor rule around it.
    const std::string* matchPath = nullptr;
    std::size_t matchIndex = 0;
    const std::string* anchorPath = nullptr;
    std::size_t anchorIndex = 0;
    const std::string* currentTop = nullptr;
    std::size_t currentTopIndex = 0;
};

bool walkRuleset(Walk& w, const std::string& path, int depth);

bool walkAnchor(Walk& w, const Rule& call, int depth) {
    if (depth >= 64)
        return false;
    bool matched = false;
    if (call.wildcard) {
        for (const auto& child : w.pf.children(call.anchorTarget)) {
            matched = walkRuleset(w, child, depth + 1) || matched;
            if (w.stop)
                return true;
        }
    } else {
        matched = walkRuleset(w, call.anchorTarget, depth + 1);
    }
    return matched;
}

// Evaluates the filter rules of one ruleset in place; returns whether any
// rule inside matched (what decides whether a quick anchor ends evaluation).
bool walkRuleset(Walk& w, const std::string& path, int depth) {
    auto it = w.pf.rulesets.find(path);
    if (it == w.pf.rulesets.end())
        return false;
    Ruleset& rs = it->second;
    const Packet& p = w.packet;
    bool matched = false;
    std::size_t i = 0;
    while (i < rs.filter.size() && !w.stop) {
        const std::size_t ri = rs.filter[i];
        const Rule& r = rs.rules[ri];
        rs.counters[ri].evaluations++;
        const bool ifMatch = r.ifname.empty() || r.ifname == p.ifname;
        if (!r.ifname.empty() && ifMatch == r.ifnot) {
            i = rs.skip[i][SkipIfp];
        } else if (r.dir != Direction::Any && r.dir != p.dir) {
            i = rs.skip[i][SkipDir];
        } else if (r.af != Family::None && r.af != p.af) {
            i = rs.skip[i][SkipAf];
        } else if (r.proto && r.proto != p.proto) {
            i = rs.skip[i][SkipProto];
        } else if (!addressMatches(r.src, p.src, w.addresses)) {
            i = rs.skip[i][SkipSrcAddr];
        } else if (r.src.port.op != PortOp::None && !r.src.port.matches(p.sport)) {
            i = rs.skip[i][SkipSrcPort];
        } else if (!addressMatches(r.dst, p.dst, w.addresses)) {
            i = rs.skip[i][SkipDstAddr];
        } else if (r.dst.port.op != PortOp::None && !r.dst.port.matches(p.dport)) {
            i = rs.skip[i][SkipDstPort];
        } else if (r.icmpType && (p.icmpType < 0 || r.icmpType != p.icmpType + 1)) {
            ++i;
        } else if (r.icmpCode && r.icmpCode != p.icmpCode + 1) {
            ++i;
        } else if (r.fragment) {
            ++i;
        } else if (p.proto == Proto::Tcp && (r.flagset & p.tcpFlags) != r.flags) {
            ++i;
        } else if (!r.isAnchor) {
            matched = true;
            w.matchPath = &it->first;
            w.matchIndex = ri;
            w.anchorPath = w.currentTop;
            w.anchorIndex = w.currentTopIndex;
            if (r.quick) {
                w.stop = true;
                return true;
            }
            ++i;
        } else {
            if (depth == 0) {
                w.currentTop = &it->first;
                w.currentTopIndex = ri;
            }
            const bool inner = walkAnchor(w, r, depth);
            if (depth == 0)
                w.currentTop = nullptr;
            if (w.stop)
                return true;
            if (inner) {
                matched = true;
                if (r.quick) {
                    w.stop = true;
                    return true;
                }
            }
            ++i;
        }
    }
    return matched;
}

std::uint64_t u64(const nlohmann::json& j, const char* key) { return j.contains(key) ? j[key].get<std::uint64_t>() : 0; }

} // namespace

void Ruleset::index() {
    filter.clear();
    for (std::size_t i = 0; i < rules.size(); ++i)
        if (rules[i].kind == RuleKind::Filter)
            filter.push_back(i);
    counters.resize(rules.size());
    const std::size_t n = filter.size();
    skip.assign(n, {});
    for (std::size_t k = n; k-- > 0;)
        for (int c = 0; c < SkipCount; ++c) {
            const auto ci = static_cast<std::size_t>(c);
            skip[k][ci] = (k + 1 < n && sameCriterion(rules[filter[k]], rules[filter[k + 1]], c)) ? skip[k + 1][ci]
                                                                                                : k + 1;
        }
}

std::string stateName(std::uint8_t proto, std::uint8_t state) {
    if (proto == Proto::Tcp)
        return state < kTcpStates.size() ? kTcpStates[state] : std::to_string(state);
    if (proto == Proto::Icmp || proto == Proto::Icmp6)
        return std::to_string(state);
    return state < kOtherStates.size() ? kOtherStates[state] : std::to_string(state);
}

std::string StateEntry::print() const {
    std::string out = "ALL " + protocolName(proto) + " " + host(lanAddr, lanPort);
    out += dir == Direction::Out ? " -> " : " <- ";
    out += host(extAddr, extPort);
    // Local side first, as pfctl prints it.
    const std::uint8_t local = dir == Direction::Out ? srcState : dstState;
    const std::uint8_t remote = dir == Direction::Out ? dstState : srcState;
    out += "       " + stateName(proto, local) + ":" + stateName(proto, remote);
    return out;
}

std::string Verdict::describe() const {
    switch (how) {
    case How::Disabled: return "pf disabled";
    case How::Skipped: return "interface skipped";
    case How::State: return "existing state";
    case How::Default: return "no rule matched";
    case How::Rule: break;
    }
    return (rulesetPath.empty() ? std::string("main") : "anchor " + rulesetPath) + ": " + rule;
}

bool PfModel::start(std::int64_t now) {
    if (!running) {
        running = true;
        since = now;
        ++refCount;
        return true;
    }
    // A plain enable on top of token holders leaves an anonymous reference.
    if (tokens.size() == refCount)
        ++refCount;
    return false;
}

std::uint64_t PfModel::startRef(int pid, std::string name, std::int64_t now,
                                const std::function<std::uint64_t()>& random) {
    std::uint64_t token = 0;
    for (;;) {
        token = random();
        if (token == 0)
            continue;
        if (std::none_of(tokens.begin(), tokens.end(), [&](const PfToken& t) { return t.token == token; }))
            break;
    }
    tokens.insert(tokens.begin(), PfToken{token, pid, std::move(name), now});
    if (!running) {
        running = true;
        since = now;
    }
    ++refCount;
    return token;
}

PfModel::StopRef PfModel::stopRef(std::uint64_t token, std::int64_t now, std::uint64_t& remaining) {
    if (!running)
        return StopRef::NotRunning;
    auto it = std::find_if(tokens.begin(), tokens.end(), [&](const PfToken& t) { return t.token == token; });
    if (it == tokens.end())
        return StopRef::Invalid;
    tokens.erase(it);
    if (refCount > 0)
        --refCount;
    remaining = refCount;
    if (refCount == 0) {
        running = false;
        since = now;
    }
    return StopRef::Released;
}

bool PfModel::stop(std::int64_t now) {
    if (!running)
        return false;
    running = false;
    since = now;
    refCount = 0;
    tokens.clear();
    return true;
}

void PfModel::replace(const std::string& path, std::string text, std::vector<Rule> rules, int pid) {
    std::stable_sort(rules.begin(), rules.end(),
                     [](const Rule& a, const Rule& b) { return static_cast<int>(a.kind) < static_cast<int>(b.kind); });
    if (rules.empty()) {
        rulesets.erase(path);
        return;
    }
    Ruleset rs;
    rs.text = std::move(text);
    rs.rules = std::move(rules);
    rs.ticket = nextTicket++;
    rs.loaderPid = pid;
    rs.index();
    rulesets[path] = std::move(rs);
}

void PfModel::clear(const std::string& path, const std::set<RuleKind>& kinds) {
    auto it = rulesets.find(path);
    if (it == rulesets.end())
        return;
    Ruleset& rs = it->second;
    std::vector<Rule> kept;
    std::vector<RuleCounters> keptCounters;
    for (std::size_t i = 0; i < rs.rules.size(); ++i)
        if (!kinds.contains(rs.rules[i].kind)) {
            kept.push_back(rs.rules[i]);
            keptCounters.push_back(rs.counters[i]);
        }
    if (kept.empty()) {
        rulesets.erase(it);
        return;
    }
    rs.rules = std::move(kept);
    rs.counters = std::move(keptCounters);
    rs.ticket = nextTicket++;
    rs.index();
}

std::size_t PfModel::flushStates() {
    const std::size_t n = states.size();
    removals += n;
    states.clear();
    return n;
}

std::set<std::string> PfModel::existingAnchors() const {
    std::set<std::string> out;
    auto add = [&out](std::string path) {
        while (!path.empty()) {
            out.insert(path);
            auto slash = path.rfind('/');
            path = slash == std::string::npos ? std::string() : path.substr(0, slash);
        }
    };
    for (const auto& [path, rs] : rulesets) {
        add(path);
        for (const auto& r : rs.rules)
            if (r.isAnchor)
                add(r.anchorTarget);
    }
    return out;
}

bool PfModel::anchorExists(const std::string& path) const { return path.empty() || existingAnchors().contains(path); }

std::vector<std::string> PfModel::children(const std::string& path) const {
    std::vector<std::string> out;
    for (const auto& a : existingAnchors()) {
        auto slash = a.rfind('/');
        const std::string parent = slash == std::string::npos ? std::string() : a.substr(0, slash);
        if (parent == path)
            out.push_back(a);
    }
    return out;
}

const Ruleset* PfModel::find(const std::string& path) const {
    auto it = rulesets.find(path);
    return it == rulesets.end() ? nullptr : &it->second;
}

std::size_t PfModel::statesOf(const std::string& path, std::uint64_t ticket, std::size_t index) const {
    return static_cast<std::size_t>(std::count_if(states.begin(), states.end(), [&](const StateEntry& s) {
        return s.rulePath == path && s.ruleTicket == ticket && s.ruleIndex == static_cast<long>(index);
    }));
}

StateEntry* PfModel::findState(const Packet& p) {
    for (auto& s : states) {
        if (s.af != p.af || s.proto != p.proto)
            continue;
        // Outbound packets look up (local, remote), inbound ones (remote, local).
        const bool outbound = p.dir == Direction::Out;
        const IpAddr& local = outbound ? p.src : p.dst;
        const IpAddr& remote = outbound ? p.dst : p.src;
        const std::uint16_t lport = outbound ? p.sport : p.dport;
        const std::uint16_t rport = outbound ? p.dport : p.sport;
        if (s.lanAddr == local && s.extAddr == remote && s.lanPort == lport && s.extPort == rport)
            return &s;
    }
    return nullptr;
}

Verdict PfModel::test(const Packet& p, std::int64_t now, const InterfaceAddresses& addresses) {
    Verdict v;
    if (!running) {
        v.how = Verdict::How::Disabled;
        return v;
    }
    if (std::find(skip.begin(), skip.end(), p.ifname) != skip.end()) {
        v.how = Verdict::How::Skipped;
        return v;
    }
    ++searches;
    if (StateEntry* s = findState(p)) {
        const bool fromInitiator = p.dir == s->dir;
        if (p.proto == Proto::Tcp)
            advanceTcp(fromInitiator ? s->srcState : s->dstState, fromInitiator ? s->dstState : s->srcState,
                       p.tcpFlags);
        else if (p.proto != Proto::Icmp && p.proto != Proto::Icmp6)
            advanceOther(fromInitiator ? s->srcState : s->dstState, fromInitiator ? s->dstState : s->srcState);
        s->packets++;
        s->bytes += p.length;
        auto it = rulesets.find(s->rulePath);
        if (it != rulesets.end() && it->second.ticket == s->ruleTicket && s->ruleIndex >= 0 &&
            static_cast<std::size_t>(s->ruleIndex) < it->second.counters.size()) {
            auto& c = it->second.counters[static_cast<std::size_t>(s->ruleIndex)];
            c.packets++;
            c.bytes += p.length;
            v.rulesetPath = s->rulePath;
            v.rule = printRule(it->second.rules[static_cast<std::size_t>(s->ruleIndex)]);
        }
        v.how = Verdict::How::State;
        return v;
    }

    Walk w{p, *this, addresses};
    walkRuleset(w, "", 0);
    ++matches;
    if (!w.matchPath) {
        v.how = Verdict::How::Default;
        return v;
    }
    Ruleset& rs = rulesets.at(*w.matchPath);
    const Rule& r = rs.rules[w.matchIndex];
    v.how = Verdict::How::Rule;
    v.rulesetPath = *w.matchPath;
    v.rule = printRule(r);
    v.pass = r.action == Action::Pass;
    v.block = r.block;
    rs.counters[w.matchIndex].packets++;
    rs.counters[w.matchIndex].bytes += p.length;
    if (w.anchorPath) {
        auto& c = rulesets.at(*w.anchorPath).counters[w.anchorIndex];
        c.packets++;
        c.bytes += p.length;
    }
    if (v.pass && r.keep != KeepState::None) {
        StateEntry s;
        s.af = p.af;
        s.proto = p.proto;
        s.dir = p.dir;
        const bool outbound = p.dir == Direction::Out;
        s.lanAddr = outbound ? p.src : p.dst;
        s.extAddr = outbound ? p.dst : p.src;
        s.lanPort = outbound ? p.sport : p.dport;
        s.extPort = outbound ? p.dport : p.sport;
        if (p.proto == Proto::Tcp) {
            s.srcState = SynSent;
            s.dstState = Closed;
        } else if (p.proto != Proto::Icmp && p.proto != Proto::Icmp6) {
            s.srcState = 1;
            s.dstState = 0;
        }
        s.rulePath = *w.matchPath;
        s.ruleTicket = rs.ticket;
        s.ruleIndex = static_cast<long>(w.matchIndex);
        s.packets = 1;
        s.bytes = p.length;
        s.created = now;
        states.push_back(s);
        ++inserts;
        v.stateCreated = true;
    }
    return v;
}

// ------------------------------------------------------------- persistence --

nlohmann::json PfModel::toJson() const {
    using nlohmann::json;
    json j;
    j["running"] = running;
    j["since"] = since;
    j["refs"] = refCount;
    json toks = json::array();
    for (const auto& t : tokens)
        toks.push_back({{"token", t.token}, {"pid", t.pid}, {"name", t.name}, {"time", t.time}});
    j["tokens"] = toks;
    j["skip"] = skip;
    j["ticket"] = nextTicket;
    json sets = json::object();
    for (const auto& [path, rs] : rulesets) {
        json lines = json::array();
        json ctr = json::array();
        for (std::size_t i = 0; i < rs.rules.size(); ++i) {
            lines.push_back(printRule(rs.rules[i]));
            ctr.push_back({rs.counters[i].evaluations, rs.counters[i].packets, rs.counters[i].bytes});
        }
        sets[path] = {{"text", rs.text}, {"rules", lines}, {"ctr", ctr}, {"ticket", rs.ticket}, {"pid", rs.loaderPid}};
    }
    j["rulesets"] = sets;
    json st = json::array();
    for (const auto& s : states)
        st.push_back({{"af", static_cast<int>(s.af)}, {"p", s.proto}, {"dir", s.dir == Direction::In ? "in" : "out"},
                      {"lan", s.lanAddr.str()}, {"lp", s.lanPort}, {"ext", s.extAddr.str()}, {"ep", s.extPort},
                      {"ss", s.srcState}, {"ds", s.dstState}, {"rp", s.rulePath}, {"rt", s.ruleTicket},
                      {"ri", s.ruleIndex}, {"pk", s.packets}, {"by", s.bytes}, {"t", s.created}});
    j["states"] = st;
    j["stats"] = {searches, inserts, removals, matches};
    j["altq"] = altqMessages;
    return j;
}

PfModel PfModel::fromJson(const nlohmann::json& j) {
    PfModel pf;
    pf.running = j.value("running", false);
    pf.since = j.value("since", std::int64_t{0});
    pf.refCount = u64(j, "refs");
    for (const auto& t : j.value("tokens", nlohmann::json::array()))
        pf.tokens.push_back(PfToken{t["token"].get<std::uint64_t>(), t.value("pid", 0), t.value("name", ""),
                                    t.value("time", std::int64_t{0})});
    pf.skip = j.value("skip", std::vector<std::string>{});
    pf.nextTicket = j.contains("ticket") ? u64(j, "ticket") : 1;
    if (j.contains("rulesets"))
        for (const auto& [path, r] : j["rulesets"].items()) {
            std::string text;
            for (const auto& line : r["rules"])
                text += line.get<std::string>() + "\n";
            ParseContext ctx;
            ctx.anchorPath = path;
            ctx.anchorLoad = true;
            ctx.requireOrder = false;
            ParsedRuleset parsed = parseRuleset(text, ctx);
            Ruleset rs;
            rs.text = r.value("text", "");
            rs.rules = std::move(parsed.rules);
            rs.ticket = u64(r, "ticket");
            rs.loaderPid = r.value("pid", 0);
            rs.index();
            const auto& ctr = r["ctr"];
            for (std::size_t i = 0; i < rs.counters.size() && i < ctr.size(); ++i)
                rs.counters[i] = RuleCounters{ctr[i][0].get<std::uint64_t>(), ctr[i][1].get<std::uint64_t>(),
                                              ctr[i][2].get<std::uint64_t>()};
            pf.rulesets[path] = std::move(rs);
        }
    for (const auto& s : j.value("states", nlohmann::json::array())) {
        StateEntry e;
        e.af = static_cast<Family>(s["af"].get<int>());
        e.proto = s["p"].get<std::uint8_t>();
        e.dir = s["dir"] == "in" ? Direction::In : Direction::Out;
        e.lanAddr = IpAddr::parse(s["lan"].get<std::string>()).value_or(IpAddr{});
        e.extAddr = IpAddr::parse(s["ext"].get<std::string>()).value_or(IpAddr{});
        e.lanPort = s["lp"].get<std::uint16_t>();
        e.extPort = s["ep"].get<std::uint16_t>();
        e.srcState = s["ss"].get<std::uint8_t>();
        e.dstState = s["ds"].get<std::uint8_t>();
        e.rulePath = s["rp"].get<std::string>();
        e.ruleTicket = s["rt"].get<std::uint64_t>();
        e.ruleIndex = s["ri"].get<long>();
        e.packets = s["pk"].get<std::uint64_t>();
        e.bytes = s["by"].get<std::uint64_t>();
        e.created = s["t"].get<std::int64_t>();
        pf.states.push_back(e);
    }
    pf.altqMessages = j.value("altq", false);
    if (j.contains("stats") && j["stats"].size() == 4) {
        pf.searches = j["stats"][0].get<std::uint64_t>();
        pf.inserts = j["stats"][1].get<std::uint64_t>();
        pf.removals = j["stats"][2].get<std::uint64_t>();
        pf.matches = j["stats"][3].get<std::uint64_t>();
    }
    return pf;
}

} // namespace orven::macsim
