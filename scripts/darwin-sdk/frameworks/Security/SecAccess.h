// Access instances: the access lists of file keychain items (deprecated with
// SecKeychain).
// https://developer.apple.com/documentation/security/secaccesscreate(_:_:_:)
// https://developer.apple.com/documentation/security/secaccesscopymatchingacllist(_:_:)

#pragma once

#include <Security/SecBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

// trustedlist: of SecTrustedApplicationRef; NULL trusts only the caller.
OSStatus SecAccessCreate(CFStringRef descriptor, CFArrayRef _Nullable trustedlist,
                         SecAccessRef _Nullable *_Nonnull CF_RETURNS_RETAINED accessRef)
    API_DEPRECATED("SecKeychain is deprecated", macos(10.2, 10.10)) API_UNAVAILABLE(ios);

// Of SecACLRef.
CFArrayRef _Nullable SecAccessCopyMatchingACLList(SecAccessRef accessRef, CFTypeRef authorizationTag)
    API_DEPRECATED("SecKeychain is deprecated", macos(10.7, 10.10)) API_UNAVAILABLE(ios);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
