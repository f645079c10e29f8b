// <signal.h>: what glibc declares and macOS does not have.
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man2/sigaction.2.html

#pragma once

#include_next <signal.h>

extern "C" {
int sigtimedwait(const sigset_t *__restrict, siginfo_t *__restrict, const struct timespec *__restrict)
    __attribute__((unavailable("sigtimedwait does not exist on macOS")));
int sigwaitinfo(const sigset_t *__restrict, siginfo_t *__restrict)
    __attribute__((unavailable("sigwaitinfo does not exist on macOS")));
int sigqueue(pid_t, int, const union sigval) __THROW __attribute__((unavailable("sigqueue does not exist on macOS")));
}
