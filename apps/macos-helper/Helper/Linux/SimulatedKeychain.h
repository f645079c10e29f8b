#pragma once
// The keychain calls on the Linux host: PKCS#12 files, certificates and keys
// are handled with OpenSSL as the Security framework would, and the System
// keychain is the simulated Mac's (`macsim keychain ROOT ...`).

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "BoundedProcess.h"
#include "FileKeychainCalls.h"

namespace orven {

class SimulatedKeychain final : public FileKeychainCalls {
public:
    // Runs `macsim keychain ROOT ARGS...` with an optional standard input.
    using Simulator =
        std::function<BoundedProcess::Result(const std::vector<std::string>&, const std::optional<std::string>&)>;

    SimulatedKeychain(std::string root, Simulator simulator);

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

private:
    std::optional<std::string> listing();
    SecStatus change(const std::vector<std::string>& arguments, const std::optional<std::string>& request);
    SecStatus deleteItem(const std::optional<std::string>& id);

    std::string root_;
    Simulator simulator_;
};

} // namespace orven
