// Wi-Fi power, preferred networks and the known-networks file against a fresh
// simulated Mac; the password of a network must not show anywhere but in
// networksetup's own arguments.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "HelperService.h"
#include "Support/BinaryPlist.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using nlohmann::json;
using testing::ActionCapture;

const std::string kPassword = "correct horse battery staple";

class WiFi : public ::testing::Test {
protected:
    testing::SimulatedDaemon daemon;
    HelperService service = daemon.service(501);

    std::string networksetup(const std::vector<std::string>& arguments) const
    {
        return daemon.mac.tool("/usr/sbin/networksetup", arguments).out;
    }
    std::vector<std::vector<std::string>> networksetupRuns() const
    {
        std::vector<std::vector<std::string>> runs;
        for (const auto& run : daemon.host.runs())
            if (run.path == paths::networksetup) runs.push_back(run.arguments);
        return runs;
    }
    // No log line, and no record of the simulated Mac, holds the password.
    void expectPasswordNowhere() const
    {
        for (const auto& message : daemon.log.messages()) EXPECT_EQ(message.find(kPassword), std::string::npos) << message;
        for (const auto& call : daemon.mac.calls()) EXPECT_EQ(call.dump().find(kPassword), std::string::npos) << call;
        EXPECT_EQ(daemon.mac.show({"network"}).find(kPassword), std::string::npos);
    }
    using DataReply = testing::ReplyCapture<std::optional<std::vector<std::uint8_t>>, std::optional<std::string>>;
    DataReply readKnownNetworks()
    {
        DataReply reply;
        service.readKnownWiFiPlistData(reply.reply());
        return reply;
    }
};

TEST_F(WiFi, PowerIsSwitchedThroughNetworksetup)
{
    ActionCapture off;
    service.setWiFiPower("en0", false, off.reply());
    EXPECT_TRUE(off.get<0>());
    EXPECT_EQ(networksetup({"-getairportpower", "en0"}), "Wi-Fi Power (en0): Off\n");
    EXPECT_TRUE(daemon.log.contains("set Wi-Fi power for en0 → off"));

    ActionCapture on;
    service.setWiFiPower("Wi-Fi", true, on.reply());
    EXPECT_TRUE(on.get<0>());
    EXPECT_EQ(networksetup({"-getairportpower", "en0"}), "Wi-Fi Power (en0): On\n");

    ActionCapture wired;
    service.setWiFiPower("bridge0", true, wired.reply());
    EXPECT_EQ(wired.get<1>(), "networksetup exited 4");
    EXPECT_TRUE(daemon.log.contains("setWiFiPower failed for bridge0 (on): networksetup exited 4"));

    ActionCapture invalid;
    daemon.host.clearRuns();
    service.setWiFiPower("Wi-Fi\u0007", true, invalid.reply());
    EXPECT_EQ(invalid.get<1>(), "Invalid serviceName: Wi-Fi\u0007");
    EXPECT_TRUE(daemon.host.runs().empty());
}

TEST_F(WiFi, APreferredNetworkGoesOnTopAndItsPasswordOnlyToNetworksetup)
{
    ActionCapture secured;
    service.addPreferredWiFiNetwork("en0", "Café Ōsaka", "WPA2", kPassword, secured.reply());
    EXPECT_TRUE(secured.get<0>()) << secured.get<1>().value_or("");
    ActionCapture open;
    service.addPreferredWiFiNetwork("Wi-Fi", "Airport Free", "OPEN", "", open.reply());
    EXPECT_TRUE(open.get<0>());

    EXPECT_EQ(networksetup({"-listpreferredwirelessnetworks", "en0"}),
              "Preferred networks on en0:\n\tAirport Free\n\tCafé Ōsaka\n\tHome\n");
    const auto runs = networksetupRuns();
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0], (std::vector<std::string>{"-addpreferredwirelessnetworkatindex", "en0", "Café Ōsaka", "0", "WPA2",
                                                 kPassword}));
    EXPECT_EQ(runs[1].size(), 5u) << "an open network is added without a password argument";
    expectPasswordNowhere();
}

TEST_F(WiFi, APasswordEchoedInAFailureIsMasked)
{
    daemon.mac.addFault({"--tool", "networksetup", "--exit", "9", "--stderr", "cannot store " + kPassword + "\n"});
    ActionCapture reply;
    service.addPreferredWiFiNetwork("en0", "Cafe", "WPA2", kPassword, reply.reply());
    EXPECT_EQ(reply.get<1>(), "networksetup exited 9: cannot store <password>");
    EXPECT_TRUE(daemon.log.contains("addPreferredWiFiNetwork failed for Cafe on en0: networksetup exited 9: cannot store "
                                    "<password>"));
    expectPasswordNowhere();
}

TEST_F(WiFi, BadNamesSSIDsAndSecurityTypesStartNothing)
{
    const std::string elevenThreeByteCharacters = "ののののののののののの";
    for (const auto& [name, ssid, type, message] : std::vector<std::tuple<std::string, std::string, std::string, std::string>>{
             {"en0/1", "Home", "WPA2", "Invalid serviceName: en0/1"},
             {"en0", std::string(33, 'a'), "WPA2", "Invalid SSID: " + std::string(33, 'a')},
             {"en0", elevenThreeByteCharacters, "WPA2", "Invalid SSID: " + elevenThreeByteCharacters},
             {"en0", "", "OPEN", "Invalid SSID: "},
             {"en0", "Home\nNet", "OPEN", "Invalid SSID: Home\nNet"},
             {"en0", "Home", "wpa2", "Invalid securityType: wpa2"},
             {"en0", "Home", "WPA2 Personal", "Invalid securityType: WPA2 Personal"}}) {
        ActionCapture reply;
        service.addPreferredWiFiNetwork(name, ssid, type, kPassword, reply.reply());
        EXPECT_FALSE(reply.get<0>());
        EXPECT_EQ(reply.get<1>(), message);
    }
    EXPECT_TRUE(daemon.host.runs().empty());
    EXPECT_TRUE(daemon.mac.calls().empty());
    expectPasswordNowhere();
}

TEST(WiFiValidators, SSIDAndSecurityType)
{
    EXPECT_TRUE(HelperService::isValidSSID(std::string(32, 'a')));
    EXPECT_TRUE(HelperService::isValidSSID("Café 🚀 (5G)"));
    EXPECT_FALSE(HelperService::isValidSSID(std::string(33, 'a')));
    EXPECT_FALSE(HelperService::isValidSSID("tab\there"));
    EXPECT_FALSE(HelperService::isValidSSID("\u202Ereversed"));
    EXPECT_FALSE(HelperService::isValidSSID("line\u2028break"));
    EXPECT_FALSE(HelperService::isValidSSID("\xC3"));
    for (const auto type : {"OPEN", "WEP", "WPA", "WPA2", "WPAE", "WPA2E", "WPA/WPA2 Personal", "WPA/WPA2 Enterprise",
                            "WPA3 Personal", "WPA3 Enterprise", "8021XWEP"})
        EXPECT_TRUE(HelperService::isAcceptedWiFiSecurityType(type)) << type;
    for (const auto type : {"", "open", "WPA3", "WPA2 ", "8021xWEP"})
        EXPECT_FALSE(HelperService::isAcceptedWiFiSecurityType(type)) << type;
}

TEST_F(WiFi, KnownNetworksAreReturnedByteForByte)
{
    ActionCapture added;
    service.addPreferredWiFiNetwork("en0", "Café Ōsaka", "WPA3 Personal", kPassword, added.reply());
    ASSERT_TRUE(added.get<0>());
    const auto file = daemon.mac.readFile(paths::knownWiFiNetworks);
    ASSERT_TRUE(file);
    const auto reply = readKnownNetworks();
    ASSERT_TRUE(reply.get<0>());
    EXPECT_EQ(std::string(reply.get<0>()->begin(), reply.get<0>()->end()), *file);
    EXPECT_TRUE(daemon.log.contains("Read " + std::to_string(file->size()) + " bytes from Wi-Fi-known-networks plist"));

    // A real property list, read by a reader of our own.
    const auto plist = testing::bplist::read(*file);
    ASSERT_TRUE(plist);
    const auto& networks = *std::get<std::shared_ptr<testing::bplist::Dictionary>>(plist->item);
    ASSERT_TRUE(networks.count("wifi.network.ssid.Café Ōsaka"));
    const auto& entry = *std::get<std::shared_ptr<testing::bplist::Dictionary>>(networks.at("wifi.network.ssid.Café Ōsaka").item);
    EXPECT_EQ(std::get<testing::bplist::Data>(entry.at("SSID").item).bytes, "Café Ōsaka");
    EXPECT_EQ(std::get<std::string>(entry.at("SupportedSecurityTypes").item), "WPA3 Personal");
    EXPECT_TRUE(std::holds_alternative<testing::bplist::Date>(entry.at("AddedAt").item));
    EXPECT_TRUE(networks.count("wifi.network.ssid.Home"));
    EXPECT_EQ(file->find(kPassword), std::string::npos);
}

TEST_F(WiFi, AMissingKnownNetworksFileIsNamed)
{
    ASSERT_EQ(::unlink(daemon.mac.path(paths::knownWiFiNetworks).c_str()), 0);
    const auto reply = readKnownNetworks();
    EXPECT_EQ(reply.get<0>(), std::nullopt);
    EXPECT_EQ(reply.get<1>(), "File not found at /Library/Preferences/com.apple.wifi.known-networks.plist");
    EXPECT_TRUE(daemon.log.contains("Plist not present at /Library/Preferences/com.apple.wifi.known-networks.plist"));
}

TEST_F(WiFi, AnUnreadableKnownNetworksFileGivesTheSystemsWords)
{
    const std::string local = daemon.mac.path(paths::knownWiFiNetworks);
    ASSERT_EQ(::unlink(local.c_str()), 0);
    // Root reads any file, so the failures are made by shape: a directory
    // opens but does not read; a link to itself does not open.
    ASSERT_EQ(::mkdir(local.c_str(), 0700), 0);
    const auto directory = readKnownNetworks();
    EXPECT_EQ(directory.get<0>(), std::nullopt);
    EXPECT_EQ(directory.get<1>(), "read() failed: Is a directory");
    EXPECT_TRUE(daemon.log.contains("read failed: Is a directory (errno 21)"));

    ASSERT_EQ(::rmdir(local.c_str()), 0);
    ASSERT_EQ(::symlink(local.c_str(), local.c_str()), 0);
    const auto loop = readKnownNetworks();
    EXPECT_EQ(loop.get<1>(), "open() failed: Too many levels of symbolic links");
    EXPECT_TRUE(daemon.log.contains("open(/Library/Preferences/com.apple.wifi.known-networks.plist) failed: Too many "
                                    "levels of symbolic links (errno 40)"));
}

} // namespace
} // namespace orven
