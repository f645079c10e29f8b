// Interface MTU, two ways kept apart: a configured interface's MTU goes into
// the SystemConfiguration preferences after a range check against what its
// device reports; a tunnel's MTU is set on the live interface with ifconfig.

#include <algorithm>

#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

constexpr double kIfconfigTimeout = 30.0;
constexpr std::int64_t kTunnelMTUMinimum = 1280;
constexpr std::int64_t kTunnelMTUMaximum = 1500;

// The set's services in its service order; services the order does not name
// follow in the order the set lists them.
std::vector<Host::NetworkService> inServiceOrder(std::vector<Host::NetworkService> services,
                                                 const std::vector<std::string>& order)
{
    const auto rank = [&order](const Host::NetworkService& service) {
        return static_cast<std::size_t>(std::find(order.begin(), order.end(), service.serviceID) - order.begin());
    };
    std::stable_sort(services.begin(), services.end(),
                     [&rank](const auto& left, const auto& right) { return rank(left) < rank(right); });
    return services;
}

} // namespace

std::optional<std::int64_t> HelperService::ifconfigReportedMTU(std::string_view listing)
{
    const auto lines = text::splitAtLineFeed(listing, false);
    if (lines.empty()) return std::nullopt;
    const auto words = text::splitWords(lines.front(), " \t");
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        if (words[i] != "mtu") continue;
        if (auto value = text::parseUnsigned(words[i + 1], 1u << 20)) return static_cast<std::int64_t>(*value);
        return std::nullopt;
    }
    return std::nullopt;
}

void HelperService::setInterfaceMTU(const std::string& bsdName, std::int64_t mtu, ActionReply reply)
{
    if (!isValidBSDName(bsdName)) return reply(false, "Invalid interface name: " + bsdName);
    if (isValidTunnelInterfaceName(bsdName))
        return reply(false, bsdName + " is a tunnel interface — use setRawInterfaceMTU.");

    const auto preferences = context().host.openPreferences(OrvenHelperConstants::machServiceName);
    const auto set = preferences ? preferences->currentSetID() : std::nullopt;
    const auto services = set ? preferences->currentSetServices() : std::nullopt;
    if (!services) return reply(false, std::string("SystemConfiguration preferences unavailable."));

    const auto fail = [&](std::string message) {
        log().error("setInterfaceMTU failed: %{public}s", message);
        reply(false, std::move(message));
    };
    const auto ordered = inServiceOrder(*services, preferences->currentSetServiceOrder());
    const auto service = std::find_if(ordered.begin(), ordered.end(),
                                      [&bsdName](const auto& candidate) { return candidate.bsdName == bsdName; });
    if (service == ordered.end()) return fail("No network service in the current set uses " + bsdName + ".");
    const auto range = preferences->copyMTU(service->serviceID);
    if (!range)
        return fail(bsdName +
                    " has a network service but no attached device — refusing to write an MTU we cannot range-check.");
    if (auto reason = OrvenHelperConstants::rejectionForInterfaceMTU(mtu, range->minimum, range->maximum))
        return fail(std::move(*reason));
    // In range, so it fits an int.
    if (!preferences->setMTU(service->serviceID, static_cast<int>(mtu)))
        return fail("SCNetworkInterfaceSetMTU refused (SCError " + std::to_string(preferences->lastError()) + ")");
    if (!preferences->commitChanges())
        return fail("Could not commit the MTU (SCError " + std::to_string(preferences->lastError()) + ")");
    // Committed is stored: the value takes effect at the next apply even
    // when this one fails, so that is not a failure of the call.
    if (!preferences->applyChanges())
        log().error("MTU written but apply failed (SCError %{public}d)", preferences->lastError());
    log().notice("set MTU for %{public}s → %ld (device range %d…%d)", bsdName, static_cast<long>(mtu), range->minimum,
                 range->maximum);
    reply(true, std::nullopt);
}

void HelperService::setRawInterfaceMTU(const std::string& bsdName, std::int64_t mtu, ActionReply reply)
{
    if (!isValidTunnelInterfaceName(bsdName)) return reply(false, "Invalid tunnel interface: " + bsdName);
    if (static_cast<std::uint64_t>(mtu - kTunnelMTUMinimum) >
        static_cast<std::uint64_t>(kTunnelMTUMaximum - kTunnelMTUMinimum))
        return reply(false, "Tunnel MTU out of range: " + std::to_string(mtu) + " (allowed 1280...1500)");

    const std::string value = std::to_string(mtu);
    const auto result = runProcess(context(), paths::ifconfig, {bsdName, "mtu", value}, std::nullopt, kIfconfigTimeout);
    const std::string detail = text::trimWhitespaceAndNewlines(result.err);
    if (result.code != 0) {
        const std::string message = "ifconfig " + bsdName + " mtu " + value + " exited " + std::to_string(result.code) +
                                    (detail.empty() ? "" : ": " + detail);
        log().error("setRawInterfaceMTU failed: %{public}s", message);
        return reply(false, message);
    }
    log().notice("set tunnel MTU for %{public}s → %ld", bsdName, static_cast<long>(mtu));
    // ifconfig exits 0 even when the kernel refuses the MTU (it only warns),
    // so the interface is read back and a refusal is at least logged.
    const auto listing = runProcess(context(), paths::ifconfig, {bsdName}, std::nullopt, kIfconfigTimeout);
    const auto reported = listing.code == 0 ? ifconfigReportedMTU(listing.out) : std::nullopt;
    if (reported != mtu)
        log().error("ifconfig %{public}s mtu %ld exited 0 but the interface reports mtu %{public}s: %{public}s",
                    bsdName, static_cast<long>(mtu), reported ? std::to_string(*reported) : std::string("unknown"),
                    detail.empty() ? std::string("no warning was printed") : detail);
    reply(true, std::nullopt);
}

} // namespace orven
