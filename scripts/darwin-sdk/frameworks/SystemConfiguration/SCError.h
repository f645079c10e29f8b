// The last SystemConfiguration error of the calling thread.
// https://developer.apple.com/documentation/systemconfiguration/scerror()
// https://developer.apple.com/documentation/systemconfiguration/scerrorstring(_:)
// https://developer.apple.com/documentation/systemconfiguration/sccopylasterror()

#pragma once

#include <CoreFoundation/CoreFoundation.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

CFErrorRef SCCopyLastError(void) API_AVAILABLE(macos(10.5));
int SCError(void) API_AVAILABLE(macos(10.1));
const char *SCErrorString(int status) API_AVAILABLE(macos(10.1));

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
