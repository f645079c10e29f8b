// The Linux host's PKCS#12 reading (SecPKCS12Import's stand-in) on any bytes.
// Input: one byte giving the passphrase's length, the passphrase, then the
// file. Beyond not crashing: every identity it finds comes with a certificate
// and a key in the export form the keychain code expects, and an EC key
// converted to an ECPrivateKey reads back as the same key.
#include <span>

#include "Linux/KeyMaterial.h"
#include "PFFuzzCheck.h"
#include "VPNIdentityKeychain.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    if (size == 0) return 0;
    const std::size_t passphraseLength = std::min<std::size_t>(data[0], size - 1);
    const std::string_view passphrase(reinterpret_cast<const char*>(data + 1), passphraseLength);
    const std::span<const std::uint8_t> file(data + 1 + passphraseLength, size - 1 - passphraseLength);

    const auto contents = KeyMaterial::decodePKCS12(file, passphrase);
    if (contents.status != secStatus::success) {
        fuzz::check(contents.items.empty(), "a failed import yields no items");
        return 0;
    }
    for (const auto& item : contents.items) {
        if (!item) continue;
        fuzz::check(KeyMaterial::isCertificateDER(item->certificateDER), "an identity's certificate is DER");
        const auto& key = item->key;
        fuzz::check(!key.exported.empty() && !key.publicKey.bytes.empty(), "an identity's key exports");
        if (key.publicKey.type != KeyMaterial::KeyType::ecSECPrimeRandom) continue;
        fuzz::check(key.exported.size() == key.publicKey.bytes.size() + (key.publicKey.bytes.size() - 1) / 2,
                    "an EC export is the public point and the scalar");
        if (const auto converted = VPNIdentityKeychain::sec1ECPrivateKey(key.exported.bytes())) {
            const auto readBack = KeyMaterial::importablePrivateKey(converted->bytes());
            fuzz::check(readBack && readBack->bytes == key.publicKey.bytes, "an ECPrivateKey reads back as the same key");
        }
    }
    return 0;
}
