// The address, SSID and security-type validators and the ifconfig MTU reader,
// fed arbitrary bytes. Beyond not crashing, each checks what its callers
// rely on: what passes can go into a tool's argument vector as it is.

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "HelperService.h"
#include "Text.h"

using namespace orven;

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

void checkAddresses(std::string_view input)
{
    if (HelperService::isValidIPv4(input)) {
        const std::string trimmed = text::trimWhitespaceAndNewlines(input);
        in_addr address{};
        require(::inet_pton(AF_INET, trimmed.c_str(), &address) == 1);
        require(trimmed.size() <= 15);
    }
    if (HelperService::isValidIPv4SubnetMask(input)) require(HelperService::isValidIPv4(input));
    if (HelperService::isValidIPv6(input)) {
        require(!input.empty() && input.find('\0') == std::string_view::npos);
        for (const char c : input) require(c != ' ' && c != '\n' && c != '%');
    }
}

void checkWiFi(std::string_view input)
{
    if (HelperService::isValidSSID(input)) {
        require(!input.empty() && input.size() <= 32 && text::isValidUTF8(input));
        for (const char32_t s : *text::decodeUTF8(input)) require(!text::isControl(s) && !text::isNewline(s));
    }
    if (HelperService::isAcceptedWiFiSecurityType(input)) require(input.size() <= 20 && text::isValidUTF8(input));
}

void checkIfconfig(std::string_view input)
{
    if (const auto mtu = HelperService::ifconfigReportedMTU(input)) {
        require(*mtu >= 0 && *mtu <= (1 << 20));
        require(text::contains(input, "mtu"));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    checkAddresses(input);
    checkWiFi(input);
    checkIfconfig(input);
    return 0;
}
