// <time.h>: what glibc declares and macOS does not have (no POSIX timers, no
// clock_nanosleep); clock_gettime and the CLOCK_ ids macOS has are glibc's.
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man3/clock_gettime.3.html

#pragma once

#include_next <time.h>

#ifdef __cplusplus
extern "C" {
int clock_nanosleep(clockid_t, int, const struct timespec *, struct timespec *)
    __attribute__((unavailable("clock_nanosleep does not exist on macOS")));
int timer_create(clockid_t, struct sigevent *__restrict, timer_t *__restrict) __THROW
    __attribute__((unavailable("POSIX timers do not exist on macOS; use a dispatch source")));
}
#endif
#undef CLOCK_BOOTTIME
#define CLOCK_BOOTTIME CLOCK_BOOTTIME_does_not_exist_on_macOS
