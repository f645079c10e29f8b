// /usr/bin/log show: the entries of the simulated Mac's log within the
// look-back, matching the predicate, in the real tool's layout. The entries
// are added by tests (`macsim log add`); the clock is the simulated one.

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>

#include <nlohmann/json.hpp>

#include "Format.h"
#include "SystemLog.h"
#include "Tools.h"

namespace orven::macsim {

namespace {

nlohmann::json toJson(const LogEntry& e) {
    return {{"time", e.time}, {"process", e.process}, {"message", e.message}, {"type", e.type},
            {"subsystem", e.subsystem}, {"category", e.category}, {"sender", e.sender}, {"pid", e.pid},
            {"thread", e.thread}};
}

LogEntry fromJson(const nlohmann::json& j) {
    LogEntry e;
    e.time = j.value("time", 0.0);
    e.process = j.value("process", "");
    e.message = j.value("message", "");
    e.type = j.value("type", "Default");
    e.subsystem = j.value("subsystem", "");
    e.category = j.value("category", "");
    e.sender = j.value("sender", "");
    e.pid = j.value("pid", 412);
    e.thread = j.value("thread", 0x1a2b3cL);
    return e;
}

std::vector<LogEntry> readEntriesUnlocked(const StorePaths& paths) {
    std::vector<LogEntry> entries;
    std::ifstream in(paths.log);
    for (std::string line; std::getline(in, line);) {
        if (line.empty())
            continue;
        const auto j = nlohmann::json::parse(line, nullptr, false);
        if (!j.is_discarded())
            entries.push_back(fromJson(j));
    }
    return entries;
}

// ---------------------------------------------------------------- predicate --

// The predicate language as far as the daemon and tests use it:
// FIELD OP "VALUE" joined by AND (or &&); OP is ==, !=, CONTAINS or
// BEGINSWITH (keywords in any case, [c] not supported).
struct Comparison {
    std::string field, op, value;
};

struct Predicate {
    std::vector<Comparison> all;
    std::string rendered;
};

struct PredicateError {
    std::string reason;
};

const std::vector<std::string>& knownFields() {
    static const std::vector<std::string> fields{"process", "subsystem", "category", "messageType", "eventMessage",
                                                 "composedMessage", "sender", "processID"};
    return fields;
}

std::string upper(std::string text) {
    for (auto& ch : text)
        ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    return text;
}

Predicate parsePredicate(const std::string& text) {
    Predicate p;
    std::size_t i = 0;
    auto skipSpace = [&] {
        while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
            ++i;
    };
    auto word = [&] {
        skipSpace();
        const std::size_t from = i;
        while (i < text.size() && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '_'))
            ++i;
        return text.substr(from, i - from);
    };
    auto unparsable = [&]() -> PredicateError {
        return {"unable to parse the format string \"" + text + "\""};
    };
    for (;;) {
        Comparison cmp;
        cmp.field = word();
        if (cmp.field.empty())
            throw unparsable();
        if (std::find(knownFields().begin(), knownFields().end(), cmp.field) == knownFields().end())
            throw PredicateError{"no such field: " + cmp.field};
        skipSpace();
        if (text.compare(i, 2, "==") == 0 || text.compare(i, 2, "!=") == 0) {
            cmp.op = text.substr(i, 2);
            i += 2;
        } else {
            cmp.op = upper(word());
            if (cmp.op != "CONTAINS" && cmp.op != "BEGINSWITH")
                throw unparsable();
        }
        skipSpace();
        if (i >= text.size() || (text[i] != '"' && text[i] != '\''))
            throw unparsable();
        const char quote = text[i++];
        const std::size_t close = text.find(quote, i);
        if (close == std::string::npos)
            throw unparsable();
        cmp.value = text.substr(i, close - i);
        i = close + 1;
        const std::string shown = cmp.field == "eventMessage" ? "composedMessage" : cmp.field;
        if (!p.rendered.empty())
            p.rendered += " AND ";
        p.rendered += shown + " " + cmp.op + " \"" + cmp.value + "\"";
        p.all.push_back(cmp);
        skipSpace();
        if (i >= text.size())
            return p;
        if (text.compare(i, 2, "&&") == 0)
            i += 2;
        else if (upper(word()) != "AND")
            throw unparsable();
    }
}

std::string fieldOf(const LogEntry& e, const std::string& field) {
    if (field == "process")
        return e.process;
    if (field == "subsystem")
        return e.subsystem;
    if (field == "category")
        return e.category;
    if (field == "messageType")
        return e.type;
    if (field == "sender")
        return e.sender.empty() ? e.process : e.sender;
    if (field == "processID")
        return std::to_string(e.pid);
    return e.message;
}

bool matches(const Predicate& p, const LogEntry& e) {
    return std::all_of(p.all.begin(), p.all.end(), [&](const Comparison& c) {
        const std::string value = fieldOf(e, c.field);
        if (c.op == "==")
            return value == c.value;
        if (c.op == "!=")
            return value != c.value;
        if (c.op == "CONTAINS")
            return value.find(c.value) != std::string::npos;
        return value.rfind(c.value, 0) == 0;
    });
}

// ------------------------------------------------------------------- layout --

std::string timestamp(double time) {
    const auto whole = static_cast<std::time_t>(std::floor(time));
    const auto micros = static_cast<long>(std::lround((time - std::floor(time)) * 1e6)) % 1000000;
    std::tm local{};
    ::localtime_r(&whole, &local);
    char date[32], zone[8];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    std::strftime(zone, sizeof zone, "%z", &local);
    return format("%s.%06ld%s", date, micros, zone);
}

std::string row(const LogEntry& e) {
    std::string message = e.process + ":";
    if (!e.sender.empty() && e.sender != e.process)
        message += " (" + e.sender + ")";
    if (!e.subsystem.empty())
        message += " [" + e.subsystem + ":" + e.category + "]";
    message += " " + e.message;
    return format("%-31s 0x%-8lx %-11s %-20s %-6d %-4d ", timestamp(e.time).c_str(), e.thread, e.type.c_str(), "0x0",
                  e.pid, 0) +
           message + "\n";
}

// --last: a number with s, m, h or d (seconds without a suffix).
std::optional<double> parseLast(const std::string& text) {
    if (text.empty())
        return std::nullopt;
    std::size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    if (!std::isfinite(value) || value < 0 || !std::isdigit(static_cast<unsigned char>(text[0])))
        return std::nullopt;
    const std::string unit = text.substr(used);
    if (unit.empty() || unit == "s")
        return value;
    if (unit == "m")
        return value * 60;
    if (unit == "h")
        return value * 3600;
    if (unit == "d")
        return value * 86400;
    return std::nullopt;
}

constexpr const char* kUsage = "usage:\n    log <command>\n\nglobal options:\n    -?, --help\n    -q, --quiet\n"
                               "    -v, --verbose\n\ncommands:\n    collect         gather system logs into a log archive\n"
                               "    config          view/change logging system settings\n"
                               "    erase           delete system logging data\n"
                               "    show            view/search system logs\n"
                               "    stream          watch live system logs\n\n"
                               "further help:\n    log help <command>\n";

} // namespace

void appendLogEntry(const StorePaths& paths, const LogEntry& entry) {
    Session lock(paths);
    std::ofstream out(paths.log, std::ios::app);
    out << toJson(entry).dump() << "\n";
}

std::vector<LogEntry> readLogEntries(const StorePaths& paths) {
    Session lock(paths);
    return readEntriesUnlocked(paths);
}

double simulatedNow(const StorePaths& paths) {
    Session s(paths);
    return s.net().clockEpoch.value_or(realNow());
}

std::optional<double> parseLogTime(const std::string& text, double now) {
    try {
        std::size_t used = 0;
        if (text.rfind("now", 0) == 0) {
            if (text.size() == 3)
                return now;
            const double offset = std::stod(text.substr(3), &used);
            if (used != text.size() - 3 || (text[3] != '-' && text[3] != '+') || !std::isfinite(offset))
                return std::nullopt;
            return now + offset;
        }
        const double value = std::stod(text, &used);
        if (used != text.size() || !std::isfinite(value))
            return std::nullopt;
        return value;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

int logMain(ToolContext& c) {
    if (c.args.empty()) {
        c.err += kUsage;
        return 64;
    }
    if (c.args[0] != "show") {
        c.err += "log: Unknown subcommand '" + c.args[0] + "'\n" + kUsage;
        return 64;
    }
    std::optional<double> last;
    bool info = false, debug = false;
    std::optional<std::string> predicateText;
    for (std::size_t i = 1; i < c.args.size(); ++i) {
        const std::string& a = c.args[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= c.args.size())
                return std::nullopt;
            return c.args[++i];
        };
        if (a == "--info") {
            info = true;
        } else if (a == "--debug") {
            debug = true;
        } else if (a == "--last") {
            const auto v = value();
            if (!v) {
                c.err += "log: option '--last' requires an argument\n";
                return 64;
            }
            last = parseLast(*v);
            if (!last) {
                c.err += "log: Invalid value for --last: " + *v + "\n";
                return 64;
            }
        } else if (a == "--predicate") {
            predicateText = value();
            if (!predicateText) {
                c.err += "log: option '--predicate' requires an argument\n";
                return 64;
            }
        } else {
            c.err += "log: Unknown option: " + a + "\n";
            return 64;
        }
    }
    Predicate predicate;
    if (predicateText) {
        try {
            predicate = parsePredicate(*predicateText);
        } catch (const PredicateError& e) {
            c.err += "log: invalid predicate:\n" + e.reason + "\n";
            return 64;
        }
    }

    std::vector<LogEntry> entries;
    double now = 0;
    {
        Session s(c.paths);
        now = s.net().clockEpoch.value_or(realNow());
        entries = readEntriesUnlocked(c.paths);
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const LogEntry& a, const LogEntry& b) { return a.time < b.time; });

    if (predicateText)
        c.out += "Filtering the log data using \"" + predicate.rendered + "\"\n";
    if (!info && !debug)
        c.out += "Skipping info and debug messages, pass --info and/or --debug to include.\n";
    else if (!debug)
        c.out += "Skipping debug messages, pass --debug to include.\n";
    c.out += "Timestamp                       Thread     Type        Activity             PID    TTL  \n";
    long defaults = 0, infos = 0, debugs = 0, errors = 0, faults = 0;
    for (const auto& e : entries) {
        if (last && e.time < now - *last)
            continue;
        if (e.time > now)
            continue;
        if ((e.type == "Info" && !info) || (e.type == "Debug" && !debug))
            continue;
        if (!matches(predicate, e))
            continue;
        c.out += row(e);
        if (e.type == "Info")
            ++infos;
        else if (e.type == "Debug")
            ++debugs;
        else if (e.type == "Error")
            ++errors;
        else if (e.type == "Fault")
            ++faults;
        else
            ++defaults;
    }
    c.out += std::string(116, '-') + "\n";
    c.out += format("Log      - Default:%11ld, Info:%17ld, Debug:%14ld, Error:%11ld, Fault:%11ld\n", defaults, infos,
                    debugs, errors, faults);
    c.out += format("Activity - Create:%12d, Transition:%11d, Actions:%12d\n", 0, 0, 0);
    return 0;
}

} // namespace orven::macsim
