// Keychain items.
// https://developer.apple.com/documentation/security/secitemadd(_:_:)
// https://developer.apple.com/documentation/security/secitemcopymatching(_:_:)
// https://developer.apple.com/documentation/security/secitemupdate(_:_:)
// https://developer.apple.com/documentation/security/secitemdelete(_:)
// https://developer.apple.com/documentation/security/item-class-keys-and-values
// https://developer.apple.com/documentation/security/item-return-result-keys
// https://developer.apple.com/documentation/security/search-attribute-keys-and-values
// https://developer.apple.com/documentation/security/ksecattrlabel
// https://developer.apple.com/documentation/security/ksecattraccess
// https://developer.apple.com/documentation/security/ksecusedataprotectionkeychain
// https://developer.apple.com/documentation/security/ksecattrapplicationlabel
// https://developer.apple.com/documentation/security/ksecattrkeytype
// https://developer.apple.com/documentation/security/ksecattrkeytypersa
// https://developer.apple.com/documentation/security/ksecattrkeytypeecsecprimerandom
// https://developer.apple.com/documentation/security/ksecattrkeyclass
// https://developer.apple.com/documentation/security/ksecattrkeyclassprivate
// https://developer.apple.com/documentation/security/ksecattrpublickeyhash
// https://developer.apple.com/documentation/security/ksecattrispermanent
// https://developer.apple.com/documentation/security/ksecattrissensitive
// https://developer.apple.com/documentation/security/ksecmatchsearchlist

#pragma once

#include <Security/SecBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

extern const CFStringRef kSecClass API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecClassGenericPassword API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecClassCertificate API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecClassKey API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecClassIdentity API_AVAILABLE(macos(10.6));

extern const CFStringRef kSecAttrLabel API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrAccount API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrService API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrApplicationTag API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrAccess API_AVAILABLE(macos(10.6)) API_UNAVAILABLE(ios);
extern const CFStringRef kSecAttrAccessGroup API_AVAILABLE(macos(10.9));
extern const CFStringRef kSecAttrApplicationLabel API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrPublicKeyHash API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrKeyClass API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrKeyClassPrivate API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrKeyType API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrKeyTypeRSA API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrKeyTypeECSECPrimeRandom API_AVAILABLE(macos(10.9));
extern const CFStringRef kSecAttrIsPermanent API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecAttrIsSensitive API_AVAILABLE(macos(10.6));

extern const CFStringRef kSecMatchSearchList API_AVAILABLE(macos(10.6));

extern const CFStringRef kSecMatchLimit API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecMatchLimitOne API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecMatchLimitAll API_AVAILABLE(macos(10.6));

extern const CFStringRef kSecReturnData API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecReturnAttributes API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecReturnRef API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecReturnPersistentRef API_AVAILABLE(macos(10.6));

extern const CFStringRef kSecValueData API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecValueRef API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecValuePersistentRef API_AVAILABLE(macos(10.6));

extern const CFStringRef kSecUseKeychain API_AVAILABLE(macos(10.7)) API_UNAVAILABLE(ios);
extern const CFStringRef kSecUseDataProtectionKeychain API_AVAILABLE(macos(10.15));

OSStatus SecItemCopyMatching(CFDictionaryRef query, CFTypeRef _Nullable *_Nullable CF_RETURNS_RETAINED result)
    API_AVAILABLE(macos(10.6));
OSStatus SecItemAdd(CFDictionaryRef attributes, CFTypeRef _Nullable *_Nullable CF_RETURNS_RETAINED result)
    API_AVAILABLE(macos(10.6));
OSStatus SecItemUpdate(CFDictionaryRef query, CFDictionaryRef attributesToUpdate) API_AVAILABLE(macos(10.6));
OSStatus SecItemDelete(CFDictionaryRef query) API_AVAILABLE(macos(10.6));

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
