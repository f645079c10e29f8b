// PKCS #12 import.
// https://developer.apple.com/documentation/security/secpkcs12import(_:_:_:)
// https://developer.apple.com/documentation/security/keychain-import-and-export-options
// https://developer.apple.com/documentation/security/pkcs-12-import-item-keys
// https://developer.apple.com/documentation/security/ksecimportexportkeychain
// https://developer.apple.com/documentation/security/ksecimportexportaccess
// https://developer.apple.com/documentation/security/ksecimporttomemoryonly
// https://developer.apple.com/documentation/security/secitemimport(_:_:_:_:_:_:_:_:)
// https://developer.apple.com/documentation/security/secexternalformat
// https://developer.apple.com/documentation/security/secexternalitemtype
// https://developer.apple.com/documentation/security/secitemimportexportflags
// https://developer.apple.com/documentation/security/seckeyimportexportflags
// https://developer.apple.com/documentation/security/secitemimportexportkeyparameters
// https://developer.apple.com/documentation/security/sec_key_import_export_params_version

#pragma once

#include <Security/SecBase.h>
#include <stdint.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

extern const CFStringRef kSecImportExportPassphrase API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportExportKeychain API_AVAILABLE(macos(10.6)) API_UNAVAILABLE(ios);
extern const CFStringRef kSecImportExportAccess API_AVAILABLE(macos(10.6)) API_UNAVAILABLE(ios);

extern const CFStringRef kSecImportToMemoryOnly API_AVAILABLE(macos(15.0));

extern const CFStringRef kSecImportItemLabel API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportItemKeyID API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportItemTrust API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportItemCertChain API_AVAILABLE(macos(10.6));
extern const CFStringRef kSecImportItemIdentity API_AVAILABLE(macos(10.6));

OSStatus SecPKCS12Import(CFDataRef pkcs12_data, CFDictionaryRef options,
                         CFArrayRef _Nullable *_Nonnull CF_RETURNS_RETAINED items) API_AVAILABLE(macos(10.6));

typedef CF_ENUM(uint32_t, SecExternalFormat){
    kSecFormatUnknown = 0,      kSecFormatOpenSSL,          kSecFormatSSH,
    kSecFormatBSAFE,            kSecFormatRawKey,           kSecFormatWrappedPKCS8,
    kSecFormatWrappedOpenSSL,   kSecFormatWrappedSSH,       kSecFormatWrappedLSH,
    kSecFormatX509Cert,         kSecFormatPEMSequence,      kSecFormatPKCS7,
    kSecFormatPKCS12,           kSecFormatNetscapeCertSequence, kSecFormatSSHv2,
};

typedef CF_ENUM(uint32_t, SecExternalItemType){
    kSecItemTypeUnknown,    kSecItemTypePrivateKey,  kSecItemTypePublicKey,
    kSecItemTypeSessionKey, kSecItemTypeCertificate, kSecItemTypeAggregate,
};

typedef CF_OPTIONS(uint32_t, SecItemImportExportFlags){
    kSecItemPemArmour = 0x00000001,
};

typedef CF_OPTIONS(uint32_t, SecKeyImportExportFlags){
    kSecKeyImportOnlyOne = 0x00000001,
    kSecKeySecurePassphrase = 0x00000002,
    kSecKeyNoAccessControl = 0x00000004,
};

#define SEC_KEY_IMPORT_EXPORT_PARAMS_VERSION 0

typedef struct {
    uint32_t version;
    SecKeyImportExportFlags flags;
    CFTypeRef _Nullable passphrase;
    CFStringRef _Nullable alertTitle;
    CFStringRef _Nullable alertPrompt;
    SecAccessRef _Nullable accessRef;
    CFArrayRef _Nullable keyUsage;
    CFArrayRef _Nullable keyAttributes;
} SecItemImportExportKeyParameters;

OSStatus SecItemImport(CFDataRef importedData, CFStringRef _Nullable fileNameOrExtension,
                       SecExternalFormat *_Nullable inputFormat, SecExternalItemType *_Nullable itemType,
                       SecItemImportExportFlags flags, const SecItemImportExportKeyParameters *_Nullable keyParams,
                       SecKeychainRef _Nullable importKeychain,
                       CFArrayRef _Nullable *_Nullable CF_RETURNS_RETAINED outItems) API_AVAILABLE(macos(10.7))
    API_UNAVAILABLE(ios);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
