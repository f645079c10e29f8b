#pragma once
// What the simulated adapters are (read from a JSON description) and the
// frames they answer a request with. No I/O: the caller sends and delays.

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "HomePlugAV.h"

namespace plcsim {

using Frame = std::vector<std::uint8_t>;
using orven::HomePlugAV::MACAddress;

// The message kinds an adapter answers, named as in the description.
// "discover", "nwinfo", "swver", "mfg", "enet".
struct Faults {
    std::set<std::string> twice;      // answered twice (the second time from `later`)
    std::set<std::string> late;       // answered after `lateMillis`
    std::set<std::string> status;     // answered with status 1
    std::set<std::string> truncated;  // answered with the frame cut in half
    std::set<std::string> foreign;    // answered with another OUI, plus a frame of another EtherType
    std::set<std::string> wrongPort;  // answered to another host's address
    std::set<std::string> silent;     // not answered ("all" silences the adapter)
    int lateMillis = 1800;
};

struct Adapter {
    MACAddress mac{};
    bool local = false;  // the one next to the host: answers the local management address
    nlohmann::json discover = nlohmann::json::array();  // stations of its discover list
    nlohmann::json networks = nlohmann::json::array();  // networks with their stations
    std::set<int> networkInfoVersions{0, 1};
    int deviceID = 0;
    std::string firmware;
    std::string manufacturer;
    std::array<std::uint8_t, 4> ethernet{};  // speed, duplex, MDI, flow control
    nlohmann::json later = nlohmann::json::object();  // the second answer's fields
    Faults faults;
};

// Every adapter of a description; throws nlohmann's errors on bad input.
std::vector<Adapter> adaptersFrom(const nlohmann::json& description);

struct Answer {
    Frame frame;
    std::chrono::milliseconds delay{0};
};

// What one adapter sends back for one received frame.
std::vector<Answer> answersTo(const Adapter& adapter, const Frame& request);

} // namespace plcsim
