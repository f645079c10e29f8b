// <os/object.h>: in Objective-C with ARC, os_log_t, dispatch_queue_t and the
// other OS objects are Objective-C objects that ARC retains and releases; in
// C++ they are plain pointers.
// https://developer.apple.com/documentation/os/os_object

#pragma once

#if defined(__OBJC__) && !defined(OS_OBJECT_USE_OBJC)
#define OS_OBJECT_USE_OBJC 1
#elif !defined(OS_OBJECT_USE_OBJC)
#define OS_OBJECT_USE_OBJC 0
#endif

#if OS_OBJECT_USE_OBJC
#import <Foundation/NSObject.h>
#define OS_OBJECT_DECL(name)                                                                                        \
    @protocol OS_##name<NSObject>                                                                                   \
    @end                                                                                                            \
    typedef NSObject<OS_##name> *__attribute__((objc_independent_class)) name##_t
#define OS_OBJECT_DECL_SUBCLASS(name, super)                                                                        \
    @protocol OS_##name<OS_##super>                                                                                 \
    @end                                                                                                            \
    typedef NSObject<OS_##name> *__attribute__((objc_independent_class)) name##_t
#define OS_OBJECT_RETURNS_RETAINED __attribute__((ns_returns_retained))
#define OS_OBJECT_GLOBAL_OBJECT(type, object) ((__bridge type)(void *)&(object))
#else
#define OS_OBJECT_DECL(name) typedef struct name##_s *name##_t
#define OS_OBJECT_DECL_SUBCLASS(name, super) typedef struct name##_s *name##_t
#define OS_OBJECT_RETURNS_RETAINED
#define OS_OBJECT_GLOBAL_OBJECT(type, object) ((type)&(object))
#endif
