#include "VPNIdentityKeychain.h"

#include <algorithm>
#include <array>
#include <set>

namespace orven::VPNIdentityKeychain {

namespace {

using Calls = FileKeychainCalls;

constexpr std::string_view kUnsupportedKey = "only RSA and P-256, P-384, P-521 keys are supported";
constexpr std::string_view kUnreadableCertificateKey = "the certificate's public key could not be read";
constexpr std::string_view kUnreadableAccessList = "the existing key's access list could not be read";

std::string withStatus(std::string_view message, SecStatus status)
{
    return std::string(message) + " (" + std::to_string(status) + ")";
}

// What install and release both need before they look at the keychain.
struct Prepared {
    Calls::KeychainRef keychain;
    std::vector<Calls::TrustedApplicationRef> applications;
    // The program paths as the keychain names them, to compare access lists with.
    std::set<std::string> signerPaths;
    // Every signing program, present or not: a key we stored before a
    // program left the system is still ours to release.
    std::set<std::string> knownSigners;
    Calls::CertificateRef certificate;
    Calls::KeyRef key;
};

std::variant<std::pair<Calls::CertificateRef, Calls::KeyRef>, Failure> decode(const Bytes& pkcs12,
                                                                              std::string_view passphrase, Calls& calls)
{
    const auto imported = calls.pkcs12Import(pkcs12, passphrase);
    if (imported.status == secStatus::authFailed || imported.status == secStatus::pkcs12VerifyFailure)
        return Failure{"the passphrase does not open the identity"};
    if (imported.status != secStatus::success)
        return Failure{withStatus("the identity could not be decoded", imported.status)};
    const auto identities = std::count_if(imported.items.begin(), imported.items.end(),
                                          [](const auto& item) { return item.has_value(); });
    if (identities != 1) return Failure{"expected one identity, found " + std::to_string(identities)};
    const auto& identity = *std::find_if(imported.items.begin(), imported.items.end(),
                                         [](const auto& item) { return item.has_value(); });
    auto certificate = calls.identityCopyCertificate(*identity);
    auto key = calls.identityCopyPrivateKey(*identity);
    if (!certificate || !key || !*certificate || !*key) return Failure{"the identity has no key or no certificate"};
    return std::pair{std::move(*certificate), std::move(*key)};
}

std::variant<Prepared, Failure> prepare(const Bytes& pkcs12, std::string_view passphrase, std::string_view keychainPath,
                                        const std::vector<std::string>& signers, Calls& calls)
{
    // A daemon has nobody to answer a keychain prompt.
    calls.setUserInteractionAllowed(false);
    if (!calls.isOperatingSystemAtLeast(15)) return Failure{"this needs macOS 15 or newer"};

    Prepared prepared;
    prepared.knownSigners.insert(signers.begin(), signers.end());
    for (const auto& program : signers) {
        if (!calls.programExists(program)) continue;
        auto application = calls.trustedApplicationCreateFromPath(program);
        auto named = application ? FileKeychain::path(calls, *application) : std::nullopt;
        if (!named) return Failure{"a signing program could not be named for the access list"};
        prepared.applications.push_back(std::move(*application));
        prepared.knownSigners.insert(*named);
        prepared.signerPaths.insert(std::move(*named));
    }
    if (prepared.applications.empty()) return Failure{"none of the signing programs exists on this system"};

    auto keychain = calls.keychainOpen(keychainPath);
    if (!keychain || !*keychain) return Failure{"the keychain could not be opened"};
    prepared.keychain = std::move(*keychain);

    auto decoded = decode(pkcs12, passphrase, calls);
    if (auto* failure = std::get_if<Failure>(&decoded)) return std::move(*failure);
    auto& [certificate, key] = std::get<0>(decoded);
    prepared.certificate = std::move(certificate);
    prepared.key = std::move(key);
    return prepared;
}

// The application label of the certificate's public key.
std::optional<Bytes> identityHash(Calls& calls, const Calls::CertificateRef& certificate)
{
    const auto publicKey = calls.certificateCopyKey(certificate);
    if (!publicKey) return std::nullopt;
    auto attributes = calls.keyCopyAttributes(*publicKey);
    if (!attributes || attributes->applicationLabel.empty()) return std::nullopt;
    return std::move(attributes->applicationLabel);
}

struct LabelledKey {
    Calls::KeyRef key;
    Bytes label;
};

// Every private key of the keychain with its application label. A key whose
// label cannot be read might be the identity's: that fails the whole read.
std::variant<std::vector<LabelledKey>, Failure> privateKeys(Calls& calls, const Calls::KeychainRef& keychain)
{
    auto matches = calls.copyPrivateKeys(keychain);
    if (matches.status == secStatus::itemNotFound) return std::vector<LabelledKey>{};
    if (matches.status != secStatus::success)
        return Failure{withStatus("the keychain's keys could not be read", matches.status)};
    std::vector<LabelledKey> keys;
    for (auto& key : matches.keys) {
        auto attributes = calls.keyCopyAttributes(key);
        if (!attributes) return Failure{"a key in the keychain could not be read"};
        keys.push_back({std::move(key), std::move(attributes->applicationLabel)});
    }
    return keys;
}

std::variant<std::vector<Calls::KeyRef>, Failure> keysWithHash(Calls& calls, const Calls::KeychainRef& keychain,
                                                              const Bytes& hash)
{
    auto all = privateKeys(calls, keychain);
    if (auto* failure = std::get_if<Failure>(&all)) return std::move(*failure);
    std::vector<Calls::KeyRef> found;
    for (auto& labelled : std::get<0>(all))
        if (labelled.label == hash) found.push_back(std::move(labelled.key));
    return found;
}

Failure tooManyKeys(std::size_t count) { return Failure{std::to_string(count) + " keys carry this identity's hash; not touching any"}; }

struct Standing {
    enum class Kind { absent, inPlace, wrongAccessList };
    Kind kind = Kind::absent;
    std::optional<Calls::KeyRef> key;  // the key that is there
};

std::variant<Standing, Failure> standing(Calls& calls, const Prepared& prepared, const Bytes& hash)
{
    auto found = keysWithHash(calls, prepared.keychain, hash);
    if (auto* failure = std::get_if<Failure>(&found)) return std::move(*failure);
    auto& keys = std::get<0>(found);
    if (keys.empty()) return Standing{};
    if (keys.size() > 1) return tooManyKeys(keys.size());
    const auto signers = FileKeychain::signers(calls, keys.front());
    if (!signers) return Failure{std::string(kUnreadableAccessList)};
    const std::set<std::string> listed(signers->begin(), signers->end());
    const bool right = !listed.contains("*") && listed == prepared.signerPaths;
    return Standing{right ? Standing::Kind::inPlace : Standing::Kind::wrongAccessList, std::move(keys.front())};
}

std::optional<Failure> addCertificate(Calls& calls, const Prepared& prepared)
{
    const auto status = calls.certificateAdd(prepared.keychain, prepared.certificate);
    if (status == secStatus::success || status == secStatus::duplicateItem) return std::nullopt;
    return Failure{withStatus("the certificate could not be stored", status)};
}

// The key in the form the keychain imports: PKCS#1 for RSA, ECPrivateKey for
// elliptic curves.
std::optional<SecretBytes> importableKey(Calls& calls, const Calls::KeyRef& key, Calls::KeyType& type)
{
    const auto attributes = calls.keyCopyAttributes(key);
    if (!attributes) return std::nullopt;
    type = attributes->type;
    if (type != Calls::KeyType::rsa && type != Calls::KeyType::ecSECPrimeRandom) return std::nullopt;
    auto exported = calls.keyCopyExternalRepresentation(key);
    if (!exported || exported->empty()) return std::nullopt;
    if (type == Calls::KeyType::rsa) return exported;
    return sec1ECPrivateKey(exported->bytes());
}

// Removes the private keys that were not there before a failed import.
void removeStrays(Calls& calls, const Prepared& prepared, const std::set<Bytes>& before)
{
    auto after = privateKeys(calls, prepared.keychain);
    if (auto* keys = std::get_if<std::vector<LabelledKey>>(&after))
        for (const auto& labelled : *keys)
            if (!before.contains(labelled.label)) calls.itemDelete(labelled.key);
}

std::optional<Failure> store(Calls& calls, const Prepared& prepared, const Standing& present)
{
    Calls::KeyType type = Calls::KeyType::other;
    const auto keyData = importableKey(calls, prepared.key, type);
    if (!keyData) return Failure{std::string(kUnsupportedKey)};

    const auto keyAccess = FileKeychain::access(calls, keyLabel, prepared.applications);
    if (!keyAccess || !*keyAccess) return Failure{"the access list could not be built"};

    if (present.kind == Standing::Kind::wrongAccessList && present.key) {
        const auto status = calls.itemDelete(*present.key);
        if (status != secStatus::success) return Failure{withStatus("the existing key could not be removed", status)};
    }

    auto before = privateKeys(calls, prepared.keychain);
    if (auto* failure = std::get_if<Failure>(&before)) return std::move(*failure);
    std::set<Bytes> labelsBefore;
    for (const auto& labelled : std::get<0>(before)) labelsBefore.insert(labelled.label);

    const auto status = calls.itemImport(prepared.keychain, *keyData, type, *keyAccess);
    if (status != secStatus::success) {
        removeStrays(calls, prepared, labelsBefore);
        return Failure{withStatus("the key could not be stored", status)};
    }
    return addCertificate(calls, prepared);
}

std::variant<Outcome, Failure> place(Calls& calls, const Prepared& prepared)
{
    const auto hash = identityHash(calls, prepared.certificate);
    if (!hash) return Failure{std::string(kUnreadableCertificateKey)};
    auto before = standing(calls, prepared, *hash);
    if (auto* failure = std::get_if<Failure>(&before)) return std::move(*failure);
    const auto& present = std::get<Standing>(before);
    if (present.kind == Standing::Kind::inPlace) {
        if (auto failure = addCertificate(calls, prepared)) return std::move(*failure);
        return Outcome::alreadyInPlace;
    }
    if (auto failure = store(calls, prepared, present)) return std::move(*failure);

    auto after = standing(calls, prepared, *hash);
    if (auto* failure = std::get_if<Failure>(&after)) return std::move(*failure);
    if (std::get<Standing>(after).kind != Standing::Kind::inPlace)
        return Failure{"the stored key does not carry the expected access list"};
    return present.kind == Standing::Kind::absent ? Outcome::installed : Outcome::replaced;
}

std::optional<Failure> removeCertificates(Calls& calls, const Prepared& prepared, const Bytes& hash)
{
    auto matches = calls.copyCertificates(prepared.keychain, hash);
    if (matches.status == secStatus::itemNotFound) return std::nullopt;
    if (matches.status != secStatus::success)
        return Failure{withStatus("the key was removed; its certificate could not be looked up", matches.status)};
    const Bytes identityDER = calls.certificateCopyData(prepared.certificate);
    for (const auto& certificate : matches.certificates) {
        if (calls.certificateCopyData(certificate) != identityDER) continue;
        const auto status = calls.itemDelete(certificate);
        if (status != secStatus::success)
            return Failure{withStatus("the key was removed; its certificate could not be removed", status)};
    }
    return std::nullopt;
}

std::variant<ReleaseOutcome, Failure> take(Calls& calls, const Prepared& prepared)
{
    const auto hash = identityHash(calls, prepared.certificate);
    if (!hash) return Failure{std::string(kUnreadableCertificateKey)};
    auto found = keysWithHash(calls, prepared.keychain, *hash);
    if (auto* failure = std::get_if<Failure>(&found)) return std::move(*failure);
    const auto& keys = std::get<0>(found);
    if (keys.size() > 1) return tooManyKeys(keys.size());
    if (keys.empty()) return ReleaseOutcome::notPresent;

    const auto signers = FileKeychain::signers(calls, keys.front());
    if (!signers) return Failure{std::string(kUnreadableAccessList)};
    const bool ours = !signers->empty() && std::all_of(signers->begin(), signers->end(), [&](const std::string& path) {
        return path != "*" && prepared.knownSigners.contains(path);
    });
    if (!ours) return ReleaseOutcome::leftInPlace;

    const auto status = calls.itemDelete(keys.front());
    if (status != secStatus::success) return Failure{withStatus("the key could not be removed", status)};
    auto again = keysWithHash(calls, prepared.keychain, *hash);
    if (auto* failure = std::get_if<Failure>(&again)) return std::move(*failure);
    if (!std::get<0>(again).empty()) return Failure{"the key is still there after its removal"};

    if (auto failure = removeCertificates(calls, prepared, *hash)) return std::move(*failure);
    return ReleaseOutcome::removed;
}

// --- DER writing --------------------------------------------------------------

void appendLength(Bytes& out, std::size_t length)
{
    if (length < 128) {
        out.push_back(static_cast<std::uint8_t>(length));
    } else if (length < 256) {
        out.push_back(0x81);
        out.push_back(static_cast<std::uint8_t>(length));
    } else {
        out.push_back(0x82);
        out.push_back(static_cast<std::uint8_t>(length >> 8));
        out.push_back(static_cast<std::uint8_t>(length));
    }
}

void appendElement(Bytes& out, std::uint8_t tag, std::span<const std::uint8_t> content)
{
    out.push_back(tag);
    appendLength(out, content.size());
    out.insert(out.end(), content.begin(), content.end());
}

struct Curve {
    std::size_t fieldBytes;
    Bytes oid;  // the OBJECT IDENTIFIER's content octets
};

const std::array<Curve, 3>& namedCurves()
{
    static const std::array<Curve, 3> curves{{
        {32, {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}},  // 1.2.840.10045.3.1.7, P-256
        {48, {0x2B, 0x81, 0x04, 0x00, 0x22}},                    // 1.3.132.0.34, P-384
        {66, {0x2B, 0x81, 0x04, 0x00, 0x23}},                    // 1.3.132.0.35, P-521
    }};
    return curves;
}

} // namespace

std::string_view name(Outcome outcome)
{
    switch (outcome) {
    case Outcome::alreadyInPlace: return "alreadyInPlace";
    case Outcome::installed: return "installed";
    case Outcome::replaced: return "replaced";
    }
    return "?";
}

std::string_view name(ReleaseOutcome outcome)
{
    switch (outcome) {
    case ReleaseOutcome::removed: return "removed";
    case ReleaseOutcome::notPresent: return "notPresent";
    case ReleaseOutcome::leftInPlace: return "leftInPlace";
    }
    return "?";
}

std::variant<Outcome, Failure> install(const Bytes& pkcs12, std::string_view passphrase, std::string_view keychainPath,
                                       const std::vector<std::string>& signers, FileKeychainCalls& calls)
{
    auto prepared = prepare(pkcs12, passphrase, keychainPath, signers, calls);
    if (auto* failure = std::get_if<Failure>(&prepared)) return std::move(*failure);
    return place(calls, std::get<Prepared>(prepared));
}

std::variant<ReleaseOutcome, Failure> release(const Bytes& pkcs12, std::string_view passphrase,
                                              std::string_view keychainPath, const std::vector<std::string>& signers,
                                              FileKeychainCalls& calls)
{
    auto prepared = prepare(pkcs12, passphrase, keychainPath, signers, calls);
    if (auto* failure = std::get_if<Failure>(&prepared)) return std::move(*failure);
    return take(calls, std::get<Prepared>(prepared));
}

std::optional<SecretBytes> sec1ECPrivateKey(std::span<const std::uint8_t> x963)
{
    if (x963.empty() || x963[0] != 0x04 || (x963.size() - 1) % 3 != 0) return std::nullopt;
    const std::size_t n = (x963.size() - 1) / 3;
    const auto curve = std::find_if(namedCurves().begin(), namedCurves().end(),
                                    [n](const Curve& candidate) { return candidate.fieldBytes == n; });
    if (curve == namedCurves().end()) return std::nullopt;

    const auto point = x963.first(1 + 2 * n);
    const auto scalar = x963.subspan(1 + 2 * n);

    // Every piece that holds the scalar is secret and wiped.
    SecretBytes body;
    {
        Bytes content;
        content.reserve(16 + n + curve->oid.size() + point.size() + 16);
        const std::uint8_t version[] = {0x01};
        appendElement(content, 0x02, version);
        appendElement(content, 0x04, scalar);
        Bytes oid;
        appendElement(oid, 0x06, curve->oid);
        appendElement(content, 0xA0, oid);
        Bytes bits{0x00};
        bits.insert(bits.end(), point.begin(), point.end());
        Bytes bitString;
        appendElement(bitString, 0x03, bits);
        appendElement(content, 0xA1, bitString);
        body = SecretBytes(std::move(content));
    }
    Bytes out;
    out.reserve(body.size() + 4);
    appendElement(out, 0x30, body.bytes());
    return SecretBytes(std::move(out));
}

} // namespace orven::VPNIdentityKeychain
