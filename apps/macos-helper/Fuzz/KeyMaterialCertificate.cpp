// The Linux host's certificate reading (SecCertificateCreateWithData's
// stand-in) and the ECPrivateKey writer on any bytes. Beyond not crashing: a
// certificate is accepted only as exactly its DER, and the writer's output
// is one DER SEQUENCE whose length fields add up.
#include <span>

#include "Linux/KeyMaterial.h"
#include "PFFuzzCheck.h"
#include "VPNIdentityKeychain.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const std::span<const std::uint8_t> input(data, size);
    if (KeyMaterial::isCertificateDER(input)) {
        fuzz::check(size > 0 && data[0] == 0x30, "a certificate is a SEQUENCE");
        if (const auto key = KeyMaterial::certificatePublicKey(input))
            fuzz::check(KeyMaterial::applicationLabel(*key).size() == 20, "a label is a SHA-1 digest");
        if (size > 1) fuzz::check(!KeyMaterial::isCertificateDER(input.first(size - 1)), "a cut certificate is refused");
    }

    if (const auto converted = VPNIdentityKeychain::sec1ECPrivateKey(input)) {
        const auto& der = converted->bytes();
        fuzz::check(der.size() > 2 && der[0] == 0x30, "an ECPrivateKey is a SEQUENCE");
        std::size_t length = der[1], header = 2;
        if (length == 0x81) length = der[2], header = 3;
        else if (length == 0x82) length = (std::size_t{der[2]} << 8) | der[3], header = 4;
        fuzz::check(header + length == der.size(), "the SEQUENCE's length covers exactly its content");
    }
    return 0;
}
