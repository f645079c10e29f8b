// <os/availability.h>: API_AVAILABLE and friends, as clang attributes, so a
// call to an API newer than the deployment target (macOS 13) is reported
// (-Wunguarded-availability-new) unless guarded by @available.
// https://developer.apple.com/documentation/swift/marking-api-availability-in-objective-c
// Only the macOS argument matters here; the others expand to nothing.

#pragma once

#define ORVEN_SDK_EACH_1(m, a) m##a
#define ORVEN_SDK_EACH_2(m, a, ...) m##a ORVEN_SDK_EACH_1(m, __VA_ARGS__)
#define ORVEN_SDK_EACH_3(m, a, ...) m##a ORVEN_SDK_EACH_2(m, __VA_ARGS__)
#define ORVEN_SDK_EACH_4(m, a, ...) m##a ORVEN_SDK_EACH_3(m, __VA_ARGS__)
#define ORVEN_SDK_EACH_5(m, a, ...) m##a ORVEN_SDK_EACH_4(m, __VA_ARGS__)
#define ORVEN_SDK_EACH_6(m, a, ...) m##a ORVEN_SDK_EACH_5(m, __VA_ARGS__)
#define ORVEN_SDK_PICK(_1, _2, _3, _4, _5, _6, name, ...) name
#define ORVEN_SDK_EACH(m, ...)                                                                                      \
    ORVEN_SDK_PICK(__VA_ARGS__, ORVEN_SDK_EACH_6, ORVEN_SDK_EACH_5, ORVEN_SDK_EACH_4, ORVEN_SDK_EACH_3,            \
                   ORVEN_SDK_EACH_2, ORVEN_SDK_EACH_1)(m, __VA_ARGS__)

#define ORVEN_SDK_AVAILABLE_macos(v) __attribute__((availability(macos, introduced = v)))
#define ORVEN_SDK_AVAILABLE_macosx(v) __attribute__((availability(macos, introduced = v)))
#define ORVEN_SDK_AVAILABLE_ios(v)
#define ORVEN_SDK_AVAILABLE_macCatalyst(v)
#define ORVEN_SDK_AVAILABLE_tvos(v)
#define ORVEN_SDK_AVAILABLE_watchos(v)
#define ORVEN_SDK_AVAILABLE_visionos(v)

#define ORVEN_SDK_UNAVAILABLE_macos __attribute__((availability(macos, unavailable)))
#define ORVEN_SDK_UNAVAILABLE_macosx __attribute__((availability(macos, unavailable)))
#define ORVEN_SDK_UNAVAILABLE_ios
#define ORVEN_SDK_UNAVAILABLE_macCatalyst
#define ORVEN_SDK_UNAVAILABLE_tvos
#define ORVEN_SDK_UNAVAILABLE_watchos
#define ORVEN_SDK_UNAVAILABLE_visionos

#define ORVEN_SDK_DEPRECATED_macos(introduced, deprecated)                                                          \
    __attribute__((availability(macos, introduced = introduced, deprecated = deprecated)))
#define ORVEN_SDK_DEPRECATED_ios(introduced, deprecated)

#undef API_AVAILABLE
#undef API_UNAVAILABLE
#undef API_DEPRECATED
#define API_AVAILABLE(...) ORVEN_SDK_EACH(ORVEN_SDK_AVAILABLE_, __VA_ARGS__)
#define API_UNAVAILABLE(...) ORVEN_SDK_EACH(ORVEN_SDK_UNAVAILABLE_, __VA_ARGS__)
// API_DEPRECATED("message", macos(10.0, 12.0), ...)
#define API_DEPRECATED(message, ...) __attribute__((deprecated(message)))
