#pragma once
// Small file operations on real paths (already resolved through Host).
// Failures come back as the system's description of the error.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace orven::files {

using OptionalError = std::optional<std::string>;

// Whole file, or absent when missing, unreadable or larger than `maxBytes`
// (state files are tiny; a huge one is not ours).
std::optional<std::string> read(const std::string& path, std::size_t maxBytes = 1 << 20);
bool exists(const std::string& path);
// mkdir -p; new directories get `mode`.
OptionalError createDirectories(const std::string& path, mode_t mode);
// Writes to a temporary file beside `path`, syncs, sets `mode` and renames,
// so readers see the old content or the new, never a torn one.
OptionalError writeAtomically(const std::string& path, std::string_view content, mode_t mode);
// Removes one file; a missing file is an error (ENOENT) like any other.
OptionalError remove(const std::string& path);
// Removes a file or a whole directory tree, without following links.
OptionalError removeTree(const std::string& path);
std::optional<std::chrono::system_clock::time_point> modificationTime(const std::string& path);
std::string parentDirectory(const std::string& path);

} // namespace orven::files
