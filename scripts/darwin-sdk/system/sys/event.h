// <sys/event.h>: kqueue(2) and kevent(2).
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man2/kqueue.2.html
// Layout, filters, flags and notes from the macOS <sys/event.h>.

#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <time.h>

struct kevent {
    uintptr_t ident;  // identifier for this event
    int16_t filter;   // filter for event
    uint16_t flags;   // general flags
    uint32_t fflags;  // filter-specific flags
    intptr_t data;    // filter-specific data
    void *udata;      // opaque user data identifier
};

#define EV_SET(kevp, a, b, c, d, e, f)              \
    do {                                            \
        struct kevent *__kevp__ = (kevp);           \
        __kevp__->ident = (a);                      \
        __kevp__->filter = (int16_t)(b);            \
        __kevp__->flags = (uint16_t)(c);            \
        __kevp__->fflags = (uint32_t)(d);           \
        __kevp__->data = (intptr_t)(e);             \
        __kevp__->udata = (void *)(f);              \
    } while (0)

#define EVFILT_READ (-1)
#define EVFILT_WRITE (-2)
#define EVFILT_AIO (-3)
#define EVFILT_VNODE (-4)
#define EVFILT_PROC (-5)
#define EVFILT_SIGNAL (-6)
#define EVFILT_TIMER (-7)
#define EVFILT_MACHPORT (-8)
#define EVFILT_FS (-9)
#define EVFILT_USER (-10)
#define EVFILT_VM (-12)
#define EVFILT_EXCEPT (-15)

#define EV_ADD 0x0001
#define EV_DELETE 0x0002
#define EV_ENABLE 0x0004
#define EV_DISABLE 0x0008
#define EV_ONESHOT 0x0010
#define EV_CLEAR 0x0020
#define EV_RECEIPT 0x0040
#define EV_DISPATCH 0x0080
#define EV_ERROR 0x4000
#define EV_EOF 0x8000

// EVFILT_PROC
#define NOTE_EXIT 0x80000000U
#define NOTE_FORK 0x40000000U
#define NOTE_EXEC 0x20000000U
#define NOTE_SIGNAL 0x08000000U
#define NOTE_EXITSTATUS 0x04000000U
#define NOTE_EXIT_DETAIL 0x02000000U
#define NOTE_PDATAMASK 0x000fffffU

// EVFILT_VNODE
#define NOTE_DELETE 0x00000001U
#define NOTE_WRITE 0x00000002U
#define NOTE_EXTEND 0x00000004U
#define NOTE_ATTRIB 0x00000008U
#define NOTE_LINK 0x00000010U
#define NOTE_RENAME 0x00000020U
#define NOTE_REVOKE 0x00000040U

#ifdef __cplusplus
extern "C" {
#endif
int kqueue(void);
int kevent(int kq, const struct kevent *changelist, int nchanges, struct kevent *eventlist, int nevents,
           const struct timespec *timeout);
#ifdef __cplusplus
}
#endif
