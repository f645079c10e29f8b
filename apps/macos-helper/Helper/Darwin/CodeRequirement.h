#pragma once
// Whether a code-signing requirement compiles. NSXPCConnection's
// setCodeSigningRequirement: raises on one that does not, which would abort
// the daemon at its first connection; checked once at start instead.

#include <optional>
#include <string>
#include <string_view>

namespace orven {

// The reason `requirement` does not compile, or nothing when it does.
std::optional<std::string> codeRequirementError(std::string_view requirement);

} // namespace orven
