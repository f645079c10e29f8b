#include "ChildExitWatch.h"

#include <sys/event.h>
#include <sys/types.h>
#include <fcntl.h>
#include <unistd.h>

namespace orven {

// A kqueue is readable while it holds an event not yet collected, so one
// registered for the child's NOTE_EXIT serves poll(2) as a pidfd does on
// Linux. Registration fails with ESRCH when the child has already exited;
// the descriptor then stays -1 and the runner's first look finds the exit.
ChildExitWatch::ChildExitWatch(pid_t pid) noexcept
{
    const int queue = ::kqueue();
    if (queue < 0) return;
    ::fcntl(queue, F_SETFD, FD_CLOEXEC);
    struct kevent change;
    EV_SET(&change, static_cast<uintptr_t>(pid), EVFILT_PROC, EV_ADD | EV_ONESHOT, NOTE_EXIT, 0, nullptr);
    if (::kevent(queue, &change, 1, nullptr, 0, nullptr) != 0) {
        ::close(queue);
        return;
    }
    descriptor_ = queue;
}

ChildExitWatch::~ChildExitWatch()
{
    if (descriptor_ >= 0) ::close(descriptor_);
}

} // namespace orven
