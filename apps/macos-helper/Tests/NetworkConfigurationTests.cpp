// Service addressing and order, interface MTU, the hold-until-needed flag and
// the driver-provisioned repair, each against a fresh simulated Mac: the
// reply, the log, what the Mac's network holds afterwards, and which tools ran.

#include <gtest/gtest.h>

#include <functional>

#include "ForwardingHost.h"
#include "HelperService.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

using nlohmann::json;
using testing::ActionCapture;

const std::string kSetPath = "/Sets/3C1E9A52-6B0D-4F7E-8A21-5D9C0B7F4E13/Network/Interface/";

class NetworkConfiguration : public ::testing::Test {
protected:
    testing::SimulatedDaemon daemon;
    HelperService service = daemon.service(501);

    void macsim(std::string_view command, const std::vector<std::string>& arguments) const
    {
        const auto result = daemon.mac.macsim(command, arguments);
        ASSERT_EQ(result.code, 0) << command << ": " << result.err;
    }
    std::string networksetup(const std::vector<std::string>& arguments) const
    {
        return daemon.mac.tool("/usr/sbin/networksetup", arguments).out;
    }
    json network() const { return json::parse(daemon.mac.show({"network"})); }
    json preferences() const { return json::parse(daemon.mac.show({"preferences"})); }
    json interface(const std::string& name) const
    {
        const auto model = network();
        for (const auto& itf : model["interfaces"])
            if (itf["name"] == name) return itf;
        return json();
    }
    json interfacePreferences(const std::string& name) const
    {
        const json::json_pointer at(kSetPath + name);
        const auto prefs = preferences();
        return prefs.contains(at) ? prefs.at(at) : json();
    }
    std::vector<std::string> toolsRun() const
    {
        std::vector<std::string> tools;
        for (const auto& run : daemon.host.runs()) tools.push_back(run.path);
        return tools;
    }
    bool logged(std::string_view line) const { return daemon.log.contains(line); }
    // The simulated Mac's own record of the tools that ran (configd's
    // commits and applies are not tools).
    std::vector<std::string> recordedTools() const
    {
        std::vector<std::string> tools;
        for (const auto& call : daemon.mac.calls())
            if (call["tool"] != "configd") tools.push_back(call["tool"].get<std::string>());
        return tools;
    }
};

void expectRefused(const ActionCapture& reply, const std::string& message)
{
    ASSERT_EQ(reply.count(), 1);
    EXPECT_FALSE(reply.get<0>());
    EXPECT_EQ(reply.get<1>(), message);
}

void expectDone(const ActionCapture& reply)
{
    ASSERT_EQ(reply.count(), 1);
    EXPECT_TRUE(reply.get<0>()) << reply.get<1>().value_or("");
    EXPECT_EQ(reply.get<1>(), std::nullopt);
}

// --- Addressing ----------------------------------------------------------------

TEST(AddressValidators, AcceptWhatTheToolsTakeAndNothingElse)
{
    for (const auto* text : {"10.0.0.0", "0.0.0.0", "255.255.255.255", " 192.168.1.1\n", "1.2.3.4"})
        EXPECT_TRUE(HelperService::isValidIPv4(text)) << text;
    for (const auto* text : {"192.168.01.1", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1..2.3", "", "1.2.3.-4", "+1.2.3.4",
                             "1.2.3.4 5", "١.2.3.4"})
        EXPECT_FALSE(HelperService::isValidIPv4(text)) << text;
    for (const auto* text : {"255.255.255.0", "255.255.255.255", "128.0.0.0", "255.255.252.0", " 255.0.0.0 "})
        EXPECT_TRUE(HelperService::isValidIPv4SubnetMask(text)) << text;
    for (const auto* text : {"", "   ", "0.0.0.0", "255.0.255.0", "0.255.255.255", "255.255.255.1", "255.255.255.00"})
        EXPECT_FALSE(HelperService::isValidIPv4SubnetMask(text)) << text;
    for (const auto* text : {"::", "::1", "2001:db8::5", "fe80::1", "::ffff:192.0.2.1", "2001:db8:0:0:0:0:0:1"})
        EXPECT_TRUE(HelperService::isValidIPv6(text)) << text;
    for (const auto* text : {"", "2001:db8::g", "1.2.3.4", "fe80::1%en0", ":::", "2001:db8::5 ", "1:2:3:4:5:6:7:8:9"})
        EXPECT_FALSE(HelperService::isValidIPv6(text)) << text;
    EXPECT_FALSE(HelperService::isValidIPv6(std::string("::1\0junk", 8)));
}

struct AddressingCase {
    const char* name;
    bool ipv6;
    std::string serviceName, mode, address, mask, router;
    std::int64_t prefixLength;
    std::optional<std::string> refusal;  // absent: the call succeeds
    std::string infoFragment;            // what -getinfo shows afterwards
};

void PrintTo(const AddressingCase& c, std::ostream* out) { *out << c.name; }

class Addressing : public NetworkConfiguration, public ::testing::WithParamInterface<AddressingCase> {};

TEST_P(Addressing, ValidatesThenConfiguresThroughNetworksetup)
{
    const auto& c = GetParam();
    ActionCapture reply;
    if (c.ipv6) service.applyIPv6(c.serviceName, c.mode, c.router, c.address, c.prefixLength, reply.reply());
    else service.applyIPv4(c.serviceName, c.mode, c.address, c.mask, c.router, reply.reply());
    const std::string method = c.ipv6 ? "applyIPv6" : "applyIPv4";
    if (c.refusal) {
        expectRefused(reply, *c.refusal);
        EXPECT_TRUE(toolsRun().empty()) << "a tool ran after a refusal";
        EXPECT_TRUE(recordedTools().empty());
        EXPECT_TRUE(daemon.log.records().empty());
        return;
    }
    expectDone(reply);
    EXPECT_EQ(toolsRun(), std::vector<std::string>{std::string(paths::networksetup)});
    EXPECT_TRUE(logged(method + " " + c.mode + " on " + c.serviceName + " succeeded"));
    if (!c.ipv6 && c.mode == "off") {
        EXPECT_EQ(networksetup({"-getnetworkserviceenabled", c.serviceName}), "Disabled\n");
    } else {
        EXPECT_NE(networksetup({"-getinfo", c.serviceName}).find(c.infoFragment), std::string::npos)
            << networksetup({"-getinfo", c.serviceName});
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Addressing,
    ::testing::Values(
        AddressingCase{"ManualIPv4", false, "Wi-Fi", "manual", "10.0.0.5", "255.255.255.0", "10.0.0.1", 0, {},
                       "Manual Configuration\nIP address: 10.0.0.5\nSubnet mask: 255.255.255.0\nRouter: 10.0.0.1\n"},
        AddressingCase{"NetworkAddressIsAnAddress", false, "Wi-Fi", "manual", "10.0.0.0", "255.0.0.0", "10.0.0.1", 0,
                       {}, "IP address: 10.0.0.0\n"},
        AddressingCase{"DHCP", false, "Thunderbolt Bridge", "dhcp", "", "", "", 0, {}, "DHCP Configuration\n"},
        AddressingCase{"DHCPWithManualAddress", false, "Wi-Fi", "dhcpWithManualAddress", "192.168.1.40", "", "", 0, {},
                       "IP address: 192.168.1.40\n"},
        AddressingCase{"Off", false, "Wi-Fi", "off", "", "", "", 0, {}, ""},
        AddressingCase{"UpperCaseModeIsUnknown", false, "Wi-Fi", "DHCP", "", "", "", 0, "Unknown IPv4 mode: DHCP", ""},
        AddressingCase{"LeadingZero", false, "Wi-Fi", "manual", "192.168.01.1", "255.255.255.0", "192.168.1.1", 0,
                       "Invalid IPv4 address: 192.168.01.1", ""},
        AddressingCase{"ThreePieces", false, "Wi-Fi", "dhcpWithManualAddress", "1.2.3", "", "", 0,
                       "Invalid IPv4 address: 1.2.3", ""},
        AddressingCase{"FivePieces", false, "Wi-Fi", "manual", "1.2.3.4.5", "255.0.0.0", "1.2.3.1", 0,
                       "Invalid IPv4 address: 1.2.3.4.5", ""},
        AddressingCase{"RouterCheckedBeforeMask", false, "Wi-Fi", "manual", "10.0.0.5", "bad", "10.0.0.256", 0,
                       "Invalid IPv4 router: 10.0.0.256", ""},
        AddressingCase{"NonContiguousMask", false, "Wi-Fi", "manual", "10.0.0.5", "255.0.255.0", "10.0.0.1", 0,
                       "Invalid subnet mask: 255.0.255.0", ""},
        AddressingCase{"SlashInServiceName", false, "Wi-Fi/../x", "dhcp", "", "", "", 0,
                       "Invalid serviceName: Wi-Fi/../x", ""},
        AddressingCase{"IPv6Manual", true, "Wi-Fi", "manual", "2001:db8::5", "", "2001:db8::1", 64, {},
                       "IPv6: Manual\nIPv6 IP address: 2001:db8::5\nIPv6 Router: 2001:db8::1\n"},
        AddressingCase{"IPv6PrefixZero", true, "Wi-Fi", "manual", "2001:db8::5", "", "fe80::1", 0, {}, "IPv6: Manual"},
        AddressingCase{"IPv6Prefix128", true, "Wi-Fi", "manual", "2001:db8::5", "", "fe80::1", 128, {}, "IPv6: Manual"},
        AddressingCase{"IPv6LinkLocal", true, "Wi-Fi", "linkLocalOnly", "", "", "", 0, {}, "IPv6: LinkLocal\n"},
        AddressingCase{"IPv6Off", true, "Wi-Fi", "off", "", "", "", 0, {}, "IPv6: Off\n"},
        AddressingCase{"IPv6Automatic", true, "Thunderbolt Bridge", "automatic", "", "", "", 0, {}, "IPv6: Automatic\n"},
        AddressingCase{"IPv6Prefix129", true, "Wi-Fi", "manual", "2001:db8::5", "", "fe80::1", 129,
                       "Invalid IPv6 prefix length: 129", ""},
        AddressingCase{"IPv6PrefixNegative", true, "Wi-Fi", "manual", "2001:db8::5", "", "fe80::1", -1,
                       "Invalid IPv6 prefix length: -1", ""},
        AddressingCase{"IPv6BadAddress", true, "Wi-Fi", "manual", "2001:db8::g", "", "fe80::1", 64,
                       "Invalid IPv6 address: 2001:db8::g", ""},
        AddressingCase{"IPv6BadRouter", true, "Wi-Fi", "manual", "2001:db8::5", "", "fe80::1%en0", 64,
                       "Invalid IPv6 router: fe80::1%en0", ""},
        AddressingCase{"IPv6UnknownMode", true, "Wi-Fi", "slaac", "", "", "", 0, "Unknown IPv6 mode: slaac", ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(NetworkConfiguration, AnUnknownServiceFailsWithNetworksetupsStatus)
{
    ActionCapture reply;
    service.applyIPv4("Ethernet 9", "dhcp", "", "", "", reply.reply());
    // networksetup says why on standard output, which the runner does not keep.
    expectRefused(reply, "networksetup exited 4");
    EXPECT_TRUE(logged("applyIPv4 dhcp failed: networksetup exited 4"));
}

TEST_F(NetworkConfiguration, ServiceOrderIsListedAndRewritten)
{
    macsim("service", {"add", "Corporate VPN", "--no-device"});
    macsim("service", {"add", "Old Ethernet", "--device", "en7", "--disabled"});
    testing::ReplyCapture<std::optional<std::string>, std::optional<std::string>> listed;
    service.listServiceOrder(listed.reply());
    ASSERT_EQ(listed.count(), 1);
    EXPECT_EQ(listed.get<0>(), "An asterisk (*) denotes that a network service is disabled.\n"
                               "(1) Wi-Fi\n(Hardware Port: Wi-Fi, Device: en0)\n\n"
                               "(2) Thunderbolt Bridge\n(Hardware Port: Thunderbolt Bridge, Device: bridge0)\n\n"
                               "(3) Corporate VPN\n(Hardware Port: com.example.vpn, Device: )\n\n"
                               "(*) Old Ethernet\n(Hardware Port: Old Ethernet, Device: en7)");

    ActionCapture reordered;
    service.setServiceOrder({"Corporate VPN", "Wi-Fi"}, reordered.reply());
    expectDone(reordered);
    EXPECT_TRUE(logged("service order rewritten — promoted Corporate VPN (2 services)"));
    EXPECT_EQ(networksetup({"-listallnetworkservices"}),
              "An asterisk (*) denotes that a network service is disabled.\n"
              "Corporate VPN\nWi-Fi\nThunderbolt Bridge\n*Old Ethernet\n");

    ActionCapture unknown;
    service.setServiceOrder({"Wi-Fi", "Nowhere"}, unknown.reply());
    expectRefused(unknown, "networksetup exited 4");
    EXPECT_TRUE(logged("setServiceOrder failed: networksetup exited 4"));
}

TEST_F(NetworkConfiguration, AnOrderListTheValidatorRefusesStartsNothing)
{
    for (const auto& [names, message] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {std::vector<std::string>(65, "Wi-Fi"), "Service order list too long (65 > 64)"},
             {{}, "Service order list is empty"},
             {{"Wi-Fi", "a\nb"}, "Service name contains control characters"}}) {
        ActionCapture reply;
        service.setServiceOrder(names, reply.reply());
        expectRefused(reply, message);
    }
    EXPECT_TRUE(toolsRun().empty());
}

TEST_F(NetworkConfiguration, ListFailureIsReportedAndLogged)
{
    daemon.mac.addFault({"--tool", "networksetup", "--exit", "1", "--stderr", "  ** Error: busy \n"});
    testing::ReplyCapture<std::optional<std::string>, std::optional<std::string>> listed;
    service.listServiceOrder(listed.reply());
    EXPECT_EQ(listed.get<0>(), std::nullopt);
    EXPECT_EQ(listed.get<1>(), "networksetup exited 1: ** Error: busy");
    EXPECT_TRUE(logged("listServiceOrder failed: networksetup exited 1: ** Error: busy"));
}

// --- Interface MTU ---------------------------------------------------------------

TEST_F(NetworkConfiguration, ConfiguredMTUIsCommittedAppliedAndLogged)
{
    ActionCapture reply;
    service.setInterfaceMTU("en0", 1400, reply.reply());
    expectDone(reply);
    EXPECT_TRUE(logged("set MTU for en0 → 1400 (device range 1280…1500)"));
    EXPECT_EQ(interfacePreferences("en0")["AirPort"]["MTU"], 1400);
    EXPECT_EQ(interface("en0")["mtu"], 1400);
    EXPECT_TRUE(toolsRun().empty()) << "the preferences path runs no tool";
}

struct MTURefusal {
    const char* name;
    std::string bsdName;
    std::int64_t mtu;
    std::vector<std::vector<std::string>> setup;  // macsim commands before the call
    std::string message;
    bool logged;  // refusals from the preferences on are logged
};

void PrintTo(const MTURefusal& c, std::ostream* out) { *out << c.name; }

class MTURefusals : public NetworkConfiguration, public ::testing::WithParamInterface<MTURefusal> {};

TEST_P(MTURefusals, ChangeNothing)
{
    for (const auto& command : GetParam().setup)
        macsim(command.front(), std::vector<std::string>(command.begin() + 1, command.end()));
    const auto before = preferences();
    ActionCapture reply;
    service.setInterfaceMTU(GetParam().bsdName, GetParam().mtu, reply.reply());
    expectRefused(reply, GetParam().message);
    EXPECT_EQ(logged("setInterfaceMTU failed: " + GetParam().message), GetParam().logged);
    EXPECT_EQ(preferences(), before);
    EXPECT_TRUE(toolsRun().empty());
    EXPECT_TRUE(recordedTools().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MTURefusals,
    ::testing::Values(
        MTURefusal{"Tunnel", "utun3", 1400, {}, "utun3 is a tunnel interface — use setRawInterfaceMTU.", false},
        MTURefusal{"BadName", "en0:1", 1400, {}, "Invalid interface name: en0:1", false},
        MTURefusal{"NoService", "en7", 1400, {}, "No network service in the current set uses en7.", true},
        MTURefusal{"AboveWiFiMaximum", "en0", 9000, {}, "MTU 9000 is above this device's maximum of 1500", true},
        MTURefusal{"BelowFloorOfAWideDevice", "bridge0", 1200,
                   {{"set", "interface", "bridge0", "mtu-range", "1000", "9000"}},
                   "MTU 1200 is below the 1280-byte floor for this device", true},
        MTURefusal{"BelowTheDevicesOwnMinimum", "bridge0", 1300,
                   {{"set", "interface", "bridge0", "mtu-range", "1400", "9000"}},
                   "MTU 1300 is below the 1400-byte floor for this device", true},
        MTURefusal{"Unplugged", "bridge0", 1500, {{"set", "interface", "bridge0", "unplug"}},
                   "bridge0 has a network service but no attached device — refusing to write an MTU we cannot "
                   "range-check.",
                   true},
        MTURefusal{"CommitFails", "en0", 1400, {{"fault", "add", "--tool", "configd", "--args", "commit", "--exit", "1",
                                                 "--stdout", "1003"}},
                   "Could not commit the MTU (SCError 1003)", true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(NetworkConfiguration, AnMTUThatIsNotAppliedIsStillStoredAndReportedAsSuccess)
{
    daemon.mac.addFault({"--tool", "configd", "--args", "apply", "--exit", "1"});
    ActionCapture reply;
    service.setInterfaceMTU("bridge0", 9000, reply.reply());
    expectDone(reply);
    EXPECT_TRUE(logged("MTU written but apply failed (SCError 1001)"));
    EXPECT_TRUE(logged("set MTU for bridge0 → 9000 (device range 1280…9000)"));
    EXPECT_EQ(interfacePreferences("bridge0")["Ethernet"]["MTU"], 9000);
    EXPECT_EQ(interface("bridge0")["mtu"], 1500) << "not live until the next apply";
}

TEST_F(NetworkConfiguration, TunnelMTUIsSetWithIfconfigWithinItsFixedRange)
{
    for (const std::int64_t mtu : {1280, 1500}) {
        ActionCapture reply;
        service.setRawInterfaceMTU("utun0", mtu, reply.reply());
        expectDone(reply);
        EXPECT_TRUE(logged("set tunnel MTU for utun0 → " + std::to_string(mtu)));
        EXPECT_EQ(interface("utun0")["mtu"], mtu);
    }
    daemon.host.clearRuns();
    for (const auto& [name, mtu, message] : std::vector<std::tuple<std::string, std::int64_t, std::string>>{
             {"utun0", 1279, "Tunnel MTU out of range: 1279 (allowed 1280...1500)"},
             {"utun0", 1501, "Tunnel MTU out of range: 1501 (allowed 1280...1500)"},
             {"utun0", -1, "Tunnel MTU out of range: -1 (allowed 1280...1500)"},
             {"en0", 1400, "Invalid tunnel interface: en0"}}) {
        ActionCapture reply;
        service.setRawInterfaceMTU(name, mtu, reply.reply());
        expectRefused(reply, message);
    }
    EXPECT_TRUE(toolsRun().empty());
}

TEST_F(NetworkConfiguration, TunnelMTUFailuresCarryIfconfigsWords)
{
    ActionCapture missing;
    service.setRawInterfaceMTU("utun9", 1400, missing.reply());
    const std::string message = "ifconfig utun9 mtu 1400 exited 1: ifconfig: interface utun9 does not exist";
    expectRefused(missing, message);
    EXPECT_TRUE(logged("setRawInterfaceMTU failed: " + message));
}

TEST_F(NetworkConfiguration, AKernelRefusalBehindExitZeroIsReadBackAndLogged)
{
    macsim("set", {"interface", "utun0", "mtu-range", "72", "1400"});
    ActionCapture reply;
    service.setRawInterfaceMTU("utun0", 1450, reply.reply());
    expectDone(reply);  // ifconfig's exit status is all the contract looks at
    EXPECT_EQ(interface("utun0")["mtu"], 1380);
    EXPECT_TRUE(logged("ifconfig utun0 mtu 1450 exited 0 but the interface reports mtu 1380: ifconfig: ioctl (set "
                       "mtu): Invalid argument"));
}

TEST(IfconfigListing, ReportsTheMTUOfTheFirstLineOnly)
{
    EXPECT_EQ(HelperService::ifconfigReportedMTU("utun0: flags=8051<UP> mtu 1380\n\tinet6 fe80::1\n"), 1380);
    EXPECT_EQ(HelperService::ifconfigReportedMTU("utun0: flags=8051<UP>\n\tmtu 1380\n"), std::nullopt);
    EXPECT_EQ(HelperService::ifconfigReportedMTU("x mtu"), std::nullopt);
    EXPECT_EQ(HelperService::ifconfigReportedMTU("x mtu -5"), std::nullopt);
    EXPECT_EQ(HelperService::ifconfigReportedMTU("x mtu 99999999999999999999"), std::nullopt);
    EXPECT_EQ(HelperService::ifconfigReportedMTU(""), std::nullopt);
}

// --- Hold until needed -----------------------------------------------------------

TEST_F(NetworkConfiguration, HoldFlagIsWrittenKeptBesideOtherKeysAndRemoved)
{
    ActionCapture fresh;
    service.setInterfaceHoldUntilNeeded("bridge0", 2, fresh.reply());
    expectDone(fresh);
    EXPECT_EQ(interfacePreferences("bridge0"), json({{"DisableUntilNeeded", 2}}));
    EXPECT_TRUE(logged("DisableUntilNeeded on bridge0 → 1"));

    ActionCapture mtu;
    service.setInterfaceMTU("bridge0", 9000, mtu.reply());
    expectDone(mtu);
    ActionCapture off;
    service.setInterfaceHoldUntilNeeded("bridge0", 0, off.reply());
    expectDone(off);
    EXPECT_EQ(interfacePreferences("bridge0"), json({{"DisableUntilNeeded", 0}, {"Ethernet", {{"MTU", 9000}}}}));
    EXPECT_TRUE(logged("DisableUntilNeeded on bridge0 → 0"));

    ActionCapture cleared;
    service.setInterfaceHoldUntilNeeded("bridge0", std::nullopt, cleared.reply());
    expectDone(cleared);
    EXPECT_EQ(interfacePreferences("bridge0"), json({{"Ethernet", {{"MTU", 9000}}}}));
    EXPECT_TRUE(logged("DisableUntilNeeded on bridge0 → removed"));
}

TEST_F(NetworkConfiguration, ClearingAFlagNeverSetWritesAnEmptyDictionary)
{
    ActionCapture reply;
    service.setInterfaceHoldUntilNeeded("en5", std::nullopt, reply.reply());
    expectDone(reply);
    EXPECT_EQ(interfacePreferences("en5"), json::object());
    EXPECT_TRUE(logged("DisableUntilNeeded on en5 → removed"));
}

TEST_F(NetworkConfiguration, HoldFlagCommitFailureChangesNothingApplyFailureIsLoggedOnly)
{
    ActionCapture invalid;
    service.setInterfaceHoldUntilNeeded("en0 ", 1, invalid.reply());
    expectRefused(invalid, "Invalid interface name.");

    const auto before = preferences();
    daemon.mac.addFault({"--tool", "configd", "--args", "commit", "--exit", "1", "--stdout", "3005"});
    ActionCapture refused;
    service.setInterfaceHoldUntilNeeded("en0", 1, refused.reply());
    expectRefused(refused, "Could not write the interface flag (SCError 3005).");
    EXPECT_EQ(preferences(), before);

    daemon.mac.addFault({"--tool", "configd", "--args", "apply", "--exit", "1", "--stdout", "1006"});
    ActionCapture stored;
    service.setInterfaceHoldUntilNeeded("en0", 1, stored.reply());
    expectDone(stored);
    EXPECT_TRUE(logged("DisableUntilNeeded written but apply failed (SCError 1006)"));
    EXPECT_EQ(interfacePreferences("en0"), json({{"DisableUntilNeeded", 1}}));
}

TEST_F(NetworkConfiguration, AConfigurationChangedUnderTheSessionIsNotOverwritten)
{
    // A service added between the session's read and its commit makes the
    // commit stale, as SCPreferencesCommitChanges does.
    class AddServiceBeforeCommit final : public ForwardingHost {
    public:
        AddServiceBeforeCommit(Host& inner, std::function<void()> change) : ForwardingHost(inner), change_(change) {}
        std::unique_ptr<PreferencesSession> openPreferences(std::string_view name) override
        {
            auto session = ForwardingHost::openPreferences(name);
            change_();
            return session;
        }

    private:
        std::function<void()> change_;
    };
    AddServiceBeforeCommit host(daemon.host, [this] { macsim("service", {"add", "USB LAN", "--device", "en5"}); });
    DaemonContext context(host);
    HelperService raced(context, 501);
    ActionCapture reply;
    raced.setInterfaceHoldUntilNeeded("en0", 1, reply.reply());
    expectRefused(reply, "Could not write the interface flag (SCError 3005).");
    EXPECT_TRUE(interfacePreferences("en0").is_null());
}

// --- Driver-provisioned restore ---------------------------------------------------

class DriverRestore : public NetworkConfiguration {
protected:
    DriverRestore()
    {
        macsim("set", {"interface", "en7", "add", "ethernet"});
        macsim("set", {"interface", "en7", "down"});
    }
};

TEST_F(DriverRestore, BringsTheInterfaceUpAndLeasesAnAddress)
{
    ActionCapture reply;
    service.restoreDriverProvisionedInterface("en7", reply.reply());
    expectDone(reply);
    EXPECT_TRUE(logged("re-leased driver-provisioned interface en7"));
    EXPECT_EQ(interface("en7")["up"], true);
    EXPECT_EQ(network()["leases"]["en7"], "192.168.1.100");
    EXPECT_EQ(toolsRun(), (std::vector<std::string>{std::string(paths::ifconfig), std::string(paths::ipconfig)}));
}

TEST_F(DriverRestore, RefusesTunnelsAndConfiguredServicesBeforeAnyTool)
{
    for (const auto& [name, message] : std::vector<std::pair<std::string, std::string>>{
             {"utun2", "Refusing to re-lease a tunnel interface: utun2"},
             {"en0", "en0 is a configured network service — not driver-provisioned."}}) {
        ActionCapture reply;
        service.restoreDriverProvisionedInterface(name, reply.reply());
        expectRefused(reply, message);
        EXPECT_TRUE(logged("restoreDriverProvisionedInterface failed: " + message));
    }
    ActionCapture invalid;
    service.restoreDriverProvisionedInterface("", invalid.reply());
    expectRefused(invalid, "Invalid interface name.");
    EXPECT_TRUE(toolsRun().empty());
    EXPECT_TRUE(recordedTools().empty());
}

TEST_F(DriverRestore, UnreadableOwnershipIsARefusal)
{
    // A VPN service has no DeviceName: ownership cannot be told.
    macsim("service", {"add", "Corporate VPN", "--no-device"});
    const auto id = json::parse(daemon.mac.macsim("sc", {"copy-store", "Setup:/Network/Service/[^/]+/Interface"}).out);
    std::string vpnKey;
    for (const auto& [key, value] : id.items())
        if (!value.contains("DeviceName")) vpnKey = key;
    ActionCapture reply;
    service.restoreDriverProvisionedInterface("en7", reply.reply());
    expectRefused(reply, "Cannot verify en7 is driver-provisioned: " + vpnKey + ": no DeviceName");
    EXPECT_TRUE(toolsRun().empty());
}

TEST_F(DriverRestore, AServiceConfiguredWhileItRunsIsNotDisplaced)
{
    // The service appears right after ifconfig brought the interface up.
    class ServiceAfterIfconfig final : public ForwardingHost {
    public:
        ServiceAfterIfconfig(Host& inner, std::function<void()> change) : ForwardingHost(inner), change_(change) {}
        BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                                   const std::optional<std::string>& standardInput, double timeout,
                                   double killGrace) override
        {
            auto result = ForwardingHost::run(macPath, arguments, standardInput, timeout, killGrace);
            if (macPath == paths::ifconfig) change_();
            return result;
        }

    private:
        std::function<void()> change_;
    };
    ServiceAfterIfconfig host(daemon.host, [this] { macsim("service", {"add", "USB LAN", "--device", "en7"}); });
    DaemonContext context(host);
    HelperService raced(context, 501);
    ActionCapture reply;
    raced.restoreDriverProvisionedInterface("en7", reply.reply());
    expectRefused(reply,
                  "en7 became a configured network service while the repair was running — refusing to displace it.");
    EXPECT_EQ(toolsRun(), std::vector<std::string>{std::string(paths::ifconfig)}) << "DHCP was touched";
    EXPECT_EQ(recordedTools(), std::vector<std::string>{"ifconfig"});
    EXPECT_EQ(interface("en7")["up"], true) << "nothing is rolled back";
    EXPECT_FALSE(network()["leases"].contains("en7"));
}

TEST_F(DriverRestore, ToolFailuresNameTheToolAndItsWords)
{
    ActionCapture missing;
    service.restoreDriverProvisionedInterface("en9", missing.reply());
    expectRefused(missing, "ifconfig en9 up exited 1: ifconfig: interface en9 does not exist");

    daemon.mac.addFault({"--tool", "ipconfig", "--exit", "1", "--stderr", "ipconfig_set en7 DHCP failed: no server\n"});
    ActionCapture lease;
    service.restoreDriverProvisionedInterface("en7", lease.reply());
    expectRefused(lease, "ipconfig set en7 DHCP exited 1: ipconfig_set en7 DHCP failed: no server");
    EXPECT_TRUE(logged("restoreDriverProvisionedInterface failed: ipconfig set en7 DHCP exited 1: ipconfig_set en7 "
                       "DHCP failed: no server"));
}

} // namespace
} // namespace orven

namespace orven {
namespace {

// The simulated Mac's preferences session itself: what it reads, and the
// paths and services it cannot write or measure.
TEST_F(NetworkConfiguration, PreferencesSessionReadsTheSetAndRefusesImpossiblePaths)
{
    macsim("service", {"add", "Corporate VPN", "--no-device"});
    const auto session = daemon.host.openPreferences(OrvenHelperConstants::machServiceName);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->currentSetID(), "3C1E9A52-6B0D-4F7E-8A21-5D9C0B7F4E13");
    const auto services = session->currentSetServices();
    ASSERT_TRUE(services);
    ASSERT_EQ(services->size(), 3u);
    EXPECT_EQ(session->currentSetServiceOrder().size(), 3u);
    for (const auto& service : *services) {
        if (service.bsdName) continue;
        // A VPN service has no device to measure.
        EXPECT_EQ(session->copyMTU(service.serviceID), std::nullopt);
        EXPECT_EQ(session->lastError(), 1002);
    }
    EXPECT_FALSE(session->pathSetValue("/CurrentSet/inside", {}));
    EXPECT_EQ(session->lastError(), 1002);
    EXPECT_FALSE(session->pathSetValue("relative", {}));
    const std::string order = "/Sets/3C1E9A52-6B0D-4F7E-8A21-5D9C0B7F4E13/Network/Global/IPv4/ServiceOrder";
    EXPECT_EQ(session->pathGetValue(order), std::nullopt) << "an array is not a dictionary";
    EXPECT_EQ(session->pathGetValue(order + "/x"), std::nullopt);
    EXPECT_EQ(session->pathGetValue("/Nowhere"), std::nullopt);
}

} // namespace
} // namespace orven
