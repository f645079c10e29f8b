#pragma once
// The Security framework calls that the VPN identity and trusted CA work make
// on keychain items, one member per call, and the access-list helpers built on
// them. On macOS each member is one framework call; on the Linux host they are
// answered by a simulated System keychain, so the keychain steps run
// unchanged without a real keychain.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orven {

using Bytes = std::vector<std::uint8_t>;

// An OSStatus.
using SecStatus = std::int32_t;

namespace secStatus {
inline constexpr SecStatus success = 0;
inline constexpr SecStatus io = -36;                    // errSecIO
inline constexpr SecStatus pkcs12VerifyFailure = -25264;  // errSecPkcs12VerifyFailure
inline constexpr SecStatus authFailed = -25293;         // errSecAuthFailed
inline constexpr SecStatus duplicateItem = -25299;      // errSecDuplicateItem
inline constexpr SecStatus itemNotFound = -25300;       // errSecItemNotFound
inline constexpr SecStatus decode = -26275;             // errSecDecode
} // namespace secStatus

// Bytes that must not outlive their use (key material): overwritten before
// their memory is given back.
class SecretBytes {
public:
    SecretBytes() = default;
    explicit SecretBytes(Bytes bytes) : bytes_(std::move(bytes)) {}
    SecretBytes(const std::uint8_t* data, std::size_t size) : bytes_(data, data + size) {}
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    SecretBytes(SecretBytes&& other) noexcept : bytes_(std::move(other.bytes_)) { other.bytes_.clear(); }
    SecretBytes& operator=(SecretBytes&& other) noexcept;
    ~SecretBytes() { wipe(); }

    const Bytes& bytes() const { return bytes_; }
    const std::uint8_t* data() const { return bytes_.data(); }
    std::size_t size() const { return bytes_.size(); }
    bool empty() const { return bytes_.empty(); }
    void wipe();

private:
    Bytes bytes_;
};

// Overwrites memory in a way the compiler may not drop.
void wipeMemory(void* data, std::size_t size);

class FileKeychainCalls {
public:
    // A reference to a framework object (a Core Foundation object on macOS),
    // released with its last copy. The tag keeps keys, certificates and the
    // rest apart.
    template <class Tag>
    class Ref {
    public:
        Ref() = default;
        explicit Ref(std::shared_ptr<const void> object) : object_(std::move(object)) {}
        const void* get() const { return object_.get(); }
        const std::shared_ptr<const void>& shared() const { return object_; }
        explicit operator bool() const { return object_ != nullptr; }

    private:
        std::shared_ptr<const void> object_;
    };
    using KeychainRef = Ref<struct KeychainTag>;
    using IdentityRef = Ref<struct IdentityTag>;
    using CertificateRef = Ref<struct CertificateTag>;
    using KeyRef = Ref<struct KeyTag>;
    using AccessRef = Ref<struct AccessTag>;
    using ACLRef = Ref<struct ACLTag>;
    using TrustedApplicationRef = Ref<struct TrustedApplicationTag>;

    // kSecAttrKeyType of a key.
    enum class KeyType { rsa, ecSECPrimeRandom, other };

    virtual ~FileKeychainCalls() = default;

    // SecKeychainSetUserInteractionAllowed.
    virtual SecStatus setUserInteractionAllowed(bool allowed) = 0;
    // Whether the running system is macOS `major` or newer.
    virtual bool isOperatingSystemAtLeast(int major) = 0;
    // Whether something exists at a program path of this system.
    virtual bool programExists(std::string_view path) = 0;
    // SecTrustedApplicationCreateFromPath.
    virtual std::optional<TrustedApplicationRef> trustedApplicationCreateFromPath(std::string_view path) = 0;
    // SecTrustedApplicationCopyData: the program path as C string bytes.
    virtual std::optional<Bytes> trustedApplicationCopyData(const TrustedApplicationRef& application) = 0;
    // SecKeychainOpen.
    virtual std::optional<KeychainRef> keychainOpen(std::string_view path) = 0;

    // SecPKCS12Import with kSecImportToMemoryOnly: one entry per imported
    // item, holding its identity if it carries one.
    struct PKCS12Import {
        SecStatus status = secStatus::success;
        std::vector<std::optional<IdentityRef>> items;
    };
    virtual PKCS12Import pkcs12Import(const Bytes& pkcs12, std::string_view passphrase) = 0;
    // SecIdentityCopyCertificate, SecIdentityCopyPrivateKey.
    virtual std::optional<CertificateRef> identityCopyCertificate(const IdentityRef& identity) = 0;
    virtual std::optional<KeyRef> identityCopyPrivateKey(const IdentityRef& identity) = 0;

    // SecCertificateCreateWithData (DER only).
    virtual std::optional<CertificateRef> certificateCreateWithData(const Bytes& der) = 0;
    // SecCertificateCopyData.
    virtual Bytes certificateCopyData(const CertificateRef& certificate) = 0;
    // SecCertificateCopyKey: the certificate's public key.
    virtual std::optional<KeyRef> certificateCopyKey(const CertificateRef& certificate) = 0;

    // SecKeyCopyAttributes: kSecAttrApplicationLabel and kSecAttrKeyType.
    struct KeyAttributes {
        Bytes applicationLabel;
        KeyType type = KeyType::other;
    };
    virtual std::optional<KeyAttributes> keyCopyAttributes(const KeyRef& key) = 0;
    // SecKeyCopyExternalRepresentation (PKCS#1 for RSA, X9.63 for EC).
    virtual std::optional<SecretBytes> keyCopyExternalRepresentation(const KeyRef& key) = 0;

    // SecAccessCreate with a list of trusted applications.
    virtual std::optional<AccessRef> accessCreate(std::string_view name,
                                                  const std::vector<TrustedApplicationRef>& applications) = 0;
    // SecKeychainItemCopyAccess.
    virtual std::optional<AccessRef> itemCopyAccess(const KeyRef& key) = 0;
    // SecAccessCopyMatchingACLList with kSecACLAuthorizationSign.
    virtual std::optional<std::vector<ACLRef>> accessCopySigningACLs(const AccessRef& access) = 0;
    // SecACLCopyContents: the application list; absent list means any
    // application may use the item.
    struct ACLContents {
        std::optional<std::vector<TrustedApplicationRef>> applications;
    };
    virtual std::optional<ACLContents> aclCopyContents(const ACLRef& acl) = 0;

    // SecItemCopyMatching over the keychain: every private key, as references.
    struct KeyMatches {
        SecStatus status = secStatus::success;
        std::vector<KeyRef> keys;
    };
    virtual KeyMatches copyPrivateKeys(const KeychainRef& keychain) = 0;
    // SecItemCopyMatching over the keychain: the certificates whose public key
    // hash is `publicKeyHash`.
    struct CertificateMatches {
        SecStatus status = secStatus::success;
        std::vector<CertificateRef> certificates;
    };
    virtual CertificateMatches copyCertificates(const KeychainRef& keychain, const Bytes& publicKeyHash) = 0;

    // SecItemImport of an OpenSSL-form private key (PKCS#1 RSAPrivateKey or
    // ECPrivateKey) into the keychain with the access object, permanent and
    // sensitive.
    virtual SecStatus itemImport(const KeychainRef& keychain, const SecretBytes& privateKey, KeyType type,
                                 const AccessRef& access) = 0;
    // SecItemAdd of a certificate reference into the keychain.
    virtual SecStatus certificateAdd(const KeychainRef& keychain, const CertificateRef& certificate) = 0;
    // SecKeychainItemDelete.
    virtual SecStatus itemDelete(const KeyRef& key) = 0;
    virtual SecStatus itemDelete(const CertificateRef& certificate) = 0;
};

// The access-list helpers over the calls.
namespace FileKeychain {

// The access object named `name` that lets exactly `applications` use a key.
std::optional<FileKeychainCalls::AccessRef>
access(FileKeychainCalls& calls, std::string_view name,
       const std::vector<FileKeychainCalls::TrustedApplicationRef>& applications);

// The program path of a trusted-application entry.
std::optional<std::string> path(FileKeychainCalls& calls, const FileKeychainCalls::TrustedApplicationRef& application);

// The program paths allowed to sign with a key ("*" for any application).
std::optional<std::vector<std::string>> signers(FileKeychainCalls& calls, const FileKeychainCalls::KeyRef& key);

} // namespace FileKeychain

} // namespace orven
