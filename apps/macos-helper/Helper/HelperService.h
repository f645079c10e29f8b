#pragma once
// The exported object: one per connection, remembering the client's user id.
// Its methods validate their arguments first and answer through their reply
// exactly once. Class-level operations (static here) take the daemon's
// shared context; the operations are spread over several source units by
// feature.

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "BoundedProcess.h"
#include "DaemonContext.h"
#include "HardKillProof.h"
#include "HardKillState.h"
#include "Log.h"
#include "MainRulesetRecord.h"
#include "PFRuleBuilder.h"
#include "Reply.h"
#include "SetupOwnership.h"

namespace orven {

// State files and tools, as macOS paths (resolved through Host).
namespace paths {
inline constexpr std::string_view stateDirectory = "/Library/Application Support/test.orven.app";
inline constexpr std::string_view hardKillMarker = "/Library/Application Support/test.orven.app/hardkill.engaged";
inline constexpr std::string_view hardKillOwner = "/Library/Application Support/test.orven.app/hardkill.owner";
inline constexpr std::string_view mainRulesetRecord = "/Library/Application Support/test.orven.app/hardkill.main-ruleset";
inline constexpr std::string_view primaryToken = "/Library/Application Support/test.orven.app/hardkill.pf-token";
inline constexpr std::string_view emergencyToken = "/var/run/test.orven.app.hardkill.pf-token";
inline constexpr std::string_view enablePending = "/Library/Application Support/test.orven.app/hardkill.pf-enable-pending";
inline constexpr std::string_view mainRulesetPending = "/Library/Application Support/test.orven.app/hardkill.main-ruleset-pending";
inline constexpr std::string_view legacyPrior = "/Library/Application Support/test.orven.app/hardkill.pf-prior";
inline constexpr std::string_view legacyPreRuleset = "/Library/Application Support/test.orven.app/hardkill.pre-ruleset";
inline constexpr std::string_view pfConf = "/etc/pf.conf";
inline constexpr std::string_view rescueScript = "/Library/PrivilegedHelperTools/test.orven.app/hardkill-deactivate.sh";
inline constexpr std::string_view installDirectory = "/Library/PrivilegedHelperTools/test.orven.app";
inline constexpr std::string_view appBundle = "/Library/PrivilegedHelperTools/test.orven.app/ORVEN Helper.app";
inline constexpr std::string_view launchdPlist = "/Library/LaunchDaemons/test.orven.app.helper.plist";
inline constexpr std::string_view legacyInstallDirectory = "/usr/local/lib/test.orven.app";

inline constexpr std::string_view pfctl = "/sbin/pfctl";
inline constexpr std::string_view networksetup = "/usr/sbin/networksetup";
inline constexpr std::string_view ipconfig = "/usr/sbin/ipconfig";
inline constexpr std::string_view ping = "/sbin/ping";
inline constexpr std::string_view ping6 = "/sbin/ping6";
inline constexpr std::string_view nc = "/usr/bin/nc";
inline constexpr std::string_view pkgutil = "/usr/sbin/pkgutil";
inline constexpr std::string_view launchctl = "/bin/launchctl";
inline constexpr std::string_view log = "/usr/bin/log";
inline constexpr std::string_view ifconfig = "/sbin/ifconfig";
inline constexpr std::string_view knownWiFiNetworks = "/Library/Preferences/com.apple.wifi.known-networks.plist";
inline constexpr std::string_view security = "/usr/bin/security";
} // namespace paths

class HelperService {
public:
    HelperService(DaemonContext& context, std::uint32_t peerUID);
    HelperService() = delete;

    std::uint32_t peerUID() const { return peerUID_; }
    const Logger& log() const { return log_; }
    DaemonContext& context() const { return context_; }

    // --- XPC methods ---------------------------------------------------------

    void ping(Reply<std::string> reply);
    void setLANIsolation(bool enabled, const std::string& interface, const std::string& gatewayV4,
                         const std::string& subnetV4, const std::vector<std::string>& dnsV4,
                         const std::string& gatewayV6, const std::vector<std::string>& subnetsV6,
                         const std::vector<std::string>& dnsV6, ActionReply reply);
    void setHardKill(bool engaged, ActionReply reply);
    void readHardKillStatus(Reply<bool, bool, OptionalText> reply);
    void readHardKillEnforcement(Reply<bool, bool, bool, std::int64_t, OptionalText> reply);
    void readHardKillResidueWithToken(Reply<bool, bool, bool, OptionalText> reply);
    void readHardKillProof(Reply<bool, OptionalText, OptionalText> reply);
    void uninstallSelf(ActionReply reply);
    void selfTerminate(Reply<bool> reply);

    // --- Powerline probe -----------------------------------------------------

    // The first listening period the app's probe gets.
    static constexpr int powerlineListenMillis = 1000;
    using PowerlineReply = Reply<std::optional<std::vector<std::uint8_t>>, OptionalText>;
    void readPowerlineTopology(const std::string& interfaceName, PowerlineReply reply);
    // --- VPN identity and trusted CAs ----------------------------------------

    void installVPNIdentity(const std::vector<std::uint8_t>& pkcs12, const std::string& passphrase,
                            Reply<std::int64_t, OptionalText> reply);
    void releaseVPNIdentity(const std::vector<std::uint8_t>& pkcs12, const std::string& passphrase,
                            Reply<std::int64_t, OptionalText> reply);
    void installTrustedCA(const std::vector<std::uint8_t>& certificateDER, ActionReply reply);
    void removeTrustedCA(const std::vector<std::uint8_t>& certificateDER, ActionReply reply);

    // --- Shared validators (pure) -------------------------------------------

    static bool isValidBSDName(std::string_view name);
    static bool isValidTunnelInterfaceName(std::string_view name);
    static bool isValidServiceName(std::string_view name);

    // --- Shared runners ------------------------------------------------------

    static BoundedProcess::Result runProcess(DaemonContext& context, std::string_view path,
                                             const std::vector<std::string>& arguments,
                                             const std::optional<std::string>& standardInput, double timeout);
    struct NetworksetupOutcome {
        std::string output;
        OptionalText error;
    };
    static NetworksetupOutcome runNetworksetup(DaemonContext& context, const std::vector<std::string>& arguments);

    // --- pf command layer ----------------------------------------------------

    static OptionalText pfctlLoad(DaemonContext& context, const std::optional<std::string>& ruleset);
    static OptionalText pfctlLoadAnchor(DaemonContext& context, std::string_view ruleset);
    static OptionalText pfctlEnable(DaemonContext& context);
    struct EnableWithToken {
        std::optional<std::string> token;
        OptionalText error;
    };
    static EnableWithToken pfctlEnableWithToken(DaemonContext& context);
    static OptionalText pfctlReleaseToken(DaemonContext& context, std::string_view token);
    static OptionalText pfctlFlushStates(DaemonContext& context);
    static OptionalText pfctlFlushAnchor(DaemonContext& context);
    static HardKillState::Rules blackoutRuleState(DaemonContext& context);
    static std::optional<bool> catchAllWasEvaluated(DaemonContext& context);
    static std::optional<std::int64_t> pfStateCount(DaemonContext& context);
    static OptionalText pfctlLoadEnableAndFlush(DaemonContext& context, std::string_view ruleset,
                                                const PFRuleBuilder::LANIsolationParams& params);
    // Runs "/sbin/pfctl" with the pf time-out.
    static BoundedProcess::Result runPfctl(DaemonContext& context, const std::vector<std::string>& arguments,
                                           const std::optional<std::string>& standardInput = std::nullopt);
    // "/sbin/pfctl" "-s" "info" and "/sbin/pfctl" "-sr".
    static BoundedProcess::Result pfctlShowInfo(DaemonContext& context);
    static BoundedProcess::Result pfctlShowRules(DaemonContext& context);
    // Whether `-s info` answered and says pf is enabled (no answer: absent).
    static std::optional<bool> pfIsEnabled(DaemonContext& context);
    // The blackout rules loaded and pf enforcing them.
    static bool cutIsStanding(DaemonContext& context);

    // Runs `body` under the pf lock; no result when the lock could not be
    // taken within the budget (the body then did not run).
    template <class Body>
    static auto withPFLock(DaemonContext& context, Body&& body)
    {
        using BodyResult = std::invoke_result_t<Body>;
        using Outcome = std::conditional_t<std::is_void_v<BodyResult>, std::optional<std::monostate>,
                                           std::optional<BodyResult>>;
        std::unique_lock lock(context.pfLock, std::defer_lock);
        if (!lock.try_lock_for(std::chrono::duration<double>(context.pfLockBudgetSeconds))) {
            context.staticLog.error("pf lock unavailable after %{public}fs — another pf operation is wedged",
                                    context.pfLockBudgetSeconds);
            return Outcome{};
        }
        if constexpr (std::is_void_v<BodyResult>) {
            std::forward<Body>(body)();
            return Outcome{std::monostate{}};
        } else {
            return Outcome{std::forward<Body>(body)()};
        }
    }

    // --- pf reference tokens -------------------------------------------------

    enum class TokenStore { primary, emergency };
    static constexpr std::array<TokenStore, 2> tokenStores{TokenStore::primary, TokenStore::emergency};
    static std::string_view tokenStorePath(TokenStore store);
    static std::string_view tokenStoreMessageName(TokenStore store);

    struct HeldToken {
        std::string token;
        TokenStore store;
        bool operator==(const HeldToken&) const = default;
    };
    struct TokenRelease {
        enum class Kind { nothingHeld, released, failed };
        Kind kind;
        std::string message;  // only for failed
    };

    static std::vector<std::string> readTokens(DaemonContext& context, TokenStore store);
    static OptionalText writeTokens(DaemonContext& context, const std::vector<std::string>& tokens, TokenStore store);
    static std::vector<HeldToken> allHeldTokens(DaemonContext& context);
    static OptionalText persistTokenImmediately(DaemonContext& context, const std::string& token);
    static std::optional<std::chrono::system_clock::time_point> storeWrittenAt(DaemonContext& context,
                                                                               TokenStore store);
    static std::optional<std::chrono::system_clock::time_point> systemBootedAt(DaemonContext& context);
    // When each store was written, as a release should date its tokens.
    using StoreDates = std::array<std::optional<std::chrono::system_clock::time_point>, 2>;
    static StoreDates storeDates(DaemonContext& context);
    // `datedAsOf`: the store dates from before the caller appended a token
    // (an append renews a file's time, which must not make older tokens in it
    // look as if they were written since the boot).
    static TokenRelease releaseHeldTokens(DaemonContext& context, const std::optional<std::string>& except,
                                          const std::optional<StoreDates>& datedAsOf = std::nullopt);
    static void rollbackOwnReference(DaemonContext& context, const std::string& token);

    // pf's own list of the references it holds; absent when pfctl does not
    // answer with one.
    static std::optional<std::vector<HardKillState::PfReference>> pfReferences(DaemonContext& context);
    // Brings the token files in line with pf: a recorded token pf does not
    // hold is dropped, and the reference of an enable interrupted before its
    // token was recorded is found and recorded. Nothing changes when pf's
    // list cannot be read.
    static void reconcileTokensWithPf(DaemonContext& context);
    // Written before `pfctl -E`, removed once its token is recorded: what a
    // crash in between needs to find the reference again.
    static OptionalText recordEnableIntent(DaemonContext& context);
    static void clearEnableIntent(DaemonContext& context);
    // The reference `pfctl -E` took, found in pf's list when the tool did
    // not print its token: the one new reference of pfctl's since the intent.
    static std::optional<std::string> referenceTakenSinceIntent(DaemonContext& context);

    // --- Blackout anchor mechanism -------------------------------------------

    struct ExternalProbe {
        std::string label;
        std::string path;
        std::vector<std::string> args;
        double budget;
    };
    static const std::vector<ExternalProbe>& externalProbes();
    static OptionalText engageViaAnchor(DaemonContext& context, const HardKillProof::MainRulesetPlan& plan);
    // Gives back every recorded reference, logging what could not be.
    static void giveBackOurReferences(DaemonContext& context);
    static OptionalText engageIsProven(DaemonContext& context);
    static OptionalText disengageIsProven(DaemonContext& context);
    static std::string liftUnprovenMessage(std::string_view reason);
    struct ProbeSweep {
        std::vector<std::string> through;    // got an answer: the cut leaks
        std::vector<std::string> unstarted;  // could not be run: nothing proven
    };
    static ProbeSweep sweepExternalProbes(DaemonContext& context);
    static std::vector<std::string> externalProbesThatGotThrough(DaemonContext& context);
    // `pfctl -E` with its intent recorded first; a token it did not print is
    // looked up in pf's list.
    static EnableWithToken enableWithRecordedIntent(DaemonContext& context);
    // `pfctl -F states`, and the state table read back empty.
    static OptionalText flushStatesProven(DaemonContext& context);
    static std::optional<std::vector<std::string>> siblingAnchorPasses(DaemonContext& context);

    static HardKillProof::MainRulesetPlan mainRulesetPlan(DaemonContext& context, bool liveReadable,
                                                          std::string_view liveDump);

    // --- Hard Kill policy ----------------------------------------------------

    struct HardKillFollowUp {
        bool renewDHCP = false;
    };
    HardKillFollowUp hardKillLocked(bool engaged, ActionReply& reply);
    static bool hardKillFlagExists(DaemonContext& context);
    static OptionalText writeHardKillFlag(DaemonContext& context);
    static OptionalText clearHardKillFlag(DaemonContext& context);
    static void recordHardKillOwner(DaemonContext& context, std::uint32_t uid);
    static std::optional<std::uint32_t> readHardKillOwner(DaemonContext& context);
    static void clearHardKillOwner(DaemonContext& context);
    static void withdrawHardKillOwnerUnlessCutStands(DaemonContext& context);
    // The isolation a blackout suspended, when the suspended ruleset is still
    // the one loaded; `unreadable` when pf could not show what is loaded.
    struct IsolationRestore {
        std::optional<PFRuleBuilder::LANIsolationParams> params;
        OptionalText unreadable;
    };
    static IsolationRestore isolationToRestore(DaemonContext& context);
    // Loads the full isolation again and checks that it is what pf now holds.
    static OptionalText restoreIsolationVerified(DaemonContext& context, const PFRuleBuilder::LANIsolationParams& params);
    // The reply of a lift that could not remove the blackout.
    static std::string stillDarkMessage(std::string_view cause);
    static void restoreSuspendedIsolation(DaemonContext& context, const PFRuleBuilder::LANIsolationParams& params);

    // --- LAN isolation -------------------------------------------------------

    bool lanIsolationLocked(bool enabled, const std::string& interface, const std::string& gatewayV4,
                            const std::string& subnetV4, const std::vector<std::string>& dnsV4,
                            const std::string& gatewayV6, const std::vector<std::string>& subnetsV6,
                            const std::vector<std::string>& dnsV6, ActionReply& reply);
    static OptionalText loadOwnMainRuleset(DaemonContext& context, std::string_view ruleset,
                                           HardKillProof::MainRulesetShape shape,
                                           const PFRuleBuilder::LANIsolationParams& params);
    static std::optional<MainRulesetRecord> readMainRulesetRecord(DaemonContext& context);
    static void writeMainRulesetRecord(DaemonContext& context, const MainRulesetRecord& record);
    // Written before each load of our own main ruleset (shape, params and the
    // listing before), removed after: lets a start after a crash mid-load
    // recognise the ruleset as ours.
    static void recordMainRulesetIntent(DaemonContext& context, const MainRulesetRecord& intent);
    static void recoverInterruptedMainRulesetLoad(DaemonContext& context);
    static void clearMainRulesetRecord(DaemonContext& context);

    // --- Start-up re-apply and legacy take-over ------------------------------

    static void reapplyHardKillAtBoot(DaemonContext& context);
    static void reapplyHardKillLocked(DaemonContext& context);
    static bool suspendedIsolationRecorded(DaemonContext& context);
    static void restoreIsolationOfInterruptedEngage(DaemonContext& context);
    static bool legacyTakeOverRecordExists(DaemonContext& context);
    static void clearLegacyTakeOverRecord(DaemonContext& context);
    static void unwindLegacyTakeOverLocked(DaemonContext& context);

    // --- DHCP renewal kick ---------------------------------------------------

    static void kickDHCPRenewal(DaemonContext& context);
    static SetupOwnership::Result setupOwnedInterfaces(DaemonContext& context);
    static bool forceConfigurationRefresh(DaemonContext& context, std::string_view bsdName);

    // --- Network configuration and Wi-Fi ------------------------------------

    void applyIPv4(const std::string& serviceName, const std::string& mode, const std::string& ip,
                   const std::string& subnetMask, const std::string& router, ActionReply reply);
    void applyIPv6(const std::string& serviceName, const std::string& mode, const std::string& router,
                   const std::string& address, std::int64_t prefixLength, ActionReply reply);
    void listServiceOrder(Reply<OptionalText, OptionalText> reply);
    void setServiceOrder(const std::vector<std::string>& orderedServiceNames, ActionReply reply);
    void setInterfaceMTU(const std::string& bsdName, std::int64_t mtu, ActionReply reply);
    void setRawInterfaceMTU(const std::string& bsdName, std::int64_t mtu, ActionReply reply);
    void setInterfaceHoldUntilNeeded(const std::string& bsdName, std::optional<std::int64_t> hold, ActionReply reply);
    void restoreDriverProvisionedInterface(const std::string& bsdName, ActionReply reply);
    void setWiFiPower(const std::string& serviceName, bool on, ActionReply reply);
    void addPreferredWiFiNetwork(const std::string& serviceName, const std::string& ssid,
                                 const std::string& securityType, const std::string& password, ActionReply reply);
    void readKnownWiFiPlistData(Reply<std::optional<std::vector<std::uint8_t>>, OptionalText> reply);

    static bool isValidIPv4(std::string_view text);
    static bool isValidIPv4SubnetMask(std::string_view text);
    static bool isValidIPv6(std::string_view text);
    static bool isValidSSID(std::string_view ssid);
    static bool isAcceptedWiFiSecurityType(std::string_view type);
    // The "mtu N" of an ifconfig listing's first line; absent when it has none.
    static std::optional<std::int64_t> ifconfigReportedMTU(std::string_view listing);

    // --- Self-management -----------------------------------------------------

    static bool claimUninstall(DaemonContext& context);
    static void abandonUninstall(DaemonContext& context);
    void refuseAfterClaim(const std::string& message, ActionReply& reply);
    bool returnPFReferenceBeforeUninstall();
    static bool spawnDetached(DaemonContext& context, std::string_view path, const std::vector<std::string>& arguments,
                              const Logger& log);
    static void reportInstallPathIntegrity(DaemonContext& context);

    // --- Link diagnostics ----------------------------------------------------

    void pingWithDontFragment(const std::string& target, std::int64_t payloadBytes,
                              const std::string& boundInterface, std::int64_t timeoutMillis, ActionReply reply);
    void gatewayPingRTT(const std::string& target, std::int64_t count, std::int64_t spacingMillis,
                        const std::string& boundInterface, std::int64_t timeoutMillis,
                        Reply<double, OptionalText> reply);
    void readIKEv2DiagnosticLog(double sinceEpoch, const std::string& serverAddress,
                                Reply<OptionalText, OptionalText> reply);

    // The workers, run on the daemon's background pool; the box carries the
    // reply across the hop.
    static void runDFPingSubprocess(DaemonContext& context, const std::string& target, std::int64_t payloadBytes,
                                    const std::string& boundInterface, std::int64_t timeoutMillis,
                                    const std::shared_ptr<ActionReply>& replyBox);
    static void runGatewayPingSubprocess(DaemonContext& context, const std::string& target, std::int64_t count,
                                         std::int64_t spacingMillis, const std::string& boundInterface,
                                         std::int64_t timeoutMillis,
                                         const std::shared_ptr<Reply<double, OptionalText>>& replyBox);

    static bool isValidServerAddress(std::string_view address);
    // Seconds of log to ask for before the fixed margin: ceil(now − since)
    // within 1…300.
    static std::int64_t ikev2LookBackSeconds(double nowEpoch, double sinceEpoch);
    static std::string filterIKEv2DiagnosticLines(std::string_view output, std::string_view serverAddress);
    // --- Trusted CA commands -------------------------------------------------

    void runTrustedCertCommand(const std::vector<std::uint8_t>& certificateDER, bool install, std::string_view label,
                               ActionReply& reply);

private:
    DaemonContext& context_;
    Logger log_;
    std::uint32_t peerUID_;
};

} // namespace orven
