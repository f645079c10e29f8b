#pragma once
// Where the simulated Mac keeps its state (ROOT/.macsim), the file lock
// every change happens under, the fault rules and the record of tool calls.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Network.h"
#include "Pf.h"

namespace orven::macsim {

struct StorePaths {
    explicit StorePaths(std::string root);
    std::string root, dir, lock, pf, net, faults, calls, boottime, launchd;
    // The file that stands for a macOS absolute path on this machine.
    std::string host(std::string_view macPath) const { return root + std::string(macPath); }
    bool exists() const;
};

struct FaultRule {
    std::string tool;
    std::optional<std::string> args; // ECMAScript, whole match against the arguments joined by spaces
    std::optional<int> exitStatus;
    std::optional<std::string> out, err;
    bool hang = false;
    double delay = 0;
    int times = 1; // 0: every call
    int skip = 0;  // matching calls let through untouched before the rule answers
    // After the tool has run (its change to the model kept), the process that
    // started it is killed: how tests stop the daemon after a chosen call.
    bool killCaller = false;
};

struct CallRecord {
    std::string tool;
    std::vector<std::string> args;
    bool fault = false;
    bool mutating = false;
    double time = 0;
    int pid = 0;
};

std::optional<std::string> readFile(const std::string& path);
bool writeFileAtomic(const std::string& path, std::string_view content);
double realNow();
std::int64_t secondsNow();
std::string joinArgs(const std::vector<std::string>& args);

// Holds the lock for its lifetime and loads each part of the state on first
// use; save() writes back only the parts that were changed.
class Session {
public:
    explicit Session(const StorePaths& paths);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const StorePaths& paths() const { return paths_; }
    PfModel& pf();
    NetModel& net();
    std::vector<FaultRule>& faults();
    void touchPf() { pfDirty_ = true; }
    void touchNet() { netDirty_ = true; }
    void touchFaults() { faultsDirty_ = true; }
    void save();

    // Replaces the whole state (init).
    void reset(PfModel pf, NetModel net);

    void appendCall(const CallRecord& call);

private:
    const StorePaths& paths_;
    int fd_ = -1;
    std::optional<PfModel> pf_;
    std::optional<NetModel> net_;
    std::optional<std::vector<FaultRule>> faults_;
    bool pfDirty_ = false, netDirty_ = false, faultsDirty_ = false;
};

std::vector<CallRecord> readCalls(const StorePaths& paths);

std::int64_t readBootTime(const StorePaths& paths);
void writeBootTime(const StorePaths& paths, std::int64_t seconds);

} // namespace orven::macsim
