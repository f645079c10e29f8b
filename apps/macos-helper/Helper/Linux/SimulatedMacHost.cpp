#include "SimulatedMacHost.h"

#include <climits>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "Files.h"
#include "Text.h"

namespace orven {

namespace {

constexpr double kSimulatorTimeout = 10.0;
constexpr double kSimulatorKillGrace = 2.0;

} // namespace

SimulatedMacHost::SimulatedMacHost(std::string root, LogSink& sink, std::function<void(int)> onExit)
    : root_(std::move(root)),
      sink_(sink),
      onExit_(std::move(onExit)),
      keychain_(root_, [this](const std::vector<std::string>& arguments, const std::optional<std::string>& input) {
          std::vector<std::string> full{"keychain"};
          full.insert(full.end(), arguments.begin(), arguments.end());
          return simulator(full, input);
      })
{
    while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
}

std::string SimulatedMacHost::path(std::string_view macPath) const { return root_ + std::string(macPath); }

BoundedProcess::Result SimulatedMacHost::run(std::string_view macPath, const std::vector<std::string>& arguments,
                                             const std::optional<std::string>& standardInput, double timeout,
                                             double killGrace)
{
    return BoundedProcess::run(path(macPath), arguments, standardInput, timeout, killGrace);
}

std::optional<Host::WallClock::time_point> SimulatedMacHost::bootTime() const
{
    // The simulator keeps kern.boottime's seconds in a file of their own.
    const auto content = files::read(root_ + "/.macsim/boottime", 64);
    if (!content) return std::nullopt;
    const auto seconds = text::parseUnsigned(text::trimWhitespaceAndNewlines(*content), INT64_MAX);
    if (!seconds || *seconds < 1) return std::nullopt;
    return WallClock::time_point(std::chrono::seconds(static_cast<std::int64_t>(*seconds)));
}

void SimulatedMacHost::exitProcess(int status)
{
    if (onExit_) onExit_(status);
    else std::exit(status);
}

BoundedProcess::Result SimulatedMacHost::simulator(const std::vector<std::string>& arguments,
                                                   const std::optional<std::string>& standardInput)
{
    // Every tool under the root is a link to the simulator binary.
    char resolved[PATH_MAX];
    if (!::realpath(path("/sbin/pfctl").c_str(), resolved))
        return {BoundedProcess::kSpawnFailed, {}, "the simulated Mac has no tools installed"};
    std::vector<std::string> full{arguments.front(), root_};
    full.insert(full.end(), arguments.begin() + 1, arguments.end());
    return BoundedProcess::run(resolved, full, standardInput, kSimulatorTimeout, kSimulatorKillGrace);
}

Host::StoreCopy SimulatedMacHost::copyDynamicStore(std::string_view, std::string_view pattern)
{
    const auto result = simulator({"sc", "copy-store", std::string(pattern)});
    if (result.code != 0) return {{}, "cannot enumerate configured services"};
    const auto json = nlohmann::json::parse(result.out, nullptr, false);
    if (!json.is_object()) return {{}, "cannot enumerate configured services"};
    StoreCopy copy;
    for (const auto& [key, value] : json.items()) {
        SetupOwnership::Entry entry{key, std::nullopt};
        if (value.is_object()) {
            entry.value.emplace();
            for (const auto& [name, item] : value.items())
                (*entry.value)[name] = item.is_string() ? std::optional(item.get<std::string>()) : std::nullopt;
        }
        copy.entries.push_back(std::move(entry));
    }
    return copy;
}

std::optional<std::vector<std::string>> SimulatedMacHost::networkInterfaceNames()
{
    const auto result = simulator({"sc", "interfaces"});
    if (result.code != 0) return std::nullopt;
    const auto json = nlohmann::json::parse(result.out, nullptr, false);
    if (!json.is_array()) return std::nullopt;
    std::vector<std::string> names;
    for (const auto& item : json)
        if (item.is_string()) names.push_back(item.get<std::string>());
    return names;
}

bool SimulatedMacHost::forceConfigurationRefresh(std::string_view bsdName)
{
    return simulator({"sc", "refresh", std::string(bsdName)}).code == 0;
}

} // namespace orven
