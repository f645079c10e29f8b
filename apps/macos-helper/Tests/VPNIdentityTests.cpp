// Installing and releasing the VPN identity through the service, against the
// simulated System keychain, with PKCS#12 files made here with OpenSSL.

#include <dirent.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "ForwardingHost.h"
#include "MethodDispatch.h"
#include "Text.h"
#include "Support/SimulatedMac.h"
#include "Support/TestIdentities.h"
#include "VPNIdentityKeychain.h"

namespace orven {
namespace {

using nlohmann::json;
using testing::KeyKind;
using testing::ReplyCapture;
using testing::SimulatedDaemon;
using testing::testIdentity;

constexpr const char* kPassphrase = "correct horse 7f3a9c";
const std::vector<std::string> kSigners(OrvenHelperConstants::vpnIdentitySigners.begin(),
                                        OrvenHelperConstants::vpnIdentitySigners.end());
const std::string kUnsupported = "only RSA and P-256, P-384, P-521 keys are supported";

using CodeReply = std::pair<std::int64_t, std::optional<std::string>>;

// A keychain that hands every call to another one; tests disturb a few.
class ForwardingKeychainCalls : public FileKeychainCalls {
public:
    explicit ForwardingKeychainCalls(FileKeychainCalls& inner) : inner_(inner) {}
    SecStatus setUserInteractionAllowed(bool allowed) override { return inner_.setUserInteractionAllowed(allowed); }
    bool isOperatingSystemAtLeast(int major) override { return inner_.isOperatingSystemAtLeast(major); }
    bool programExists(std::string_view path) override { return inner_.programExists(path); }
    std::optional<TrustedApplicationRef> trustedApplicationCreateFromPath(std::string_view path) override
    {
        return inner_.trustedApplicationCreateFromPath(path);
    }
    std::optional<Bytes> trustedApplicationCopyData(const TrustedApplicationRef& application) override
    {
        return inner_.trustedApplicationCopyData(application);
    }
    std::optional<KeychainRef> keychainOpen(std::string_view path) override { return inner_.keychainOpen(path); }
    PKCS12Import pkcs12Import(const Bytes& pkcs12, std::string_view passphrase) override
    {
        return inner_.pkcs12Import(pkcs12, passphrase);
    }
    std::optional<CertificateRef> identityCopyCertificate(const IdentityRef& identity) override
    {
        return inner_.identityCopyCertificate(identity);
    }
    std::optional<KeyRef> identityCopyPrivateKey(const IdentityRef& identity) override
    {
        return inner_.identityCopyPrivateKey(identity);
    }
    std::optional<CertificateRef> certificateCreateWithData(const Bytes& der) override
    {
        return inner_.certificateCreateWithData(der);
    }
    Bytes certificateCopyData(const CertificateRef& certificate) override
    {
        return inner_.certificateCopyData(certificate);
    }
    std::optional<KeyRef> certificateCopyKey(const CertificateRef& certificate) override
    {
        return inner_.certificateCopyKey(certificate);
    }
    std::optional<KeyAttributes> keyCopyAttributes(const KeyRef& key) override { return inner_.keyCopyAttributes(key); }
    std::optional<SecretBytes> keyCopyExternalRepresentation(const KeyRef& key) override
    {
        return inner_.keyCopyExternalRepresentation(key);
    }
    std::optional<AccessRef> accessCreate(std::string_view name,
                                          const std::vector<TrustedApplicationRef>& applications) override
    {
        return inner_.accessCreate(name, applications);
    }
    std::optional<AccessRef> itemCopyAccess(const KeyRef& key) override { return inner_.itemCopyAccess(key); }
    std::optional<std::vector<ACLRef>> accessCopySigningACLs(const AccessRef& access) override
    {
        return inner_.accessCopySigningACLs(access);
    }
    std::optional<ACLContents> aclCopyContents(const ACLRef& acl) override { return inner_.aclCopyContents(acl); }
    KeyMatches copyPrivateKeys(const KeychainRef& keychain) override { return inner_.copyPrivateKeys(keychain); }
    CertificateMatches copyCertificates(const KeychainRef& keychain, const Bytes& publicKeyHash) override
    {
        return inner_.copyCertificates(keychain, publicKeyHash);
    }
    SecStatus itemImport(const KeychainRef& keychain, const SecretBytes& privateKey, KeyType type,
                         const AccessRef& access) override
    {
        return inner_.itemImport(keychain, privateKey, type, access);
    }
    SecStatus certificateAdd(const KeychainRef& keychain, const CertificateRef& certificate) override
    {
        return inner_.certificateAdd(keychain, certificate);
    }
    SecStatus itemDelete(const KeyRef& key) override { return inner_.itemDelete(key); }
    SecStatus itemDelete(const CertificateRef& certificate) override { return inner_.itemDelete(certificate); }

private:
    FileKeychainCalls& inner_;
};

// An import that stores the key and then reports failure, as a half-done
// SecItemImport can.
class HalfDoneImport final : public ForwardingKeychainCalls {
public:
    using ForwardingKeychainCalls::ForwardingKeychainCalls;
    SecStatus itemImport(const KeychainRef& keychain, const SecretBytes& privateKey, KeyType type,
                         const AccessRef& access) override
    {
        ForwardingKeychainCalls::itemImport(keychain, privateKey, type, access);
        return -25308;  // errSecInteractionNotAllowed
    }
};

class KeychainSwapHost final : public ForwardingHost {
public:
    KeychainSwapHost(Host& inner, FileKeychainCalls& keychain) : ForwardingHost(inner), keychain_(keychain) {}
    FileKeychainCalls& keychain() override { return keychain_; }

private:
    FileKeychainCalls& keychain_;
};

class VPNIdentity : public ::testing::Test {
protected:
    CodeReply install(const Bytes& pkcs12, const std::string& passphrase = kPassphrase)
    {
        return call(&HelperService::installVPNIdentity, pkcs12, passphrase);
    }
    CodeReply release(const Bytes& pkcs12, const std::string& passphrase = kPassphrase)
    {
        return call(&HelperService::releaseVPNIdentity, pkcs12, passphrase);
    }
    CodeReply call(void (HelperService::*method)(const std::vector<std::uint8_t>&, const std::string&,
                                                 Reply<std::int64_t, OptionalText>),
                   const Bytes& pkcs12, const std::string& passphrase)
    {
        ReplyCapture<std::int64_t, std::optional<std::string>> capture;
        (service.*method)(pkcs12, passphrase, capture.reply());
        EXPECT_EQ(capture.count(), 1);
        if (!capture.answered()) return {-99, "no answer"};
        return {capture.get<0>(), capture.get<1>()};
    }

    json keychain() const
    {
        const auto result = daemon.mac.macsim("keychain", {"list"});
        EXPECT_EQ(result.code, 0) << result.err;
        return json::parse(result.out);
    }
    std::string plant(const std::vector<std::string>& arguments) const
    {
        const auto result = daemon.mac.macsim("keychain", arguments);
        EXPECT_EQ(result.code, 0) << result.err;
        return std::string(text::trimWhitespaceAndNewlines(result.out));
    }
    std::vector<json> keychainChanges() const
    {
        std::vector<json> changes;
        for (const auto& call : daemon.mac.calls())
            if (call["tool"] == "securityd") changes.push_back(call);
        return changes;
    }
    static std::vector<std::string> signersOf(const json& key)
    {
        std::vector<std::string> paths;
        for (const auto& entry : key["acl"]) {
            const auto authorizations = entry["authorizations"].get<std::vector<std::string>>();
            if (std::find(authorizations.begin(), authorizations.end(), "sign") == authorizations.end()) continue;
            if (entry["applications"].is_null()) paths.emplace_back("*");
            else for (const auto& path : entry["applications"]) paths.push_back(path.get<std::string>());
        }
        return paths;
    }

    SimulatedDaemon daemon;
    HelperService service = daemon.service(501);
};

// --- Key kinds -----------------------------------------------------------------

struct KeyCase {
    KeyKind kind;
    std::optional<std::string> curve;  // absent: RSA, or refused
    bool supported;
};

void PrintTo(const KeyCase& c, std::ostream* out) { *out << testing::keyKindName(c.kind); }

class VPNIdentityKeyKinds : public VPNIdentity, public ::testing::WithParamInterface<KeyCase> {};

TEST_P(VPNIdentityKeyKinds, AreStoredInTheKeychainsFormOrRefused)
{
    const auto& identity = testIdentity(GetParam().kind);
    const auto answer = install(testing::makePKCS12(identity, kPassphrase));
    const json state = keychain();
    if (!GetParam().supported) {
        EXPECT_EQ(answer, (CodeReply{-1, kUnsupported}));
        EXPECT_TRUE(state["keys"].empty());
        EXPECT_TRUE(state["certificates"].empty());
        EXPECT_TRUE(daemon.log.contains("installVPNIdentity failed: " + kUnsupported));
        return;
    }
    EXPECT_EQ(answer, (CodeReply{1, std::nullopt}));
    EXPECT_TRUE(daemon.log.contains("installVPNIdentity: installed"));
    ASSERT_EQ(state["keys"].size(), 1u);
    const json& key = state["keys"][0];
    EXPECT_EQ(key["label"], identity.applicationLabelHex);
    EXPECT_EQ(signersOf(key), kSigners);
    const auto stored = MethodDispatch::base64Decode(key["data"].get<std::string>());
    ASSERT_TRUE(stored);
    // Byte for byte what OpenSSL writes for the same key.
    EXPECT_EQ(*stored, identity.privateKeyDER);
    EXPECT_TRUE(testing::isPrivateKeyOf(*stored, identity));
    EXPECT_EQ(testing::ecPrivateKeyCurve(*stored), GetParam().curve);
    ASSERT_EQ(state["certificates"].size(), 1u);
    EXPECT_EQ(state["certificates"][0]["der"], MethodDispatch::base64Encode(identity.certificateDER));
}

INSTANTIATE_TEST_SUITE_P(Kinds, VPNIdentityKeyKinds,
                         ::testing::Values(KeyCase{KeyKind::rsa2048, std::nullopt, true},
                                           KeyCase{KeyKind::p256, "prime256v1", true},
                                           KeyCase{KeyKind::p384, "secp384r1", true},
                                           KeyCase{KeyKind::p521, "secp521r1", true},
                                           KeyCase{KeyKind::p224, std::nullopt, false},
                                           KeyCase{KeyKind::ed25519, std::nullopt, false}),
                         [](const auto& info) { return std::string(testing::keyKindName(info.param.kind)); });

// --- Inputs that never reach the keychain ----------------------------------------

TEST_F(VPNIdentity, UndecodableInputsAreNamed)
{
    const auto& identity = testIdentity(KeyKind::p256);
    auto damaged = testing::makePKCS12(identity, kPassphrase);
    damaged.resize(damaged.size() / 2);
    const struct {
        const char* name;
        Bytes pkcs12;
        std::string passphrase;
        std::string message;
    } cases[] = {
        {"wrong passphrase", testing::makePKCS12(identity, kPassphrase), "not the passphrase",
         "the passphrase does not open the identity"},
        {"damaged file", damaged, kPassphrase, "the identity could not be decoded (-26275)"},
        {"empty file", {}, kPassphrase, "the identity could not be decoded (-26275)"},
        {"two identities",
         testing::makePKCS12WithTwoIdentities(identity, testing::otherTestIdentity(KeyKind::rsa2048), kPassphrase),
         kPassphrase, "expected one identity, found 2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(install(c.pkcs12, c.passphrase), (CodeReply{-1, c.message}));
        EXPECT_EQ(release(c.pkcs12, c.passphrase), (CodeReply{-1, c.message}));
        EXPECT_TRUE(daemon.log.contains("releaseVPNIdentity failed: " + c.message));
    }
    EXPECT_TRUE(keychain()["keys"].empty());
    EXPECT_TRUE(keychainChanges().empty());
}

TEST_F(VPNIdentity, SizeBoundsAreCheckedBeforeAnyKeychainWork)
{
    const std::string longest(1024, 'p');
    const auto& identity = testIdentity(KeyKind::p256);
    const auto opensWithLongest = testing::makePKCS12(identity, longest);
    Bytes largest(262144, 0x30);
    const std::string outside = "Identity or passphrase outside the accepted size";
    const struct {
        const char* name;
        Bytes pkcs12;
        std::string passphrase;
        CodeReply installed;
    } cases[] = {
        {"262,144 bytes is decoded", largest, kPassphrase, {-1, "the identity could not be decoded (-26275)"}},
        {"262,145 bytes is refused", Bytes(262145, 0x30), kPassphrase, {-1, outside}},
        {"a 1,024-byte passphrase opens the identity", opensWithLongest, longest, {1, std::nullopt}},
        {"a 1,025-byte passphrase is refused", opensWithLongest, longest + "p", {-1, outside}},
        {"1,025 bytes counted in UTF-8", opensWithLongest, std::string(1023, 'p') + "\xC3\xA9", {-1, outside}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        daemon.log.clear();
        EXPECT_EQ(install(c.pkcs12, c.passphrase), c.installed);
        const bool refused = c.installed.second == outside;
        EXPECT_EQ(daemon.log.contains("installVPNIdentity: rejected input outside the size bounds"), refused);
        if (refused) {
            EXPECT_EQ(release(c.pkcs12, c.passphrase), (CodeReply{-1, outside}));
            EXPECT_TRUE(daemon.log.contains("releaseVPNIdentity: rejected input outside the size bounds"));
        }
    }
}

// --- Install ---------------------------------------------------------------------

TEST_F(VPNIdentity, InstallingTwiceFindsItInPlace)
{
    const auto pkcs12 = testing::makePKCS12(testIdentity(KeyKind::p384), kPassphrase);
    EXPECT_EQ(install(pkcs12), (CodeReply{1, std::nullopt}));
    const auto changesAfterFirst = keychainChanges().size();
    EXPECT_EQ(install(pkcs12), (CodeReply{0, std::nullopt}));
    EXPECT_TRUE(daemon.log.contains("installVPNIdentity: alreadyInPlace"));
    const json state = keychain();
    EXPECT_EQ(state["keys"].size(), 1u);
    EXPECT_EQ(state["certificates"].size(), 1u);
    // Only the certificate was offered again (and found there).
    const auto changes = keychainChanges();
    ASSERT_EQ(changes.size(), changesAfterFirst + 1);
    EXPECT_EQ(changes.back()["args"][0], "add-certificate");
}

TEST_F(VPNIdentity, AKeyWithAWrongAccessListIsReplaced)
{
    const auto& identity = testIdentity(KeyKind::rsa2048);
    const std::vector<std::vector<std::string>> plantings{
        {"--signer", "/usr/sbin/racoon"},
        {"--any-application"},
        {"--signer", kSigners[0], "--signer", kSigners[1], "--signer", kSigners[2], "--signer", "/usr/bin/ssh"},
    };
    for (const auto& extra : plantings) {
        SCOPED_TRACE(extra.back());
        std::vector<std::string> arguments{"plant-key", identity.applicationLabelHex};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        const std::string planted = plant(arguments);
        EXPECT_EQ(install(testing::makePKCS12(identity, kPassphrase)), (CodeReply{2, std::nullopt}));
        const json state = keychain();
        ASSERT_EQ(state["keys"].size(), 1u);
        EXPECT_NE(state["keys"][0]["id"], planted);
        EXPECT_EQ(signersOf(state["keys"][0]), kSigners);
        // Back to a foreign key for the next planting.
        plant({"delete", state["keys"][0]["id"].get<std::string>()});
    }
}

TEST_F(VPNIdentity, AFailedImportRemovesItsStraysAndNothingElse)
{
    HalfDoneImport calls(daemon.simulatedHost.keychain());
    KeychainSwapHost host(daemon.simulatedHost, calls);
    DaemonContext context(host);
    HelperService disturbed(context, 501);
    const std::string bystander = plant({"plant-key", "00112233445566778899aabbccddeeff00112233"});

    ReplyCapture<std::int64_t, std::optional<std::string>> capture;
    disturbed.installVPNIdentity(testing::makePKCS12(testIdentity(KeyKind::p256), kPassphrase), kPassphrase,
                                 capture.reply());
    EXPECT_EQ(capture.get<0>(), -1);
    EXPECT_EQ(capture.get<1>(), "the key could not be stored (-25308)");
    const json state = keychain();
    ASSERT_EQ(state["keys"].size(), 1u);
    EXPECT_EQ(state["keys"][0]["id"], bystander);
    EXPECT_TRUE(state["certificates"].empty());
}

TEST_F(VPNIdentity, PreparationRefusesWhatItCannotDo)
{
    const auto pkcs12 = testing::makePKCS12(testIdentity(KeyKind::p256), kPassphrase);

    plant({"macos", "14"});
    EXPECT_EQ(install(pkcs12), (CodeReply{-1, "this needs macOS 15 or newer"}));
    plant({"macos", "15"});

    // Programs missing from the system are left out of the access list.
    ASSERT_EQ(::unlink(daemon.mac.path("/usr/sbin/racoon").c_str()), 0);
    EXPECT_EQ(install(pkcs12), (CodeReply{1, std::nullopt}));
    EXPECT_EQ(signersOf(keychain()["keys"][0]), (std::vector<std::string>{kSigners[0], kSigners[2]}));

    // A key stored while all three were there is still ours to release.
    ASSERT_EQ(release(pkcs12), (CodeReply{0, std::nullopt}));
    plant({"plant-key", testIdentity(KeyKind::p256).applicationLabelHex, "--signer", kSigners[0], "--signer",
           kSigners[1], "--signer", kSigners[2]});
    EXPECT_EQ(release(pkcs12), (CodeReply{0, std::nullopt}));

    ASSERT_EQ(::unlink(daemon.mac.path("/usr/libexec/nehelper").c_str()), 0);
    ASSERT_EQ(::rmdir(daemon.mac.path(kSigners[0]).c_str()), 0);
    EXPECT_EQ(install(pkcs12), (CodeReply{-1, "none of the signing programs exists on this system"}));
    EXPECT_EQ(release(pkcs12), (CodeReply{-1, "none of the signing programs exists on this system"}));
}

// --- Release ---------------------------------------------------------------------

TEST_F(VPNIdentity, ReleasingOurKeyRemovesKeyAndCertificate)
{
    const auto pkcs12 = testing::makePKCS12(testIdentity(KeyKind::p521), kPassphrase);
    const std::string bystander = plant({"plant-key", "ffeeddccbbaa99887766554433221100ffeeddcc"});
    ASSERT_EQ(install(pkcs12), (CodeReply{1, std::nullopt}));
    EXPECT_EQ(release(pkcs12), (CodeReply{0, std::nullopt}));
    EXPECT_TRUE(daemon.log.contains("releaseVPNIdentity: removed"));
    json state = keychain();
    ASSERT_EQ(state["keys"].size(), 1u);
    EXPECT_EQ(state["keys"][0]["id"], bystander);
    EXPECT_TRUE(state["certificates"].empty());
    EXPECT_EQ(release(pkcs12), (CodeReply{1, std::nullopt}));
    EXPECT_TRUE(daemon.log.contains("releaseVPNIdentity: notPresent"));
}

TEST_F(VPNIdentity, KeysThatAreNotProvablyOursAreNeverTouched)
{
    const auto& identity = testIdentity(KeyKind::rsa2048);
    const auto pkcs12 = testing::makePKCS12(identity, kPassphrase);
    const std::string& label = identity.applicationLabelHex;
    const struct {
        const char* name;
        std::vector<std::vector<std::string>> plantings;
        CodeReply released;
        CodeReply installed;
    } cases[] = {
        {"created by another program", {{"plant-key", label}}, {2, std::nullopt}, {2, std::nullopt}},
        {"open to any application", {{"plant-key", label, "--any-application"}}, {2, std::nullopt}, {2, std::nullopt}},
        {"our programs and another",
         {{"plant-key", label, "--signer", kSigners[1], "--signer", "/usr/bin/ssh"}},
         {2, std::nullopt},
         {2, std::nullopt}},
        {"two keys with the hash",
         {{"plant-key", label, "--signer", kSigners[0]}, {"plant-key", label}},
         {-1, "2 keys carry this identity's hash; not touching any"},
         {-1, "2 keys carry this identity's hash; not touching any"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const json previous = keychain();
        for (const auto& key : previous["keys"]) plant({"delete", key["id"].get<std::string>()});
        for (const auto& planting : c.plantings) plant(planting);
        daemon.mac.clearCalls();
        const json before = keychain();
        EXPECT_EQ(release(pkcs12), c.released);
        EXPECT_EQ(keychain(), before);
        EXPECT_TRUE(keychainChanges().empty());
        if (c.installed.first == -1) {
            EXPECT_EQ(install(pkcs12), c.installed);
        }
    }
}

TEST_F(VPNIdentity, KeychainRefusalsAreNamedWithTheirStatus)
{
    const auto& identity = testIdentity(KeyKind::p256);
    const auto pkcs12 = testing::makePKCS12(identity, kPassphrase);
    const auto refuse = [&](const std::string& change) {
        daemon.mac.addFault({"--tool", "securityd", "--args", change, "--exit", "1"});
    };

    refuse("add-certificate .*");
    EXPECT_EQ(install(pkcs12), (CodeReply{-1, "the certificate could not be stored (-36)"}));
    EXPECT_EQ(install(pkcs12), (CodeReply{0, std::nullopt}));  // the key had been stored

    refuse("delete .*");
    EXPECT_EQ(release(pkcs12), (CodeReply{-1, "the key could not be removed (-36)"}));
    const json state = keychain();
    ASSERT_EQ(state["certificates"].size(), 1u);
    refuse("delete " + state["certificates"][0]["id"].get<std::string>());
    EXPECT_EQ(release(pkcs12), (CodeReply{-1, "the key was removed; its certificate could not be removed (-36)"}));
    EXPECT_TRUE(keychain()["keys"].empty());

    plant({"plant-key", identity.applicationLabelHex, "--signer", "/usr/sbin/racoon"});
    refuse("delete .*");
    EXPECT_EQ(install(pkcs12), (CodeReply{-1, "the existing key could not be removed (-36)"}));
    EXPECT_EQ(keychain()["keys"].size(), 1u);
}

// --- Secrets ---------------------------------------------------------------------

void collectFiles(const std::string& folder, std::vector<std::string>& out)
{
    DIR* directory = ::opendir(folder.c_str());
    if (!directory) return;
    while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string path = folder + "/" + name;
        if (entry->d_type == DT_DIR) collectFiles(path, out);
        else if (entry->d_type == DT_REG) out.push_back(path);
    }
    ::closedir(directory);
}

TEST_F(VPNIdentity, ThePassphraseIsNeverWrittenAnywhere)
{
    const std::string passphrase = "secret-9d41e7-passphrase";
    const auto& identity = testIdentity(KeyKind::p256);
    const auto pkcs12 = testing::makePKCS12(identity, passphrase);
    EXPECT_EQ(install(pkcs12, passphrase).first, 1);
    EXPECT_EQ(install(pkcs12, passphrase + "x").first, -1);
    EXPECT_EQ(release(pkcs12, passphrase).first, 0);
    EXPECT_EQ(release(Bytes(262145, 1), passphrase).first, -1);

    for (const auto& message : daemon.log.messages()) EXPECT_EQ(message.find(passphrase), std::string::npos) << message;
    std::vector<std::string> files;
    collectFiles(daemon.mac.root(), files);
    ASSERT_FALSE(files.empty());
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::string content(std::istreambuf_iterator<char>(in), {});
        EXPECT_EQ(content.find(passphrase), std::string::npos) << file;
    }
}

// --- The elliptic-curve conversion -----------------------------------------------

TEST(Sec1ECPrivateKey, AgreesWithOpenSSLByteForByte)
{
    for (const auto kind : {KeyKind::p256, KeyKind::p384, KeyKind::p521}) {
        for (const auto* identity : {&testIdentity(kind), &testing::otherTestIdentity(kind)}) {
            SCOPED_TRACE(testing::keyKindName(kind));
            const auto converted = VPNIdentityKeychain::sec1ECPrivateKey(identity->privateKeyX963);
            ASSERT_TRUE(converted);
            EXPECT_EQ(converted->bytes(), identity->privateKeyDER);
        }
    }
}

TEST(Sec1ECPrivateKey, RefusesAnythingButTheThreeCurves)
{
    const auto& p256 = testIdentity(KeyKind::p256).privateKeyX963;
    Bytes compressed = p256;
    compressed[0] = 0x02;
    Bytes longer = p256;
    longer.push_back(0);
    const struct {
        const char* name;
        Bytes input;
    } cases[] = {
        {"empty", {}},
        {"the prefix alone", {0x04}},
        {"not an uncompressed point", compressed},
        {"one byte more", longer},
        {"one byte less", Bytes(p256.begin(), p256.end() - 1)},
        {"P-224", testIdentity(KeyKind::p224).privateKeyX963},
        {"an RSA export", testIdentity(KeyKind::rsa2048).privateKeyDER},
    };
    for (const auto& c : cases) EXPECT_FALSE(VPNIdentityKeychain::sec1ECPrivateKey(c.input)) << c.name;
}

} // namespace
} // namespace orven
