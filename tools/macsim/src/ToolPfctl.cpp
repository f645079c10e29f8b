// /sbin/pfctl: options, order of work, streams and exit statuses of Apple's
// pfctl, over the simulated kernel state.

#include <array>
#include <cerrno>
#include <cstdlib>
#include <random>

#include <unistd.h>

#include "Getopt.h"
#include "PfListing.h"
#include "Tools.h"

namespace orven::macsim {

namespace {

constexpr std::string_view kOptions = "a:AdD:eEqf:F:gGhi:k:K:mMnNOo:p:rRs:t:T:vx:X:w:z";

constexpr std::string_view kUsage =
    "usage: pfctl [-AdeghmNnOqRrvz] [-a anchor] [-D macro=value] [-F modifier]\n"
    "\t[-f file] [-i interface] [-K host | network] [-k host | network]\n"
    "\t[-o level] [-p device] [-s modifier] [-w interval]\n"
    "\t[-t table -T command [address ...]] [-x level]\n";

constexpr std::string_view kLoadWarning = "pfctl: Use of -f option, could result in flushing of rules\n"
                                          "present in the main ruleset added by the system at startup.\n"
                                          "See /etc/pf.conf for further details.\n\n";

constexpr std::array<std::string_view, 16> kShowModifiers{"nat",        "queue",    "rules",      "Anchors",
                                                          "Sources",    "states",   "info",       "Interfaces",
                                                          "labels",     "timeouts", "memory",     "Tables",
                                                          "osfp",       "all",      "References", "dummynet"};
constexpr std::array<std::string_view, 10> kFlushModifiers{"nat",    "queue", "rules", "Sources", "states",
                                                           "info",   "Tables", "osfp", "all",     "dummynet"};

template <std::size_t N>
std::optional<std::string_view> lookupModifier(std::string_view arg, const std::array<std::string_view, N>& list) {
    if (arg.empty())
        return std::nullopt;
    for (auto m : list)
        if (m.starts_with(arg))
            return m;
    return std::nullopt;
}

std::uint64_t randomToken() {
    static std::random_device device;
    return (static_cast<std::uint64_t>(device()) << 32) ^ device();
}

struct Options {
    std::string anchor;
    bool recursive = false;
    bool disable = false, enable = false, enableRef = false, quiet = false, noAction = false, clearStats = false;
    std::optional<std::string> file;
    std::optional<std::string_view> flush, show;
    std::optional<std::uint64_t> releaseToken;
    int verbose = 0;
};

std::string loadErrorsToText(const std::vector<std::string>& errors) {
    std::string out;
    for (const auto& e : errors)
        out += e + "\n";
    return out;
}

ParseContext parseContextFor(Session& s) {
    ParseContext ctx;
    NetModel* net = &s.net();
    ctx.interfaceAddresses = [net](std::string_view name) -> std::optional<std::vector<InterfaceAddress>> {
        if (const Interface* i = net->findInterface(name))
            return i->addrs;
        return std::nullopt;
    };
    return ctx;
}

} // namespace

// Loads rules the way pfctl_rules does: parse everything, then commit the
// main ruleset and every `load anchor` together, or nothing.
bool loadPfRules(Session& s, const LoadRequest& req, std::string& out, std::string& err) {
    PfModel& pf = s.pf();
    const StorePaths& paths = s.paths();
    const std::string& file = req.file;
    std::optional<std::string> text;
    if (file == "-")
        text = req.stdinText;
    else
        text = readFile(file.starts_with("/") ? paths.host(file) : file);
    if (!text) {
        err += "pfctl: " + file + ": No such file or directory\n";
        err += "pfctl: cannot open the main config file!: No such file or directory\n";
        err += "pfctl: Syntax error in config file: pf rules not loaded\n";
        return false;
    }
    ParseContext ctx = parseContextFor(s);
    ctx.fileName = file == "-" ? "stdin" : file;
    ctx.anchorPath = req.anchor;
    ctx.anchorLoad = !req.anchor.empty();
    if (!ctx.anchorLoad && !req.noAction) {
        // Skip flags are set by ioctl while parsing, outside the transaction.
        pf.skip.clear();
        s.touchPf();
    }
    ParsedRuleset parsed = parseRuleset(*text, ctx);
    if (!ctx.anchorLoad && !req.noAction && parsed.skipSet)
        pf.skip = parsed.skip;
    if (!parsed.ok()) {
        err += loadErrorsToText(parsed.errors);
        err += "pfctl: Syntax error in config file: pf rules not loaded\n";
        return false;
    }
    if (req.verbose)
        for (const auto& r : parsed.rules)
            out += printRule(r) + "\n";

    struct Pending {
        std::string path, text;
        std::vector<Rule> rules;
    };
    std::vector<Pending> anchors;
    if (!ctx.anchorLoad) {
        for (const auto& la : parsed.loadAnchors) {
            auto anchorText = readFile(la.file.starts_with("/") ? paths.host(la.file) : la.file);
            if (!anchorText) {
                err += "pfctl: " + la.file + ": No such file or directory\n";
                err += "pfctl: cannot open the main config file!: No such file or directory\n";
                err += "pfctl: Syntax error in config file: pf rules not loaded\n";
                err += "pfctl: load anchors\n";
                return false;
            }
            ParseContext actx = parseContextFor(s);
            actx.fileName = la.file;
            actx.anchorPath = la.anchor;
            actx.anchorLoad = true;
            ParsedRuleset ap = parseRuleset(*anchorText, actx);
            if (!ap.ok()) {
                err += loadErrorsToText(ap.errors);
                err += "pfctl: Syntax error in config file: pf rules not loaded\n";
                err += "pfctl: load anchors\n";
                return false;
            }
            anchors.push_back({la.anchor, *anchorText, std::move(ap.rules)});
        }
    }
    if (req.noAction)
        return true;
    const int pid = static_cast<int>(::getpid());
    pf.replace(req.anchor, *text, std::move(parsed.rules), pid);
    for (auto& a : anchors)
        pf.replace(a.path, std::move(a.text), std::move(a.rules), pid);
    s.touchPf();
    return true;
}

namespace {

void flush(ToolContext& c, Session& s, const Options& o) {
    PfModel& pf = s.pf();
    auto say = [&](const std::string& line) {
        if (!o.quiet)
            c.err += line + "\n";
    };
    const char what = o.flush->front();
    const bool all = what == 'a';
    if (what == 'r' || all) {
        pf.clear(o.anchor, {RuleKind::Scrub, RuleKind::Filter});
        say("rules cleared");
    }
    if (what == 'n' || all) {
        pf.clear(o.anchor, {RuleKind::Nat, RuleKind::Rdr});
        say("nat cleared");
    }
    if (what == 'd' || all) {
        pf.clear(o.anchor, {RuleKind::Dummynet});
        say("dummynet cleared");
    }
    if (what == 'T' || all)
        say("0 tables deleted.");
    if (what == 's' || (all && o.anchor.empty())) {
        const std::size_t n = pf.flushStates();
        // The kernel reports the count in an 8-bit field.
        say(std::to_string(n % 256) + " states cleared");
    }
    if (what == 'S' || (all && o.anchor.empty()))
        say("source tracking entries cleared");
    if (what == 'i' || (all && o.anchor.empty())) {
        pf.searches = pf.inserts = pf.removals = pf.matches = 0;
        say("pf: statistics cleared");
    }
    if (all && o.anchor.empty()) {
        pf.skip.clear();
        say("pf: interface flags reset");
    }
    if (what == 'o')
        say("pf: OS fingerprints cleared");
    s.touchPf();
}

void show(ToolContext& c, Session& s, const Options& o) {
    PfModel& pf = s.pf();
    const std::int64_t now = secondsNow();
    const std::string_view which = *o.show;
    if (which == "rules") {
        c.out += listRules(pf, o.anchor, {RuleKind::Scrub, RuleKind::Filter}, o.verbose, o.recursive, c.err);
    } else if (which == "nat") {
        c.out += listRules(pf, o.anchor, {RuleKind::Nat, RuleKind::Rdr}, o.verbose, o.recursive, c.err);
    } else if (which == "dummynet") {
        c.out += listRules(pf, o.anchor, {RuleKind::Dummynet}, o.verbose, o.recursive, c.err);
    } else if (which == "Anchors") {
        c.out += listAnchors(pf, o.anchor, o.verbose > 0, c.err);
    } else if (which == "states") {
        c.out += listStates(pf);
    } else if (which == "info") {
        c.out += listInfo(pf, now, o.verbose > 0);
    } else if (which == "References") {
        c.out += listReferences(pf, now);
    } else if (which == "Interfaces") {
        std::vector<std::string> names;
        for (const auto& i : s.net().interfaces)
            names.push_back(i.name);
        c.out += listInterfaces(pf, names, o.verbose > 0);
    } else if (which == "all") {
        c.out += "TRANSLATION RULES:\n";
        c.out += listRules(pf, o.anchor, {RuleKind::Nat, RuleKind::Rdr}, o.verbose, false, c.err);
        c.out += "\nFILTER RULES:\n";
        c.out += listRules(pf, o.anchor, {RuleKind::Scrub, RuleKind::Filter}, o.verbose, false, c.err);
        if (!pf.states.empty())
            c.out += "\nSTATES:\n" + listStates(pf);
        c.out += "\nINFO:\n" + listInfo(pf, now, o.verbose > 0);
    }
    // queue, Sources, labels, timeouts, memory, Tables and osfp list nothing
    // this simulation holds.
}

int usage(ToolContext& c, const std::string& message) {
    c.err += message;
    c.err += kUsage;
    return 1;
}

} // namespace

bool pfctlMutates(const std::vector<std::string>& args) {
    const GetoptResult g = getopt(args, kOptions);
    for (const auto& o : g.options)
        if (o.name == 'f' || o.name == 'e' || o.name == 'd' || o.name == 'E' || o.name == 'X' || o.name == 'F')
            return true;
    return false;
}

int pfctlMain(ToolContext& c) {
    const GetoptResult g = getopt(c.args, kOptions);
    Options o;
    for (const auto& opt : g.options) {
        switch (opt.name) {
        case 'a': o.anchor = opt.value; break;
        case 'd': o.disable = true; break;
        case 'e': o.enable = true; break;
        case 'E': o.enableRef = true; break;
        case 'q': o.quiet = true; break;
        case 'n': o.noAction = true; break;
        case 'z': o.clearStats = true; break;
        case 'v': ++o.verbose; break;
        case 'f':
            o.file = opt.value;
            c.err += kLoadWarning;
            break;
        case 'F':
            o.flush = lookupModifier(opt.value, kFlushModifiers);
            if (!o.flush)
                return usage(c, "pfctl: Unknown flush modifier '" + opt.value + "'\n");
            break;
        case 's':
            o.show = lookupModifier(opt.value, kShowModifiers);
            if (!o.show)
                return usage(c, "pfctl: Unknown show modifier '" + opt.value + "'\n");
            break;
        case 'X': {
            errno = 0;
            char* end = nullptr;
            const unsigned long long v = std::strtoull(opt.value.c_str(), &end, 0);
            if (opt.value.empty() || *end != '\0' || errno == ERANGE)
                return usage(c, "pfctl: Invalid token value '" + opt.value + "'\n");
            o.releaseToken = v;
            break;
        }
        case 'h': return usage(c, "");
        case 'k':
        case 'K':
        case 't':
        case 'T':
        case 'D':
            c.err += std::string("pfctl: -") + opt.name + " is not modelled by macsim\n";
            return 1;
        default: break; // accepted and without effect here
        }
    }
    if (g.error)
        return usage(c, "pfctl: " + *g.error + "\n");
    if (!g.operands.empty())
        return usage(c, "pfctl: unknown command line argument: " + g.operands.front() + " ...\n");

    if (o.anchor.ends_with("/*") || o.anchor == "*") {
        o.anchor.resize(o.anchor.size() >= 2 ? o.anchor.size() - 2 : 0);
        o.recursive = true;
    }
    if (!o.anchor.empty() && o.anchor.front() == '_' && (o.flush || o.file)) {
        c.err += "pfctl: anchor names beginning with '_' cannot be modified from the command line\n";
        return 1;
    }

    const std::string stdinText = o.file && *o.file == "-" ? c.readStdin() : std::string();
    Session s(c.paths);
    PfModel& pf = s.pf();
    const std::int64_t now = secondsNow();
    int status = 0;
    auto finish = [&](int code) {
        s.save();
        return code;
    };

    if (!o.quiet && pf.altqMessages && !o.noAction)
        c.err += "No ALTQ support in kernel\nALTQ related functions disabled\n";
    if (o.disable) {
        if (!pf.stop(now)) {
            c.err += "pfctl: pf not enabled\n";
            return finish(1);
        }
        s.touchPf();
        if (!o.quiet)
            c.err += "pf disabled\n";
    }
    if (o.releaseToken) {
        std::uint64_t remaining = 0;
        switch (pf.stopRef(*o.releaseToken, now, remaining)) {
        case PfModel::StopRef::NotRunning: c.err += "pfctl: pf not enabled\n"; return finish(1);
        case PfModel::StopRef::Invalid: c.err += "pfctl: pf: token invalid\n"; return finish(1);
        case PfModel::StopRef::Released:
            s.touchPf();
            if (!o.quiet) {
                if (remaining == 0)
                    c.err += "pf disabled\n";
                else
                    c.err += "disable request successful. " + std::to_string(remaining) +
                             " more pf enable reference(s) remaining, pf still enabled.\n";
            }
            break;
        }
    }
    if (o.show)
        show(c, s, o);
    if (o.clearStats) {
        // DIOCCLRRULECTRS zeroes the main ruleset's filter rules only.
        if (auto it = pf.rulesets.find(""); it != pf.rulesets.end())
            for (std::size_t i = 0; i < it->second.rules.size(); ++i)
                if (it->second.rules[i].kind == RuleKind::Filter)
                    it->second.counters[i] = RuleCounters{};
        s.touchPf();
        if (!o.quiet)
            c.err += "pf: rule counters cleared\n";
    }
    if (o.flush)
        flush(c, s, o);
    if (o.file && !loadPfRules(s, LoadRequest{*o.file, o.anchor, o.noAction, o.verbose, stdinText}, c.out, c.err))
        status = 1;
    if (o.enable) {
        const bool started = pf.start(now);
        s.touchPf();
        if (!started) {
            c.err += "pfctl: pf already enabled\n";
            return finish(1);
        }
        if (!o.quiet)
            c.err += "pf enabled\n";
    }
    if (o.enableRef) {
        const std::uint64_t token = pf.startRef(static_cast<int>(::getpid()), "pfctl", now, randomToken);
        s.touchPf();
        if (!o.quiet)
            c.err += "pf enabled\nToken : " + std::to_string(token) + "\n";
    }
    return finish(status);
}

} // namespace orven::macsim
