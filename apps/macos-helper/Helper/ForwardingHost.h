#pragma once
// A Host that hands every call to another one; wrappers that watch, time or
// disturb a few calls override only those.

#include "Host.h"

namespace orven {

class ForwardingHost : public Host {
public:
    explicit ForwardingHost(Host& inner) : inner_(inner) {}

    std::string path(std::string_view macPath) const override { return inner_.path(macPath); }
    BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& standardInput, double timeout,
                               double killGrace) override
    {
        return inner_.run(macPath, arguments, standardInput, timeout, killGrace);
    }
    SteadyClock::time_point now() const override { return inner_.now(); }
    std::optional<WallClock::time_point> bootTime() const override { return inner_.bootTime(); }
    WallClock::time_point wallNow() const override { return inner_.wallNow(); }
    LogSink& logSink() override { return inner_.logSink(); }
    void exitProcess(int status) override { inner_.exitProcess(status); }
    StoreCopy copyDynamicStore(std::string_view sessionName, std::string_view pattern) override
    {
        return inner_.copyDynamicStore(sessionName, pattern);
    }
    std::optional<std::vector<std::string>> networkInterfaceNames() override { return inner_.networkInterfaceNames(); }
    bool forceConfigurationRefresh(std::string_view bsdName) override
    {
        return inner_.forceConfigurationRefresh(bsdName);
    }
    LinkChannelOpening openLinkChannel(std::string_view interface) override { return inner_.openLinkChannel(interface); }
    std::optional<std::array<std::uint8_t, 6>> linkAddress(std::string_view interface) override
    {
        return inner_.linkAddress(interface);
    }
    std::unique_ptr<PreferencesSession> openPreferences(std::string_view name) override
    {
        return inner_.openPreferences(name);
    }
    FileKeychainCalls& keychain() override { return inner_.keychain(); }
    std::string temporaryDirectory() const override { return inner_.temporaryDirectory(); }

private:
    Host& inner_;
};

} // namespace orven
