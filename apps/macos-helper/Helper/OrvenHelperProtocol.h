#pragma once
// The one interface the daemon exports, and the constants and pure validators
// it shares with the client application.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orven {

namespace OrvenHelperConstants {

inline constexpr std::string_view machServiceName = "test.orven.app.helper";
inline constexpr std::string_view clientCodeRequirement =
    "anchor apple generic and identifier \"test.orven.app\" and (certificate leaf[subject.OU] = \"Z9Y8X7W6V5\" or "
    "certificate leaf[field.1.2.840.113635.100.6.1.9] /* exists */ or certificate "
    "leaf[field.1.2.840.113635.100.6.1.25.1] /* exists */)";
inline constexpr std::string_view daemonPlistName = "test.orven.app.helper.plist";
inline constexpr std::string_view expectedHelperVersion = "ORVEN Helper 2.10.0";
// The last space-separated word of expectedHelperVersion.
std::string_view expectedHelperVersionNumber();

inline constexpr std::string_view minServiceOrderVersion = "1.11.0";
inline constexpr std::string_view minInterfaceHoldVersion = "1.12.0";
inline constexpr std::string_view minGatewayPingVersion = "1.13.0";
inline constexpr std::string_view minInterfaceMTUVersion = "2.0.0";
inline constexpr std::string_view minPowerlineTopologyVersion = "2.1.0";
inline constexpr std::string_view minPowerlineDeviceInfoVersion = "2.1.1";
inline constexpr std::string_view minDriverInterfaceRestoreVersion = "2.2.0";
inline constexpr std::string_view minHardKillDisengageVersion = "2.3.0";
inline constexpr std::string_view minHardKillStatusVersion = "2.4.0";
inline constexpr std::string_view minHardKillEnforcementVersion = "2.5.0";
inline constexpr std::string_view minHardKillProofVersion = "2.7.0";
inline constexpr std::string_view minHardKillVersion = "2.8.0";
inline constexpr std::string_view minHardKillResidueTokenVersion = "2.8.0";
inline constexpr std::string_view minVPNIdentityInstallVersion = "2.9.0";
inline constexpr std::string_view minVPNIdentityReleaseVersion = "2.10.0";

inline constexpr double pfProcessBudget = 10.0;
inline constexpr double pfChildBudget = 19.0;
inline constexpr double pfLockAcquisitionBudget = 20.0;
inline constexpr double hardKillProbeBudget = 14.0;
inline constexpr double hardKillBodyBudget = 204.0;
inline constexpr double hardKillHelperBudget = hardKillBodyBudget + pfLockAcquisitionBudget;
inline constexpr double hardKillTransportReserve = 10.0;
inline constexpr double hardKillXPCTimeout = hardKillHelperBudget + hardKillTransportReserve;
inline constexpr double dhcpNudgeBudget = 10.0;
inline constexpr double pingSpawnSlackSeconds = 5.0;

inline constexpr std::int64_t interfaceMTUFloor = 1280;
inline constexpr std::int64_t maxVPNIdentityBytes = 262144;
inline constexpr std::int64_t maxVPNIdentityPassphraseBytes = 1024;

inline constexpr std::array<std::string_view, 3> vpnIdentitySigners = {
    "/System/Library/Frameworks/NetworkExtension.framework/PlugIns/NEIKEv2Provider.appex",
    "/usr/sbin/racoon",
    "/usr/libexec/nehelper",
};

double dfPingBudgetSeconds(std::int64_t timeoutMillis);
double gatewayPingBudgetSeconds(std::int64_t count, std::int64_t spacingMillis, std::int64_t timeoutMillis);
std::optional<std::string> rejectionForInterfaceMTU(std::int64_t mtu, std::int64_t deviceMin, std::int64_t deviceMax);
std::optional<std::string> validateServiceOrderList(const std::vector<std::string>& names);
std::optional<double> parseGatewayPingMedianMillis(std::string_view output, bool discardCold);

} // namespace OrvenHelperConstants

// ---------------------------------------------------------------------------
// The method table: selectors as they go over the wire, argument types in
// order, reply values in order. Transports check argument types against it
// before a method runs, as NSXPC does.

enum class WireType {
    string,          // NSString
    data,            // NSData
    stringArray,     // NSArray of NSString
    optionalNumber,  // NSNumber or nil (a Boolean here)
    boolean,
    integer,         // signed 64-bit
    real,            // 64-bit floating point
    optionalString,  // replies only: NSString or nil
    optionalData,    // replies only: NSData or nil
};

struct MethodSpec {
    std::string_view selector;
    std::span<const WireType> arguments;
    std::span<const WireType> reply;
};

namespace wire {
using enum WireType;
inline constexpr WireType none[] = {boolean};  // placeholder element for empty spans
inline constexpr WireType replyString[] = {string};
inline constexpr WireType replyAction[] = {boolean, optionalString};
inline constexpr WireType replyStatus[] = {boolean, boolean, optionalString};
inline constexpr WireType replyEnforcement[] = {boolean, boolean, boolean, integer, optionalString};
inline constexpr WireType replyResidue[] = {boolean, boolean, boolean, optionalString};
inline constexpr WireType replyProof[] = {boolean, optionalString, optionalString};
inline constexpr WireType replyText[] = {optionalString, optionalString};
inline constexpr WireType replyDouble[] = {real, optionalString};
inline constexpr WireType replyData[] = {optionalData, optionalString};
inline constexpr WireType replyCode[] = {integer, optionalString};
inline constexpr WireType replyBool[] = {boolean};

inline constexpr WireType argsLANIsolation[] = {boolean, string, string, string, stringArray, string, stringArray, stringArray};
inline constexpr WireType argsBool[] = {boolean};
inline constexpr WireType argsIPv4[] = {string, string, string, string, string};
inline constexpr WireType argsIPv6[] = {string, string, string, string, integer};
inline constexpr WireType argsStringArray[] = {stringArray};
inline constexpr WireType argsNameInt[] = {string, integer};
inline constexpr WireType argsNameNumber[] = {string, optionalNumber};
inline constexpr WireType argsName[] = {string};
inline constexpr WireType argsDFPing[] = {string, integer, string, integer};
inline constexpr WireType argsGatewayPing[] = {string, integer, integer, string, integer};
inline constexpr WireType argsIKEv2[] = {real, string};
inline constexpr WireType argsIdentity[] = {data, string};
inline constexpr WireType argsData[] = {data};
inline constexpr WireType argsNameBool[] = {string, boolean};
inline constexpr WireType argsWiFiNetwork[] = {string, string, string, string};
} // namespace wire

inline constexpr std::span<const WireType> kNoArguments{wire::none, 0};

inline constexpr MethodSpec kOrvenHelperMethods[] = {
    {"pingWithReply:", kNoArguments, wire::replyString},
    {"setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply:",
     wire::argsLANIsolation, wire::replyAction},
    {"setHardKillWithEngaged:reply:", wire::argsBool, wire::replyAction},
    {"readHardKillStatusWithReply:", kNoArguments, wire::replyStatus},
    {"readHardKillEnforcementWithReply:", kNoArguments, wire::replyEnforcement},
    {"readHardKillResidueWithTokenWithReply:", kNoArguments, wire::replyResidue},
    {"readHardKillProofWithReply:", kNoArguments, wire::replyProof},
    {"applyIPv4WithServiceName:mode:ip:subnetMask:router:reply:", wire::argsIPv4, wire::replyAction},
    {"applyIPv6WithServiceName:mode:router:address:prefixLength:reply:", wire::argsIPv6, wire::replyAction},
    {"listServiceOrderWithReply:", kNoArguments, wire::replyText},
    {"setServiceOrderWithOrderedServiceNames:reply:", wire::argsStringArray, wire::replyAction},
    {"setInterfaceMTUWithBsdName:mtu:reply:", wire::argsNameInt, wire::replyAction},
    {"setRawInterfaceMTUWithBsdName:mtu:reply:", wire::argsNameInt, wire::replyAction},
    {"setInterfaceHoldUntilNeededWithBsdName:hold:reply:", wire::argsNameNumber, wire::replyAction},
    {"restoreDriverProvisionedInterfaceWithBsdName:reply:", wire::argsName, wire::replyAction},
    {"pingWithDontFragmentWithTarget:payloadBytes:boundInterface:timeoutMillis:reply:", wire::argsDFPing,
     wire::replyAction},
    {"gatewayPingRTTWithTarget:count:spacingMillis:boundInterface:timeoutMillis:reply:", wire::argsGatewayPing,
     wire::replyDouble},
    {"readIKEv2DiagnosticLogSinceEpoch:serverAddress:reply:", wire::argsIKEv2, wire::replyText},
    {"readPowerlineTopologyWithInterfaceName:reply:", wire::argsName, wire::replyData},
    {"installVPNIdentityWithPkcs12:passphrase:reply:", wire::argsIdentity, wire::replyCode},
    {"releaseVPNIdentityWithPkcs12:passphrase:reply:", wire::argsIdentity, wire::replyCode},
    {"installTrustedCAWithCertificateDER:reply:", wire::argsData, wire::replyAction},
    {"removeTrustedCAWithCertificateDER:reply:", wire::argsData, wire::replyAction},
    {"setWiFiPowerWithServiceName:on:reply:", wire::argsNameBool, wire::replyAction},
    {"addPreferredWiFiNetworkWithServiceName:ssid:securityType:password:reply:", wire::argsWiFiNetwork,
     wire::replyAction},
    {"readKnownWiFiPlistDataWithReply:", kNoArguments, wire::replyData},
    {"uninstallSelfWithReply:", kNoArguments, wire::replyAction},
    {"selfTerminateWithReply:", kNoArguments, wire::replyBool},
};

// The entry of a selector, or null when the interface has no such method.
const MethodSpec* findMethod(std::string_view selector);

} // namespace orven
