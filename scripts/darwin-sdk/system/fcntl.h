// <fcntl.h>: the Apple-only fcntl(2) commands.
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man2/fcntl.2.html
// Values from the macOS <sys/fcntl.h>.

#pragma once

#include_next <fcntl.h>

#define F_NOCACHE 48       // turn data caching off/on for this fd
#define F_GETPATH 50       // the path of the file the fd refers to (MAXPATHLEN buffer)
#define F_FULLFSYNC 51     // fsync and ask the drive to flush to permanent storage
#define F_SETNOSIGPIPE 73  // no SIGPIPE when writing to this fd (a pipe or socket)
#define F_GETNOSIGPIPE 74
#define F_BARRIERFSYNC 85  // fsync with an I/O barrier

// Linux-only: macOS has no such call.
extern "C" int posix_fadvise(int, off_t, off_t, int) __attribute__((unavailable("posix_fadvise does not exist on macOS")));
extern "C" int posix_fallocate(int, off_t, off_t) __attribute__((unavailable("posix_fallocate does not exist on macOS; use F_PREALLOCATE")));
