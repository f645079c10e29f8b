#pragma once
// A private Ethernet segment for the powerline probe: a network namespace,
// a veth pair whose far end lives in it, and simulated adapters (plcsim)
// answering there. Everything is torn down with the object; nothing leaves
// the machine. Needs root (CAP_NET_ADMIN) and the `ip` tool.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "BoundedProcess.h"

namespace plcsim {

class VethSegment {
public:
    // The near end gets `hostMAC`, so readings are the same on every run.
    explicit VethSegment(const std::string& hostMAC = "02:00:5e:10:00:01")
    {
        static std::atomic<int> counter{0};
        // Unique among running processes; at most 3 + 7 + 1 + 3 characters,
        // within the 15 an interface name may have.
        const auto tag = std::to_string(::getpid()) + "n" + std::to_string(counter++ % 1000);
        namespace_ = "orvenplc" + tag;
        hostInterface_ = "plh" + tag;
        farInterface_ = "plf" + tag;
        if (::geteuid() != 0) {
            unavailable_ = "network namespaces need root";
            return;
        }
        if (auto failed = ip({"netns", "add", namespace_})) {
            unavailable_ = "cannot create a network namespace: " + *failed;
            return;
        }
        namespaceMade_ = true;
        if (auto failed = ip({"link", "add", hostInterface_, "address", hostMAC, "type", "veth", "peer", "name", farInterface_, "netns",
                              namespace_})) {
            unavailable_ = "cannot create a veth pair: " + *failed;
            return;
        }
        linkMade_ = true;
        for (const auto& failed : {ip({"link", "set", hostInterface_, "up"}),
                                   ip({"-n", namespace_, "link", "set", farInterface_, "up"})}) {
            if (failed) {
                unavailable_ = "cannot bring the veth pair up: " + *failed;
                return;
            }
        }
    }

    ~VethSegment()
    {
        stopAdapters();
        if (linkMade_) (void)ip({"link", "del", hostInterface_});
        if (namespaceMade_) (void)ip({"netns", "del", namespace_});
        for (const auto& file : files_) std::remove(file.c_str());
    }
    VethSegment(const VethSegment&) = delete;
    VethSegment& operator=(const VethSegment&) = delete;

    // Why this machine cannot have the segment (absent when it has it).
    const std::optional<std::string>& unavailable() const { return unavailable_; }
    // The near end, where the probe runs.
    const std::string& hostInterface() const { return hostInterface_; }

    // Starts the adapters of `description` behind the far end, replacing
    // any running ones; absent on success, else why not.
    std::optional<std::string> startAdapters(const nlohmann::json& description)
    {
        stopAdapters();
        const std::string config = "/tmp/" + namespace_ + "-" + std::to_string(files_.size()) + ".json";
        std::ofstream(config) << description.dump();
        files_.push_back(config);
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) != 0) return "pipe failed";
        const std::string path = ORVEN_PLCSIM_PATH;
        adapters_ = ::fork();
        if (adapters_ == 0) {
            ::dup2(ready[1], STDOUT_FILENO);
            ::execlp("ip", "ip", "netns", "exec", namespace_.c_str(), path.c_str(), "--interface",
                     farInterface_.c_str(), "--config", config.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(ready[1]);
        std::string line;
        char c;
        while (::read(ready[0], &c, 1) == 1 && c != '\n') line += c;
        ::close(ready[0]);
        if (line != "ready") {
            stopAdapters();
            return "the simulated adapters did not start";
        }
        return std::nullopt;
    }

    void stopAdapters()
    {
        if (adapters_ <= 0) return;
        ::kill(adapters_, SIGTERM);
        int status = 0;
        ::waitpid(adapters_, &status, 0);
        adapters_ = -1;
    }

private:
    static std::optional<std::string> ip(const std::vector<std::string>& arguments)
    {
        for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
            if (::access(path, X_OK) != 0) continue;
            const auto result = orven::BoundedProcess::run(path, arguments, std::nullopt, 10.0, 1.0);
            if (result.code == 0) return std::nullopt;
            return "ip " + arguments.front() + " failed (" + std::to_string(result.code) + "): " + result.err;
        }
        return "the ip tool is not installed";
    }

    std::string namespace_, hostInterface_, farInterface_;
    std::optional<std::string> unavailable_;
    bool namespaceMade_ = false, linkMade_ = false;
    pid_t adapters_ = -1;
    std::vector<std::string> files_;
};

} // namespace plcsim
