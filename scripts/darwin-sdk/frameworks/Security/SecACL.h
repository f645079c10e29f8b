// Access list entries (deprecated with SecKeychain).
// https://developer.apple.com/documentation/security/secaclcopycontents(_:_:_:_:)
// https://developer.apple.com/documentation/security/seckeychainpromptselector

#pragma once

#include <Security/SecBase.h>
#include <stdint.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef CF_OPTIONS(uint16_t, SecKeychainPromptSelector){
    kSecKeychainPromptRequirePassphase = 0x0001,
    kSecKeychainPromptUnsigned = 0x0010,
    kSecKeychainPromptUnsignedAct = 0x0020,
    kSecKeychainPromptInvalid = 0x0040,
    kSecKeychainPromptInvalidAct = 0x0080,
};

// applicationList: of SecTrustedApplicationRef; NULL on return means any
// program may use the item.
OSStatus SecACLCopyContents(SecACLRef acl, CFArrayRef _Nullable *_Nonnull CF_RETURNS_RETAINED applicationList,
                            CFStringRef _Nullable *_Nonnull CF_RETURNS_RETAINED description,
                            SecKeychainPromptSelector *promptSelector)
    API_DEPRECATED("SecKeychain is deprecated", macos(10.7, 10.10)) API_UNAVAILABLE(ios);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
