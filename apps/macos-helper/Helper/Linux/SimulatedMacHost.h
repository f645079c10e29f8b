#pragma once
// The Linux host: the daemon running on a simulated Mac. Every absolute
// macOS path lives under a root folder; the tools there are the simulator's.

#include <functional>
#include <string>

#include "Host.h"
#include "Linux/SimulatedKeychain.h"

namespace orven {

class SimulatedMacHost final : public Host {
public:
    // `onExit` intercepts process exit (tests); without it the process exits.
    SimulatedMacHost(std::string root, LogSink& sink, std::function<void(int)> onExit = {});

    const std::string& root() const { return root_; }

    std::string path(std::string_view macPath) const override;
    BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& standardInput, double timeout,
                               double killGrace) override;
    std::optional<WallClock::time_point> bootTime() const override;
    LogSink& logSink() override { return sink_; }
    void exitProcess(int status) override;

    StoreCopy copyDynamicStore(std::string_view sessionName, std::string_view pattern) override;
    std::optional<std::vector<std::string>> networkInterfaceNames() override;
    bool forceConfigurationRefresh(std::string_view bsdName) override;
    // The real link layer of this machine (the simulated Mac has none of its own).
    LinkChannelOpening openLinkChannel(std::string_view interface) override;
    std::optional<std::array<std::uint8_t, 6>> linkAddress(std::string_view interface) override;
    // The simulated Mac's preferences (SimulatedMacPreferences.cpp).
    std::unique_ptr<PreferencesSession> openPreferences(std::string_view name) override;

    FileKeychainCalls& keychain() override { return keychain_; }
    std::string temporaryDirectory() const override { return "/tmp"; }

private:
    // Runs the simulator's own command for this root.
    BoundedProcess::Result simulator(const std::vector<std::string>& arguments,
                                     const std::optional<std::string>& standardInput = std::nullopt);

    std::string root_;
    LogSink& sink_;
    std::function<void(int)> onExit_;
    SimulatedKeychain keychain_;
};

} // namespace orven
