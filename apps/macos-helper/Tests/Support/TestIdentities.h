#pragma once
// Test support: keys, certificates and PKCS#12 files made with OpenSSL, and
// independent readings of what the keychain should hold.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orven::testing {

using Bytes = std::vector<std::uint8_t>;

enum class KeyKind { rsa2048, p224, p256, p384, p521, ed25519 };
const char* keyKindName(KeyKind kind);

// One key per kind for the whole run (RSA key generation is slow), with a
// self-signed certificate.
struct TestIdentity {
    KeyKind kind;
    Bytes certificateDER;
    // The private key as OpenSSL writes it: PKCS#1 for RSA, ECPrivateKey
    // for EC (named curve, public key included).
    Bytes privateKeyDER;
    // SecKeyCopyExternalRepresentation's forms, made here with OpenSSL's
    // encoded-point parameter rather than the code under test's way.
    Bytes publicKeyExternal;
    Bytes privateKeyX963;  // EC only
    // SHA-1 of publicKeyExternal, as hex.
    std::string applicationLabelHex;
};
const TestIdentity& testIdentity(KeyKind kind);
// A second, different identity of the same kind.
const TestIdentity& otherTestIdentity(KeyKind kind);

// PKCS12_create with the default algorithms.
Bytes makePKCS12(const TestIdentity& identity, const std::string& passphrase);
// Two identities (key and certificate each) in one file.
Bytes makePKCS12WithTwoIdentities(const TestIdentity& first, const TestIdentity& second,
                                  const std::string& passphrase);

// The curve name of an ECPrivateKey DER ("prime256v1", ...), absent when the
// bytes are not one.
std::optional<std::string> ecPrivateKeyCurve(const Bytes& der);
// Whether a private key DER (PKCS#1 or ECPrivateKey) is the identity's key.
bool isPrivateKeyOf(const Bytes& der, const TestIdentity& identity);

std::string pemOf(const Bytes& certificateDER);

} // namespace orven::testing
