#include "FileKeychainCalls.h"

#include <algorithm>

namespace orven {

void wipeMemory(void* data, std::size_t size)
{
    // Writes through a volatile pointer are not optimised away.
    auto* bytes = static_cast<volatile std::uint8_t*>(data);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = 0;
}

SecretBytes& SecretBytes::operator=(SecretBytes&& other) noexcept
{
    if (this != &other) {
        wipe();
        bytes_ = std::move(other.bytes_);
        other.bytes_.clear();
    }
    return *this;
}

void SecretBytes::wipe()
{
    wipeMemory(bytes_.data(), bytes_.size());
    bytes_.clear();
}

namespace FileKeychain {

std::optional<FileKeychainCalls::AccessRef>
access(FileKeychainCalls& calls, std::string_view name,
       const std::vector<FileKeychainCalls::TrustedApplicationRef>& applications)
{
    return calls.accessCreate(name, applications);
}

std::optional<std::string> path(FileKeychainCalls& calls, const FileKeychainCalls::TrustedApplicationRef& application)
{
    auto data = calls.trustedApplicationCopyData(application);
    if (!data) return std::nullopt;
    // The data is the path as a C string, terminator included.
    const auto end = std::find(data->begin(), data->end(), std::uint8_t{0});
    if (end == data->begin()) return std::nullopt;
    return std::string(data->begin(), end);
}

std::optional<std::vector<std::string>> signers(FileKeychainCalls& calls, const FileKeychainCalls::KeyRef& key)
{
    const auto keyAccess = calls.itemCopyAccess(key);
    if (!keyAccess) return std::nullopt;
    const auto acls = calls.accessCopySigningACLs(*keyAccess);
    if (!acls) return std::nullopt;
    std::vector<std::string> paths;
    for (const auto& acl : *acls) {
        const auto contents = calls.aclCopyContents(acl);
        if (!contents) return std::nullopt;
        if (!contents->applications) {
            paths.emplace_back("*");
            continue;
        }
        for (const auto& application : *contents->applications) {
            auto programPath = path(calls, application);
            if (!programPath) return std::nullopt;
            paths.push_back(std::move(*programPath));
        }
    }
    return paths;
}

} // namespace FileKeychain

} // namespace orven
