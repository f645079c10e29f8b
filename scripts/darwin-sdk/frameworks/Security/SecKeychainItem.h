// Items of a file keychain (deprecated with SecKeychain).
// https://developer.apple.com/documentation/security/seckeychainitemcopyaccess(_:_:)
// https://developer.apple.com/documentation/security/seckeychainitemdelete(_:)

#pragma once

#include <Security/SecBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

OSStatus SecKeychainItemCopyAccess(SecKeychainItemRef itemRef,
                                   SecAccessRef _Nullable *_Nonnull CF_RETURNS_RETAINED access)
    API_DEPRECATED("SecKeychain is deprecated", macos(10.2, 10.10)) API_UNAVAILABLE(ios);

OSStatus SecKeychainItemDelete(SecKeychainItemRef itemRef)
    API_DEPRECATED("SecKeychain is deprecated", macos(10.2, 10.10)) API_UNAVAILABLE(ios);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
