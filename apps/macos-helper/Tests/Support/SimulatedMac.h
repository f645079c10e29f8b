#pragma once
// Test support: a fresh simulated Mac per test, and a daemon context over it.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "BoundedProcess.h"
#include "DaemonContext.h"
#include "ForwardingHost.h"
#include "HelperService.h"
#include "Linux/SimulatedMacHost.h"
#include "Log.h"

namespace orven::testing {

// A temporary folder removed with everything in it when the test ends.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& path() const { return path_; }
    // Writes an executable shell script at `relativePath` under the folder.
    void writeScript(std::string_view relativePath, std::string_view body) const;
    void writeFile(std::string_view relativePath, std::string_view content) const;

private:
    std::string path_;
};

class SimulatedMac {
public:
    SimulatedMac();
    const std::string& root() const { return folder_.path(); }
    std::string path(std::string_view macPath) const { return root() + std::string(macPath); }

    // `macsim COMMAND ROOT ARGS...`
    BoundedProcess::Result macsim(std::string_view command, const std::vector<std::string>& arguments = {}) const;
    // A tool of the Mac, e.g. "/sbin/pfctl".
    BoundedProcess::Result tool(std::string_view macPath, const std::vector<std::string>& arguments,
                                const std::optional<std::string>& standardInput = std::nullopt) const;
    BoundedProcess::Result pfctl(const std::vector<std::string>& arguments,
                                 const std::optional<std::string>& standardInput = std::nullopt) const;

    void reboot() const;
    // `macsim fault ROOT add ARGS...`
    void addFault(const std::vector<std::string>& arguments) const;
    void clearFaults() const;
    // The record of tool calls, oldest first.
    std::vector<nlohmann::json> calls(bool mutatingOnly = false) const;
    void clearCalls() const;
    // True when `macsim leak-test` finds no packet getting through.
    bool leakTestPasses() const;
    std::string show(const std::vector<std::string>& what) const;

    bool fileExists(std::string_view macPath) const;
    std::optional<std::string> readFile(std::string_view macPath) const;
    // POSIX permission bits of a file, or -1 when missing.
    int fileMode(std::string_view macPath) const;

private:
    TemporaryFolder folder_;
};

// Delegates to the simulated Mac's host and records every tool run with
// whether the pf lock was held at that moment.
class ObservedHost final : public ForwardingHost {
public:
    struct Run {
        std::string path;
        std::vector<std::string> arguments;
        bool pfLockHeld;
    };
    using ForwardingHost::ForwardingHost;
    void watch(std::timed_mutex& pfLock) { pfLock_ = &pfLock; }
    std::vector<Run> runs() const;
    void clearRuns();

    BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& standardInput, double timeout,
                               double killGrace) override;
    bool forceConfigurationRefresh(std::string_view bsdName) override;

private:
    bool lockHeld() const;

    std::timed_mutex* pfLock_ = nullptr;
    mutable std::mutex mutex_;
    std::vector<Run> runs_;
};

// A daemon context over a fresh simulated Mac, logging into a recording sink.
class SimulatedDaemon {
public:
    SimulatedDaemon();
    SimulatedMac mac;
    RecordingLogSink log;
    SimulatedMacHost simulatedHost;
    ObservedHost host;
    DaemonContext context;
    std::vector<int> exitStatuses;

    HelperService service(std::uint32_t peerUID) { return HelperService(context, peerUID); }
};

// Captures what a method replied, and how often.
template <class... Args>
class ReplyCapture {
public:
    Reply<Args...> reply()
    {
        return Reply<Args...>([this](Args... values) {
            values_.emplace(std::move(values)...);
            ++count_;
        });
    }
    bool answered() const { return count_ > 0; }
    int count() const { return count_; }
    const std::tuple<Args...>& values() const { return *values_; }
    template <std::size_t I>
    const auto& get() const { return std::get<I>(*values_); }

private:
    std::optional<std::tuple<Args...>> values_;
    int count_ = 0;
};

using ActionCapture = ReplyCapture<bool, std::optional<std::string>>;

} // namespace orven::testing
