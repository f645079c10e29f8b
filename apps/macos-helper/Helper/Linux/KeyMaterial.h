#pragma once
// What the Security framework does with PKCS#12 files, certificates and keys,
// done with OpenSSL for the simulated keychain of the Linux host: the same
// statuses, application labels and export forms as macOS.

#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "FileKeychainCalls.h"

namespace orven::KeyMaterial {

using KeyType = FileKeychainCalls::KeyType;

struct PublicKey {
    KeyType type = KeyType::other;
    // SecKeyCopyExternalRepresentation of the public key: PKCS#1
    // RSAPublicKey for RSA, the uncompressed X9.63 point for EC.
    Bytes bytes;
};

struct PrivateKey {
    PublicKey publicKey;
    // SecKeyCopyExternalRepresentation: PKCS#1 RSAPrivateKey for RSA,
    // 04 || X || Y || K for EC.
    SecretBytes exported;
};

struct Identity {
    Bytes certificateDER;
    PrivateKey key;
};

struct PKCS12Contents {
    SecStatus status = secStatus::success;
    // One entry per private key found; the identity when a certificate of
    // the file carries its public key.
    std::vector<std::optional<Identity>> items;
};

// SecPKCS12Import: -25293 when the passphrase does not open the file,
// -26275 when it is not a PKCS#12 file.
PKCS12Contents decodePKCS12(std::span<const std::uint8_t> pkcs12, std::string_view passphrase);

// SecCertificateCreateWithData: exactly one DER certificate.
bool isCertificateDER(std::span<const std::uint8_t> der);
// The public key of a DER certificate.
std::optional<PublicKey> certificatePublicKey(std::span<const std::uint8_t> der);

// A private key in the form SecItemImport takes (PKCS#1 RSAPrivateKey or
// ECPrivateKey), read back: its public key, or absent when it is neither.
std::optional<PublicKey> importablePrivateKey(std::span<const std::uint8_t> der);

// kSecAttrApplicationLabel: SHA-1 of the public key's external representation.
Bytes applicationLabel(const PublicKey& key);

} // namespace orven::KeyMaterial
