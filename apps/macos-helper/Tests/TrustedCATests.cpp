// Adding and removing a trusted CA through "/usr/bin/security" on the
// simulated Mac, and the staged copy of the certificate that the tool reads.

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "Files.h"
#include "ForwardingHost.h"
#include "MethodDispatch.h"
#include "Support/SimulatedMac.h"
#include "Support/TestIdentities.h"

namespace orven {
namespace {

using nlohmann::json;
using testing::ActionCapture;
using testing::KeyKind;
using testing::SimulatedDaemon;

using ActionAnswer = std::pair<bool, std::optional<std::string>>;
const ActionAnswer kDone{true, std::nullopt};

// Looks at the staged file at the moment the tool is run.
class StagingWatch final : public ForwardingHost {
public:
    using ForwardingHost::ForwardingHost;
    struct Seen {
        std::string macPath;
        bool regularFile = false;
        unsigned mode = 0;
        std::string content;
    };
    BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& standardInput, double timeout,
                               double killGrace) override
    {
        if (macPath == "/usr/bin/security" && !arguments.empty()) {
            Seen seen;
            seen.macPath = arguments.back();
            struct stat info {};
            const std::string real = path(seen.macPath);
            if (::lstat(real.c_str(), &info) == 0) {
                seen.regularFile = S_ISREG(info.st_mode);
                seen.mode = info.st_mode & 07777;
                seen.content = files::read(real).value_or("");
            }
            staged.push_back(seen);
        }
        return ForwardingHost::run(macPath, arguments, standardInput, timeout, killGrace);
    }
    std::vector<Seen> staged;
};

class TrustedCA : public ::testing::Test {
protected:
    ActionAnswer installCA(const Bytes& der) { return call(true, der); }
    ActionAnswer removeCA(const Bytes& der) { return call(false, der); }
    ActionAnswer call(bool install, const Bytes& der)
    {
        ActionCapture capture;
        if (install) service.installTrustedCA(der, capture.reply());
        else service.removeTrustedCA(der, capture.reply());
        EXPECT_EQ(capture.count(), 1);
        if (!capture.answered()) return {false, "no answer"};
        return {capture.get<0>(), capture.get<1>()};
    }
    json trustSettings() const
    {
        return json::parse(daemon.mac.macsim("keychain", {"list"}).out)["trustSettings"];
    }
    std::vector<json> securityCalls() const
    {
        std::vector<json> calls;
        for (const auto& call : daemon.mac.calls())
            if (call["tool"] == "security") calls.push_back(call);
        return calls;
    }
    bool nothingStaged() const
    {
        std::vector<std::string> left;
        for (const auto& file : std::filesystem::directory_iterator(daemon.mac.path("/tmp")))
            left.push_back(file.path().filename().string());
        return left.empty();
    }

    SimulatedDaemon daemon;
    StagingWatch host{daemon.host};
    DaemonContext context{host};
    HelperService service{context, 501};
    const Bytes certificate = testing::testIdentity(KeyKind::p256).certificateDER;
};

TEST_F(TrustedCA, IsAddedForIPsecAndRemovedAgain)
{
    EXPECT_EQ(installCA(certificate), kDone);
    EXPECT_TRUE(daemon.log.contains("installTrustedCA OK"));
    const json settings = trustSettings();
    ASSERT_EQ(settings.size(), 1u);
    EXPECT_EQ(settings[0]["domain"], "admin");
    EXPECT_EQ(settings[0]["resultType"], "trustRoot");
    EXPECT_EQ(settings[0]["policies"], json::array({"IPSec"}));
    EXPECT_EQ(settings[0]["der"], MethodDispatch::base64Encode(certificate));

    EXPECT_EQ(removeCA(certificate), kDone);
    EXPECT_TRUE(daemon.log.contains("removeTrustedCA OK"));
    EXPECT_TRUE(trustSettings().empty());

    const auto calls = securityCalls();
    ASSERT_EQ(calls.size(), 2u);
    ASSERT_EQ(host.staged.size(), 2u);
    EXPECT_EQ(calls[0]["args"], json({"add-trusted-cert", "-d", "-r", "trustRoot", "-p", "IPSec", host.staged[0].macPath}));
    EXPECT_EQ(calls[1]["args"], json({"remove-trusted-cert", "-d", host.staged[1].macPath}));
    const std::regex name("/tmp/orven-ca-[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}\\.der");
    for (const auto& seen : host.staged) {
        EXPECT_TRUE(std::regex_match(seen.macPath, name)) << seen.macPath;
        EXPECT_TRUE(seen.regularFile);
        EXPECT_EQ(seen.mode, 0600u);
        EXPECT_EQ(seen.content, std::string(certificate.begin(), certificate.end()));
    }
    EXPECT_NE(host.staged[0].macPath, host.staged[1].macPath);
    EXPECT_TRUE(nothingStaged());
}

TEST_F(TrustedCA, InvalidCertificatesAreRefusedWithoutRunningTheTool)
{
    const std::string pem = testing::pemOf(certificate);
    Bytes withTrailer = certificate;
    withTrailer.push_back(0);
    Bytes huge = certificate;
    huge.resize(65537, 0);
    const struct {
        const char* name;
        Bytes der;
    } cases[] = {
        {"empty", {}},
        {"PEM", Bytes(pem.begin(), pem.end())},
        {"65,537 bytes", huge},
        {"trailing bytes", withTrailer},
        {"truncated", Bytes(certificate.begin(), certificate.end() - 1)},
        {"a PKCS#12 file", testing::makePKCS12(testing::testIdentity(KeyKind::p256), "x")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        daemon.log.clear();
        EXPECT_EQ(installCA(c.der), (ActionAnswer{false, "Not a valid CA certificate (DER)"}));
        EXPECT_TRUE(daemon.log.contains("installTrustedCA: rejected invalid CA DER"));
        EXPECT_EQ(removeCA(c.der), (ActionAnswer{false, "Not a valid CA certificate (DER)"}));
        EXPECT_TRUE(daemon.log.contains("removeTrustedCA: rejected invalid CA DER"));
    }
    EXPECT_TRUE(securityCalls().empty());
    EXPECT_TRUE(host.staged.empty());
    EXPECT_TRUE(nothingStaged());
}

TEST_F(TrustedCA, TheToolsRefusalsReachTheClient)
{
    EXPECT_EQ(removeCA(certificate),
              (ActionAnswer{false, "security exited 1: SecTrustSettingsRemoveTrustSettings: The specified item could "
                                   "not be found in the keychain."}));
    EXPECT_TRUE(daemon.log.contains("removeTrustedCA failed: security exited 1: SecTrustSettingsRemoveTrustSettings: "
                                    "The specified item could not be found in the keychain."));
    EXPECT_TRUE(nothingStaged());

    ASSERT_EQ(daemon.mac.macsim("keychain", {"headless", "on"}).code, 0);
    EXPECT_EQ(installCA(certificate),
              (ActionAnswer{false, "security exited 1: SecTrustSettingsSetTrustSettings: The authorization was denied "
                                   "since no user interaction was possible."}));
    EXPECT_TRUE(trustSettings().empty());
    EXPECT_TRUE(nothingStaged());

    daemon.mac.addFault({"--tool", "security", "--exit", "2", "--stderr", "  \n"});
    EXPECT_EQ(installCA(certificate), (ActionAnswer{false, "security exited 2"}));
    EXPECT_TRUE(nothingStaged());
    EXPECT_EQ(host.staged.size(), 3u);
}

TEST_F(TrustedCA, AStagingFailureIsReportedAndRunsNothing)
{
    std::filesystem::remove_all(daemon.mac.path("/tmp"));
    ASSERT_TRUE(files::writeAtomically(daemon.mac.path("/tmp"), "not a folder", 0644) == std::nullopt);
    EXPECT_EQ(installCA(certificate), (ActionAnswer{false, "Failed to stage CA cert: Not a directory"}));
    EXPECT_TRUE(securityCalls().empty());
}

TEST(SimulatedSecurityTool, AnswersAsTheRealOneDoes)
{
    testing::SimulatedMac mac;
    const auto& der = testing::testIdentity(KeyKind::p256).certificateDER;
    const std::string pem = testing::pemOf(der);
    ASSERT_FALSE(files::writeAtomically(mac.path("/tmp/ca.der"), std::string(der.begin(), der.end()), 0600));
    ASSERT_FALSE(files::writeAtomically(mac.path("/tmp/ca.pem"), pem, 0600));
    ASSERT_FALSE(files::writeAtomically(mac.path("/tmp/junk"), "junk", 0600));
    const struct {
        std::vector<std::string> arguments;
        int code;
        std::string err;
    } cases[] = {
        {{"add-trusted-cert", "-d", "-r", "trustRoot", "-p", "IPSec", "/tmp/ca.pem"}, 0, ""},
        {{"remove-trusted-cert", "-d", "/tmp/ca.der"}, 0, ""},
        {{"remove-trusted-cert", "-d", "/tmp/ca.der"},
         1,
         "SecTrustSettingsRemoveTrustSettings: The specified item could not be found in the keychain.\n"},
        {{"add-trusted-cert", "-d", "-r", "trustEverything", "/tmp/ca.der"}, 2, "Usage: add-trusted-cert"},
        {{"add-trusted-cert", "-d", "-p", "IPSec"}, 2, "Usage: add-trusted-cert"},
        {{"remove-trusted-cert", "-x", "/tmp/ca.der"}, 2, "Usage: remove-trusted-cert"},
        {{"add-trusted-cert", "/tmp/missing"}, 1, "Error reading file /tmp/missing\n"},
        {{"add-trusted-cert", "/tmp/junk"}, 1, "SecCertificateCreateFromData: Unknown format in import.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        const auto result = mac.tool("/usr/bin/security", c.arguments);
        EXPECT_EQ(result.code, c.code);
        EXPECT_TRUE(result.err.starts_with(c.err)) << result.err;
    }
}

} // namespace
} // namespace orven
