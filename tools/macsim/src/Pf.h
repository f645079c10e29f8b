#pragma once
// The kernel side of pf on the simulated Mac: rulesets by anchor path, the
// enable flag with its reference tokens (Apple's -E/-X), the state table,
// rule counters, and packet evaluation (XNU pf_test_rule semantics).

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "PfParser.h"
#include "PfRule.h"

namespace orven::macsim {

struct RuleCounters {
    std::uint64_t evaluations = 0, packets = 0, bytes = 0;
};

// One anchor's rules (or the main ruleset's, path ""), every kind together
// in kind order: scrub, nat, rdr, dummynet, filter.
struct Ruleset {
    std::string text;     // the text it was loaded from
    std::vector<Rule> rules;
    std::vector<RuleCounters> counters;
    std::uint64_t ticket = 0; // changes with every load; states remember it
    int loaderPid = 0;
    std::vector<std::size_t> filter;                 // indices of the filter rules
    std::vector<std::array<std::size_t, 8>> skip;    // skip steps, per filter rule
    void index();
};

struct PfToken {
    std::uint64_t token = 0;
    int pid = 0;
    std::string name;
    std::int64_t time = 0;
};

struct Packet {
    Direction dir = Direction::Out;
    std::string ifname;
    Family af = Family::Inet;
    std::uint8_t proto = Proto::Tcp;
    IpAddr src, dst;
    std::uint16_t sport = 0, dport = 0; // the ICMP echo id for ICMP
    std::uint8_t tcpFlags = 0;
    int icmpType = -1, icmpCode = 0;
    std::uint32_t length = 64;
};

struct StateEntry {
    Family af = Family::Inet;
    std::uint8_t proto = 0;
    Direction dir = Direction::Out; // of the packet that created it
    IpAddr lanAddr, extAddr;        // local and remote side
    std::uint16_t lanPort = 0, extPort = 0;
    std::uint8_t srcState = 0, dstState = 0; // initiator, responder
    std::string rulePath;
    std::uint64_t ruleTicket = 0;
    long ruleIndex = -1;
    std::uint64_t packets = 0, bytes = 0;
    std::int64_t created = 0;
    std::string print() const;
};

struct Verdict {
    enum class How { Disabled, Skipped, State, Rule, Default };
    bool pass = true;
    How how = How::Default;
    std::string rulesetPath;
    std::string rule; // the deciding rule as listed
    bool stateCreated = false;
    BlockPolicy block = BlockPolicy::Drop;
    std::string describe() const;
};

class PfModel {
public:
    // -- enable flag and references (XNU DIOCSTART/DIOCSTARTREF/DIOCSTOPREF/DIOCSTOP)
    bool running = false;
    std::int64_t since = 0;
    std::uint64_t refCount = 0;
    std::vector<PfToken> tokens; // newest first

    // -- rulesets and interface flags
    std::map<std::string, Ruleset> rulesets;
    std::vector<std::string> skip;
    std::uint64_t nextTicket = 1;

    // pfctl prints the ALTQ notice only when this is on (older releases).
    bool altqMessages = false;

    // -- states and status counters
    std::vector<StateEntry> states;
    std::uint64_t searches = 0, inserts = 0, removals = 0, matches = 0;

    // Returns false (EEXIST) when pf was already running.
    bool start(std::int64_t now);
    std::uint64_t startRef(int pid, std::string name, std::int64_t now, const std::function<std::uint64_t()>& random);
    enum class StopRef { NotRunning, Invalid, Released };
    StopRef stopRef(std::uint64_t token, std::int64_t now, std::uint64_t& remaining);
    // Returns false (ENOENT) when pf was not running.
    bool stop(std::int64_t now);

    // Replaces every ruleset kind of an anchor; an empty result removes it.
    void replace(const std::string& path, std::string text, std::vector<Rule> rules, int pid);
    // Clears the given kinds of an anchor.
    void clear(const std::string& path, const std::set<RuleKind>& kinds);
    std::size_t flushStates();

    std::set<std::string> existingAnchors() const;
    bool anchorExists(const std::string& path) const;
    std::vector<std::string> children(const std::string& path) const;
    const Ruleset* find(const std::string& path) const;
    std::size_t statesOf(const std::string& path, std::uint64_t ticket, std::size_t index) const;

    // The addresses of an interface, for `(if)` addresses in rules.
    using InterfaceAddresses = std::function<std::vector<IpAddr>(std::string_view)>;
    Verdict test(const Packet& packet, std::int64_t now, const InterfaceAddresses& addresses = {});

    nlohmann::json toJson() const;
    static PfModel fromJson(const nlohmann::json& json);

private:
    StateEntry* findState(const Packet& packet);
};

std::string stateName(std::uint8_t proto, std::uint8_t state);

} // namespace orven::macsim
