#pragma once
// The seam between the daemon's logic and the machine it runs on. Every
// contact with the system goes through here; HelperService code never asks
// which platform it is on.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <variant>
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

    // The wall clock (the time the system log is stamped with).
    virtual WallClock::time_point wallNow() const { return WallClock::now(); }

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

    // --- Link layer (HomePlug AV frames) -------------------------------------

    // A raw link-layer channel bound to one interface that passes only
    // frames of EtherType 0x88E1, delivers each as it arrives, lets a read
    // wait at most 100 ms and sends frames with the source address they carry.
    class LinkChannel {
    public:
        // The result of one system call: `count` bytes, or -1 and `error`.
        struct Transfer {
            long count = 0;
            int error = 0;
        };
        virtual ~LinkChannel() = default;
        // One write call with the whole frame.
        virtual Transfer write(std::span<const std::uint8_t> frame) = 0;
        // One read into the channel's buffer, waiting at most `wait` (and
        // never beyond the 100 ms read time-out); 0 bytes when nothing came.
        // The frames received are appended to `frames`.
        virtual Transfer read(std::vector<std::vector<std::uint8_t>>& frames, std::chrono::milliseconds wait) = 0;
    };
    struct LinkChannelOpening {
        std::unique_ptr<LinkChannel> channel;
        std::string error;  // finished text when there is no channel
    };
    virtual LinkChannelOpening openLinkChannel(std::string_view interface) = 0;
    // The interface's own 6-byte hardware address, if it has one.
    virtual std::optional<std::array<std::uint8_t, 6>> linkAddress(std::string_view interface) = 0;
    // --- SystemConfiguration preferences --------------------------------------

    // A value the daemon does not look into (array, nested dictionary, data,
    // date), held as the platform holds it so that a dictionary written back
    // keeps it exactly.
    struct PreferencesOpaque {
        std::shared_ptr<const void> value;
    };
    using PreferencesValue = std::variant<std::int64_t, double, bool, std::string, PreferencesOpaque>;
    using PreferencesDictionary = std::map<std::string, PreferencesValue>;

    struct NetworkService {
        std::string serviceID;
        std::optional<std::string> bsdName;  // absent when the interface has none (VPN services)
    };
    struct MTURange {
        int current = 0;
        int minimum = 0;
        int maximum = 0;
    };

    // One SCPreferences session. Reads see the configuration as it was when
    // the session was opened; writes stay in the session until committed.
    // Each member is one SystemConfiguration call; a failed call leaves its
    // code for lastError().
    class PreferencesSession {
    public:
        virtual ~PreferencesSession() = default;
        // SCNetworkSetCopyCurrent, SCNetworkSetGetSetID.
        virtual std::optional<std::string> currentSetID() = 0;
        // SCNetworkSetCopyServices of the current set as it lists them, each
        // with SCNetworkServiceGetInterface and SCNetworkInterfaceGetBSDName.
        virtual std::optional<std::vector<NetworkService>> currentSetServices() = 0;
        // SCNetworkSetGetServiceOrder of the current set (service identifiers).
        virtual std::vector<std::string> currentSetServiceOrder() = 0;
        // SCNetworkInterfaceCopyMTU / SCNetworkInterfaceSetMTU of a service's interface.
        virtual std::optional<MTURange> copyMTU(std::string_view serviceID) = 0;
        virtual bool setMTU(std::string_view serviceID, int mtu) = 0;
        // SCPreferencesPathGetValue: absent when there is no value or it is
        // not a string-keyed dictionary. SCPreferencesPathSetValue.
        virtual std::optional<PreferencesDictionary> pathGetValue(std::string_view path) = 0;
        virtual bool pathSetValue(std::string_view path, const PreferencesDictionary& value) = 0;
        virtual bool commitChanges() = 0;
        virtual bool applyChanges() = 0;
        // SCError().
        virtual int lastError() const = 0;
    };
    // SCPreferencesCreate with that name; absent when no session can be had.
    virtual std::unique_ptr<PreferencesSession> openPreferences(std::string_view name) = 0;
    // --- Security framework and temporary files ------------------------------

    // The keychain calls of the VPN identity and trusted CA work (a simulated
    // System keychain on the Linux host).
    virtual FileKeychainCalls& keychain() = 0;
    // The process's temporary directory, as a macOS path.
    virtual std::string temporaryDirectory() const = 0;
};

} // namespace orven
