#pragma once
// Turns a child's exit into a descriptor that poll(2) can wait on beside the
// child's pipes, so the bounded runner sleeps until there is something to do
// instead of looking at the child on a timer. A pidfd on Linux, a kqueue with
// EVFILT_PROC on macOS; both are pollable.

#include <sys/types.h>

namespace orven {

class ChildExitWatch {
public:
    // `pid` must be a child of this process that has not been reaped yet, so
    // that its identifier cannot have been reused.
    explicit ChildExitWatch(pid_t pid) noexcept;
    ~ChildExitWatch();
    ChildExitWatch(const ChildExitWatch&) = delete;
    ChildExitWatch& operator=(const ChildExitWatch&) = delete;

    // Becomes readable (POLLIN) once the child has exited, and stays so.
    // -1 when the system cannot give one (a kernel without pidfd_open, no
    // descriptors left, a child already gone): the caller must then look with
    // waitpid(WNOHANG) on a short interval.
    int descriptor() const noexcept { return descriptor_; }

private:
    int descriptor_ = -1;
};

} // namespace orven
