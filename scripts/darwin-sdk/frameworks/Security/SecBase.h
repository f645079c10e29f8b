// The Security framework's base: result codes.
// https://developer.apple.com/documentation/security/security-framework-result-codes
// https://developer.apple.com/documentation/security/errsecsuccess
// https://developer.apple.com/documentation/security/seccopyerrormessagestring(_:_:)

#pragma once

#include <CoreFoundation/CoreFoundation.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

// https://developer.apple.com/documentation/security/seccertificate
// https://developer.apple.com/documentation/security/secidentity
// https://developer.apple.com/documentation/security/seckey
// https://developer.apple.com/documentation/security/secpolicy
// https://developer.apple.com/documentation/security/secaccess
// https://developer.apple.com/documentation/security/seckeychain
typedef struct CF_BRIDGED_TYPE(id) __SecCertificate *SecCertificateRef;
typedef struct CF_BRIDGED_TYPE(id) __SecIdentity *SecIdentityRef;
typedef struct CF_BRIDGED_TYPE(id) __SecKey *SecKeyRef;
typedef struct CF_BRIDGED_TYPE(id) __SecPolicy *SecPolicyRef;
typedef struct CF_BRIDGED_TYPE(id) __SecAccess *SecAccessRef;
typedef struct CF_BRIDGED_TYPE(id) __SecKeychain *SecKeychainRef;
typedef struct CF_BRIDGED_TYPE(id) __SecTrustedApplication *SecTrustedApplicationRef;
// https://developer.apple.com/documentation/security/seckeychainitem
// https://developer.apple.com/documentation/security/secacl
typedef struct CF_BRIDGED_TYPE(id) SecKeychainItem *SecKeychainItemRef;
typedef struct CF_BRIDGED_TYPE(id) __SecACL *SecACLRef;

enum {
    errSecSuccess = 0,
    errSecUnimplemented = -4,
    errSecParam = -50,
    errSecAllocate = -108,
    errSecAuthFailed = -25293,
    errSecDuplicateItem = -25299,
    errSecItemNotFound = -25300,
    errSecDecode = -26275,
};

// https://developer.apple.com/documentation/security/acl-authorization-keys
// https://developer.apple.com/documentation/security/ksecaclauthorizationsign
extern const CFStringRef kSecACLAuthorizationSign API_AVAILABLE(macos(10.7)) API_UNAVAILABLE(ios);

CFStringRef _Nullable SecCopyErrorMessageString(OSStatus status, void *_Nullable reserved)
    API_AVAILABLE(macos(10.3));

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
