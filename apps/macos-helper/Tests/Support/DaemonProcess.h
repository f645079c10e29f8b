#pragma once
// Test support for the daemon as a process: started on a simulated Mac,
// reached over its socket the way clients reach it, each client with its own
// user id.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Linux/SocketClient.h"

namespace orven::testing {

inline constexpr auto kPatience = std::chrono::seconds(60);

// One request line, with its line feed.
std::string request(const std::string& selector, nlohmann::json arguments = nlohmann::json::array(),
                    nlohmann::json id = 1);

// Waits (checking now and then) until `condition` holds or `patience` is over.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience = kPatience);

// One connection to the daemon, read line by line.
class Client {
public:
    explicit Client(const std::string& socketPath) : client_(SocketClient::connect(socketPath)) {}

    bool connected() const { return client_.has_value(); }
    // False when the daemon no longer takes data.
    bool send(const std::string& data) { return client_ && client_->send(data); }
    // The next line, or absent when the connection ended or nothing came.
    std::optional<std::string> readLine(std::chrono::milliseconds wait = kPatience)
    {
        return client_ ? client_->readLine(wait).text : std::nullopt;
    }
    // The next line, or why there is none.
    SocketClient::Line read(std::chrono::milliseconds wait = kPatience)
    {
        return client_ ? client_->readLine(wait) : SocketClient::Line{std::nullopt, "not connected"};
    }
    std::optional<nlohmann::json> call(const std::string& line);

private:
    std::optional<SocketClient> client_;
};

// A call made by a child process running as `uid`, the way another user's
// app would reach the daemon.
std::optional<nlohmann::json> callAs(std::uint32_t uid, const std::string& socketPath, const std::string& line);

// The daemon process over a simulated Mac. Its log is kept in a file.
class DaemonProcess {
public:
    DaemonProcess(const std::string& root, std::string socketPath, std::string logPath,
                  std::vector<std::uint32_t> allowedUIDs = {}, std::vector<std::string> moreArguments = {});
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0 && !status_; }

    // True once a client can connect.
    bool waitUntilListening();
    // The exit status, once the process has ended by itself.
    std::optional<int> waitForExit(std::chrono::milliseconds patience = kPatience);
    int wait();
    std::string log() const;

private:
    bool exitedNow();

    pid_t pid_ = -1;
    std::string socketPath_;
    std::string logPath_;
    std::optional<int> status_;
};

} // namespace orven::testing
