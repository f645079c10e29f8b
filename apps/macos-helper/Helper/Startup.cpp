#include "Startup.h"

#include "HelperService.h"

namespace orven::Startup {

std::optional<std::string> run(DaemonContext& context, std::uint32_t uid, const ResumeListener& resumeListener)
{
    const Logger log(context.host.logSink(), "Bootstrap");
    log.info("ORVEN Helper starting (uid=%{public}u)", uid);
    HelperService::reportInstallPathIntegrity(context);
    HelperService::reapplyHardKillAtBoot(context);
    if (auto error = resumeListener()) {
        log.error("Listener could not be started: %{public}s", *error);
        return error;
    }
    log.info("Listener resumed on %{public}s", OrvenHelperConstants::machServiceName);
    return std::nullopt;
}

} // namespace orven::Startup
