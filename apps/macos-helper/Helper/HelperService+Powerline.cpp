// The powerline probe for the app: validated here, run on the daemon's
// background workers, answered with the reading's JSON.

#include <memory>

#include "HelperService.h"
#include "PowerlineProbe.h"

namespace orven {

void HelperService::readPowerlineTopology(const std::string& interfaceName, PowerlineReply reply)
{
    if (!isValidBSDName(interfaceName)) {
        reply(std::nullopt, "Invalid interface name.");
        return;
    }
    // The job owns the reply; a refused job hands it back untouched, so
    // exactly one of the two paths answers.
    auto shared = std::make_shared<PowerlineReply>(std::move(reply));
    DaemonContext& context = context_;
    const Logger log = log_;
    const bool accepted = context.backgroundWork.submit([&context, log, interfaceName, shared] {
        const Logger probeLog(context.host.logSink(), std::string(PowerlineProbe::logCategory));
        auto outcome = PowerlineProbe::probe(context.host, probeLog, interfaceName, powerlineListenMillis);
        if (auto* failure = std::get_if<PowerlineProbe::ProbeFailure>(&outcome)) {
            log.error("readPowerlineTopology(%{public}s) failed: %{public}s", interfaceName, failure->message);
            (*shared)(std::nullopt, failure->message);
            return;
        }
        const auto encoding = std::get<PowerlineTopologyReading>(outcome).encodedJSON();
        if (!encoding.json) {
            (*shared)(std::nullopt, "Encoding the reading failed: " + encoding.error);
            return;
        }
        (*shared)(std::vector<std::uint8_t>(encoding.json->begin(), encoding.json->end()), std::nullopt);
    });
    if (!accepted) {
        log_.error("readPowerlineTopology(%{public}s) refused: too many requests are waiting", interfaceName);
        (*shared)(std::nullopt, "The powerline probe was not started: too many requests are waiting. Try again shortly.");
    }
}

} // namespace orven
