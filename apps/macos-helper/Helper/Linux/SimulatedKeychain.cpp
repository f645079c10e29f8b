#include "SimulatedKeychain.h"

#include <nlohmann/json.hpp>

#include "Files.h"
#include "Linux/KeyMaterial.h"
#include "MethodDispatch.h"

namespace orven {

namespace {

using nlohmann::json;

constexpr SecStatus kUnknownFormat = -25257;   // errSecUnknownFormat
constexpr SecStatus kInvalidItemRef = -25304;  // errSecInvalidItemRef

struct SimACL {
    std::vector<std::string> authorizations;
    std::optional<std::vector<std::string>> applications;  // absent: any application
};

struct SimKey {
    KeyMaterial::KeyType type = KeyMaterial::KeyType::other;
    Bytes label;
    std::optional<SecretBytes> exported;  // keys in memory only
    std::optional<std::string> id;        // keys in the keychain
    std::vector<SimACL> acl;
};

struct SimCertificate {
    Bytes der;
    std::optional<std::string> id;
};

struct SimIdentity {
    std::shared_ptr<const SimCertificate> certificate;
    std::shared_ptr<const SimKey> key;
};

struct SimKeychain {
    std::string path;
};
struct SimTrustedApplication {
    std::string path;
};
struct SimAccess {
    std::vector<SimACL> acl;
};

template <class T, class Tag>
const T& object(const FileKeychainCalls::Ref<Tag>& ref)
{
    return *static_cast<const T*>(ref.get());
}

template <class Ref, class T>
Ref makeRef(T value)
{
    return Ref(std::make_shared<const T>(std::move(value)));
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

std::optional<Bytes> fromHex(std::string_view text)
{
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    if (text.size() % 2 != 0) return std::nullopt;
    Bytes out;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digit(text[i]), low = digit(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        out.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return out;
}

std::string_view typeName(KeyMaterial::KeyType type)
{
    switch (type) {
    case KeyMaterial::KeyType::rsa: return "rsa";
    case KeyMaterial::KeyType::ecSECPrimeRandom: return "ec";
    case KeyMaterial::KeyType::other: return "other";
    }
    return "other";
}

KeyMaterial::KeyType typeNamed(std::string_view name)
{
    if (name == "rsa") return KeyMaterial::KeyType::rsa;
    if (name == "ec") return KeyMaterial::KeyType::ecSECPrimeRandom;
    return KeyMaterial::KeyType::other;
}

std::optional<json> parsed(const std::optional<std::string>& text)
{
    if (!text) return std::nullopt;
    auto value = json::parse(*text, nullptr, false);
    if (value.is_discarded() || !value.is_object()) return std::nullopt;
    return value;
}

std::optional<SimKey> keyFromListing(const json& item)
{
    try {
        SimKey key;
        key.id = item.at("id").get<std::string>();
        auto label = fromHex(item.at("label").get<std::string>());
        if (!label) return std::nullopt;
        key.label = std::move(*label);
        key.type = typeNamed(item.at("type").get<std::string>());
        for (const auto& entry : item.at("acl")) {
            SimACL acl{entry.at("authorizations").get<std::vector<std::string>>(), std::nullopt};
            if (!entry.at("applications").is_null())
                acl.applications = entry.at("applications").get<std::vector<std::string>>();
            key.acl.push_back(std::move(acl));
        }
        return key;
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

json aclToJSON(const std::vector<SimACL>& acl)
{
    json out = json::array();
    for (const auto& entry : acl) {
        json item = {{"authorizations", entry.authorizations}};
        item["applications"] = entry.applications ? json(*entry.applications) : json(nullptr);
        out.push_back(std::move(item));
    }
    return out;
}

} // namespace

SimulatedKeychain::SimulatedKeychain(std::string root, Simulator simulator)
    : root_(std::move(root)), simulator_(std::move(simulator))
{
}

std::optional<std::string> SimulatedKeychain::listing()
{
    const auto result = simulator_({"list"}, std::nullopt);
    if (result.code != 0) return std::nullopt;
    return result.out;
}

SecStatus SimulatedKeychain::change(const std::vector<std::string>& arguments, const std::optional<std::string>& request)
{
    const auto result = simulator_(arguments, request);
    const auto answer = parsed(result.code == 0 ? std::optional(result.out) : std::nullopt);
    if (!answer || !answer->contains("status") || !(*answer)["status"].is_number_integer()) return secStatus::io;
    return (*answer)["status"].get<SecStatus>();
}

SecStatus SimulatedKeychain::setUserInteractionAllowed(bool) { return secStatus::success; }

bool SimulatedKeychain::isOperatingSystemAtLeast(int major)
{
    const auto state = parsed(listing());
    if (!state || !state->contains("macOSVersion") || !(*state)["macOSVersion"].is_number_integer()) return false;
    return (*state)["macOSVersion"].get<int>() >= major;
}

bool SimulatedKeychain::programExists(std::string_view path) { return files::exists(root_ + std::string(path)); }

std::optional<FileKeychainCalls::TrustedApplicationRef>
SimulatedKeychain::trustedApplicationCreateFromPath(std::string_view path)
{
    if (!programExists(path)) return std::nullopt;
    return makeRef<TrustedApplicationRef>(SimTrustedApplication{std::string(path)});
}

std::optional<Bytes> SimulatedKeychain::trustedApplicationCopyData(const TrustedApplicationRef& application)
{
    const auto& path = object<SimTrustedApplication>(application).path;
    Bytes data(path.begin(), path.end());
    data.push_back(0);
    return data;
}

std::optional<FileKeychainCalls::KeychainRef> SimulatedKeychain::keychainOpen(std::string_view path)
{
    if (!files::exists(root_ + std::string(path))) return std::nullopt;
    return makeRef<KeychainRef>(SimKeychain{std::string(path)});
}

FileKeychainCalls::PKCS12Import SimulatedKeychain::pkcs12Import(const Bytes& pkcs12, std::string_view passphrase)
{
    auto contents = KeyMaterial::decodePKCS12(pkcs12, passphrase);
    PKCS12Import imported{contents.status, {}};
    for (auto& item : contents.items) {
        if (!item) {
            imported.items.emplace_back();
            continue;
        }
        SimKey key;
        key.type = item->key.publicKey.type;
        key.label = KeyMaterial::applicationLabel(item->key.publicKey);
        key.exported = std::move(item->key.exported);
        SimIdentity identity{std::make_shared<const SimCertificate>(SimCertificate{item->certificateDER, std::nullopt}),
                             std::make_shared<const SimKey>(std::move(key))};
        imported.items.emplace_back(makeRef<IdentityRef>(std::move(identity)));
    }
    return imported;
}

std::optional<FileKeychainCalls::CertificateRef>
SimulatedKeychain::identityCopyCertificate(const IdentityRef& identity)
{
    const auto& certificate = object<SimIdentity>(identity).certificate;
    if (!certificate) return std::nullopt;
    return CertificateRef(certificate);
}

std::optional<FileKeychainCalls::KeyRef> SimulatedKeychain::identityCopyPrivateKey(const IdentityRef& identity)
{
    const auto& key = object<SimIdentity>(identity).key;
    if (!key) return std::nullopt;
    return KeyRef(key);
}

std::optional<FileKeychainCalls::CertificateRef> SimulatedKeychain::certificateCreateWithData(const Bytes& der)
{
    if (!KeyMaterial::isCertificateDER(der)) return std::nullopt;
    return makeRef<CertificateRef>(SimCertificate{der, std::nullopt});
}

Bytes SimulatedKeychain::certificateCopyData(const CertificateRef& certificate)
{
    return object<SimCertificate>(certificate).der;
}

std::optional<FileKeychainCalls::KeyRef> SimulatedKeychain::certificateCopyKey(const CertificateRef& certificate)
{
    const auto publicKey = KeyMaterial::certificatePublicKey(object<SimCertificate>(certificate).der);
    if (!publicKey) return std::nullopt;
    SimKey key;
    key.type = publicKey->type;
    key.label = KeyMaterial::applicationLabel(*publicKey);
    return makeRef<KeyRef>(std::move(key));
}

std::optional<FileKeychainCalls::KeyAttributes> SimulatedKeychain::keyCopyAttributes(const KeyRef& key)
{
    const auto& simulated = object<SimKey>(key);
    return KeyAttributes{simulated.label, simulated.type};
}

std::optional<SecretBytes> SimulatedKeychain::keyCopyExternalRepresentation(const KeyRef& key)
{
    // Keys stored in the keychain are sensitive: they do not come out.
    const auto& simulated = object<SimKey>(key);
    if (!simulated.exported) return std::nullopt;
    return SecretBytes(simulated.exported->bytes());
}

std::optional<FileKeychainCalls::AccessRef>
SimulatedKeychain::accessCreate(std::string_view, const std::vector<TrustedApplicationRef>& applications)
{
    std::vector<std::string> paths;
    for (const auto& application : applications) paths.push_back(object<SimTrustedApplication>(application).path);
    // As SecAccessCreate does: anyone may encrypt; the listed programs may
    // use the private key.
    SimAccess access;
    access.acl.push_back({{"encrypt"}, std::nullopt});
    access.acl.push_back({{"decrypt", "derive", "sign"}, std::move(paths)});
    return makeRef<AccessRef>(std::move(access));
}

std::optional<FileKeychainCalls::AccessRef> SimulatedKeychain::itemCopyAccess(const KeyRef& key)
{
    const auto& simulated = object<SimKey>(key);
    if (!simulated.id) return std::nullopt;
    return makeRef<AccessRef>(SimAccess{simulated.acl});
}

std::optional<std::vector<FileKeychainCalls::ACLRef>> SimulatedKeychain::accessCopySigningACLs(const AccessRef& access)
{
    std::vector<ACLRef> acls;
    for (const auto& entry : object<SimAccess>(access).acl)
        for (const auto& authorization : entry.authorizations)
            if (authorization == "sign" || authorization == "any") {
                acls.push_back(makeRef<ACLRef>(entry));
                break;
            }
    return acls;
}

std::optional<FileKeychainCalls::ACLContents> SimulatedKeychain::aclCopyContents(const ACLRef& acl)
{
    const auto& entry = object<SimACL>(acl);
    ACLContents contents;
    if (entry.applications) {
        contents.applications.emplace();
        for (const auto& path : *entry.applications)
            contents.applications->push_back(makeRef<TrustedApplicationRef>(SimTrustedApplication{path}));
    }
    return contents;
}

FileKeychainCalls::KeyMatches SimulatedKeychain::copyPrivateKeys(const KeychainRef&)
{
    const auto state = parsed(listing());
    if (!state || !state->contains("keys") || !(*state)["keys"].is_array()) return {secStatus::io, {}};
    KeyMatches matches;
    for (const auto& item : (*state)["keys"]) {
        auto key = keyFromListing(item);
        if (!key) return {secStatus::io, {}};
        matches.keys.push_back(makeRef<KeyRef>(std::move(*key)));
    }
    if (matches.keys.empty()) matches.status = secStatus::itemNotFound;
    return matches;
}

FileKeychainCalls::CertificateMatches SimulatedKeychain::copyCertificates(const KeychainRef&,
                                                                          const Bytes& publicKeyHash)
{
    const auto state = parsed(listing());
    if (!state || !state->contains("certificates") || !(*state)["certificates"].is_array()) return {secStatus::io, {}};
    CertificateMatches matches;
    const std::string wanted = hex(publicKeyHash);
    for (const auto& item : (*state)["certificates"]) {
        if (!item.is_object() || item.value("publicKeyHash", "") != wanted) continue;
        auto der = MethodDispatch::base64Decode(item.value("der", ""));
        if (!der) return {secStatus::io, {}};
        matches.certificates.push_back(
            makeRef<CertificateRef>(SimCertificate{std::move(*der), item.value("id", "")}));
    }
    if (matches.certificates.empty()) matches.status = secStatus::itemNotFound;
    return matches;
}

SecStatus SimulatedKeychain::itemImport(const KeychainRef&, const SecretBytes& privateKey, KeyType type,
                                        const AccessRef& access)
{
    const auto publicKey = KeyMaterial::importablePrivateKey(privateKey.bytes());
    if (!publicKey || publicKey->type != type) return kUnknownFormat;
    json request = {{"label", hex(KeyMaterial::applicationLabel(*publicKey))},
                    {"type", typeName(publicKey->type)},
                    {"acl", aclToJSON(object<SimAccess>(access).acl)}};
    std::string encoded = MethodDispatch::base64Encode(privateKey.bytes());
    request["data"] = encoded;
    wipeMemory(encoded.data(), encoded.size());
    std::optional<std::string> text = request.dump();
    request["data"].get_ref<std::string&>().assign(encoded.size(), '\0');
    const auto status = change({"import-key"}, text);
    wipeMemory(text->data(), text->size());
    return status;
}

SecStatus SimulatedKeychain::certificateAdd(const KeychainRef&, const CertificateRef& certificate)
{
    const auto& der = object<SimCertificate>(certificate).der;
    const auto publicKey = KeyMaterial::certificatePublicKey(der);
    if (!publicKey) return kUnknownFormat;
    const json request = {{"der", MethodDispatch::base64Encode(der)},
                          {"publicKeyHash", hex(KeyMaterial::applicationLabel(*publicKey))}};
    return change({"add-certificate"}, request.dump());
}

SecStatus SimulatedKeychain::deleteItem(const std::optional<std::string>& id)
{
    if (!id) return kInvalidItemRef;
    return change({"delete", *id}, std::nullopt);
}

SecStatus SimulatedKeychain::itemDelete(const KeyRef& key) { return deleteItem(object<SimKey>(key).id); }

SecStatus SimulatedKeychain::itemDelete(const CertificateRef& certificate)
{
    return deleteItem(object<SimCertificate>(certificate).id);
}

} // namespace orven
