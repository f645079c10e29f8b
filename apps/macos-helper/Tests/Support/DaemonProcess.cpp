#include "Support/DaemonProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

namespace orven::testing {

using nlohmann::json;

std::string request(const std::string& selector, json arguments, json id)
{
    return json{{"id", id}, {"selector", selector}, {"arguments", std::move(arguments)}}.dump() + "\n";
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

std::optional<json> Client::call(const std::string& line)
{
    send(line);
    const auto answer = readLine();
    if (!answer) return std::nullopt;
    return json::parse(*answer, nullptr, false);
}

// Only system calls run between fork and exit.
std::optional<json> callAs(std::uint32_t uid, const std::string& socketPath, const std::string& line)
{
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0) return std::nullopt;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath.data(), std::min(socketPath.size(), sizeof address.sun_path - 1));
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(channel[0]);
        if (::setgroups(0, nullptr) != 0 || ::setgid(20) != 0 || ::setuid(uid) != 0) ::_exit(2);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) ::_exit(3);
        // A refused client may find the socket closed before its request
        // is written; the daemon's answer is still there to read.
        (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
        char byte;
        while (::read(fd, &byte, 1) == 1) {
            if (::write(channel[1], &byte, 1) != 1 || byte == '\n') break;
        }
        ::_exit(0);
    }
    ::close(channel[1]);
    if (child < 0) {
        ::close(channel[0]);
        return std::nullopt;
    }
    std::string answer;
    char chunk[4096];
    for (ssize_t n; (n = ::read(channel[0], chunk, sizeof chunk)) > 0;) answer.append(chunk, static_cast<std::size_t>(n));
    ::close(channel[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || answer.empty()) return std::nullopt;
    return json::parse(answer, nullptr, false);
}

DaemonProcess::DaemonProcess(const std::string& root, std::string socketPath, std::string logPath,
                             std::vector<std::uint32_t> allowedUIDs, std::vector<std::string> moreArguments)
    : socketPath_(std::move(socketPath)), logPath_(std::move(logPath))
{
    std::vector<std::string> arguments{ORVEN_HELPER_PATH, "--root", root, "--socket", socketPath_};
    for (const auto uid : allowedUIDs) {
        arguments.emplace_back("--allow-uid");
        arguments.push_back(std::to_string(uid));
    }
    arguments.insert(arguments.end(), moreArguments.begin(), moreArguments.end());
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const int log = ::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(log, STDERR_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(log);
}

DaemonProcess::~DaemonProcess()
{
    if (running()) {
        ::kill(pid_, SIGKILL);
        wait();
    }
}

bool DaemonProcess::waitUntilListening()
{
    return waitUntil([this] {
        if (exitedNow()) return true;
        return SocketClient::connect(socketPath_).has_value();
    }) && running();
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds patience)
{
    waitUntil([this] { return exitedNow(); }, patience);
    return status_;
}

int DaemonProcess::wait()
{
    int status = 0;
    ::waitpid(pid_, &status, 0);
    status_ = status;
    return status;
}

std::string DaemonProcess::log() const
{
    std::ifstream file(logPath_);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

bool DaemonProcess::exitedNow()
{
    if (status_) return true;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
    return status_.has_value();
}

} // namespace orven::testing
