#pragma once
// The unified log of the simulated Mac: entries a test adds, which
// /usr/bin/log shows in the real tool's layout.

#include <optional>
#include <string>
#include <vector>

#include "Store.h"

namespace orven::macsim {

struct LogEntry {
    double time = 0; // seconds since 1970
    std::string process;
    std::string message;
    std::string type = "Default"; // Default, Info, Debug, Error, Fault
    std::string subsystem, category, sender;
    int pid = 412;
    long thread = 0x1a2b3c;
};

// Appends one entry (under the state lock).
void appendLogEntry(const StorePaths& paths, const LogEntry& entry);
std::vector<LogEntry> readLogEntries(const StorePaths& paths);

// "now" on the simulated clock: the time it was set to, else the real time.
double simulatedNow(const StorePaths& paths);

// `--time` of `macsim log add`: seconds since 1970, or now-N / now+N.
std::optional<double> parseLogTime(const std::string& text, double now);

} // namespace orven::macsim
