#include "SimulatedMac.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>

#include "Files.h"

namespace orven::testing {

namespace {

constexpr double kCommandTimeout = 60.0;

void require(const BoundedProcess::Result& result, std::string_view what)
{
    if (result.code != 0)
        throw std::runtime_error(std::string(what) + " failed (" + std::to_string(result.code) + "): " + result.err);
}

} // namespace

TemporaryFolder::TemporaryFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "orven-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TemporaryFolder::writeFile(std::string_view relativePath, std::string_view content) const
{
    const std::filesystem::path file = std::filesystem::path(path_) / relativePath;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

void TemporaryFolder::writeScript(std::string_view relativePath, std::string_view body) const
{
    writeFile(relativePath, "#!/bin/sh\n" + std::string(body) + "\n");
    ::chmod((std::filesystem::path(path_) / relativePath).c_str(), 0755);
}

SimulatedMac::SimulatedMac() { require(BoundedProcess::run(ORVEN_MACSIM_PATH, {"init", root()}, std::nullopt, kCommandTimeout, 2.0), "macsim init"); }

BoundedProcess::Result SimulatedMac::macsim(std::string_view command, const std::vector<std::string>& arguments) const
{
    std::vector<std::string> full{std::string(command), root()};
    full.insert(full.end(), arguments.begin(), arguments.end());
    return BoundedProcess::run(ORVEN_MACSIM_PATH, full, std::nullopt, kCommandTimeout, 2.0);
}

BoundedProcess::Result SimulatedMac::tool(std::string_view macPath, const std::vector<std::string>& arguments,
                                          const std::optional<std::string>& standardInput) const
{
    return BoundedProcess::run(path(macPath), arguments, standardInput, kCommandTimeout, 2.0);
}

BoundedProcess::Result SimulatedMac::pfctl(const std::vector<std::string>& arguments,
                                           const std::optional<std::string>& standardInput) const
{
    return tool("/sbin/pfctl", arguments, standardInput);
}

void SimulatedMac::reboot() const { require(macsim("reboot"), "macsim reboot"); }

void SimulatedMac::addFault(const std::vector<std::string>& arguments) const
{
    std::vector<std::string> full{"add"};
    full.insert(full.end(), arguments.begin(), arguments.end());
    require(macsim("fault", full), "macsim fault add");
}

void SimulatedMac::clearFaults() const { require(macsim("fault", {"clear"}), "macsim fault clear"); }

std::vector<nlohmann::json> SimulatedMac::calls(bool mutatingOnly) const
{
    std::vector<std::string> arguments{"--json"};
    if (mutatingOnly) arguments.push_back("--mutating");
    const auto result = macsim("calls", arguments);
    require(result, "macsim calls");
    std::vector<nlohmann::json> records;
    const auto whole = nlohmann::json::parse(result.out, nullptr, false);
    if (whole.is_array()) {
        for (const auto& item : whole) records.push_back(item);
        return records;
    }
    std::size_t start = 0;
    while (start < result.out.size()) {
        std::size_t end = result.out.find('\n', start);
        if (end == std::string::npos) end = result.out.size();
        const auto line = result.out.substr(start, end - start);
        if (!line.empty()) records.push_back(nlohmann::json::parse(line));
        start = end + 1;
    }
    return records;
}

void SimulatedMac::clearCalls() const { require(macsim("calls", {"--clear"}), "macsim calls --clear"); }

bool SimulatedMac::leakTestPasses() const { return macsim("leak-test").code == 0; }

std::string SimulatedMac::show(const std::vector<std::string>& what) const
{
    const auto result = macsim("show", what);
    require(result, "macsim show");
    return result.out;
}

bool SimulatedMac::fileExists(std::string_view macPath) const { return files::exists(path(macPath)); }

std::optional<std::string> SimulatedMac::readFile(std::string_view macPath) const { return files::read(path(macPath)); }

int SimulatedMac::fileMode(std::string_view macPath) const
{
    struct stat info{};
    if (::stat(path(macPath).c_str(), &info) != 0) return -1;
    return static_cast<int>(info.st_mode & 07777);
}

bool ObservedHost::lockHeld() const
{
    if (!pfLock_) return false;
    // Asked from another thread: the caller may be the holder.
    return std::async(std::launch::async, [lock = pfLock_] {
               if (!lock->try_lock()) return true;
               lock->unlock();
               return false;
           }).get();
}

BoundedProcess::Result ObservedHost::run(std::string_view macPath, const std::vector<std::string>& arguments,
                                         const std::optional<std::string>& standardInput, double timeout,
                                         double killGrace)
{
    {
        const bool held = lockHeld();
        const std::lock_guard guard(mutex_);
        runs_.push_back({std::string(macPath), arguments, held});
    }
    return ForwardingHost::run(macPath, arguments, standardInput, timeout, killGrace);
}

bool ObservedHost::forceConfigurationRefresh(std::string_view bsdName)
{
    {
        const bool held = lockHeld();
        const std::lock_guard guard(mutex_);
        runs_.push_back({"configd", {"refresh", std::string(bsdName)}, held});
    }
    return ForwardingHost::forceConfigurationRefresh(bsdName);
}

std::vector<ObservedHost::Run> ObservedHost::runs() const
{
    const std::lock_guard guard(mutex_);
    return runs_;
}

void ObservedHost::clearRuns()
{
    const std::lock_guard guard(mutex_);
    runs_.clear();
}

SimulatedDaemon::SimulatedDaemon()
    : simulatedHost(mac.root(), log, [this](int status) { exitStatuses.push_back(status); }),
      host(simulatedHost),
      context(host)
{
    host.watch(context.pfLock);
}

} // namespace orven::testing
