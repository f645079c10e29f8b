// Client-supplied names, ping output and the text helpers under them, fed
// arbitrary bytes. Beyond not crashing, each checks the promises its callers
// rely on.
//
// Input: one flag byte, then the text. For the service order list the text
// is split at NUL bytes into names, so names may hold newlines.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "HelperService.h"
#include "Log.h"
#include "OrvenHelperProtocol.h"
#include "Text.h"

using namespace orven;

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

bool hasNewline(std::string_view piece)
{
    for (const char c : piece) {
        if (c == '\n' || c == '\v' || c == '\f' || c == '\r') return true;
    }
    return piece.find("\xC2\x85") != std::string_view::npos || piece.find("\xE2\x80\xA8") != std::string_view::npos ||
           piece.find("\xE2\x80\xA9") != std::string_view::npos;
}

bool isASCIIAlphanumeric(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

void checkValidators(std::string_view input)
{
    if (HelperService::isValidBSDName(input)) {
        require(!input.empty() && input.size() <= 24);
        for (const char c : input) require(isASCIIAlphanumeric(c));
        require(HelperService::isValidServiceName(input));
    }
    if (HelperService::isValidTunnelInterfaceName(input)) {
        require(input.size() <= 16);
        const std::size_t prefix = text::startsWith(input, "utun") ? 4 : 5;
        require(text::startsWith(input, "utun") || text::startsWith(input, "ipsec"));
        require(input.size() > prefix && text::allASCIIDigits(input.substr(prefix)));
        require(HelperService::isValidBSDName(input));
    }
    if (HelperService::isValidServiceName(input)) {
        const auto scalars = text::decodeUTF8(input);
        require(scalars && !scalars->empty() && scalars->size() <= 64);
        bool hasTab = false;
        for (const char32_t s : *scalars) {
            require(!text::isNewline(s) && s != U'/');
            require(s == U'\t' || !text::isControl(s));
            hasTab = hasTab || s == U'\t';
        }
        // A valid name is a valid entry of an order list, except that the
        // list refuses tab (a control character) and names of white space only.
        if (!hasTab && !text::trimWhitespace(input).empty()) {
            require(!OrvenHelperConstants::validateServiceOrderList({std::string(input)}).has_value());
        }
    }
}

void checkServiceOrderList(std::string_view input)
{
    const std::vector<std::string> names = text::splitKeepingEmpty(input, '\0');
    const auto rejection = OrvenHelperConstants::validateServiceOrderList(names);
    if (!rejection) {
        require(!names.empty() && names.size() <= 64);
        for (const std::string& name : names) {
            require(text::isValidUTF8(name) && !hasNewline(name) && text::scalarCount(name) <= 128);
            require(!text::trimWhitespace(name).empty());
        }
        return;
    }
    const bool known = *rejection == "Service order list is empty" ||
                       text::startsWith(*rejection, "Service order list too long (") ||
                       *rejection == "Service order list contains an empty name" ||
                       text::startsWith(*rejection, "Service name too long (") ||
                       *rejection == "Service name contains control characters";
    require(known);
}

void checkPing(std::string_view input)
{
    const auto warm = OrvenHelperConstants::parseGatewayPingMedianMillis(input, true);
    const auto all = OrvenHelperConstants::parseGatewayPingMedianMillis(input, false);
    // Dropping the cold reply never leaves no sample behind.
    require(warm.has_value() == all.has_value());
    for (const auto& median : {warm, all}) {
        if (median) require(std::isfinite(*median) && *median >= 0);
    }
    if (!text::contains(input, "time=")) require(!all.has_value());
}

void checkText(std::string_view input, bool flag)
{
    for (const std::string& line : text::splitLines(input, flag)) {
        require(!hasNewline(line));
        require(flag || !line.empty());
    }
    for (const std::string& line : text::splitAtLineFeed(input, flag)) require(line.find('\n') == std::string::npos);
    for (const std::string& word : text::splitWords(input, " \t")) {
        require(!word.empty() && word.find_first_of(" \t") == std::string::npos);
    }

    using Trim = std::string (*)(std::string_view);
    for (const Trim trim : {Trim(text::trimWhitespace), Trim(text::trimWhitespaceAndNewlines),
                            Trim(text::trimSpacesAndTabs)}) {
        const std::string once = trim(input);
        require(trim(once) == once);
        require(input.find(once) != std::string_view::npos);
    }
    const bool valid = text::isValidUTF8(input);
    const auto decoded = text::decodeUTF8(input);
    require(valid == decoded.has_value());
    if (decoded) {
        std::string again;
        for (const char32_t s : *decoded) text::appendUTF8(again, s);
        require(again == input);
        require(text::scalarCount(input) == decoded->size());
        // On valid text the trims leave no trimmable scalar at either end.
        const auto trimmed = text::decodeUTF8(text::trimWhitespaceAndNewlines(input));
        require(trimmed.has_value());
        if (!trimmed->empty()) {
            for (const char32_t end : {trimmed->front(), trimmed->back()}) {
                require(!text::isWhitespace(end) && !text::isNewline(end));
            }
        }
    } else {
        require(text::scalarCount(input) == input.size());
    }

    const std::uint64_t max = flag ? UINT64_MAX : input.size();
    if (const auto value = text::parseUnsigned(input, max)) require(*value <= max && text::allASCIIDigits(input));
}

void checkLogRendering(std::string_view format)
{
    // The renderer meets only checked formats, but must survive any other.
    const logformat::Arg args[] = {logformat::makeArg("text"), logformat::makeArg(-7), logformat::makeArg(7u),
                                   logformat::makeArg(1e300), logformat::makeArg(true)};
    (void)logformat::render(format, args, std::size(args));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) return 0;
    const bool flag = (data[0] & 1) != 0;
    const std::string_view input(reinterpret_cast<const char*>(data + 1), size - 1);
    checkValidators(input);
    checkServiceOrderList(input);
    checkPing(input);
    checkText(input, flag);
    checkLogRendering(input);
    return 0;
}
