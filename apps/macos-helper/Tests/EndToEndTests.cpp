// The daemon as a process on a simulated Mac, reached the way clients reach
// it: over its socket, each client with its own user id.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "HelperService.h"
#include "Linux/SocketClient.h"
#include "Support/DaemonProcess.h"
#include "MethodDispatch.h"
#include "Support/SimulatedMac.h"
#include "Support/TestIdentities.h"

namespace orven {
namespace {

using nlohmann::json;
using testing::callAs;
using testing::Client;
using testing::DaemonProcess;
using testing::request;
using testing::SimulatedMac;
using testing::TemporaryFolder;
using testing::waitUntil;

const std::string kAnchorListing = "-a com\\.apple/999\\.test\\.orven\\.app -sr";
const std::string kIsolation = "setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply:";

class EndToEnd : public ::testing::Test {
protected:
    EndToEnd()
    {
        // Other users' clients must be able to reach the socket's folder.
        ::chmod(sockets.path().c_str(), 0755);
    }

    std::unique_ptr<DaemonProcess> start(std::vector<std::uint32_t> allowedUIDs = {})
    {
        auto daemon = std::make_unique<DaemonProcess>(mac.root(), socketPath, sockets.path() + "/daemon.log",
                                                      std::move(allowedUIDs));
        EXPECT_TRUE(daemon->waitUntilListening()) << daemon->log();
        return daemon;
    }

    std::string joinedArguments(const json& call) const
    {
        std::string line;
        for (const auto& argument : call["args"]) line += (line.empty() ? "" : " ") + argument.get<std::string>();
        return line;
    }

    // The references pf holds, from `pfctl -s References`.
    std::vector<std::string> references() const
    {
        std::vector<std::string> tokens;
        std::istringstream lines(mac.pfctl({"-s", "References"}).out);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            std::vector<std::string> row{std::istream_iterator<std::string>(words), {}};
            if (row.size() >= 3 && std::all_of(row[2].begin(), row[2].end(), ::isdigit)) tokens.push_back(row[2]);
        }
        return tokens;
    }
    std::vector<std::string> recordedTokens() const
    {
        std::vector<std::string> tokens;
        for (const auto path : {paths::primaryToken, paths::emergencyToken}) {
            std::istringstream lines(mac.readFile(path).value_or(""));
            for (std::string line; std::getline(lines, line);)
                if (!line.empty()) tokens.push_back(line);
        }
        return tokens;
    }
    bool blackoutRulesLoaded() const
    {
        return mac.pfctl({"-a", "com.apple/999.test.orven.app", "-sr"}).out.find("block") != std::string::npos;
    }
    bool pfEnabled() const { return mac.pfctl({"-s", "info"}).out.find("Status: Enabled") != std::string::npos; }

    SimulatedMac mac;
    TemporaryFolder sockets;
    std::string socketPath = sockets.path() + "/helper.sock";
};

const json kOK = json::array({true, nullptr});

TEST_F(EndToEnd, TheOwnerCheckHoldsAcrossConnections)
{
    if (::geteuid() != 0) GTEST_SKIP() << "clients of other users need root to be made";
    auto daemon = start({501, 502});

    EXPECT_EQ(callAs(501, socketPath, request("setHardKillWithEngaged:reply:", {true})).value_or(json())["reply"], kOK);
    ASSERT_TRUE(mac.fileExists(paths::hardKillMarker));
    EXPECT_EQ(mac.readFile(paths::hardKillOwner), "501");

    // Another account's lift answers success and changes nothing.
    EXPECT_EQ(callAs(502, socketPath, request("setHardKillWithEngaged:reply:", {false})).value_or(json())["reply"], kOK);
    EXPECT_TRUE(mac.fileExists(paths::hardKillMarker));
    EXPECT_EQ(mac.readFile(paths::hardKillOwner), "501");
    EXPECT_TRUE(blackoutRulesLoaded());
    EXPECT_TRUE(pfEnabled());
    EXPECT_NE(daemon->log().find("Hard Kill lift REFUSED — the standing blackout belongs to another user account"),
              std::string::npos);

    EXPECT_EQ(callAs(501, socketPath, request("setHardKillWithEngaged:reply:", {false})).value_or(json())["reply"], kOK);
    EXPECT_FALSE(mac.fileExists(paths::hardKillMarker));
    EXPECT_FALSE(blackoutRulesLoaded());
    EXPECT_TRUE(references().empty());
}

TEST_F(EndToEnd, OnlyRootAndTheNamedUsersGetIn)
{
    if (::geteuid() != 0) GTEST_SKIP() << "clients of other users need root to be made";
    auto daemon = start({501});
    struct stat info{};
    ASSERT_EQ(::stat(socketPath.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u);

    EXPECT_EQ(callAs(501, socketPath, request("pingWithReply:")).value_or(json())["reply"],
              json::array({"ORVEN Helper 2.10.0"}));
    const auto refused = callAs(503, socketPath, request("pingWithReply:"));
    ASSERT_TRUE(refused);
    EXPECT_FALSE(refused->contains("reply"));
    EXPECT_EQ(refused->value("error", ""), "uid 503 may not use this daemon");
    EXPECT_NE(daemon->log().find("Refused a connection from uid 503"), std::string::npos);
}

TEST_F(EndToEnd, WithoutNamedUsersTheSocketIsRootsAlone)
{
    auto daemon = start();
    struct stat info{};
    ASSERT_EQ(::stat(socketPath.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(mac.readFile("/.macsim/launchd/test.orven.app.helper.pid"), std::to_string(daemon->pid()) + "\n");

    Client client(socketPath);
    EXPECT_EQ(client.call(request("pingWithReply:")).value_or(json())["reply"], json::array({"ORVEN Helper 2.10.0"}));
    const auto log = daemon->log();
    EXPECT_NE(log.find("[test.orven.app.helper:Bootstrap] ORVEN Helper starting (uid=0)"), std::string::npos);
    EXPECT_NE(log.find("[test.orven.app.helper:Bootstrap] Listener resumed on test.orven.app.helper"), std::string::npos);
    EXPECT_NE(log.find("[test.orven.app.helper:Listener] Accepted XPC connection"), std::string::npos);
}

TEST_F(EndToEnd, ConnectionsAreServedAtTheSameTime)
{
    auto daemon = start();
    mac.addFault({"--tool", "pfctl", "--args", kAnchorListing, "--delay", "3", "--times", "1"});
    Client slow(socketPath);
    Client quick(socketPath);
    slow.send(request("readHardKillStatusWithReply:", json::array(), "slow"));
    ASSERT_TRUE(waitUntil([&] {
        const auto calls = mac.calls();
        return std::any_of(calls.begin(), calls.end(), [](const json& c) { return c.value("fault", false); });
    }));
    EXPECT_EQ(quick.call(request("pingWithReply:")).value_or(json())["reply"], json::array({"ORVEN Helper 2.10.0"}));
    EXPECT_FALSE(slow.readLine(std::chrono::milliseconds(0))) << "the slow call was answered before the quick one";
    const auto answer = slow.readLine();
    ASSERT_TRUE(answer);
    EXPECT_EQ(json::parse(*answer)["id"], "slow");
}

TEST_F(EndToEnd, ADaemonKilledInTheMiddleOfAnEngageLosesNothingWhenItComesBack)
{
    mac.addFault({"--tool", "pfctl", "--args", "-F states", "--hang", "--times", "1"});
    {
        auto daemon = start();
        Client client(socketPath);
        client.send(request("setHardKillWithEngaged:reply:", {true}));
        std::optional<int> hangingPID;
        ASSERT_TRUE(waitUntil([&] {
            for (const auto& call : mac.calls())
                if (call.value("tool", "") == "pfctl" && joinedArguments(call) == "-F states")
                    hangingPID = call.value("pid", 0);
            return hangingPID.has_value();
        }));
        ::kill(daemon->pid(), SIGKILL);
        daemon->wait();
        // The tool it was waiting for would hang for ever.
        if (*hangingPID > 0) ::kill(*hangingPID, SIGKILL);
    }

    auto daemon = start();
    Client client(socketPath);
    ASSERT_TRUE(client.call(request("pingWithReply:")));

    const bool reapplied = mac.fileExists(paths::hardKillMarker) && blackoutRulesLoaded() && pfEnabled();
    const bool noBlackout = !blackoutRulesLoaded() && !mac.fileExists(paths::hardKillMarker) &&
                            !mac.fileExists(paths::hardKillOwner);
    EXPECT_TRUE(reapplied || noBlackout) << daemon->log();
    const auto recorded = recordedTokens();
    for (const auto& token : references())
        EXPECT_NE(std::find(recorded.begin(), recorded.end(), token), recorded.end())
            << "pf holds reference " << token << " that nothing records";
}

struct BadInput {
    const char* name;
    std::string selector;
    json arguments;
};

class EndToEndBadInput : public EndToEnd, public ::testing::WithParamInterface<BadInput> {};

TEST_P(EndToEndBadInput, IsRefusedAndRunsNoTool)
{
    auto daemon = start();
    mac.clearCalls();
    Client client(socketPath);
    const auto answer = client.call(request(GetParam().selector, GetParam().arguments, GetParam().name));
    ASSERT_TRUE(answer && answer->is_object());
    EXPECT_EQ((*answer)["id"], GetParam().name);
    ASSERT_TRUE(answer->contains("reply")) << *answer;
    const auto& reply = (*answer)["reply"];
    const bool refusedByTheTransport = answer->contains("error");
    const bool refusedByTheMethod = reply.size() == 2 && reply[0] == false && reply[1].is_string();
    EXPECT_TRUE(refusedByTheTransport || refusedByTheMethod) << *answer;
    EXPECT_TRUE(mac.calls().empty()) << "a tool ran: " << mac.calls().front().dump();
    // The connection is still usable and the daemon still runs.
    EXPECT_EQ(client.call(request("pingWithReply:")).value_or(json())["reply"], json::array({"ORVEN Helper 2.10.0"}));
    EXPECT_TRUE(daemon->running());
}

json isolation(const std::string& interface, const std::string& gateway = "192.168.1.1",
               const std::string& subnet = "192.168.1.0/24", json dns = json::array({"192.168.1.53"}))
{
    return json::array({true, interface, gateway, subnet, std::move(dns), "", json::array(), json::array()});
}

INSTANTIATE_TEST_SUITE_P(
    Cases, EndToEndBadInput,
    ::testing::Values(
        BadInput{"EngageAsText", "setHardKillWithEngaged:reply:", json::array({"true"})},
        BadInput{"EngageAsNumber", "setHardKillWithEngaged:reply:", json::array({1})},
        BadInput{"EngageAsNull", "setHardKillWithEngaged:reply:", json::array({nullptr})},
        BadInput{"EngageWithoutArgument", "setHardKillWithEngaged:reply:", json::array()},
        BadInput{"EngageTwice", "setHardKillWithEngaged:reply:", json::array({true, true})},
        BadInput{"StatusWithArgument", "readHardKillStatusWithReply:", json::array({1})},
        BadInput{"EnforcementWithArgument", "readHardKillEnforcementWithReply:", json::array({"x"})},
        BadInput{"ResidueWithArgument", "readHardKillResidueWithTokenWithReply:", json::array({nullptr})},
        BadInput{"ProofWithArgument", "readHardKillProofWithReply:", json::array({json::array()})},
        BadInput{"UninstallWithArgument", "uninstallSelfWithReply:", json::array({true})},
        BadInput{"SelfTerminateWithArgument", "selfTerminateWithReply:", json::array({true})},
        BadInput{"PingWithArgument", "pingWithReply:", json::array({"hello"})},
        BadInput{"IsolationTooFewArguments", kIsolation, json::array({true, "en0"})},
        BadInput{"IsolationDNSNotStrings", kIsolation, isolation("en0", "192.168.1.1", "192.168.1.0/24", {1, 2})},
        BadInput{"IsolationShellInName", kIsolation, isolation("en0; rm -rf /")},
        BadInput{"IsolationPathInName", kIsolation, isolation("../../etc/passwd")},
        BadInput{"IsolationNewlineInName", kIsolation, isolation("en0\n")},
        BadInput{"IsolationNULInName", kIsolation, isolation(std::string("en\0" "0", 4))},
        BadInput{"IsolationBidiControlInName", kIsolation, isolation("\u202Een0")},
        BadInput{"IsolationFullWidthName", kIsolation, isolation("\uFF45\uFF4E0")},
        BadInput{"IsolationHugeName", kIsolation, isolation(std::string(512 * 1024, 'e'))},
        BadInput{"IsolationEmptyName", kIsolation, isolation("")},
        BadInput{"IsolationGatewayWithCRLF", kIsolation, isolation("en0", "192.168.1.1\r\n")},
        BadInput{"IsolationSubnetOutOfRange", kIsolation, isolation("en0", "192.168.1.1", "192.168.1.0/33")},
        BadInput{"IsolationDNSWithNUL", kIsolation,
                 isolation("en0", "192.168.1.1", "192.168.1.0/24", json::array({std::string("192.168.1.53\0", 13)}))},
        BadInput{"IsolationHugeDNSList", kIsolation,
                 isolation("en0", "192.168.1.1", "192.168.1.0/24", json(std::vector<std::string>(20000, "x")))},
        BadInput{"IPv4SlashInServiceName", "applyIPv4WithServiceName:mode:ip:subnetMask:router:reply:",
                 json::array({"Wi-Fi/../x", "manual", "1.2.3.4", "255.0.0.0", "1.2.3.1"})},
        BadInput{"WiFiBellInServiceName", "setWiFiPowerWithServiceName:on:reply:", json::array({"Wi-Fi\u0007", true})},
        BadInput{"TunnelMTUOutOfRange", "setRawInterfaceMTUWithBsdName:mtu:reply:", json::array({"utun0", 1501})},
        BadInput{"ConfiguredMTUOnATunnel", "setInterfaceMTUWithBsdName:mtu:reply:", json::array({"utun3", 1400})},
        BadInput{"HoldOnABadName", "setInterfaceHoldUntilNeededWithBsdName:hold:reply:", json::array({"en0;", true})},
        BadInput{"RestoreATunnel", "restoreDriverProvisionedInterfaceWithBsdName:reply:", json::array({"utun2"})},
        BadInput{"IPv6PrefixTooLong", "applyIPv6WithServiceName:mode:router:address:prefixLength:reply:",
                 json::array({"Wi-Fi", "manual", "fe80::1", "2001:db8::5", 129})},
        BadInput{"SSIDTooLong", "addPreferredWiFiNetworkWithServiceName:ssid:securityType:password:reply:",
                 json::array({"en0", std::string(33, 'x'), "WPA2", "secret-password"})},
        BadInput{"OrderTooLong", "setServiceOrderWithOrderedServiceNames:reply:",
                 json::array({json(std::vector<std::string>(65, "Wi-Fi"))})}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(EndToEnd, MalformedAndOversizedLinesRunNoTool)
{
    auto daemon = start();
    mac.clearCalls();
    Client client(socketPath);
    for (const std::string line : {"nonsense\n", "{\"selector\":\"rm\"}\n", "[[[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]]]\n",
                                   "{\"id\":1,\"selector\":\"setHardKillWithEngaged:reply:\",\"arguments\":7}\n"}) {
        const auto answer = client.call(line);
        ASSERT_TRUE(answer && answer->is_object()) << line;
        EXPECT_TRUE(answer->contains("error")) << line;
        EXPECT_FALSE(answer->contains("reply")) << line;
    }
    // Longer than any request may be: answered once, then the connection ends.
    client.send(std::string(2 * 1024 * 1024, 'a'));
    const auto answer = client.readLine();
    ASSERT_TRUE(answer);
    EXPECT_NE(answer->find("request line longer than"), std::string::npos);
    EXPECT_FALSE(client.readLine());
    EXPECT_TRUE(mac.calls().empty());
    EXPECT_TRUE(daemon->running());
    EXPECT_TRUE(waitUntil([&] { return daemon->log().find("Connection invalidated") != std::string::npos; }));
}

TEST_F(EndToEnd, UninstallEndsInLaunchdStoppingTheDaemon)
{
    auto daemon = start();
    std::ofstream(mac.path(paths::launchdPlist)) << "<plist/>";
    Client client(socketPath);
    EXPECT_EQ(client.call(request("uninstallSelfWithReply:")).value_or(json())["reply"], kOK);
    const auto status = daemon->waitForExit();
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
    EXPECT_FALSE(mac.fileExists(paths::launchdPlist));
    EXPECT_FALSE(mac.fileExists(paths::appBundle));
    EXPECT_FALSE(mac.fileExists("/.macsim/launchd/test.orven.app.helper.pid"));
    const auto log = daemon->log();
    EXPECT_NE(log.find("uninstallSelf: kicking launchctl bootout"), std::string::npos);
    EXPECT_EQ(log.find("exit(0) fallback"), std::string::npos) << "launchd's stop did not end the daemon";
}

TEST_F(EndToEnd, SelfTerminateAndLaunchdsStopBothEndTheDaemonCleanly)
{
    {
        auto daemon = start();
        Client client(socketPath);
        EXPECT_EQ(client.call(request("selfTerminateWithReply:")).value_or(json())["reply"], json::array({true}));
        const auto status = daemon->waitForExit();
        ASSERT_TRUE(status);
        EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
    }
    auto daemon = start();
    ::kill(daemon->pid(), SIGTERM);
    const auto status = daemon->waitForExit();
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
}

TEST_F(EndToEnd, TheLinkDiagnosticsAnswerThroughTheDaemon)
{
    ASSERT_EQ(mac.macsim("set", {"target", "192.168.1.1", "rtt", "30.1,2.0,2.4"}).code, 0);
    ASSERT_EQ(mac.macsim("log", {"add", "--process", "NEIKEv2Provider", "--time", "now-10", "--message",
                                 "IKE SA state Connected to vpn.example.com"})
                  .code,
              0);
    auto daemon = start();
    Client client(socketPath);
    const auto fit = client.call(request("pingWithDontFragmentWithTarget:payloadBytes:boundInterface:timeoutMillis:reply:",
                                         json::array({"192.168.1.1", 1472, "en0", 500})));
    EXPECT_EQ(fit.value_or(json())["reply"], json::array({true, nullptr}));
    const auto tooBig =
        client.call(request("pingWithDontFragmentWithTarget:payloadBytes:boundInterface:timeoutMillis:reply:",
                            json::array({"192.168.1.1", 1473, "en0", 500})));
    EXPECT_EQ(tooBig.value_or(json())["reply"], json::array({false, nullptr}));
    const auto median =
        client.call(request("gatewayPingRTTWithTarget:count:spacingMillis:boundInterface:timeoutMillis:reply:",
                            json::array({"192.168.1.1", 3, 50, "en0", 500})));
    EXPECT_EQ(median.value_or(json())["reply"], json::array({2.2, nullptr}));
    const auto lines = client.call(request("readIKEv2DiagnosticLogSinceEpoch:serverAddress:reply:",
                                           json::array({0.0, "vpn.example.com"})));
    ASSERT_TRUE(lines && lines->contains("reply")) << lines.value_or(json());
    const auto& reply = (*lines)["reply"];
    ASSERT_TRUE(reply.size() == 2 && reply[0].is_string()) << reply;
    EXPECT_NE(reply[0].get<std::string>().find("NEIKEv2Provider: IKE SA state Connected to vpn.example.com"),
              std::string::npos);
    EXPECT_TRUE(reply[1].is_null());
}

} // namespace
} // namespace orven

namespace orven {
namespace {

// Network configuration and Wi-Fi: every method answers through the daemon
// itself, and what it configured is what networksetup reads back.
TEST_F(EndToEnd, EveryNetworkAndWiFiMethodAnswers)
{
    auto daemon = start();
    Client client(socketPath);
    const std::string password = "pw-for-the-cafe-42";
    const std::vector<std::tuple<std::string, json, json>> calls{
        {"applyIPv4WithServiceName:mode:ip:subnetMask:router:reply:",
         json::array({"Wi-Fi", "manual", "10.0.0.5", "255.255.255.0", "10.0.0.1"}), kOK},
        {"applyIPv6WithServiceName:mode:router:address:prefixLength:reply:",
         json::array({"Wi-Fi", "manual", "fe80::1", "2001:db8::5", 64}), kOK},
        {"setServiceOrderWithOrderedServiceNames:reply:", json::array({json::array({"Thunderbolt Bridge", "Wi-Fi"})}),
         kOK},
        {"setInterfaceMTUWithBsdName:mtu:reply:", json::array({"en0", 1400}), kOK},
        {"setRawInterfaceMTUWithBsdName:mtu:reply:", json::array({"utun0", 1400}), kOK},
        {"setInterfaceHoldUntilNeededWithBsdName:hold:reply:", json::array({"bridge0", true}), kOK},
        {"restoreDriverProvisionedInterfaceWithBsdName:reply:", json::array({"en0"}),
         json::array({false, "en0 is a configured network service — not driver-provisioned."})},
        {"setWiFiPowerWithServiceName:on:reply:", json::array({"en0", false}), kOK},
        {"addPreferredWiFiNetworkWithServiceName:ssid:securityType:password:reply:",
         json::array({"en0", "Cafe", "WPA2", password}), kOK},
    };
    for (const auto& [selector, arguments, expected] : calls) {
        const auto answer = client.call(request(selector, arguments));
        ASSERT_TRUE(answer && answer->is_object()) << selector;
        EXPECT_FALSE(answer->contains("error")) << *answer;
        EXPECT_EQ((*answer)["reply"], expected) << selector;
    }
    const auto order = client.call(request("listServiceOrderWithReply:"));
    ASSERT_TRUE(order);
    EXPECT_EQ((*order)["reply"][1], nullptr);
    EXPECT_EQ((*order)["reply"][0].get<std::string>().rfind("An asterisk (*) denotes that a network service is "
                                                            "disabled.\n(1) Thunderbolt Bridge\n",
                                                            0),
              0u)
        << *order;
    const auto known = client.call(request("readKnownWiFiPlistDataWithReply:"));
    ASSERT_TRUE(known);
    const auto bytes = MethodDispatch::base64Decode((*known)["reply"][0].get<std::string>());
    ASSERT_TRUE(bytes);
    EXPECT_EQ(std::string(bytes->begin(), bytes->end()), mac.readFile(paths::knownWiFiNetworks));

    const auto info = mac.tool("/usr/sbin/networksetup", {"-getinfo", "Wi-Fi"}).out;
    EXPECT_NE(info.find("IP address: 10.0.0.5\nSubnet mask: 255.255.255.0\nRouter: 10.0.0.1\n"), std::string::npos)
        << info;
    EXPECT_EQ(daemon->log().find(password), std::string::npos);
}

TEST_F(EndToEnd, TheIdentityAndCAMethodsAnswerThroughTheDaemon)
{
    auto daemon = start();
    const std::string passphrase = "end-to-end 4c1d passphrase";
    const auto& identity = testing::testIdentity(testing::KeyKind::p256);
    const auto pkcs12 = testing::makePKCS12(identity, passphrase);
    sockets.writeFile("identity.p12", std::string(pkcs12.begin(), pkcs12.end()));
    sockets.writeFile("ca.der", std::string(identity.certificateDER.begin(), identity.certificateDER.end()));
    const auto orvenctl = [&](const std::string& selector, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--socket", socketPath, selector});
        const auto result = BoundedProcess::run(ORVEN_ORVENCTL_PATH, arguments, std::nullopt, 60, 2);
        EXPECT_EQ(result.code, 0) << result.err;
        return json::parse(result.out, nullptr, false)["reply"];
    };
    const std::string p12 = "@" + sockets.path() + "/identity.p12", ca = "@" + sockets.path() + "/ca.der";
    const std::string install = "installVPNIdentityWithPkcs12:passphrase:reply:";
    const std::string release = "releaseVPNIdentityWithPkcs12:passphrase:reply:";
    EXPECT_EQ(orvenctl(install, {p12, passphrase}), json::array({1, nullptr}));
    EXPECT_EQ(orvenctl(install, {p12, passphrase}), json::array({0, nullptr}));
    EXPECT_EQ(orvenctl(install, {p12, "wrong"}), json::array({-1, "the passphrase does not open the identity"}));
    EXPECT_EQ(orvenctl(release, {p12, passphrase}), json::array({0, nullptr}));
    EXPECT_EQ(orvenctl("installTrustedCAWithCertificateDER:reply:", {ca}), kOK);
    EXPECT_EQ(orvenctl("removeTrustedCAWithCertificateDER:reply:", {ca}), kOK);
    EXPECT_EQ(orvenctl("removeTrustedCAWithCertificateDER:reply:", {ca}),
              json::array({false, "security exited 1: SecTrustSettingsRemoveTrustSettings: The specified item could "
                                  "not be found in the keychain."}));

    const auto log = daemon->log();
    EXPECT_NE(log.find("installVPNIdentity: installed"), std::string::npos) << log;
    EXPECT_NE(log.find("releaseVPNIdentity: removed"), std::string::npos) << log;
    EXPECT_NE(log.find("installTrustedCA OK"), std::string::npos) << log;
    EXPECT_EQ(log.find(passphrase), std::string::npos);
    EXPECT_EQ(log.find("not available in this build"), std::string::npos);
}

} // namespace
} // namespace orven
