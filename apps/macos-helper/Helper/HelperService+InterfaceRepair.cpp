// An interface's "DisableUntilNeeded" flag in the preferences of the current
// set, and the repair of an interface its driver brought up without any
// configured service.

#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

constexpr double kRepairToolTimeout = 30.0;
constexpr std::string_view kDisableUntilNeeded = "DisableUntilNeeded";

// "<tool words> exited <status>", then ": " and the trimmed error output when
// there is any: the same shape as every other tool failure the daemon reports.
std::string toolFailure(const std::string& command, const BoundedProcess::Result& result)
{
    const std::string detail = text::trimWhitespaceAndNewlines(result.err);
    return command + " exited " + std::to_string(result.code) + (detail.empty() ? "" : ": " + detail);
}

} // namespace

void HelperService::setInterfaceHoldUntilNeeded(const std::string& bsdName, std::optional<std::int64_t> hold,
                                                ActionReply reply)
{
    if (!isValidBSDName(bsdName)) return reply(false, std::string("Invalid interface name."));
    const auto preferences = context().host.openPreferences(OrvenHelperConstants::machServiceName);
    const auto set = preferences ? preferences->currentSetID() : std::nullopt;
    if (!set) return reply(false, std::string("SystemConfiguration preferences unavailable."));

    const std::string path = "/Sets/" + *set + "/Network/Interface/" + bsdName;
    // Every other key of the interface's dictionary is kept as it was.
    auto dictionary = preferences->pathGetValue(path).value_or(Host::PreferencesDictionary{});
    if (hold) dictionary[std::string(kDisableUntilNeeded)] = *hold;
    else dictionary.erase(std::string(kDisableUntilNeeded));
    if (!preferences->pathSetValue(path, dictionary) || !preferences->commitChanges())
        return reply(false,
                     "Could not write the interface flag (SCError " + std::to_string(preferences->lastError()) + ").");
    // Stored is enough: the flag takes effect when the preferences are next applied.
    if (!preferences->applyChanges())
        log().error("DisableUntilNeeded written but apply failed (SCError %{public}d)", preferences->lastError());
    log().notice("DisableUntilNeeded on %{public}s → %{public}s", bsdName,
                 std::string(!hold ? "removed" : *hold != 0 ? "1" : "0"));
    reply(true, std::nullopt);
}

void HelperService::restoreDriverProvisionedInterface(const std::string& bsdName, ActionReply reply)
{
    if (!isValidBSDName(bsdName)) return reply(false, std::string("Invalid interface name."));
    const auto fail = [&](std::string message) {
        log().error("restoreDriverProvisionedInterface failed: %{public}s", message);
        reply(false, std::move(message));
    };
    if (isValidTunnelInterfaceName(bsdName)) return fail("Refusing to re-lease a tunnel interface: " + bsdName);

    // Ownership that cannot be read is a refusal, never a pass.
    const auto before = setupOwnedInterfaces(context());
    if (before.error) return fail("Cannot verify " + bsdName + " is driver-provisioned: " + *before.error);
    if (before.names.count(bsdName)) return fail(bsdName + " is a configured network service — not driver-provisioned.");

    const auto up = runProcess(context(), paths::ifconfig, {bsdName, "up"}, std::nullopt, kRepairToolTimeout);
    if (up.code != 0) return fail(toolFailure("ifconfig " + bsdName + " up", up));

    // A service may have been configured for the interface while it came up.
    const auto after = setupOwnedInterfaces(context());
    if (after.error) return fail("Cannot re-verify " + bsdName + " before writing: " + *after.error);
    if (after.names.count(bsdName))
        return fail(bsdName + " became a configured network service while the repair was running — refusing to "
                              "displace it.");

    const auto lease =
        runProcess(context(), paths::ipconfig, {"set", bsdName, "DHCP"}, std::nullopt, kRepairToolTimeout);
    if (lease.code != 0) return fail(toolFailure("ipconfig set " + bsdName + " DHCP", lease));
    log().notice("re-leased driver-provisioned interface %{public}s", bsdName);
    reply(true, std::nullopt);
}

} // namespace orven
