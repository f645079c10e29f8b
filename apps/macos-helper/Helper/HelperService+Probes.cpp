// Link diagnostics that send ICMP echoes: a single don't-fragment probe (the
// step of a path-MTU search the app drives) and a short train to a nearby
// host whose warm replies give a round-trip median. Both validate on the
// connection and run the tool off it, on the daemon's background pool.

#include <cstdio>
#include <memory>
#include <utility>

#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

constexpr double kPingKillGrace = 2.0;
constexpr std::int64_t kMaxTargetCharacters = 64;

// Ranges are tested unsigned after taking off the lower bound, so a negative
// value wraps to a huge one and fails as well.
constexpr bool inRange(std::int64_t value, std::int64_t low, std::int64_t high)
{
    return static_cast<std::uint64_t>(value) - static_cast<std::uint64_t>(low) <=
           static_cast<std::uint64_t>(high) - static_cast<std::uint64_t>(low);
}

bool isValidTarget(std::string_view target)
{
    return !target.empty() && text::scalarCount(target) <= static_cast<std::size_t>(kMaxTargetCharacters);
}

struct PingTool {
    std::string_view path;
    std::string interfaceOption;
};

// IPv6 for anything that looks like an IPv6 address; ping6 binds with -I,
// ping with -b.
PingTool pingToolFor(std::string_view target)
{
    if (text::contains(target, ":")) return {paths::ping6, "-I"};
    return {paths::ping, "-b"};
}

std::string formatted(const char* format, double value)
{
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, format, value);
    return buffer;
}

// The budget a ping run gets: the constant's formula, with the context's
// start-up slack in place of the constant one (they are equal outside tests).
double withContextSlack(const DaemonContext& context, double budget)
{
    return budget - OrvenHelperConstants::pingSpawnSlackSeconds + context.pingSpawnSlackSeconds;
}

constexpr std::string_view kPoolFullMessage =
    "The helper is already running as many network diagnostics as it can; try again in a moment.";

} // namespace

void HelperService::pingWithDontFragment(const std::string& target, std::int64_t payloadBytes,
                                         const std::string& boundInterface, std::int64_t timeoutMillis,
                                         ActionReply reply)
{
    if (!isValidTarget(target)) return reply(false, "Invalid target");
    if (!inRange(payloadBytes, 0, 8000)) return reply(false, "payloadBytes out of range");
    if (!isValidServiceName(boundInterface)) return reply(false, "Invalid boundInterface");
    if (!inRange(timeoutMillis, 100, 10000)) return reply(false, "timeoutMillis out of range (100…10000)");

    auto replyBox = std::make_shared<ActionReply>(std::move(reply));
    auto& context = context_;
    const bool accepted = context.backgroundWork.submit([&context, target, payloadBytes, boundInterface,
                                                          timeoutMillis, replyBox] {
        runDFPingSubprocess(context, target, payloadBytes, boundInterface, timeoutMillis, replyBox);
    });
    if (!accepted) {
        Logger(context.host.logSink(), "DFPing").error("ping refused, the diagnostics pool is full: target=%{public}s",
                                                     target);
        (*replyBox)(false, std::string(kPoolFullMessage));
    }
}

void HelperService::runDFPingSubprocess(DaemonContext& context, const std::string& target, std::int64_t payloadBytes,
                                        const std::string& boundInterface, std::int64_t timeoutMillis,
                                        const std::shared_ptr<ActionReply>& replyBox)
{
    const Logger log(context.host.logSink(), "DFPing");
    log.notice("ping start: target=%{public}s payload=%ld boundIf=%{public}s", target, payloadBytes, boundInterface);

    const auto tool = pingToolFor(target);
    const std::vector<std::string> arguments{"-c", "1",
                                             "-W", std::to_string(timeoutMillis),
                                             "-s", std::to_string(payloadBytes),
                                             "-D", tool.interfaceOption,
                                             boundInterface, target};
    const double budget = withContextSlack(context, OrvenHelperConstants::dfPingBudgetSeconds(timeoutMillis));
    const auto result = context.host.run(tool.path, arguments, std::nullopt, budget, kPingKillGrace);

    if (result.code == BoundedProcess::kSpawnFailed) {
        log.error("ping subprocess failed to launch: %{public}s", result.err);
        return (*replyBox)(false, std::nullopt);
    }
    if (result.code == BoundedProcess::kTimedOut)
        log.error("ping exceeded its %fs budget and was killed — reported as a non-fit: target=%{public}s payload=%ld",
                  budget, target, payloadBytes);
    const bool fits = result.code == 0;
    log.notice("ping result: target=%{public}s payload=%ld success=%{bool}d", target, payloadBytes, fits);
    (*replyBox)(fits, std::nullopt);
}

void HelperService::gatewayPingRTT(const std::string& target, std::int64_t count, std::int64_t spacingMillis,
                                   const std::string& boundInterface, std::int64_t timeoutMillis,
                                   Reply<double, OptionalText> reply)
{
    if (!isValidTarget(target)) return reply(-1.0, "Invalid target");
    if (!inRange(count, 2, 12)) return reply(-1.0, "count out of range (2…12)");
    if (!inRange(spacingMillis, 50, 2000)) return reply(-1.0, "spacingMillis out of range (50…2000)");
    if (!isValidServiceName(boundInterface)) return reply(-1.0, "Invalid boundInterface");
    if (!inRange(timeoutMillis, 100, 10000)) return reply(-1.0, "timeoutMillis out of range (100…10000)");

    auto replyBox = std::make_shared<Reply<double, OptionalText>>(std::move(reply));
    auto& context = context_;
    const bool accepted = context.backgroundWork.submit(
        [&context, target, count, spacingMillis, boundInterface, timeoutMillis, replyBox] {
            runGatewayPingSubprocess(context, target, count, spacingMillis, boundInterface, timeoutMillis, replyBox);
        });
    if (!accepted) {
        Logger(context.host.logSink(), "GatewayPing")
            .error("gateway ping refused, the diagnostics pool is full: target=%{public}s via %{public}s", target,
                   boundInterface);
        (*replyBox)(-1.0, std::string(kPoolFullMessage));
    }
}

void HelperService::runGatewayPingSubprocess(DaemonContext& context, const std::string& target, std::int64_t count,
                                             std::int64_t spacingMillis, const std::string& boundInterface,
                                             std::int64_t timeoutMillis,
                                             const std::shared_ptr<Reply<double, OptionalText>>& replyBox)
{
    const Logger log(context.host.logSink(), "GatewayPing");
    const auto tool = pingToolFor(target);
    const std::vector<std::string> arguments{"-c", std::to_string(count),
                                             "-i", formatted("%.2f", static_cast<double>(spacingMillis) / 1000.0),
                                             "-W", std::to_string(timeoutMillis),
                                             tool.interfaceOption, boundInterface,
                                             target};
    const double budget = withContextSlack(
        context, OrvenHelperConstants::gatewayPingBudgetSeconds(count, spacingMillis, timeoutMillis));
    const auto result = context.host.run(tool.path, arguments, std::nullopt, budget, kPingKillGrace);

    if (result.code == BoundedProcess::kSpawnFailed) {
        log.error("gateway ping subprocess failed to launch: %{public}s", result.err);
        return (*replyBox)(-1.0, std::nullopt);
    }
    if (result.code == BoundedProcess::kTimedOut)
        log.error("gateway ping exceeded its %fs budget and was killed: target=%{public}s via %{public}s", budget,
                  target, boundInterface);
    // Whatever the train printed before a kill still counts.
    const auto median = OrvenHelperConstants::parseGatewayPingMedianMillis(result.out, count > 2);
    if (!median) {
        log.notice("gateway ping %{public}s via %{public}s: no warm reply", target, boundInterface);
        return (*replyBox)(-1.0, std::nullopt);
    }
    log.notice("gateway ping %{public}s via %{public}s: warm-median=%{public}s ms", target, boundInterface,
               formatted("%.1f", *median));
    (*replyBox)(*median, std::nullopt);
}

} // namespace orven
