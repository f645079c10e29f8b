// SCDynamicStore: sessions with the configuration daemon's dynamic store.
// https://developer.apple.com/documentation/systemconfiguration/scdynamicstore
// https://developer.apple.com/documentation/systemconfiguration/scdynamicstorecreate(_:_:_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scdynamicstorecopyvalue(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scdynamicstorecopymultiple(_:_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scdynamicstorecopykeylist(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scdynamicstorecallback
// https://developer.apple.com/documentation/systemconfiguration/scdynamicstorecontext

#pragma once

#include <CoreFoundation/CoreFoundation.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef const struct CF_BRIDGED_TYPE(id) __SCDynamicStore *SCDynamicStoreRef;

typedef struct {
    CFIndex version;
    void *_Nullable info;
    const void *_Nonnull (*_Nullable retain)(const void *info);
    void (*_Nullable release)(const void *info);
    CFStringRef _Nonnull (*_Nullable copyDescription)(const void *info);
} SCDynamicStoreContext;

typedef void (*SCDynamicStoreCallBack)(SCDynamicStoreRef store, CFArrayRef changedKeys, void *_Nullable info);

CFTypeID SCDynamicStoreGetTypeID(void) API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);

SCDynamicStoreRef _Nullable SCDynamicStoreCreate(CFAllocatorRef _Nullable allocator, CFStringRef name,
                                                 SCDynamicStoreCallBack _Nullable callout,
                                                 SCDynamicStoreContext *_Nullable context)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);

SCDynamicStoreRef _Nullable SCDynamicStoreCreateWithOptions(CFAllocatorRef _Nullable allocator, CFStringRef name,
                                                            CFDictionaryRef _Nullable storeOptions,
                                                            SCDynamicStoreCallBack _Nullable callout,
                                                            SCDynamicStoreContext *_Nullable context)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

CFArrayRef _Nullable SCDynamicStoreCopyKeyList(SCDynamicStoreRef _Nullable store, CFStringRef pattern)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);

CFPropertyListRef _Nullable SCDynamicStoreCopyValue(SCDynamicStoreRef _Nullable store, CFStringRef key)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);

CFDictionaryRef _Nullable SCDynamicStoreCopyMultiple(SCDynamicStoreRef _Nullable store, CFArrayRef _Nullable keys,
                                                     CFArrayRef _Nullable patterns)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);

Boolean SCDynamicStoreSetNotificationKeys(SCDynamicStoreRef store, CFArrayRef _Nullable keys,
                                          CFArrayRef _Nullable patterns)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
