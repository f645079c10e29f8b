#pragma once
// The seam between the daemon's logic and the machine it runs on. Every
// contact with the system goes through here; HelperService code never asks
// which platform it is on.

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "BoundedProcess.h"
#include "FileKeychainCalls.h"
#include "Log.h"
#include "SetupOwnership.h"

namespace orven {

class Host {
public:
    using WallClock = std::chrono::system_clock;
    using SteadyClock = std::chrono::steady_clock;

    virtual ~Host() = default;

    // Where a macOS absolute path lives on this machine (identity on macOS,
    // under the simulated Mac's root folder elsewhere). Messages keep showing
    // the macOS path.
    virtual std::string path(std::string_view macPath) const = 0;

    // Runs the tool at a macOS path through the bounded runner.
    virtual BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                                       const std::optional<std::string>& standardInput, double timeout,
                                       double killGrace) = 0;

    // Monotonic time for deadlines and budgets.
    virtual SteadyClock::time_point now() const { return SteadyClock::now(); }

    // When the system last started (kern.boottime, whole seconds), if known.
    virtual std::optional<WallClock::time_point> bootTime() const = 0;

    virtual LogSink& logSink() = 0;

    // Ends the process. Tests intercept it, so callers must not assume it
    // does not return.
    virtual void exitProcess(int status) = 0;

    // --- SystemConfiguration -------------------------------------------------

    // SCDynamicStoreCopyMultiple with one pattern and no keys; an error text
    // when the session or the copy is unavailable.
    struct StoreCopy {
        std::vector<SetupOwnership::Entry> entries;
        std::optional<std::string> error;
    };
    virtual StoreCopy copyDynamicStore(std::string_view sessionName, std::string_view pattern) = 0;

    // The BSD names of SCNetworkInterfaceCopyAll, in order; absent when the
    // list cannot be had.
    virtual std::optional<std::vector<std::string>> networkInterfaceNames() = 0;

    // SCNetworkInterfaceForceConfigurationRefresh for the interface of that name.
    virtual bool forceConfigurationRefresh(std::string_view bsdName) = 0;

    // --- Security framework and temporary files ------------------------------

    // The keychain calls of the VPN identity and trusted CA work (a simulated
    // System keychain on the Linux host).
    virtual FileKeychainCalls& keychain() = 0;
    // The process's temporary directory, as a macOS path.
    virtual std::string temporaryDirectory() const = 0;
};

} // namespace orven
