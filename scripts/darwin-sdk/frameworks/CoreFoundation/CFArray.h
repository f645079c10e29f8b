// CFArray.
// https://developer.apple.com/documentation/corefoundation/cfarray
// https://developer.apple.com/documentation/corefoundation/1388741-cfarraycreate
// https://developer.apple.com/documentation/corefoundation/1388772-cfarraygetcount
// https://developer.apple.com/documentation/corefoundation/1388767-cfarraygetvalueatindex
// https://developer.apple.com/documentation/corefoundation/kcftypearraycallbacks

#pragma once

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef const void *_Nonnull (*CFArrayRetainCallBack)(CFAllocatorRef _Nullable allocator, const void *value);
typedef void (*CFArrayReleaseCallBack)(CFAllocatorRef _Nullable allocator, const void *value);
typedef CFStringRef _Nonnull (*CFArrayCopyDescriptionCallBack)(const void *value);
typedef Boolean (*CFArrayEqualCallBack)(const void *value1, const void *value2);
typedef struct {
    CFIndex version;
    CFArrayRetainCallBack _Nullable retain;
    CFArrayReleaseCallBack _Nullable release;
    CFArrayCopyDescriptionCallBack _Nullable copyDescription;
    CFArrayEqualCallBack _Nullable equal;
} CFArrayCallBacks;

CF_EXPORT const CFArrayCallBacks kCFTypeArrayCallBacks;

typedef const struct CF_BRIDGED_TYPE(NSArray) __CFArray *CFArrayRef;
typedef struct CF_BRIDGED_MUTABLE_TYPE(NSMutableArray) __CFArray *CFMutableArrayRef;

CF_EXPORT CFTypeID CFArrayGetTypeID(void);
CF_EXPORT CFArrayRef CFArrayCreate(CFAllocatorRef _Nullable allocator, const void *_Nullable *_Nullable values,
                                   CFIndex numValues, const CFArrayCallBacks *_Nullable callBacks);
CF_EXPORT CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef _Nullable allocator, CFIndex capacity,
                                                 const CFArrayCallBacks *_Nullable callBacks);
CF_EXPORT CFIndex CFArrayGetCount(CFArrayRef theArray);
CF_EXPORT const void *CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx);
CF_EXPORT void CFArrayAppendValue(CFMutableArrayRef theArray, const void *value);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
