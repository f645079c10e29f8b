// Trusted applications: the programs an access list names (deprecated with
// SecKeychain).
// https://developer.apple.com/documentation/security/sectrustedapplicationcreatefrompath(_:_:)
// https://developer.apple.com/documentation/security/sectrustedapplicationcopydata(_:_:)

#pragma once

#include <Security/SecBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

// path: NULL names the calling program.
OSStatus SecTrustedApplicationCreateFromPath(const char *_Nullable path,
                                             SecTrustedApplicationRef _Nullable *_Nonnull CF_RETURNS_RETAINED app)
    API_DEPRECATED("SecKeychain is deprecated", macos(10.0, 10.10)) API_UNAVAILABLE(ios);

OSStatus SecTrustedApplicationCopyData(SecTrustedApplicationRef appRef,
                                       CFDataRef _Nullable *_Nonnull CF_RETURNS_RETAINED data)
    API_DEPRECATED("SecKeychain is deprecated", macos(10.0, 10.10)) API_UNAVAILABLE(ios);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
