#include "HardKillState.h"

#include <algorithm>

#include "Text.h"

namespace orven::HardKillState {

std::string_view spelling(Rules rules)
{
    switch (rules) {
    case Rules::loaded: return "loaded";
    case Rules::absent: return "absent";
    case Rules::unknown: return "unknown";
    }
    return "unknown";
}

std::optional<bool> pfStatusIsEnabled(std::string_view infoOutput)
{
    constexpr std::string_view label = "Status:";
    const auto lines = text::splitLines(infoOutput, /*keepEmpty=*/true);
    const auto status = std::find_if(lines.begin(), lines.end(),
                                     [&](const std::string& line) { return text::startsWith(line, label); });
    if (status == lines.end()) return std::nullopt;
    const auto words = text::splitWords(std::string_view(*status).substr(label.size()), " \t");
    if (words.empty()) return std::nullopt;
    if (words.front() == "Enabled") return true;
    if (words.front() == "Disabled") return false;
    return std::nullopt;
}

Rules rulesFromListing(std::string_view listing)
{
    return text::contains(listing, kCatchAllRule) ? Rules::loaded : Rules::absent;
}

std::optional<std::string> tokenFromEnableOutput(std::string_view joinedOutput)
{
    const auto lines = text::splitLines(joinedOutput, /*keepEmpty=*/false);
    const auto tokenLine = std::find_if(lines.begin(), lines.end(),
                                        [](const std::string& line) { return text::contains(line, "Token"); });
    if (tokenLine == lines.end()) return std::nullopt;
    // Only the first such line counts, and only what follows its last colon:
    // a bare "Token :" must never turn the word itself into a token.
    const std::size_t colon = tokenLine->rfind(':');
    if (colon == std::string::npos) return std::nullopt;
    std::string token = text::trimSpacesAndTabs(std::string_view(*tokenLine).substr(colon + 1));
    if (token.empty()) return std::nullopt;
    return token;
}

namespace {

// "D days HH:MM:SS", the age column of a references row.
std::optional<std::int64_t> ageFromWords(std::string_view days, std::string_view unit, std::string_view clock)
{
    if (unit != "days" && unit != "day") return std::nullopt;
    const auto dayCount = text::parseUnsigned(days, 1'000'000);
    const auto pieces = text::splitKeepingEmpty(clock, ':');
    if (!dayCount || pieces.size() != 3) return std::nullopt;
    std::int64_t seconds = static_cast<std::int64_t>(*dayCount) * 86'400;
    constexpr std::int64_t scale[3] = {3'600, 60, 1};
    for (std::size_t i = 0; i < 3; ++i) {
        const auto part = text::parseUnsigned(pieces[i], i == 0 ? 23 : 59);
        if (!part || pieces[i].size() != 2) return std::nullopt;
        seconds += static_cast<std::int64_t>(*part) * scale[i];
    }
    return seconds;
}

} // namespace

std::optional<std::vector<PfReference>> referencesFromListing(std::string_view listing)
{
    const auto lines = text::splitLines(listing, /*keepEmpty=*/false);
    std::vector<PfReference> references;
    bool inTable = false;
    bool sawHeader = false;
    for (const auto& line : lines) {
        const std::string trimmed = text::trimWhitespace(line);
        if (trimmed.empty()) continue;
        if (!inTable) {
            if (trimmed == "No pf starter references held") return references;
            if (trimmed == "TOKENS:") inTable = true;
            continue;  // ALTQ notices and the like come first
        }
        if (!sawHeader) {
            if (!text::startsWith(trimmed, "PID")) return std::nullopt;
            sawHeader = true;
            continue;
        }
        // PID, a process name that may hold spaces, TOKEN, "D days HH:MM:SS".
        const auto words = text::splitWords(trimmed, " \t");
        if (words.size() < 6 || !text::allASCIIDigits(words[0])) return std::nullopt;
        const std::size_t n = words.size();
        const auto age = ageFromWords(words[n - 3], words[n - 2], words[n - 1]);
        if (!age || words[n - 4].empty() || !text::allASCIIDigits(words[n - 4])) return std::nullopt;
        std::vector<std::string> name(words.begin() + 1, words.end() - 4);
        references.push_back({words[n - 4], text::join(name, " "), *age});
    }
    if (!inTable || !sawHeader) return std::nullopt;
    return references;
}

std::int64_t stateCountFromListing(std::string_view listing)
{
    const std::string trimmed = text::trimWhitespaceAndNewlines(listing);
    if (trimmed.empty()) return 0;
    return static_cast<std::int64_t>(text::splitLines(trimmed, /*keepEmpty=*/false).size());
}

std::vector<std::string> tokensFromFile(std::string_view content)
{
    std::vector<std::string> tokens;
    for (const auto& line : text::splitLines(content, /*keepEmpty=*/false)) {
        std::string token = text::trimSpacesAndTabs(line);
        if (!token.empty()) tokens.push_back(std::move(token));
    }
    return tokens;
}

std::string tokenFileContent(const std::vector<std::string>& tokens)
{
    // One token a line, every line ended; no tokens is an empty file.
    std::string content;
    for (const auto& token : tokens) {
        content.append(token);
        content.push_back('\n');
    }
    return content;
}

std::vector<std::string> keepAfterFailedRelease(const std::vector<RefusedToken>& refused,
                                                std::optional<std::chrono::system_clock::time_point> bootedAt)
{
    std::vector<std::string> kept;
    for (const auto& entry : refused) {
        // pf forgets every reference at restart, so only a token known to be
        // older than a known boot can safely be forgotten.
        const bool predatesBoot = entry.writtenAt && bootedAt && *entry.writtenAt < *bootedAt;
        if (!predatesBoot) kept.push_back(entry.token);
    }
    return kept;
}

} // namespace orven::HardKillState
