#include "HelperService.h"

#include "Text.h"

namespace orven {

HelperService::HelperService(DaemonContext& context, std::uint32_t peerUID)
    : context_(context), log_(context.host.logSink(), "Service"), peerUID_(peerUID)
{
}

void HelperService::ping(Reply<std::string> reply) { reply(std::string(OrvenHelperConstants::expectedHelperVersion)); }

BoundedProcess::Result HelperService::runProcess(DaemonContext& context, std::string_view path,
                                                 const std::vector<std::string>& arguments,
                                                 const std::optional<std::string>& standardInput, double timeout)
{
    constexpr double killGrace = 2.0;
    auto result = context.host.run(path, arguments, standardInput, timeout, killGrace);
    if (result.code == BoundedProcess::kTimedOut)
        context.staticLog.error("child timed out after %{public}fs and was killed: %{public}s", timeout, path);
    return result;
}

HelperService::NetworksetupOutcome HelperService::runNetworksetup(DaemonContext& context,
                                                                  const std::vector<std::string>& arguments)
{
    const auto result = runProcess(context, paths::networksetup, arguments, std::nullopt, 30.0);
    if (result.code == BoundedProcess::kSpawnFailed)
        return {{}, "networksetup could not be started — " + result.err};
    if (result.code != 0) {
        const std::string detail = text::trimWhitespaceAndNewlines(result.err);
        return {{}, "networksetup exited " + std::to_string(result.code) + (detail.empty() ? "" : ": " + detail)};
    }
    return {text::trimWhitespaceAndNewlines(result.out), std::nullopt};
}

} // namespace orven
