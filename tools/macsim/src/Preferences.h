#pragma once
// The SystemConfiguration preferences (preferences.plist) as one view of the
// network model, the writes a preferences session commits back into it, the
// device MTU as SCNetworkInterfaceCopyMTU reports it, and the Wi-Fi
// known-networks file.

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Network.h"
#include "Store.h"

namespace orven::macsim {

// CurrentSet, NetworkServices and Sets as configd keeps them, with every
// value written at a path laid over.
nlohmann::json preferencesOf(const NetModel& net);

// What configd publishes for the current set's per-interface settings:
// `Setup:/Network/Interface/<bsd>` with the dictionary's non-dictionary
// values, and one key more for each dictionary in it (`.../AirPort`), empty
// dictionaries left out.
nlohmann::json interfaceSetupKeys(const NetModel& net);

// A committed write: `value` now stands at `path` ("/Sets/<id>/Network/...").
// The caller counts the commit as one change of the preferences.
void writePreference(NetModel& net, const std::string& path, const nlohmann::json& value);

// SCPreferencesApplyChanges: the configured MTU of each attached interface
// becomes its live MTU.
void applyPreferences(NetModel& net);

struct MtuReading {
    int current = 0, minimum = 0, maximum = 0;
    std::string entity; // where SCNetworkInterfaceSetMTU stores it: Ethernet or AirPort
};
// Absent when the interface is unknown or its device is not attached (the
// real call then fails with SCError 6, ENXIO).
std::optional<MtuReading> copyMtu(const NetModel& net, const std::string& bsdName);

inline constexpr std::string_view kKnownNetworksPath = "/Library/Preferences/com.apple.wifi.known-networks.plist";
// The known networks of every Wi-Fi device as a binary property list.
std::string knownNetworksPlist(const NetModel& net);
void writeKnownNetworks(const StorePaths& paths, const NetModel& net);

} // namespace orven::macsim
