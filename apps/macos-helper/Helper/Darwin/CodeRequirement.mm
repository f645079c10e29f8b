#include "Darwin/CodeRequirement.h"

#include <string>

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>

namespace orven {

std::optional<std::string> codeRequirementError(std::string_view requirement)
{
    const CFStringRef text =
        CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(requirement.data()),
                                static_cast<CFIndex>(requirement.size()), kCFStringEncodingUTF8, false);
    if (!text) return "The client code requirement is not valid UTF-8.";
    SecRequirementRef compiled = nullptr;
    const OSStatus status = SecRequirementCreateWithString(text, kSecCSDefaultFlags, &compiled);
    CFRelease(text);
    if (compiled) CFRelease(compiled);
    if (status != errSecSuccess) {
        return "The client code requirement does not compile (OSStatus " + std::to_string(status) +
               "), so no client could be checked.";
    }
    return std::nullopt;
}

} // namespace orven
