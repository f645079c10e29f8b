#pragma once
// The keychain calls on macOS: each member is one Security framework call.

#include "FileKeychainCalls.h"

namespace orven {

class DarwinKeychainCalls final : public FileKeychainCalls {
public:
    SecStatus setUserInteractionAllowed(bool allowed) override;
    bool isOperatingSystemAtLeast(int major) override;
    bool programExists(std::string_view path) override;
    std::optional<TrustedApplicationRef> trustedApplicationCreateFromPath(std::string_view path) override;
    std::optional<Bytes> trustedApplicationCopyData(const TrustedApplicationRef& application) override;
    std::optional<KeychainRef> keychainOpen(std::string_view path) override;
    PKCS12Import pkcs12Import(const Bytes& pkcs12, std::string_view passphrase) override;
    std::optional<CertificateRef> identityCopyCertificate(const IdentityRef& identity) override;
    std::optional<KeyRef> identityCopyPrivateKey(const IdentityRef& identity) override;
    std::optional<CertificateRef> certificateCreateWithData(const Bytes& der) override;
    Bytes certificateCopyData(const CertificateRef& certificate) override;
    std::optional<KeyRef> certificateCopyKey(const CertificateRef& certificate) override;
    std::optional<KeyAttributes> keyCopyAttributes(const KeyRef& key) override;
    std::optional<SecretBytes> keyCopyExternalRepresentation(const KeyRef& key) override;
    std::optional<AccessRef> accessCreate(std::string_view name,
                                          const std::vector<TrustedApplicationRef>& applications) override;
    std::optional<AccessRef> itemCopyAccess(const KeyRef& key) override;
    std::optional<std::vector<ACLRef>> accessCopySigningACLs(const AccessRef& access) override;
    std::optional<ACLContents> aclCopyContents(const ACLRef& acl) override;
    KeyMatches copyPrivateKeys(const KeychainRef& keychain) override;
    CertificateMatches copyCertificates(const KeychainRef& keychain, const Bytes& publicKeyHash) override;
    SecStatus itemImport(const KeychainRef& keychain, const SecretBytes& privateKey, KeyType type,
                         const AccessRef& access) override;
    SecStatus certificateAdd(const KeychainRef& keychain, const CertificateRef& certificate) override;
    SecStatus itemDelete(const KeyRef& key) override;
    SecStatus itemDelete(const CertificateRef& certificate) override;
};

} // namespace orven
