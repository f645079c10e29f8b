// <pthread.h>: macOS names only the calling thread (one argument); glibc's
// two-argument form is GNU-only and hidden here.
// https://developer.apple.com/documentation/kernel/1584009-pthread_setname_np
// Also absent on macOS: pthread_mutex_timedlock and pthread_condattr_setclock.

#pragma once

#include_next <pthread.h>
#include <os/availability.h>

#ifdef __cplusplus
extern "C" {
#endif
int pthread_setname_np(const char *) API_AVAILABLE(macos(10.6));
int pthread_mutex_timedlock(pthread_mutex_t *__restrict, const struct timespec *__restrict) __THROWNL
    __attribute__((unavailable("pthread_mutex_timedlock does not exist on macOS")));
int pthread_condattr_setclock(pthread_condattr_t *, __clockid_t) __THROW
    __attribute__((unavailable("pthread_condattr_setclock does not exist on macOS")));
#ifdef __cplusplus
}
#endif
