#include "ChildExitWatch.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace orven {

// A pidfd polls readable when the process exits. It is opened through the raw
// system call: glibc's wrapper is newer than some hosts we build on, and the
// call is close-on-exec by itself. ENOSYS (a kernel before 5.3) and any other
// failure leave the descriptor at -1, which the runner answers by looking.
ChildExitWatch::ChildExitWatch(pid_t pid) noexcept
{
#ifdef SYS_pidfd_open
    const long fd = ::syscall(SYS_pidfd_open, pid, 0);
    if (fd >= 0) descriptor_ = static_cast<int>(fd);
#else
    (void)pid;
#endif
}

ChildExitWatch::~ChildExitWatch()
{
    if (descriptor_ >= 0) ::close(descriptor_);
}

} // namespace orven
