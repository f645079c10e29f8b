// CFDictionary.
// https://developer.apple.com/documentation/corefoundation/cfdictionary
// https://developer.apple.com/documentation/corefoundation/1516741-cfdictionarygetcount
// https://developer.apple.com/documentation/corefoundation/1516716-cfdictionarygetvalue
// https://developer.apple.com/documentation/corefoundation/1516782-cfdictionarycreate

#pragma once

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef const void *_Nonnull (*CFDictionaryRetainCallBack)(CFAllocatorRef _Nullable allocator, const void *value);
typedef void (*CFDictionaryReleaseCallBack)(CFAllocatorRef _Nullable allocator, const void *value);
typedef CFStringRef _Nonnull (*CFDictionaryCopyDescriptionCallBack)(const void *value);
typedef Boolean (*CFDictionaryEqualCallBack)(const void *value1, const void *value2);
typedef CFHashCode (*CFDictionaryHashCallBack)(const void *value);
typedef struct {
    CFIndex version;
    CFDictionaryRetainCallBack _Nullable retain;
    CFDictionaryReleaseCallBack _Nullable release;
    CFDictionaryCopyDescriptionCallBack _Nullable copyDescription;
    CFDictionaryEqualCallBack _Nullable equal;
    CFDictionaryHashCallBack _Nullable hash;
} CFDictionaryKeyCallBacks;
typedef struct {
    CFIndex version;
    CFDictionaryRetainCallBack _Nullable retain;
    CFDictionaryReleaseCallBack _Nullable release;
    CFDictionaryCopyDescriptionCallBack _Nullable copyDescription;
    CFDictionaryEqualCallBack _Nullable equal;
} CFDictionaryValueCallBacks;

CF_EXPORT const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
CF_EXPORT const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;

typedef const struct CF_BRIDGED_TYPE(NSDictionary) __CFDictionary *CFDictionaryRef;
typedef struct CF_BRIDGED_MUTABLE_TYPE(NSMutableDictionary) __CFDictionary *CFMutableDictionaryRef;

CF_EXPORT CFTypeID CFDictionaryGetTypeID(void);
CF_EXPORT CFDictionaryRef CFDictionaryCreate(CFAllocatorRef _Nullable allocator,
                                             const void *_Nullable *_Nullable keys,
                                             const void *_Nullable *_Nullable values, CFIndex numValues,
                                             const CFDictionaryKeyCallBacks *_Nullable keyCallBacks,
                                             const CFDictionaryValueCallBacks *_Nullable valueCallBacks);
CF_EXPORT CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef _Nullable allocator, CFIndex capacity,
                                                           const CFDictionaryKeyCallBacks *_Nullable keyCallBacks,
                                                           const CFDictionaryValueCallBacks *_Nullable valueCallBacks);
CF_EXPORT CFIndex CFDictionaryGetCount(CFDictionaryRef theDict);
CF_EXPORT const void *_Nullable CFDictionaryGetValue(CFDictionaryRef theDict, const void *key);
CF_EXPORT void CFDictionarySetValue(CFMutableDictionaryRef theDict, const void *_Nullable key,
                                    const void *_Nullable value);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
