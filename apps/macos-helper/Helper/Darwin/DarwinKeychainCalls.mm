#include "DarwinKeychainCalls.h"

#include <unistd.h>

#include <string>

#import <Foundation/Foundation.h>
#import <Security/Security.h>

// SecKeychain, SecAccess, SecACL and SecTrustedApplication are deprecated,
// but they are still the only way to give a key in a file keychain an access
// list of trusted programs (the data-protection keychain has none), so this
// file uses them knowingly.
#pragma clang diagnostic ignored "-Wdeprecated-declarations"

namespace orven {

namespace {

// Takes over a reference from a Create or Copy call.
template <class Ref>
std::optional<Ref> adopt(CFTypeRef created)
{
    if (!created) return std::nullopt;
    return Ref(std::shared_ptr<const void>(created, [](const void* object) { CFRelease(object); }));
}

// Keeps a reference from a Get call (or a collection) alive.
template <class Ref>
std::optional<Ref> retain(CFTypeRef borrowed)
{
    if (!borrowed) return std::nullopt;
    return adopt<Ref>(CFRetain(borrowed));
}

template <class CF, class Tag>
CF cf(const FileKeychainCalls::Ref<Tag>& ref)
{
    return (CF)const_cast<void*>(ref.get());
}

Bytes bytesOf(CFDataRef data)
{
    if (!data) return {};
    const auto* start = CFDataGetBytePtr(data);
    return Bytes(start, start + CFDataGetLength(data));
}

CFDataRef createData(const Bytes& bytes)
{
    return CFDataCreate(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size()));
}

CFStringRef createString(std::string_view text)
{
    return CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                   static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

template <class Ref>
std::vector<Ref> retainAll(CFTypeRef array)
{
    std::vector<Ref> out;
    if (!array || CFGetTypeID(array) != CFArrayGetTypeID()) return out;
    const auto list = static_cast<CFArrayRef>(array);
    for (CFIndex i = 0; i < CFArrayGetCount(list); ++i)
        if (auto item = retain<Ref>(CFArrayGetValueAtIndex(list, i))) out.push_back(std::move(*item));
    return out;
}

} // namespace

SecStatus DarwinKeychainCalls::setUserInteractionAllowed(bool allowed)
{
    return SecKeychainSetUserInteractionAllowed(allowed);
}

bool DarwinKeychainCalls::isOperatingSystemAtLeast(int major)
{
    const NSOperatingSystemVersion version{major, 0, 0};
    return [NSProcessInfo.processInfo isOperatingSystemAtLeastVersion:version];
}

bool DarwinKeychainCalls::programExists(std::string_view path) { return ::access(std::string(path).c_str(), F_OK) == 0; }

std::optional<FileKeychainCalls::TrustedApplicationRef>
DarwinKeychainCalls::trustedApplicationCreateFromPath(std::string_view path)
{
    SecTrustedApplicationRef application = nullptr;
    if (SecTrustedApplicationCreateFromPath(std::string(path).c_str(), &application) != errSecSuccess) return std::nullopt;
    return adopt<TrustedApplicationRef>(application);
}

std::optional<Bytes> DarwinKeychainCalls::trustedApplicationCopyData(const TrustedApplicationRef& application)
{
    CFDataRef data = nullptr;
    if (SecTrustedApplicationCopyData(cf<SecTrustedApplicationRef>(application), &data) != errSecSuccess || !data)
        return std::nullopt;
    Bytes out = bytesOf(data);
    CFRelease(data);
    return out;
}

std::optional<FileKeychainCalls::KeychainRef> DarwinKeychainCalls::keychainOpen(std::string_view path)
{
    SecKeychainRef keychain = nullptr;
    if (SecKeychainOpen(std::string(path).c_str(), &keychain) != errSecSuccess) return std::nullopt;
    return adopt<KeychainRef>(keychain);
}

FileKeychainCalls::PKCS12Import DarwinKeychainCalls::pkcs12Import(const Bytes& pkcs12, std::string_view passphrase)
{
    // kSecImportToMemoryOnly needs macOS 15; callers check the version first.
    if (@available(macOS 15.0, *)) {
        CFDataRef data = createData(pkcs12);
        CFStringRef secret = createString(passphrase);
        if (!data || !secret) {
            if (data) CFRelease(data);
            if (secret) CFRelease(secret);
            return {errSecAllocate, {}};
        }
        NSDictionary* options = @{
            (__bridge id)kSecImportExportPassphrase: (__bridge id)secret,
            (__bridge id)kSecImportToMemoryOnly: @YES,
        };
        CFArrayRef items = nullptr;
        PKCS12Import imported{SecPKCS12Import(data, (__bridge CFDictionaryRef)options, &items), {}};
        CFRelease(data);
        CFRelease(secret);
        if (items) {
            for (CFIndex i = 0; i < CFArrayGetCount(items); ++i) {
                const auto item = static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(items, i));
                imported.items.push_back(retain<IdentityRef>(CFDictionaryGetValue(item, kSecImportItemIdentity)));
            }
            CFRelease(items);
        }
        return imported;
    }
    return {errSecUnimplemented, {}};
}

std::optional<FileKeychainCalls::CertificateRef>
DarwinKeychainCalls::identityCopyCertificate(const IdentityRef& identity)
{
    SecCertificateRef certificate = nullptr;
    if (SecIdentityCopyCertificate(cf<SecIdentityRef>(identity), &certificate) != errSecSuccess) return std::nullopt;
    return adopt<CertificateRef>(certificate);
}

std::optional<FileKeychainCalls::KeyRef> DarwinKeychainCalls::identityCopyPrivateKey(const IdentityRef& identity)
{
    SecKeyRef key = nullptr;
    if (SecIdentityCopyPrivateKey(cf<SecIdentityRef>(identity), &key) != errSecSuccess) return std::nullopt;
    return adopt<KeyRef>(key);
}

std::optional<FileKeychainCalls::CertificateRef> DarwinKeychainCalls::certificateCreateWithData(const Bytes& der)
{
    CFDataRef data = createData(der);
    if (!data) return std::nullopt;
    SecCertificateRef certificate = SecCertificateCreateWithData(kCFAllocatorDefault, data);
    CFRelease(data);
    return adopt<CertificateRef>(certificate);
}

Bytes DarwinKeychainCalls::certificateCopyData(const CertificateRef& certificate)
{
    CFDataRef data = SecCertificateCopyData(cf<SecCertificateRef>(certificate));
    Bytes out = bytesOf(data);
    if (data) CFRelease(data);
    return out;
}

std::optional<FileKeychainCalls::KeyRef> DarwinKeychainCalls::certificateCopyKey(const CertificateRef& certificate)
{
    return adopt<KeyRef>(SecCertificateCopyKey(cf<SecCertificateRef>(certificate)));
}

std::optional<FileKeychainCalls::KeyAttributes> DarwinKeychainCalls::keyCopyAttributes(const KeyRef& key)
{
    CFDictionaryRef attributes = SecKeyCopyAttributes(cf<SecKeyRef>(key));
    if (!attributes) return std::nullopt;
    KeyAttributes out;
    const CFTypeRef label = CFDictionaryGetValue(attributes, kSecAttrApplicationLabel);
    if (label && CFGetTypeID(label) == CFDataGetTypeID()) out.applicationLabel = bytesOf(static_cast<CFDataRef>(label));
    const CFTypeRef type = CFDictionaryGetValue(attributes, kSecAttrKeyType);
    if (type && CFEqual(type, kSecAttrKeyTypeRSA)) out.type = KeyType::rsa;
    else if (type && CFEqual(type, kSecAttrKeyTypeECSECPrimeRandom)) out.type = KeyType::ecSECPrimeRandom;
    CFRelease(attributes);
    return out;
}

std::optional<SecretBytes> DarwinKeychainCalls::keyCopyExternalRepresentation(const KeyRef& key)
{
    CFErrorRef error = nullptr;
    CFDataRef data = SecKeyCopyExternalRepresentation(cf<SecKeyRef>(key), &error);
    if (error) CFRelease(error);
    if (!data) return std::nullopt;
    SecretBytes out(CFDataGetBytePtr(data), static_cast<std::size_t>(CFDataGetLength(data)));
    CFRelease(data);
    return out;
}

std::optional<FileKeychainCalls::AccessRef>
DarwinKeychainCalls::accessCreate(std::string_view name, const std::vector<TrustedApplicationRef>& applications)
{
    CFStringRef descriptor = createString(name);
    CFMutableArrayRef trusted = CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks);
    for (const auto& application : applications) CFArrayAppendValue(trusted, application.get());
    SecAccessRef access = nullptr;
    const OSStatus status = descriptor ? SecAccessCreate(descriptor, trusted, &access) : errSecAllocate;
    if (descriptor) CFRelease(descriptor);
    CFRelease(trusted);
    if (status != errSecSuccess) return std::nullopt;
    return adopt<AccessRef>(access);
}

std::optional<FileKeychainCalls::AccessRef> DarwinKeychainCalls::itemCopyAccess(const KeyRef& key)
{
    SecAccessRef access = nullptr;
    if (SecKeychainItemCopyAccess(cf<SecKeychainItemRef>(key), &access) != errSecSuccess) return std::nullopt;
    return adopt<AccessRef>(access);
}

std::optional<std::vector<FileKeychainCalls::ACLRef>> DarwinKeychainCalls::accessCopySigningACLs(const AccessRef& access)
{
    CFArrayRef acls = SecAccessCopyMatchingACLList(cf<SecAccessRef>(access), kSecACLAuthorizationSign);
    auto out = retainAll<ACLRef>(acls);
    if (acls) CFRelease(acls);
    return out;
}

std::optional<FileKeychainCalls::ACLContents> DarwinKeychainCalls::aclCopyContents(const ACLRef& acl)
{
    CFArrayRef applications = nullptr;
    CFStringRef description = nullptr;
    SecKeychainPromptSelector prompt = 0;
    if (SecACLCopyContents(cf<SecACLRef>(acl), &applications, &description, &prompt) != errSecSuccess)
        return std::nullopt;
    if (description) CFRelease(description);
    ACLContents contents;
    if (applications) {
        contents.applications = retainAll<TrustedApplicationRef>(applications);
        CFRelease(applications);
    }
    return contents;
}

FileKeychainCalls::KeyMatches DarwinKeychainCalls::copyPrivateKeys(const KeychainRef& keychain)
{
    NSDictionary* query = @{
        (__bridge id)kSecClass: (__bridge id)kSecClassKey,
        (__bridge id)kSecAttrKeyClass: (__bridge id)kSecAttrKeyClassPrivate,
        (__bridge id)kSecMatchSearchList: @[(__bridge id)keychain.get()],
        (__bridge id)kSecMatchLimit: (__bridge id)kSecMatchLimitAll,
        (__bridge id)kSecReturnRef: @YES,
    };
    CFTypeRef result = nullptr;
    KeyMatches matches{SecItemCopyMatching((__bridge CFDictionaryRef)query, &result), {}};
    matches.keys = retainAll<KeyRef>(result);
    if (result) CFRelease(result);
    return matches;
}

FileKeychainCalls::CertificateMatches DarwinKeychainCalls::copyCertificates(const KeychainRef& keychain,
                                                                            const Bytes& publicKeyHash)
{
    CFDataRef hash = createData(publicKeyHash);
    if (!hash) return {errSecAllocate, {}};
    NSDictionary* query = @{
        (__bridge id)kSecClass: (__bridge id)kSecClassCertificate,
        (__bridge id)kSecAttrPublicKeyHash: (__bridge id)hash,
        (__bridge id)kSecMatchSearchList: @[(__bridge id)keychain.get()],
        (__bridge id)kSecMatchLimit: (__bridge id)kSecMatchLimitAll,
        (__bridge id)kSecReturnRef: @YES,
    };
    CFTypeRef result = nullptr;
    CertificateMatches matches{SecItemCopyMatching((__bridge CFDictionaryRef)query, &result), {}};
    CFRelease(hash);
    matches.certificates = retainAll<CertificateRef>(result);
    if (result) CFRelease(result);
    return matches;
}

SecStatus DarwinKeychainCalls::itemImport(const KeychainRef& keychain, const SecretBytes& privateKey, KeyType,
                                          const AccessRef& access)
{
    // No copy of the key: the data borrows the caller's bytes, which it wipes.
    CFDataRef data = CFDataCreateWithBytesNoCopy(kCFAllocatorDefault, privateKey.data(),
                                                 static_cast<CFIndex>(privateKey.size()), kCFAllocatorNull);
    if (!data) return errSecAllocate;
    SecExternalFormat format = kSecFormatOpenSSL;
    SecExternalItemType itemType = kSecItemTypePrivateKey;
    NSArray* keyAttributes = @[(__bridge id)kSecAttrIsPermanent, (__bridge id)kSecAttrIsSensitive];
    SecItemImportExportKeyParameters parameters{};
    parameters.version = SEC_KEY_IMPORT_EXPORT_PARAMS_VERSION;
    parameters.accessRef = cf<SecAccessRef>(access);
    parameters.keyAttributes = (__bridge CFArrayRef)keyAttributes;
    CFArrayRef imported = nullptr;
    const OSStatus status = SecItemImport(data, nullptr, &format, &itemType, 0, &parameters,
                                          cf<SecKeychainRef>(keychain), &imported);
    if (imported) CFRelease(imported);
    CFRelease(data);
    return status;
}

SecStatus DarwinKeychainCalls::certificateAdd(const KeychainRef& keychain, const CertificateRef& certificate)
{
    NSDictionary* attributes = @{
        (__bridge id)kSecValueRef: (__bridge id)certificate.get(),
        (__bridge id)kSecUseKeychain: (__bridge id)keychain.get(),
    };
    return SecItemAdd((__bridge CFDictionaryRef)attributes, nullptr);
}

SecStatus DarwinKeychainCalls::itemDelete(const KeyRef& key) { return SecKeychainItemDelete(cf<SecKeychainItemRef>(key)); }

SecStatus DarwinKeychainCalls::itemDelete(const CertificateRef& certificate)
{
    return SecKeychainItemDelete(cf<SecKeychainItemRef>(certificate));
}

} // namespace orven
