// Core Foundation's base types and memory management.
// https://developer.apple.com/documentation/corefoundation/cftype
// https://developer.apple.com/documentation/corefoundation/cfrelease
// https://developer.apple.com/documentation/corefoundation/cfretain
// https://developer.apple.com/documentation/corefoundation/cfgettypeid
// https://developer.apple.com/documentation/corefoundation/kcfallocatordefault
// Declared as Apple does: bridged object types (so a bridge cast to the wrong
// Objective-C class is reported), nullability audited, Create/Copy returning
// +1 references (for ARC and the static analyzer).

#pragma once

#include <MacTypes.h>
#include <os/availability.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__cplusplus)
#define CF_EXTERN_C_BEGIN extern "C" {
#define CF_EXTERN_C_END }
#else
#define CF_EXTERN_C_BEGIN
#define CF_EXTERN_C_END
#endif
#define CF_EXPORT extern
#define CF_INLINE static inline

#define CF_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define CF_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
#define CF_IMPLICIT_BRIDGING_ENABLED _Pragma("clang arc_cf_code_audited begin")
#define CF_IMPLICIT_BRIDGING_DISABLED _Pragma("clang arc_cf_code_audited end")
#define CF_RETURNS_RETAINED __attribute__((cf_returns_retained))
#define CF_RETURNS_NOT_RETAINED __attribute__((cf_returns_not_retained))
#define CF_RELEASES_ARGUMENT __attribute__((cf_consumed))
#define CF_BRIDGED_TYPE(T) __attribute__((objc_bridge(T)))
#define CF_BRIDGED_MUTABLE_TYPE(T) __attribute__((objc_bridge_mutable(T)))
#define CF_RELATED_TYPE(T, C, I) __attribute__((objc_bridge_related(T, C, I)))
#define CF_ENUM(T, N) enum N : T N; enum N : T
// In C++, CFAvailability.h makes an options type its integer type, so that
// options combine with | and a plain 0 means none, without casts.
// https://developer.apple.com/documentation/swift/grouping-related-objective-c-constants
#if defined(__cplusplus)
#define CF_OPTIONS(T, N) T N; enum : T
#else
#define CF_OPTIONS(T, N) enum N : T N; enum N : T
#endif
#define CF_SWIFT_NAME(N)
#define CF_NOESCAPE __attribute__((noescape))

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef unsigned long CFTypeID;
typedef unsigned long CFOptionFlags;
typedef unsigned long CFHashCode;
typedef signed long CFIndex;

typedef const CF_BRIDGED_TYPE(id) void *CFTypeRef;
typedef const struct CF_BRIDGED_TYPE(NSString) __CFString *CFStringRef;
typedef struct CF_BRIDGED_MUTABLE_TYPE(NSMutableString) __CFString *CFMutableStringRef;
typedef CFTypeRef CFPropertyListRef;
typedef const struct CF_BRIDGED_TYPE(id) __CFAllocator *CFAllocatorRef;
typedef const struct CF_BRIDGED_TYPE(NSNull) __CFNull *CFNullRef;

typedef struct {
    CFIndex location;
    CFIndex length;
} CFRange;

CF_INLINE CFRange CFRangeMake(CFIndex loc, CFIndex len)
{
    CFRange range;
    range.location = loc;
    range.length = len;
    return range;
}

typedef CF_ENUM(CFIndex, CFComparisonResult){
    kCFCompareLessThan = -1L,
    kCFCompareEqualTo = 0,
    kCFCompareGreaterThan = 1,
};

CF_ASSUME_NONNULL_END

// NULL: the default allocator (imported into Swift as implicitly unwrapped).
CF_EXPORT const CFAllocatorRef kCFAllocatorDefault;
CF_EXPORT const CFAllocatorRef kCFAllocatorSystemDefault;
CF_EXPORT const CFAllocatorRef kCFAllocatorNull;

CF_ASSUME_NONNULL_BEGIN

CF_EXPORT CFTypeID CFGetTypeID(CFTypeRef cf);
CF_EXPORT CFTypeRef CFRetain(CFTypeRef cf);
CF_EXPORT void CFRelease(CFTypeRef cf);
CF_EXPORT CFTypeRef _Nullable CFAutorelease(CFTypeRef CF_RELEASES_ARGUMENT arg) API_AVAILABLE(macos(10.9));
CF_EXPORT CFIndex CFGetRetainCount(CFTypeRef cf);
CF_EXPORT Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2);
CF_EXPORT CFHashCode CFHash(CFTypeRef cf);
CF_EXPORT CFStringRef CFCopyDescription(CFTypeRef cf);
CF_EXPORT CFAllocatorRef CFGetAllocator(CFTypeRef cf);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END

#if defined(__OBJC__) && __has_feature(objc_arc)
// Apple's CFBridgingRetain/CFBridgingRelease, for moving ownership across ARC.
// https://developer.apple.com/documentation/foundation/1587932-cfbridgingrelease
@class NSObject;
#define CFBridgingRetain(X) ((__bridge_retained CFTypeRef)(X))
#define CFBridgingRelease(X) ((__bridge_transfer id)(X))
#endif
