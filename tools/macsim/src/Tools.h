#pragma once
// The macOS tools macsim stands in for. Each one is a function over its
// arguments that writes into two buffers and returns an exit status; the
// dispatcher applies fault rules and records the call around it.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Store.h"

namespace orven::macsim {

struct ToolContext {
    StorePaths paths;
    std::string tool;
    std::vector<std::string> args;
    std::string out, err;
    std::function<std::string()> readStdin;
    // Sleeps for the simulated time a tool would wait (probe time-outs).
    std::function<void(double seconds)> wait;
    // Writes what is in `out` so far and empties it (tools that print as
    // they go, such as a ping train); absent when output must be held back.
    std::function<void()> flush;
};

struct ToolEntry {
    std::string_view name;
    std::string_view installPath; // macOS path, e.g. /sbin/pfctl
    int (*run)(ToolContext&);
    bool (*mutating)(const std::vector<std::string>& args); // may be null
};

const std::vector<ToolEntry>& tools();
const ToolEntry* findTool(std::string_view name);

// Runs a tool as a process would: faults, the call record, the tool, then
// its output on fds 1 and 2. Returns the exit status.
int runTool(const ToolEntry& entry, const std::string& root, std::vector<std::string> args);

// The fault answer for a call, if a rule matches; records the call either way.
struct FaultAnswer {
    std::optional<int> exitStatus;
    std::optional<std::string> out, err;
    bool hang = false;
    double delay = 0;
    bool killCaller = false;
};
std::optional<FaultAnswer> consultFaults(Session& session, std::string_view tool,
                                         const std::vector<std::string>& args, bool mutating);

struct LoadRequest {
    std::string file;   // "-" for standard input, else a macOS path
    std::string anchor; // "" loads the main ruleset (and its `load anchor` lines)
    bool noAction = false;
    int verbose = 0;
    std::string stdinText;
};
// pfctl -f: parses and commits, or reports pfctl's errors and changes nothing.
bool loadPfRules(Session& session, const LoadRequest& request, std::string& out, std::string& err);

int pfctlMain(ToolContext& c);
bool pfctlMutates(const std::vector<std::string>& args);
int pingMain(ToolContext& c);
int ping6Main(ToolContext& c);
int ncMain(ToolContext& c);
int ipconfigMain(ToolContext& c);
int pkgutilMain(ToolContext& c);
int launchctlMain(ToolContext& c);
int logMain(ToolContext& c);
int networksetupMain(ToolContext& c);
int ifconfigMain(ToolContext& c);

// The arguments as the call record and fault rules see them: secrets a
// caller passes on a command line (a Wi-Fi password) are masked.
std::vector<std::string> recordedArguments(std::string_view tool, const std::vector<std::string>& args);
int securityMain(ToolContext& c);
bool securityMutates(const std::vector<std::string>& args);

} // namespace orven::macsim
