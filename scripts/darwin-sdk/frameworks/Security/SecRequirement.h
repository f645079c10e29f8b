// Code requirements: compiling the text form of a requirement.
// https://developer.apple.com/documentation/security/secrequirementcreatewithstring(_:_:_:)
// https://developer.apple.com/documentation/security/secrequirementcreatewithstringanderrors(_:_:_:_:)
// https://developer.apple.com/documentation/security/secrequirementgettypeid()
// https://developer.apple.com/documentation/security/secrequirementcopystring(_:_:_:)

#pragma once

#include <Security/CSCommon.h>

CF_EXTERN_C_BEGIN
CF_ASSUME_NONNULL_BEGIN

CFTypeID SecRequirementGetTypeID(void) API_AVAILABLE(macos(10.5));

OSStatus SecRequirementCreateWithString(CFStringRef text, SecCSFlags flags,
                                        SecRequirementRef _Nullable *_Nonnull CF_RETURNS_RETAINED requirement)
    API_AVAILABLE(macos(10.5));

OSStatus SecRequirementCreateWithStringAndErrors(CFStringRef text, SecCSFlags flags,
                                                 CFErrorRef _Nullable *_Nullable errors,
                                                 SecRequirementRef _Nullable *_Nonnull CF_RETURNS_RETAINED requirement)
    API_AVAILABLE(macos(10.5));

OSStatus SecRequirementCopyString(SecRequirementRef requirement, SecCSFlags flags,
                                  CFStringRef _Nullable *_Nonnull CF_RETURNS_RETAINED text) API_AVAILABLE(macos(10.5));

CF_ASSUME_NONNULL_END
CF_EXTERN_C_END
