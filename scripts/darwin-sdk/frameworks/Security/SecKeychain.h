// File keychains. Deprecated by Apple in favour of the data-protection
// keychain, which has no access lists of trusted programs.
// https://developer.apple.com/documentation/security/seckeychainopen(_:_:)
// https://developer.apple.com/documentation/security/seckeychainsetuserinteractionallowed(_:)

#pragma once

#include <Security/SecBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

OSStatus SecKeychainOpen(const char *pathName, SecKeychainRef _Nullable *_Nonnull CF_RETURNS_RETAINED keychain)
    API_DEPRECATED("SecKeychain is deprecated", macos(10.2, 10.10)) API_UNAVAILABLE(ios);

OSStatus SecKeychainSetUserInteractionAllowed(Boolean state)
    API_DEPRECATED("SecKeychain is deprecated", macos(10.2, 10.10)) API_UNAVAILABLE(ios);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
