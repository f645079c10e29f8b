#include "Support/TestIdentities.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace orven::testing {

namespace {

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertificateFree {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Certificate = std::unique_ptr<X509, CertificateFree>;

void require(bool condition, const char* what)
{
    if (!condition) throw std::runtime_error(std::string("OpenSSL test support: ") + what);
}

Key generate(KeyKind kind)
{
    EVP_PKEY* key = nullptr;
    switch (kind) {
    case KeyKind::rsa2048: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048}); break;
    case KeyKind::p224: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-224"); break;
    case KeyKind::p256: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"); break;
    case KeyKind::p384: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384"); break;
    case KeyKind::p521: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-521"); break;
    case KeyKind::ed25519: key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"); break;
    }
    require(key != nullptr, "key generation");
    return Key(key);
}

Certificate selfSigned(EVP_PKEY* key, long serial)
{
    Certificate certificate(X509_new());
    require(certificate != nullptr, "X509_new");
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600L * 24 * 365);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    const std::string common = "ORVEN test identity " + std::to_string(serial);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(common.c_str()), -1,
                               -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_set_pubkey(certificate.get(), key);
    const EVP_MD* digest = EVP_PKEY_get_base_id(key) == EVP_PKEY_ED25519 ? nullptr : EVP_sha256();
    require(X509_sign(certificate.get(), key, digest) > 0, "X509_sign");
    return certificate;
}

template <class F>
Bytes encode(F write)
{
    unsigned char* data = nullptr;
    const int length = write(&data);
    require(length > 0, "encoding");
    Bytes out(data, data + length);
    OPENSSL_free(data);
    return out;
}

std::string hex(const Bytes& bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (const auto byte : bytes) {
        out += digits[byte >> 4];
        out += digits[byte & 0x0F];
    }
    return out;
}

struct Made {
    Key key;
    Certificate certificate;
    TestIdentity identity;
};

Made make(KeyKind kind, long serial)
{
    Made made{generate(kind), nullptr, {}};
    made.certificate = selfSigned(made.key.get(), serial);
    TestIdentity& identity = made.identity;
    identity.kind = kind;
    identity.certificateDER = encode([&](unsigned char** out) { return i2d_X509(made.certificate.get(), out); });
    EVP_PKEY* key = made.key.get();
    if (kind != KeyKind::ed25519)
        identity.privateKeyDER = encode([&](unsigned char** out) { return i2d_PrivateKey(key, out); });
    if (kind == KeyKind::rsa2048) {
        identity.publicKeyExternal = encode([&](unsigned char** out) { return i2d_PublicKey(key, out); });
    } else if (kind == KeyKind::ed25519) {
        std::size_t length = 32;
        identity.publicKeyExternal.resize(length);
        EVP_PKEY_get_raw_public_key(key, identity.publicKeyExternal.data(), &length);
    } else {
        std::size_t length = 0;
        EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, nullptr, 0, &length);
        identity.publicKeyExternal.resize(length);
        require(EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY,
                                                identity.publicKeyExternal.data(), length, &length) == 1,
                "encoded public key");
        require(identity.publicKeyExternal.at(0) == 0x04, "uncompressed point");
        BIGNUM* scalar = nullptr;
        require(EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_PRIV_KEY, &scalar) == 1, "private scalar");
        const std::size_t n = (identity.publicKeyExternal.size() - 1) / 2;
        identity.privateKeyX963 = identity.publicKeyExternal;
        identity.privateKeyX963.resize(identity.publicKeyExternal.size() + n);
        BN_bn2binpad(scalar, identity.privateKeyX963.data() + identity.publicKeyExternal.size(), static_cast<int>(n));
        BN_clear_free(scalar);
    }
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int digestLength = 0;
    EVP_Digest(identity.publicKeyExternal.data(), identity.publicKeyExternal.size(), digest.data(), &digestLength,
               EVP_sha1(), nullptr);
    digest.resize(digestLength);
    identity.applicationLabelHex = hex(digest);
    return made;
}

std::mutex gMutex;
std::map<std::pair<KeyKind, int>, Made>& cache()
{
    static std::map<std::pair<KeyKind, int>, Made> made;
    return made;
}

Made& cached(KeyKind kind, int which)
{
    const std::lock_guard lock(gMutex);
    auto& all = cache();
    auto found = all.find({kind, which});
    if (found == all.end())
        found = all.emplace(std::pair{kind, which}, make(kind, 1000 * (which + 1) + static_cast<long>(kind))).first;
    return found->second;
}

Made& madeFor(const TestIdentity& identity)
{
    for (int which : {0, 1}) {
        Made& made = cached(identity.kind, which);
        if (&made.identity == &identity) return made;
    }
    throw std::runtime_error("not a test identity");
}

Bytes pkcs12Bytes(PKCS12* file)
{
    require(file != nullptr, "PKCS#12");
    Bytes out = encode([&](unsigned char** data) { return i2d_PKCS12(file, data); });
    PKCS12_free(file);
    return out;
}

} // namespace

const char* keyKindName(KeyKind kind)
{
    switch (kind) {
    case KeyKind::rsa2048: return "RSA2048";
    case KeyKind::p224: return "P224";
    case KeyKind::p256: return "P256";
    case KeyKind::p384: return "P384";
    case KeyKind::p521: return "P521";
    case KeyKind::ed25519: return "Ed25519";
    }
    return "?";
}

const TestIdentity& testIdentity(KeyKind kind) { return cached(kind, 0).identity; }
const TestIdentity& otherTestIdentity(KeyKind kind) { return cached(kind, 1).identity; }

Bytes makePKCS12(const TestIdentity& identity, const std::string& passphrase)
{
    Made& made = madeFor(identity);
    return pkcs12Bytes(PKCS12_create(passphrase.c_str(), "ORVEN test", made.key.get(), made.certificate.get(), nullptr,
                                     0, 0, 0, 0, 0));
}

Bytes makePKCS12WithTwoIdentities(const TestIdentity& first, const TestIdentity& second,
                                  const std::string& passphrase)
{
    STACK_OF(PKCS12_SAFEBAG)* bags = nullptr;
    for (const TestIdentity* identity : {&first, &second}) {
        Made& made = madeFor(*identity);
        require(PKCS12_add_cert(&bags, made.certificate.get()) != nullptr, "PKCS12_add_cert");
        require(PKCS12_add_key(&bags, made.key.get(), 0, PKCS12_DEFAULT_ITER, NID_aes_256_cbc, passphrase.c_str()) !=
                    nullptr,
                "PKCS12_add_key");
    }
    STACK_OF(PKCS7)* safes = nullptr;
    require(PKCS12_add_safe(&safes, bags, -1, 0, nullptr) == 1, "PKCS12_add_safe");
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
    PKCS12* file = PKCS12_add_safes(safes, 0);
    sk_PKCS7_pop_free(safes, PKCS7_free);
    require(file != nullptr, "PKCS12_add_safes");
    require(PKCS12_set_mac(file, passphrase.c_str(), -1, nullptr, 0, PKCS12_DEFAULT_ITER, nullptr) == 1,
            "PKCS12_set_mac");
    return pkcs12Bytes(file);
}

std::optional<std::string> ecPrivateKeyCurve(const Bytes& der)
{
    const unsigned char* cursor = der.data();
    Key key(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, static_cast<long>(der.size())));
    if (!key || cursor != der.data() + der.size()) return std::nullopt;
    char name[64] = {};
    std::size_t length = 0;
    if (EVP_PKEY_get_utf8_string_param(key.get(), OSSL_PKEY_PARAM_GROUP_NAME, name, sizeof name, &length) != 1)
        return std::nullopt;
    return std::string(name, length);
}

bool isPrivateKeyOf(const Bytes& der, const TestIdentity& identity)
{
    const int type = identity.kind == KeyKind::rsa2048 ? EVP_PKEY_RSA : EVP_PKEY_EC;
    const unsigned char* cursor = der.data();
    Key key(d2i_PrivateKey(type, nullptr, &cursor, static_cast<long>(der.size())));
    if (!key || cursor != der.data() + der.size()) return false;
    return EVP_PKEY_eq(key.get(), madeFor(identity).key.get()) == 1;
}

std::string pemOf(const Bytes& certificateDER)
{
    const unsigned char* cursor = certificateDER.data();
    Certificate certificate(d2i_X509(nullptr, &cursor, static_cast<long>(certificateDER.size())));
    require(certificate != nullptr, "d2i_X509");
    BIO* memory = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(memory, certificate.get());
    char* data = nullptr;
    const long length = BIO_get_mem_data(memory, &data);
    std::string pem(data, static_cast<std::size_t>(length));
    BIO_free(memory);
    return pem;
}

} // namespace orven::testing
