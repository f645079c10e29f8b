// The shared validators of client-supplied names: pure, and strict enough
// that a name passing them can go into a tool's argument vector as it is.

#include <algorithm>
#include <iterator>

#include "HelperService.h"
#include "Text.h"
#include "UnicodeAlphanumerics.h"

namespace orven {

namespace {

constexpr bool isASCIIDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isASCIIAlphanumeric(char c) { return isASCIIDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// The binary search below relies on this shape of the generated table.
constexpr bool rangesAreSortedAndDisjoint()
{
    const auto& ranges = unicode::alphanumericRanges;
    for (std::size_t i = 0; i < std::size(ranges); ++i) {
        if (ranges[i].first > ranges[i].last || ranges[i].last > 0x10FFFF) return false;
        if (i > 0 && ranges[i - 1].last + 1 >= ranges[i].first) return false;
    }
    return true;
}
static_assert(rangesAreSortedAndDisjoint());

// Letters, marks and numbers (General_Category L*, M*, N*): the table is
// generated from the Unicode Character Database, so every assigned scalar of
// those categories is in it and nothing else is; unassigned scalars, symbols
// (emoji among them), punctuation and private use are not.
bool isAlphanumeric(char32_t scalar)
{
    const auto& ranges = unicode::alphanumericRanges;
    // The first range whose last scalar is not below `scalar`.
    const auto range = std::partition_point(std::begin(ranges), std::end(ranges),
                                            [scalar](const unicode::ScalarRange& r) { return r.last < scalar; });
    return range != std::end(ranges) && range->first <= scalar;
}

bool isServiceNameScalar(char32_t scalar)
{
    if (scalar == U'-' || scalar == U'_' || scalar == U'(' || scalar == U')' || scalar == U'.') return true;
    return text::isWhitespace(scalar) || isAlphanumeric(scalar);
}

} // namespace

bool HelperService::isValidBSDName(std::string_view name)
{
    // ASCII only, so bytes and characters are the same count, and any byte
    // of a multi-byte (or invalid) sequence fails the character test.
    return !name.empty() && name.size() <= 24 && std::all_of(name.begin(), name.end(), isASCIIAlphanumeric);
}

bool HelperService::isValidTunnelInterfaceName(std::string_view name)
{
    if (name.size() > 16) return false;
    for (const std::string_view prefix : {std::string_view("utun"), std::string_view("ipsec")}) {
        if (text::startsWith(name, prefix)) {
            const std::string_view unit = name.substr(prefix.size());
            return !unit.empty() && text::allASCIIDigits(unit);
        }
    }
    return false;
}

bool HelperService::isValidServiceName(std::string_view name)
{
    // Invalid UTF-8 has no characters to judge and is refused.
    const auto scalars = text::decodeUTF8(name);
    if (!scalars || scalars->empty() || scalars->size() > 64) return false;
    return std::all_of(scalars->begin(), scalars->end(), isServiceNameScalar);
}

bool HelperService::isValidServerAddress(std::string_view address)
{
    const auto scalars = text::decodeUTF8(address);
    if (!scalars || scalars->empty() || scalars->size() >= 256) return false;
    return std::all_of(scalars->begin(), scalars->end(), [](char32_t scalar) {
        return scalar == U'.' || scalar == U':' || scalar == U'-' || scalar == U'_' || isAlphanumeric(scalar);
    });
}

} // namespace orven
