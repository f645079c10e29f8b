#pragma once
// The Host on macOS: the real paths, the real tools, the unified log,
// SystemConfiguration and exit(). Each member translates one call into one
// system interface and decides nothing.

#include <map>
#include <mutex>
#include <string>

#include <os/log.h>

#include "DarwinKeychainCalls.h"
#include "Host.h"

namespace orven {

// Writes each record to the unified log under subsystem + category; the
// rendered line is one public string.
class OSLogSink final : public LogSink {
public:
    void write(const LogRecord& record) override;

private:
    os_log_t logFor(const std::string& subsystem, const std::string& category);

    std::mutex mutex_;
    std::map<std::string, os_log_t> logs_;
};

class DarwinHost final : public Host {
public:
    std::string path(std::string_view macPath) const override { return std::string(macPath); }
    BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& standardInput, double timeout,
                               double killGrace) override;
    std::optional<WallClock::time_point> bootTime() const override;
    LogSink& logSink() override { return sink_; }
    [[noreturn]] void exitProcess(int status) override;

    StoreCopy copyDynamicStore(std::string_view sessionName, std::string_view pattern) override;
    std::optional<std::vector<std::string>> networkInterfaceNames() override;
    bool forceConfigurationRefresh(std::string_view bsdName) override;
    LinkChannelOpening openLinkChannel(std::string_view interface) override;
    std::optional<std::array<std::uint8_t, 6>> linkAddress(std::string_view interface) override;
    // SCPreferences sessions (DarwinPreferences.mm).
    std::unique_ptr<PreferencesSession> openPreferences(std::string_view name) override;

    FileKeychainCalls& keychain() override { return keychain_; }
    std::string temporaryDirectory() const override;

private:
    OSLogSink sink_;
    DarwinKeychainCalls keychain_;
};

} // namespace orven
