// SCPreferences: sessions with the stored (persistent) configuration.
// https://developer.apple.com/documentation/systemconfiguration/scpreferences
// https://developer.apple.com/documentation/systemconfiguration/scpreferencescreate(_:_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferenceslock(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencescommitchanges(_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencesapplychanges(_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencesunlock(_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencessynchronize(_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencesgetvalue(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencessetvalue(_:_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencesremovevalue(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencescopykeylist(_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencespathgetvalue(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencespathsetvalue(_:_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scpreferencespathremovevalue(_:_:)

#pragma once

#include <CoreFoundation/CoreFoundation.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef const struct CF_BRIDGED_TYPE(id) __SCPreferences *SCPreferencesRef;

CFTypeID SCPreferencesGetTypeID(void) API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

SCPreferencesRef _Nullable SCPreferencesCreate(CFAllocatorRef _Nullable allocator, CFStringRef name,
                                               CFStringRef _Nullable prefsID)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);

Boolean SCPreferencesLock(SCPreferencesRef prefs, Boolean wait)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCPreferencesCommitChanges(SCPreferencesRef prefs)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCPreferencesApplyChanges(SCPreferencesRef prefs)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCPreferencesUnlock(SCPreferencesRef prefs)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);
void SCPreferencesSynchronize(SCPreferencesRef prefs) API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

CFArrayRef _Nullable SCPreferencesCopyKeyList(SCPreferencesRef prefs)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);
CFPropertyListRef _Nullable SCPreferencesGetValue(SCPreferencesRef prefs, CFStringRef key)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCPreferencesSetValue(SCPreferencesRef prefs, CFStringRef key, CFPropertyListRef value)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCPreferencesRemoveValue(SCPreferencesRef prefs, CFStringRef key)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);

// SCPreferencesPath.h
CFDictionaryRef _Nullable SCPreferencesPathGetValue(SCPreferencesRef prefs, CFStringRef path)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCPreferencesPathSetValue(SCPreferencesRef prefs, CFStringRef path, CFDictionaryRef value)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCPreferencesPathRemoveValue(SCPreferencesRef prefs, CFStringRef path)
    API_AVAILABLE(macos(10.1)) API_UNAVAILABLE(ios, tvos, watchos);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
