#include <csignal>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <regex>
#include <thread>

#include <unistd.h>

#include "Tools.h"

namespace orven::macsim {

namespace {

void writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
}

std::string readAllStdin() {
    std::string out;
    char buf[8192];
    for (;;) {
        ssize_t n = ::read(0, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        out.append(buf, static_cast<std::size_t>(n));
    }
    return out;
}

void sleepFor(double seconds) {
    if (seconds > 0)
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

} // namespace

const std::vector<ToolEntry>& tools() {
    // New tools are added here and get their link from `macsim init`.
    static const std::vector<ToolEntry> table{
        {"pfctl", "/sbin/pfctl", pfctlMain, pfctlMutates},
        {"ping", "/sbin/ping", pingMain, nullptr},
        {"ping6", "/sbin/ping6", ping6Main, nullptr},
        {"nc", "/usr/bin/nc", ncMain, nullptr},
        {"ipconfig", "/usr/sbin/ipconfig", ipconfigMain, nullptr},
        {"pkgutil", "/usr/sbin/pkgutil", pkgutilMain, nullptr},
        {"launchctl", "/bin/launchctl", launchctlMain, nullptr},
        {"log", "/usr/bin/log", logMain, nullptr},
        {"networksetup", "/usr/sbin/networksetup", networksetupMain, nullptr},
        {"ifconfig", "/sbin/ifconfig", ifconfigMain, nullptr},
        {"security", "/usr/bin/security", securityMain, securityMutates},
    };
    return table;
}

const ToolEntry* findTool(std::string_view name) {
    for (const auto& t : tools())
        if (t.name == name)
            return &t;
    return nullptr;
}

std::vector<std::string> recordedArguments(std::string_view tool, const std::vector<std::string>& args) {
    std::vector<std::string> out = args;
    // networksetup -addpreferredwirelessnetworkatindex DEVICE SSID INDEX TYPE [PASSWORD]
    if (tool == "networksetup" && out.size() >= 6) {
        std::string option = out[0];
        for (auto& ch : option)
            ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        if (option == "-addpreferredwirelessnetworkatindex")
            out[5] = "<password>";
    }
    return out;
}

std::optional<FaultAnswer> consultFaults(Session& session, std::string_view tool,
                                         const std::vector<std::string>& givenArgs, bool mutating) {
    std::optional<FaultAnswer> answer;
    auto& faults = session.faults();
    const std::vector<std::string> args = recordedArguments(tool, givenArgs);
    const std::string joined = joinArgs(args);
    for (std::size_t i = 0; i < faults.size(); ++i) {
        const FaultRule& f = faults[i];
        if (f.tool != tool && f.tool != "*")
            continue;
        if (f.args) {
            try {
                if (!std::regex_match(joined, std::regex(*f.args, std::regex::ECMAScript)))
                    continue;
            } catch (const std::regex_error&) {
                continue;
            }
        }
        if (f.skip > 0) {
            --faults[i].skip;
            session.touchFaults();
            continue;
        }
        answer = FaultAnswer{f.exitStatus, f.out, f.err, f.hang, f.delay, f.killCaller};
        if (f.times > 0) {
            if (--faults[i].times == 0)
                faults.erase(faults.begin() + static_cast<std::ptrdiff_t>(i));
            session.touchFaults();
        }
        break;
    }
    session.appendCall(CallRecord{std::string(tool), args, answer.has_value(), mutating, realNow(), ::getpid()});
    return answer;
}

int runTool(const ToolEntry& entry, const std::string& root, std::vector<std::string> args) {
    ToolContext c{StorePaths(root), std::string(entry.name), std::move(args), {}, {}, readAllStdin, sleepFor, {}};
    try {
        std::optional<FaultAnswer> fault;
        {
            Session session(c.paths);
            fault = consultFaults(session, entry.name, c.args, entry.mutating ? entry.mutating(c.args) : false);
            session.save();
        }
        if (fault) {
            sleepFor(fault->delay);
            while (fault->hang)
                ::pause();
            if (fault->exitStatus) {
                if (fault->killCaller)
                    ::kill(::getppid(), SIGKILL);
                writeAll(1, fault->out.value_or(""));
                writeAll(2, fault->err.value_or(""));
                return *fault->exitStatus;
            }
        }
        if (!(fault && fault->out))
            c.flush = [&c] {
                writeAll(1, c.out);
                c.out.clear();
            };
        const int status = entry.run(c);
        if (fault && fault->killCaller)
            ::kill(::getppid(), SIGKILL);
        if (fault && fault->out)
            c.out = *fault->out;
        if (fault && fault->err)
            c.err = *fault->err;
        writeAll(1, c.out);
        writeAll(2, c.err);
        return status;
    } catch (const std::exception& e) {
        writeAll(1, c.out);
        writeAll(2, c.err + std::string(entry.name) + ": " + e.what() + "\n");
        return 1;
    }
}

} // namespace orven::macsim
