#pragma once
// The daemon's start, in the order that matters: the start line, the install
// path report, the Hard Kill re-apply, and only then the listener. Boot work
// finishes before any client can reach the daemon.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "DaemonContext.h"

namespace orven::Startup {

// Creates and resumes the platform's listener; an error text when it could not.
using ResumeListener = std::function<std::optional<std::string>()>;

// Runs the boot work and resumes the listener, logging on "Bootstrap".
// `uid` is the process's real user id. Nothing in the boot work is fatal; only
// a listener that cannot start is, and its error comes back.
std::optional<std::string> run(DaemonContext& context, std::uint32_t uid, const ResumeListener& resumeListener);

} // namespace orven::Startup
