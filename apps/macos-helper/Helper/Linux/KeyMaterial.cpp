#include "KeyMaterial.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <climits>
#include <memory>
#include <string>

namespace orven::KeyMaterial {

namespace {

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* object) const { Free(object); }
};
template <class T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, Deleter<T, Free>>;

using OwnedPKCS12 = Owned<PKCS12, PKCS12_free>;
using OwnedX509 = Owned<X509, X509_free>;
using OwnedKey = Owned<EVP_PKEY, EVP_PKEY_free>;
using OwnedP8 = Owned<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;
using OwnedBN = Owned<BIGNUM, BN_clear_free>;

void freeSafes(STACK_OF(PKCS7) * safes) { sk_PKCS7_pop_free(safes, PKCS7_free); }
void freeBags(STACK_OF(PKCS12_SAFEBAG) * bags) { sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free); }
using OwnedSafes = Owned<STACK_OF(PKCS7), freeSafes>;
using OwnedBags = Owned<STACK_OF(PKCS12_SAFEBAG), freeBags>;

// The passphrase as OpenSSL wants it: NUL-terminated, or none at all, wiped
// when done.
class Passphrase {
public:
    explicit Passphrase(std::string_view text) : text_(text.begin(), text.end()) { text_.push_back('\0'); }
    ~Passphrase() { wipeMemory(text_.data(), text_.size()); }
    Passphrase(const Passphrase&) = delete;
    Passphrase& operator=(const Passphrase&) = delete;

    // An empty passphrase is written two ways; the one the MAC accepted is used.
    void useNone() { none_ = true; }
    const char* text() const { return none_ ? nullptr : text_.data(); }
    int length() const { return none_ ? 0 : static_cast<int>(text_.size() - 1); }
    bool empty() const { return text_.size() == 1; }

private:
    std::vector<char> text_;
    bool none_ = false;
};

KeyType typeOf(const EVP_PKEY* key)
{
    switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA: return KeyType::rsa;
    case EVP_PKEY_EC: return KeyType::ecSECPrimeRandom;
    default: return KeyType::other;
    }
}

std::size_t fieldBytes(const EVP_PKEY* key) { return static_cast<std::size_t>((EVP_PKEY_get_bits(key) + 7) / 8); }

bool appendParameter(Bytes& out, const EVP_PKEY* key, const char* name, std::size_t width)
{
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &raw) != 1) return false;
    OwnedBN number(raw);
    const std::size_t at = out.size();
    out.resize(at + width);
    if (BN_bn2binpad(number.get(), out.data() + at, static_cast<int>(width)) != static_cast<int>(width)) return false;
    return true;
}

std::optional<PublicKey> publicKeyOf(const EVP_PKEY* key)
{
    PublicKey out;
    out.type = typeOf(key);
    switch (out.type) {
    case KeyType::rsa: {
        unsigned char* der = nullptr;
        const int length = i2d_PublicKey(key, &der);
        if (length <= 0) return std::nullopt;
        out.bytes.assign(der, der + length);
        OPENSSL_free(der);
        return out;
    }
    case KeyType::ecSECPrimeRandom: {
        const std::size_t n = fieldBytes(key);
        out.bytes.push_back(0x04);
        if (!appendParameter(out.bytes, key, OSSL_PKEY_PARAM_EC_PUB_X, n) ||
            !appendParameter(out.bytes, key, OSSL_PKEY_PARAM_EC_PUB_Y, n))
            return std::nullopt;
        return out;
    }
    case KeyType::other: {
        std::size_t length = 0;
        if (EVP_PKEY_get_raw_public_key(key, nullptr, &length) != 1) return std::nullopt;
        out.bytes.resize(length);
        if (EVP_PKEY_get_raw_public_key(key, out.bytes.data(), &length) != 1) return std::nullopt;
        out.bytes.resize(length);
        return out;
    }
    }
    return std::nullopt;
}

std::optional<PrivateKey> privateKeyOf(const EVP_PKEY* key)
{
    auto publicKey = publicKeyOf(key);
    if (!publicKey) return std::nullopt;
    Bytes exported;
    switch (publicKey->type) {
    case KeyType::rsa: {
        unsigned char* der = nullptr;
        const int length = i2d_PrivateKey(key, &der);
        if (length <= 0) return std::nullopt;
        exported.assign(der, der + length);
        OPENSSL_clear_free(der, static_cast<std::size_t>(length));
        break;
    }
    case KeyType::ecSECPrimeRandom: {
        exported.reserve(publicKey->bytes.size() + fieldBytes(key));
        exported = publicKey->bytes;
        if (!appendParameter(exported, key, OSSL_PKEY_PARAM_PRIV_KEY, fieldBytes(key))) {
            SecretBytes discard(std::move(exported));
            return std::nullopt;
        }
        break;
    }
    case KeyType::other: {
        std::size_t length = 0;
        if (EVP_PKEY_get_raw_private_key(key, nullptr, &length) != 1) return std::nullopt;
        exported.resize(length);
        if (EVP_PKEY_get_raw_private_key(key, exported.data(), &length) != 1) {
            SecretBytes discard(std::move(exported));
            return std::nullopt;
        }
        break;
    }
    }
    return PrivateKey{std::move(*publicKey), SecretBytes(std::move(exported))};
}

OwnedKey keyFromPKCS8(const PKCS8_PRIV_KEY_INFO* info)
{
    return OwnedKey(info ? EVP_PKCS82PKEY(info) : nullptr);
}

struct Bags {
    std::vector<OwnedKey> keys;
    std::vector<OwnedX509> certificates;
};

// Reads one list of safe bags; false when a shrouded key would not decrypt.
bool collect(const STACK_OF(PKCS12_SAFEBAG) * bags, const Passphrase& passphrase, Bags& out, int depth)
{
    if (depth > 4) return false;  // nested bags deeper than any real file
    for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
        const PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags, i);
        switch (PKCS12_SAFEBAG_get_nid(bag)) {
        case NID_keyBag:
            if (auto key = keyFromPKCS8(PKCS12_SAFEBAG_get0_p8inf(bag))) out.keys.push_back(std::move(key));
            else return false;
            break;
        case NID_pkcs8ShroudedKeyBag: {
            OwnedP8 info(PKCS12_decrypt_skey(bag, passphrase.text(), passphrase.length()));
            auto key = keyFromPKCS8(info.get());
            if (!key) return false;
            out.keys.push_back(std::move(key));
            break;
        }
        case NID_certBag:
            if (PKCS12_SAFEBAG_get_bag_nid(bag) == NID_x509Certificate) {
                OwnedX509 certificate(PKCS12_SAFEBAG_get1_cert(bag));
                if (!certificate) return false;
                out.certificates.push_back(std::move(certificate));
            }
            break;
        case NID_safeContentsBag:
            if (!collect(PKCS12_SAFEBAG_get0_safes(bag), passphrase, out, depth + 1)) return false;
            break;
        default: break;
        }
    }
    return true;
}

Bytes derOf(X509* certificate)
{
    unsigned char* der = nullptr;
    const int length = i2d_X509(certificate, &der);
    if (length <= 0) return {};
    Bytes out(der, der + length);
    OPENSSL_free(der);
    return out;
}

OwnedX509 parseCertificate(std::span<const std::uint8_t> der)
{
    if (der.empty() || der.size() > static_cast<std::size_t>(LONG_MAX)) return nullptr;
    const unsigned char* cursor = der.data();
    OwnedX509 certificate(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
    if (!certificate || cursor != der.data() + der.size()) return nullptr;
    return certificate;
}

} // namespace

PKCS12Contents decodePKCS12(std::span<const std::uint8_t> pkcs12, std::string_view passphrase)
{
    PKCS12Contents contents;
    if (pkcs12.empty() || pkcs12.size() > static_cast<std::size_t>(LONG_MAX)) return {secStatus::decode, {}};
    const unsigned char* cursor = pkcs12.data();
    OwnedPKCS12 file(d2i_PKCS12(nullptr, &cursor, static_cast<long>(pkcs12.size())));
    if (!file || cursor != pkcs12.data() + pkcs12.size()) return {secStatus::decode, {}};

    Passphrase secret(passphrase);
    const bool hasMAC = PKCS12_mac_present(file.get()) == 1;
    if (hasMAC) {
        if (PKCS12_verify_mac(file.get(), secret.text(), secret.length()) != 1) {
            if (!secret.empty()) return {secStatus::authFailed, {}};
            secret.useNone();
            if (PKCS12_verify_mac(file.get(), secret.text(), secret.length()) != 1) return {secStatus::authFailed, {}};
        }
    }
    // Without a MAC a wrong passphrase only shows as contents that will not decrypt.
    const SecStatus unreadable = hasMAC ? secStatus::decode : secStatus::authFailed;

    OwnedSafes safes(PKCS12_unpack_authsafes(file.get()));
    if (!safes) return {secStatus::decode, {}};
    Bags bags;
    for (int i = 0; i < sk_PKCS7_num(safes.get()); ++i) {
        PKCS7* safe = sk_PKCS7_value(safes.get(), i);
        OwnedBags list;
        switch (OBJ_obj2nid(safe->type)) {
        case NID_pkcs7_data: list.reset(PKCS12_unpack_p7data(safe)); break;
        case NID_pkcs7_encrypted: list.reset(PKCS12_unpack_p7encdata(safe, secret.text(), secret.length())); break;
        default: continue;
        }
        if (!list || !collect(list.get(), secret, bags, 0)) return {unreadable, {}};
    }

    for (const auto& key : bags.keys) {
        auto privateKey = privateKeyOf(key.get());
        if (!privateKey) return {secStatus::decode, {}};
        std::optional<Identity> identity;
        for (const auto& certificate : bags.certificates) {
            if (X509_check_private_key(certificate.get(), key.get()) == 1) {
                identity = Identity{derOf(certificate.get()), std::move(*privateKey)};
                break;
            }
        }
        contents.items.push_back(std::move(identity));
    }
    return contents;
}

bool isCertificateDER(std::span<const std::uint8_t> der) { return parseCertificate(der) != nullptr; }

std::optional<PublicKey> certificatePublicKey(std::span<const std::uint8_t> der)
{
    const auto certificate = parseCertificate(der);
    if (!certificate) return std::nullopt;
    const EVP_PKEY* key = X509_get0_pubkey(certificate.get());
    if (!key) return std::nullopt;
    return publicKeyOf(key);
}

std::optional<PublicKey> importablePrivateKey(std::span<const std::uint8_t> der)
{
    if (der.empty() || der.size() > static_cast<std::size_t>(LONG_MAX)) return std::nullopt;
    for (const int type : {EVP_PKEY_RSA, EVP_PKEY_EC}) {
        const unsigned char* cursor = der.data();
        OwnedKey key(d2i_PrivateKey(type, nullptr, &cursor, static_cast<long>(der.size())));
        if (key && cursor == der.data() + der.size()) return publicKeyOf(key.get());
    }
    return std::nullopt;
}

Bytes applicationLabel(const PublicKey& key)
{
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (EVP_Digest(key.bytes.data(), key.bytes.size(), digest.data(), &length, EVP_sha1(), nullptr) != 1) return {};
    digest.resize(length);
    return digest;
}

} // namespace orven::KeyMaterial
