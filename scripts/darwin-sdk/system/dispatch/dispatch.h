// <dispatch/dispatch.h>: the parts of Grand Central Dispatch declared here.
// https://developer.apple.com/documentation/dispatch/1452860-dispatch_main
// https://developer.apple.com/documentation/dispatch/1453057-dispatch_async
// https://developer.apple.com/documentation/dispatch/1453030-dispatch_queue_create
// https://developer.apple.com/documentation/dispatch/1452927-dispatch_get_global_queue
// https://developer.apple.com/documentation/dispatch/1420519-dispatch_time
// https://developer.apple.com/documentation/dispatch/1452876-dispatch_after

#pragma once

#include <os/availability.h>
#include <os/object.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

OS_OBJECT_DECL(dispatch_object);
OS_OBJECT_DECL_SUBCLASS(dispatch_queue, dispatch_object);
OS_OBJECT_DECL_SUBCLASS(dispatch_queue_attr, dispatch_object);

typedef void (^dispatch_block_t)(void);
typedef uint64_t dispatch_time_t;
typedef long dispatch_queue_priority_t;

#define DISPATCH_TIME_NOW (0ull)
#define DISPATCH_TIME_FOREVER (~0ull)
#define NSEC_PER_SEC 1000000000ull
#define NSEC_PER_MSEC 1000000ull
#define DISPATCH_QUEUE_SERIAL ((dispatch_queue_attr_t)0)
#define DISPATCH_QUEUE_PRIORITY_DEFAULT 0
#define QOS_CLASS_USER_INITIATED 0x19
#define QOS_CLASS_DEFAULT 0x15
#define QOS_CLASS_UTILITY 0x11

// Runs the blocks submitted to the main queue; never returns.
__attribute__((noreturn)) void dispatch_main(void) API_AVAILABLE(macos(10.6));

extern struct dispatch_queue_s _dispatch_main_q;
#define dispatch_get_main_queue() OS_OBJECT_GLOBAL_OBJECT(dispatch_queue_t, _dispatch_main_q)

dispatch_queue_t _Nonnull dispatch_get_global_queue(intptr_t identifier, uintptr_t flags) API_AVAILABLE(macos(10.6));
dispatch_queue_t _Nonnull dispatch_queue_create(const char *_Nullable label, dispatch_queue_attr_t _Nullable attr)
    OS_OBJECT_RETURNS_RETAINED API_AVAILABLE(macos(10.6));
void dispatch_async(dispatch_queue_t _Nonnull queue, dispatch_block_t _Nonnull block) API_AVAILABLE(macos(10.6));
void dispatch_sync(dispatch_queue_t _Nonnull queue, __attribute__((noescape)) dispatch_block_t _Nonnull block)
    API_AVAILABLE(macos(10.6));
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) API_AVAILABLE(macos(10.6));
void dispatch_after(dispatch_time_t when, dispatch_queue_t _Nonnull queue, dispatch_block_t _Nonnull block)
    API_AVAILABLE(macos(10.6));

#ifdef __cplusplus
}
#endif
