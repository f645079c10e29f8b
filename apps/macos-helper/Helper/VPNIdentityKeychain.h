#pragma once
// Placing a VPN client identity (private key and certificate) in a file
// keychain so that exactly the system's IKEv2 signing programs may sign with
// the key, and taking it out again. Every step is checked afterwards, and a
// key that cannot be proven ours is never touched.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "FileKeychainCalls.h"

namespace orven::VPNIdentityKeychain {

inline constexpr std::string_view systemKeychainPath = "/Library/Keychains/System.keychain";
// The name given to the key's access object.
inline constexpr std::string_view keyLabel = "ORVEN VPN identity";

struct Failure {
    std::string message;
    bool operator==(const Failure&) const = default;
};

enum class Outcome { alreadyInPlace, installed, replaced };
enum class ReleaseOutcome { removed, notPresent, leftInPlace };

std::string_view name(Outcome outcome);
std::string_view name(ReleaseOutcome outcome);

std::variant<Outcome, Failure> install(const Bytes& pkcs12, std::string_view passphrase, std::string_view keychainPath,
                                       const std::vector<std::string>& signers, FileKeychainCalls& calls);
std::variant<ReleaseOutcome, Failure> release(const Bytes& pkcs12, std::string_view passphrase,
                                              std::string_view keychainPath, const std::vector<std::string>& signers,
                                              FileKeychainCalls& calls);

// RFC 5915 ECPrivateKey DER from the X9.63 export of a P-256, P-384 or P-521
// private key (04 || X || Y || K); no result for anything else.
std::optional<SecretBytes> sec1ECPrivateKey(std::span<const std::uint8_t> x963);

} // namespace orven::VPNIdentityKeychain
