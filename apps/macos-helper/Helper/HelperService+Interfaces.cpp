// The DHCP renewal kick after a proven lift: interfaces whose exchanges were
// blocked during the blackout are asked to refresh, within a short budget.

#include <chrono>

#include "HelperService.h"
#include "PFRuleBuilder.h"
#include "Text.h"

namespace orven {

namespace {

constexpr auto kKickBudget = std::chrono::seconds(10);
constexpr double kInterfaceListTimeout = 3.0;
constexpr std::string_view kServiceInterfacePattern = "Setup:/Network/Service/[^/]+/Interface";

} // namespace

SetupOwnership::Result HelperService::setupOwnedInterfaces(DaemonContext& context)
{
    auto copy = context.host.copyDynamicStore(OrvenHelperConstants::machServiceName, kServiceInterfacePattern);
    if (copy.error) return {{}, std::move(copy.error)};
    return SetupOwnership::resolve(copy.entries);
}

bool HelperService::forceConfigurationRefresh(DaemonContext& context, std::string_view bsdName)
{
    return context.host.forceConfigurationRefresh(bsdName);
}

void HelperService::kickDHCPRenewal(DaemonContext& context)
{
    auto& log = context.staticLog;
    const auto deadline = context.host.now() + kKickBudget;
    const auto list = runProcess(context, paths::ipconfig, {"getiflist"}, std::nullopt, kInterfaceListTimeout);
    if (list.code != 0) return;

    const auto ownership = setupOwnedInterfaces(context);
    if (ownership.error) log.error("DHCP kick: ownership unreadable, hinting only — %{public}s", *ownership.error);

    std::vector<std::string> refreshed, declined, driverProvisioned;
    bool ranOut = false;
    for (const auto& name : text::splitAtWhitespaceAndNewlines(list.out)) {
        if (context.host.now() >= deadline) {
            ranOut = true;
            break;
        }
        if (!PFRuleBuilder::isValidInterfaceName(name)) continue;
        if (isValidTunnelInterfaceName(name)) continue;
        if (forceConfigurationRefresh(context, name)) {
            refreshed.push_back(name);
        } else if (ownership.error || ownership.names.count(name)) {
            declined.push_back(name);
        } else {
            driverProvisioned.push_back(name);
        }
    }
    if (!refreshed.empty())
        log.notice("DHCP kick: asked configd to refresh %{public}s", text::join(refreshed, ", "));
    if (!declined.empty())
        log.notice("DHCP kick: refresh declined for %{public}s — left alone", text::join(declined, ", "));
    if (!driverProvisioned.empty())
        log.notice("DHCP kick: %{public}s is driver-provisioned and not SC-hintable — left to its own DHCP retry",
                   text::join(driverProvisioned, ", "));
    if (ranOut)
        log.error("DHCP kick ran out of its %{public}lds budget — some interfaces were not nudged",
                  static_cast<long>(kKickBudget.count()));
    if (refreshed.empty() && declined.empty() && driverProvisioned.empty())
        log.notice("DHCP kick: no DHCP interfaces found");
}

} // namespace orven
