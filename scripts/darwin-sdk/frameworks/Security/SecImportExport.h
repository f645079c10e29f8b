// PKCS #12 import.
// https://developer.apple.com/documentation/security/secpkcs12import(_:_:_:)
// https://developer.apple.com/documentation/security/keychain-import-and-export-options
// https://developer.apple.com/documentation/security/pkcs-12-import-item-keys
// https://developer.apple.com/documentation/security/ksecimportexportkeychain
// https://developer.apple.com/documentation/security/ksecimportexportaccess

#pragma once

#include <Security/SecBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

extern const CFStringRef kSecImportExportPassphrase API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportExportKeychain API_AVAILABLE(macos(10.6)) API_UNAVAILABLE(ios);
extern const CFStringRef kSecImportExportAccess API_AVAILABLE(macos(10.6)) API_UNAVAILABLE(ios);

extern const CFStringRef kSecImportItemLabel API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportItemKeyID API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportItemTrust API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportItemCertChain API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportItemIdentity API_AVAILABLE(macos(10.6));

OSStatus SecPKCS12Import(CFDataRef pkcs12_data, CFDictionaryRef options,
                         CFArrayRef _Nullable *_Nonnull CF_RETURNS_RETAINED items) API_AVAILABLE(macos(10.6));

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
