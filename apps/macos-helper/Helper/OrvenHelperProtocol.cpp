#include "OrvenHelperProtocol.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <locale>
#include <sstream>
#include <string>

#include "Text.h"

namespace orven {

namespace OrvenHelperConstants {

std::string_view expectedHelperVersionNumber()
{
    // The last word, ignoring any trailing spaces.
    std::string_view version = expectedHelperVersion;
    while (!version.empty() && version.back() == ' ') version.remove_suffix(1);
    const std::size_t space = version.rfind(' ');
    return space == std::string_view::npos ? version : version.substr(space + 1);
}

double dfPingBudgetSeconds(std::int64_t timeoutMillis)
{
    return static_cast<double>(timeoutMillis) / 1000.0 + pingSpawnSlackSeconds;
}

double gatewayPingBudgetSeconds(std::int64_t count, std::int64_t spacingMillis, std::int64_t timeoutMillis)
{
    // Floating point throughout, so huge client values cannot overflow.
    return static_cast<double>(count) * static_cast<double>(spacingMillis) / 1000.0 +
           static_cast<double>(timeoutMillis) / 1000.0 + pingSpawnSlackSeconds;
}

std::optional<std::string> rejectionForInterfaceMTU(std::int64_t mtu, std::int64_t deviceMin, std::int64_t deviceMax)
{
    if (deviceMax < deviceMin) {
        return "Device reported an impossible MTU range " + std::to_string(deviceMin) + "\u2026" +
               std::to_string(deviceMax);
    }
    const std::int64_t floor = std::max(deviceMin, interfaceMTUFloor);
    if (mtu < floor) {
        return "MTU " + std::to_string(mtu) + " is below the " + std::to_string(floor) + "-byte floor for this device";
    }
    if (mtu > deviceMax) {
        return "MTU " + std::to_string(mtu) + " is above this device's maximum of " + std::to_string(deviceMax);
    }
    return std::nullopt;
}

std::optional<std::string> validateServiceOrderList(const std::vector<std::string>& names)
{
    constexpr std::size_t maxNames = 64;
    constexpr std::size_t maxNameCharacters = 128;
    if (names.empty()) return "Service order list is empty";
    if (names.size() > maxNames) {
        return "Service order list too long (" + std::to_string(names.size()) + " > " + std::to_string(maxNames) + ")";
    }
    for (const std::string& name : names) {
        // Only spaces and tabs are trimmed here: a name of newlines is not
        // empty, it is a name with control characters, and says so below.
        if (text::trimWhitespace(name).empty()) return "Service order list contains an empty name";
        // Characters are scalars; bytes that are not UTF-8 count one each.
        const std::size_t characters = text::scalarCount(name);
        if (characters > maxNameCharacters) {
            return "Service name too long (" + std::to_string(characters) + " chars)";
        }
        // Bytes that are not UTF-8 cannot be shown as characters, so they are
        // refused like the other unprintable ones rather than passed on to
        // networksetup. Newlines get the same words: a name spanning lines
        // would break the tool's line-oriented output.
        const auto scalars = text::decodeUTF8(name);
        if (!scalars) return "Service name contains control characters";
        for (const char32_t scalar : *scalars) {
            if (text::isControl(scalar) || text::isNewline(scalar)) return "Service name contains control characters";
        }
    }
    return std::nullopt;
}

namespace {

// A run of digits with at most one dot and at least one digit ("12", "1.",
// ".5") as a double; absent for any other run, and for one too large or too
// small to be a normal double, rather than infinity or a rounded-off zero.
// Parsed in the classic locale, so a decimal comma elsewhere cannot change it,
// and without floating-point from_chars, which Apple's C++ library lacks.
std::optional<double> parseUnsignedDecimal(std::string_view run)
{
    const auto digits = std::count_if(run.begin(), run.end(), [](char c) { return c >= '0' && c <= '9'; });
    const auto dots = std::count(run.begin(), run.end(), '.');
    if (digits == 0 || dots > 1 || static_cast<std::size_t>(digits + dots) != run.size()) return std::nullopt;
    std::istringstream stream{std::string(run)};
    stream.imbue(std::locale::classic());
    double value = 0;
    stream >> value;
    if (stream.fail() || stream.peek() != std::char_traits<char>::eof()) return std::nullopt;
    if (!std::isfinite(value) || value < 0) return std::nullopt;
    const bool allZeros = std::all_of(run.begin(), run.end(), [](char c) { return c == '0' || c == '.'; });
    if (!allZeros && value < DBL_MIN) return std::nullopt;
    return value;
}

} // namespace

std::optional<double> parseGatewayPingMedianMillis(std::string_view output, bool discardCold)
{
    constexpr std::string_view marker = "time=";
    std::vector<double> samples;
    for (const std::string& line : text::splitLines(output, false)) {
        const std::size_t at = line.find(marker);
        if (at == std::string::npos) continue;
        const std::size_t begin = at + marker.size();
        std::size_t end = begin;
        while (end < line.size() && ((line[end] >= '0' && line[end] <= '9') || line[end] == '.')) ++end;
        // The run holds no sign, so a parsed value is never negative; a run
        // such as "1.2.3" or "." is skipped.
        if (const auto value = parseUnsignedDecimal(std::string_view(line).substr(begin, end - begin)))
            samples.push_back(*value);
    }
    if (discardCold && samples.size() >= 2) samples.erase(samples.begin());
    if (samples.empty()) return std::nullopt;
    std::sort(samples.begin(), samples.end());
    const std::size_t middle = samples.size() / 2;
    if (samples.size() % 2 == 1) return samples[middle];
    const double low = samples[middle - 1];
    const double high = samples[middle];
    const double mean = (low + high) / 2;
    // Two samples near the largest double would overflow their sum.
    return std::isfinite(mean) ? mean : low / 2 + high / 2;
}

} // namespace OrvenHelperConstants

const MethodSpec* findMethod(std::string_view selector)
{
    const auto found = std::find_if(std::begin(kOrvenHelperMethods), std::end(kOrvenHelperMethods),
                                    [selector](const MethodSpec& method) { return method.selector == selector; });
    return found == std::end(kOrvenHelperMethods) ? nullptr : &*found;
}

} // namespace orven
