#include "PfListing.h"

#include "Format.h"

#include <algorithm>
#include <cstdio>

namespace orven::macsim {

namespace {

std::string age(std::int64_t seconds) {
    if (seconds < 0)
        seconds = 0;
    const auto s = static_cast<unsigned>(seconds % 60);
    const auto m = static_cast<unsigned>((seconds / 60) % 60);
    const auto h = static_cast<unsigned>((seconds / 3600) % 24);
    const auto d = static_cast<unsigned>(seconds / 86400);
    return format("%u days %.2u:%.2u:%.2u", d, h, m, s);
}

std::string counterLine(const char* name, std::uint64_t value, std::int64_t runtime) {
    std::string out = format("  %-25s %14llu ", name, static_cast<unsigned long long>(value));
    if (runtime > 0)
        out += format("%14.1f/s\n", static_cast<double>(value) / static_cast<double>(runtime));
    else
        out += format("%14s\n", "");
    return out;
}

void anchorsUnder(const PfModel& pf, const std::string& path, bool verbose, std::string& out) {
    for (const auto& child : pf.children(path)) {
        const std::string leaf = child.substr(child.rfind('/') == std::string::npos ? 0 : child.rfind('/') + 1);
        if (leaf == "_pf")
            continue;
        if (!verbose && leaf.starts_with("_"))
            continue;
        out += "  " + child + "\n";
        if (verbose)
            anchorsUnder(pf, child, verbose, out);
    }
}

} // namespace

std::string counterLines(const PfModel& pf, const std::string& path, const Ruleset& rs, std::size_t index) {
    const RuleCounters& c = rs.counters[index];
    std::string out = format("  [ Evaluations: %-8llu  Packets: %-8llu  Bytes: %-10llu  States: %-6u]\n",
                             static_cast<unsigned long long>(c.evaluations),
                             static_cast<unsigned long long>(c.packets), static_cast<unsigned long long>(c.bytes),
                             static_cast<unsigned>(pf.statesOf(path, rs.ticket, index)));
    out += format("  [ Inserted: uid %u pid %u ]\n", 0u, static_cast<unsigned>(rs.loaderPid));
    return out;
}

std::string listRules(const PfModel& pf, const std::string& path, const std::set<RuleKind>& kinds, int verbose,
                      bool recursive, std::string& err, int depth) {
    if (!pf.anchorExists(path)) {
        err += "pfctl: DIOCGETRULES: Invalid argument\n";
        return {};
    }
    const Ruleset* rs = pf.find(path);
    if (!rs)
        return {};
    std::string out;
    // Nested listings are indented, except in the verbose form.
    const std::string indent(verbose ? 0 : static_cast<std::size_t>(depth) * 2, ' ');
    for (RuleKind kind : {RuleKind::Scrub, RuleKind::Nat, RuleKind::Rdr, RuleKind::Dummynet, RuleKind::Filter}) {
        if (!kinds.contains(kind))
            continue;
        int number = 0;
        for (std::size_t i = 0; i < rs->rules.size(); ++i) {
            const Rule& r = rs->rules[i];
            if (r.kind != kind)
                continue;
            const bool brace = recursive && r.isAnchor;
            std::string line = indent;
            if (verbose > 1)
                line += '@' + std::to_string(number) + ' ';
            ++number;
            auto slash = r.anchorCall.rfind('/');
            const std::string shown = slash == std::string::npos ? r.anchorCall : r.anchorCall.substr(slash + 1);
            line += (brace ? printRule(r, shown) + " {" : printRule(r)) + "\n";
            out += line;
            if (verbose)
                out += counterLines(pf, path, *rs, i);
            if (brace) {
                // pfctl descends into the call's last component, so a
                // wildcard call lands on an anchor named "*" that is not
                // there (the listing bug the Mac shows).
                const std::string child = (path.empty() ? "" : path + "/") + shown;
                out += listRules(pf, child, kinds, verbose, recursive, err, depth + 1);
                out += indent + "}\n";
            }
        }
    }
    return out;
}

std::string listAnchors(const PfModel& pf, const std::string& path, bool verbose, std::string& err) {
    if (!pf.anchorExists(path)) {
        err += "Anchor '" + path + "' not found.\n";
        return {};
    }
    std::string out;
    anchorsUnder(pf, path, verbose, out);
    return out;
}

std::string listInfo(const PfModel& pf, std::int64_t now, bool verbose) {
    const std::int64_t runtime = now - pf.since;
    std::string status;
    const char* running = pf.running ? "Enabled" : "Disabled";
    if (pf.since)
        status = std::string("Status: ") + running + " for " + age(runtime);
    else
        status = std::string("Status: ") + running;
    std::string out = format("%-44s", status.c_str());
    out += format("%15s\n\n", "Debug: Urgent");
    if (verbose) {
        out += "Hostid:   0x5a3c91e7\n";
        out += "Checksum: 0x00000000000000000000000000000000\n\n";
    }
    out += format("%-27s %14s %16s\n", "State Table", "Total", "Rate");
    out += format("  %-25s %14u %14s\n", "current entries", static_cast<unsigned>(pf.states.size()), "");
    out += counterLine("searches", pf.searches, runtime);
    out += counterLine("inserts", pf.inserts, runtime);
    out += counterLine("removals", pf.removals, runtime);
    if (verbose) {
        out += "Source Tracking Table\n";
        out += format("  %-25s %14u %14s\n", "current entries", 0u, "");
        for (const char* name : {"searches", "inserts", "removals"})
            out += counterLine(name, 0, runtime);
    }
    out += "Counters\n";
    out += counterLine("match", pf.matches, runtime);
    for (const char* name : {"bad-offset", "fragment", "short", "normalize", "memory", "bad-timestamp",
                             "congestion", "ip-option", "proto-cksum", "state-mismatch", "state-insert",
                             "state-limit", "src-limit", "synproxy", "dummynet", "invalid-port"})
        out += counterLine(name, 0, runtime);
    if (verbose) {
        out += "Limit Counters\n";
        for (const char* name : {"max states per rule", "max-src-states", "max-src-nodes", "max-src-conn",
                                 "max-src-conn-rate", "overload table insertion", "overload flush states"})
            out += counterLine(name, 0, runtime);
    }
    return out;
}

std::string listReferences(const PfModel& pf, std::int64_t now) {
    if (pf.tokens.empty())
        return "No pf starter references held\n";
    std::string out = "TOKENS:\n";
    out += format("%-8s %-28s %-24s %-s\n", "PID", "Process Name", "TOKEN", "TIMESTAMP");
    for (const auto& t : pf.tokens)
        out += format("%-8d %-28s %-24llu %s\n", t.pid, t.name.c_str(), static_cast<unsigned long long>(t.token),
                      age(now - t.time).c_str());
    return out;
}

std::string listStates(const PfModel& pf) {
    std::string out;
    for (const auto& s : pf.states)
        out += s.print() + "\n";
    return out;
}

std::string listInterfaces(const PfModel& pf, const std::vector<std::string>& names, bool verbose) {
    std::vector<std::string> sorted = names;
    sorted.push_back("all");
    std::sort(sorted.begin(), sorted.end());
    std::string out;
    for (const auto& n : sorted) {
        out += n;
        if (verbose && std::find(pf.skip.begin(), pf.skip.end(), n) != pf.skip.end())
            out += " (skip)";
        out += "\n";
    }
    return out;
}

} // namespace orven::macsim
