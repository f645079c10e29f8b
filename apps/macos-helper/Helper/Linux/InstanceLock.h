#pragma once
// An exclusive lock on a file, held for the life of the process (or of the
// object): one daemon per simulated Mac and per socket path.

#include <optional>
#include <string>
#include <variant>

namespace orven {

class InstanceLock {
public:
    // Creates `path` if needed and locks it without waiting; records this
    // process's id in it. An error text when another process holds it
    // (naming that process when the file does) or it cannot be made.
    static std::variant<InstanceLock, std::string> acquire(const std::string& path);

    InstanceLock(InstanceLock&& other) noexcept;
    InstanceLock& operator=(InstanceLock&& other) noexcept;
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;
    ~InstanceLock();

private:
    explicit InstanceLock(int fd) : fd_(fd) {}
    int fd_ = -1;
};

} // namespace orven
