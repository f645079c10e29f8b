// <sys/sysctl.h>: sysctl(3) as macOS declares it (glibc no longer ships one).
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man3/sysctl.3.html
// https://developer.apple.com/documentation/kernel/1387446-sysctlbyname

#pragma once

#include <stddef.h>
#include <sys/types.h>
#include <sys/time.h>

#define CTL_KERN 1
#define CTL_NET 4
#define CTL_HW 6
#define KERN_OSRELEASE 2
#define KERN_HOSTNAME 10
#define KERN_PROC 14
#define KERN_BOOTTIME 21  // struct timeval
#define KERN_PROC_PID 1

#ifdef __cplusplus
extern "C" {
#endif
int sysctl(int *, u_int, void *, size_t *, void *, size_t);
int sysctlbyname(const char *, void *, size_t *, void *, size_t);
int sysctlnametomib(const char *, int *, size_t *);
#ifdef __cplusplus
}
#endif
