#include "SocketClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace orven {

std::optional<SocketClient> SocketClient::connect(const std::string& path, std::string* error)
{
    const auto failed = [error](std::string reason) -> std::optional<SocketClient> {
        if (error) *error = std::move(reason);
        return std::nullopt;
    };
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return failed("socket path too long: " + path);
    std::memcpy(address.sun_path, path.data(), path.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return failed(std::string("socket: ") + std::strerror(errno));
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int reason = errno;
        ::close(fd);
        return failed("cannot connect to " + path + ": " + std::strerror(reason));
    }
    return SocketClient(fd);
}

SocketClient::SocketClient(SocketClient&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), buffer_(std::move(other.buffer_))
{
}

SocketClient& SocketClient::operator=(SocketClient&& other) noexcept
{
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
        buffer_ = std::move(other.buffer_);
    }
    return *this;
}

SocketClient::~SocketClient()
{
    if (fd_ >= 0) ::close(fd_);
}

bool SocketClient::send(std::string_view data)
{
    std::size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t n = ::send(fd_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

SocketClient::Line SocketClient::readLine(std::chrono::milliseconds timeout, std::size_t maxBytes)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (const auto end = buffer_.find('\n'); end != std::string::npos) {
            Line line{buffer_.substr(0, end), {}};
            buffer_.erase(0, end + 1);
            return line;
        }
        if (buffer_.size() > maxBytes) return {std::nullopt, "answer longer than " + std::to_string(maxBytes) + " bytes"};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd entry{fd_, POLLIN, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(std::clamp<long long>(left.count(), 0, 60'000)));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return {std::nullopt, std::string("poll: ") + std::strerror(errno)};
        if (ready == 0) {
            if (left.count() <= 0) return {std::nullopt, "no answer within the time-out"};
            continue;
        }
        char chunk[64 * 1024];
        const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return {std::nullopt, "the daemon closed the connection without an answer"};
        buffer_.append(chunk, static_cast<std::size_t>(n));
    }
}

SocketClient::Line SocketClient::call(std::string_view requestLine, std::chrono::milliseconds timeout)
{
    std::string data(requestLine);
    if (data.empty() || data.back() != '\n') data.push_back('\n');
    if (!send(data)) return {std::nullopt, "the daemon closed the connection"};
    return readLine(timeout);
}

} // namespace orven
