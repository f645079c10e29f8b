#pragma once
// The client side of the Linux host's socket: one JSON object a line each
// way. Used by orvenctl, the end-to-end tests and the benchmarks.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace orven {

class SocketClient {
public:
    // Connects to the daemon's socket; absent with `error` set when it cannot.
    static std::optional<SocketClient> connect(const std::string& path, std::string* error = nullptr);

    SocketClient(SocketClient&& other) noexcept;
    SocketClient& operator=(SocketClient&& other) noexcept;
    SocketClient(const SocketClient&) = delete;
    SocketClient& operator=(const SocketClient&) = delete;
    ~SocketClient();

    // Sends all of `data`; false when the daemon has gone.
    bool send(std::string_view data);

    struct Line {
        std::optional<std::string> text;  // without the line feed
        std::string error;                // why there is none
    };
    // The next line, waiting at most `timeout`; lines longer than `maxBytes`
    // are an error.
    Line readLine(std::chrono::milliseconds timeout, std::size_t maxBytes = std::size_t{64} << 20);

    // Sends one request line and reads the answer line.
    Line call(std::string_view requestLine, std::chrono::milliseconds timeout);

private:
    explicit SocketClient(int fd) : fd_(fd) {}

    int fd_ = -1;
    std::string buffer_;
};

} // namespace orven
