#include "InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Text.h"

namespace orven {

std::variant<InstanceLock, std::string> InstanceLock::acquire(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return "cannot open " + path + ": " + std::strerror(errno);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        std::string holder;
        char buffer[32] = {};
        const ssize_t n = ::pread(fd, buffer, sizeof buffer - 1, 0);
        ::close(fd);
        if (error != EWOULDBLOCK) return "cannot lock " + path + ": " + std::strerror(error);
        const auto pid = text::trimWhitespaceAndNewlines(std::string_view(buffer, n > 0 ? static_cast<std::size_t>(n) : 0));
        if (!pid.empty() && text::allASCIIDigits(pid)) holder = " (pid " + pid + ")";
        return "another daemon holds " + path + holder;
    }
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        // The lock is what matters; the id in the file is a courtesy.
    }
    return InstanceLock(fd);
}

InstanceLock::InstanceLock(InstanceLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

InstanceLock& InstanceLock::operator=(InstanceLock&& other) noexcept
{
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

InstanceLock::~InstanceLock()
{
    if (fd_ >= 0) ::close(fd_);
}

} // namespace orven
