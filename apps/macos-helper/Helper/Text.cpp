#include "Text.h"

#include <algorithm>
#include <cstdio>

namespace orven::text {

namespace {

// Reads one scalar at `i`; returns the byte length, 0 when invalid.
std::size_t readScalar(std::string_view bytes, std::size_t i, char32_t& scalar)
{
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(bytes[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) {
        scalar = lead;
        return 1;
    }
    std::size_t length = 0;
    char32_t value = 0;
    char32_t minimum = 0;
    if ((lead & 0xE0) == 0xC0) { length = 2; value = lead & 0x1F; minimum = 0x80; }
    else if ((lead & 0xF0) == 0xE0) { length = 3; value = lead & 0x0F; minimum = 0x800; }
    else if ((lead & 0xF8) == 0xF0) { length = 4; value = lead & 0x07; minimum = 0x10000; }
    else return 0;
    if (i + length > bytes.size()) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        const unsigned char next = byte(i + k);
        if ((next & 0xC0) != 0x80) return 0;
        value = (value << 6) | (next & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
    scalar = value;
    return length;
}

// Length in bytes of a newline starting at `i` (CR LF counts as one), or 0.
std::size_t newlineAt(std::string_view text, std::size_t i)
{
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\r') return (i + 1 < text.size() && text[i + 1] == '\n') ? 2 : 1;
    if (c == '\n' || c == '\v' || c == '\f') return 1;
    if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x85) return 2;
    if (c == 0xE2 && i + 2 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x80) {
        const unsigned char last = static_cast<unsigned char>(text[i + 2]);
        if (last == 0xA8 || last == 0xA9) return 3;
    }
    return 0;
}

template <class Predicate>
std::string trimScalars(std::string_view text, Predicate shouldTrim)
{
    // Work on scalar boundaries; invalid bytes are never trimmed.
    std::size_t begin = 0;
    while (begin < text.size()) {
        char32_t scalar = 0;
        const std::size_t length = readScalar(text, begin, scalar);
        if (length == 0 || !shouldTrim(scalar)) break;
        begin += length;
    }
    std::size_t end = text.size();
    while (end > begin) {
        std::size_t start = end - 1;
        while (start > begin && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) --start;
        char32_t scalar = 0;
        const std::size_t length = readScalar(text, start, scalar);
        if (length == 0 || start + length != end || !shouldTrim(scalar)) break;
        end = start;
    }
    return std::string(text.substr(begin, end - begin));
}

} // namespace

std::optional<std::u32string> decodeUTF8(std::string_view bytes)
{
    std::u32string out;
    out.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size();) {
        char32_t scalar = 0;
        const std::size_t length = readScalar(bytes, i, scalar);
        if (length == 0) return std::nullopt;
        out.push_back(scalar);
        i += length;
    }
    return out;
}

bool isValidUTF8(std::string_view bytes)
{
    for (std::size_t i = 0; i < bytes.size();) {
        char32_t scalar = 0;
        const std::size_t length = readScalar(bytes, i, scalar);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

void appendUTF8(std::string& out, char32_t scalar)
{
    if (scalar < 0x80) {
        out.push_back(static_cast<char>(scalar));
    } else if (scalar < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (scalar >> 6)));
        out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
    } else if (scalar < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (scalar >> 12)));
        out.push_back(static_cast<char>(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (scalar >> 18)));
        out.push_back(static_cast<char>(0x80 | ((scalar >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((scalar >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (scalar & 0x3F)));
    }
}

bool isNewline(char32_t s)
{
    return s == U'\n' || s == U'\v' || s == U'\f' || s == U'\r' || s == 0x85 || s == 0x2028 || s == 0x2029;
}

bool isWhitespace(char32_t s)
{
    // Unicode category Zs, plus tab.
    return s == U'\t' || s == 0x20 || s == 0xA0 || s == 0x1680 || (s >= 0x2000 && s <= 0x200A) || s == 0x202F ||
           s == 0x205F || s == 0x3000;
}

bool isControl(char32_t s)
{
    // Cc: U+0000–001F, U+007F–009F. Cf: the format characters (Unicode 15).
    if (s <= 0x1F || (s >= 0x7F && s <= 0x9F)) return true;
    static constexpr char32_t formatSingles[] = {0xAD, 0x61C, 0x6DD, 0x70F, 0x890, 0x891, 0x8E2, 0x180E, 0xFEFF, 0x110BD,
                                                 0x110CD, 0xE0001};
    if (std::find(std::begin(formatSingles), std::end(formatSingles), s) != std::end(formatSingles)) return true;
    struct Range { char32_t first, last; };
    static constexpr Range formatRanges[] = {{0x600, 0x605}, {0x200B, 0x200F}, {0x202A, 0x202E}, {0x2060, 0x2064},
                                             {0x2066, 0x206F}, {0xFFF9, 0xFFFB}, {0x13430, 0x1343F},
                                             {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0020, 0xE007F}};
    return std::any_of(std::begin(formatRanges), std::end(formatRanges),
                       [s](const Range& r) { return s >= r.first && s <= r.last; });
}

std::vector<std::string> splitLines(std::string_view text, bool keepEmpty)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t length = newlineAt(text, i);
        if (length == 0) {
            ++i;
            continue;
        }
        if (keepEmpty || i > start) lines.emplace_back(text.substr(start, i - start));
        i += length;
        start = i;
    }
    if (keepEmpty || start < text.size()) lines.emplace_back(text.substr(start));
    return lines;
}

std::vector<std::string> splitAtLineFeed(std::string_view text, bool keepEmpty)
{
    std::vector<std::string> lines = splitKeepingEmpty(text, '\n');
    if (!keepEmpty) std::erase_if(lines, [](const std::string& line) { return line.empty(); });
    return lines;
}

std::vector<std::string> splitAtWhitespaceAndNewlines(std::string_view text)
{
    std::vector<std::string> words;
    for (const auto& line : splitLines(text, /*keepEmpty=*/false)) {
        const auto scalars = decodeUTF8(line);
        if (!scalars) {
            // Not UTF-8: only the ASCII separators can be told apart.
            for (auto& word : splitWords(line, " \t")) words.push_back(std::move(word));
            continue;
        }
        std::string word;
        for (const char32_t scalar : *scalars) {
            if (!isWhitespace(scalar)) {
                appendUTF8(word, scalar);
                continue;
            }
            if (!word.empty()) words.push_back(std::move(word));
            word.clear();
        }
        if (!word.empty()) words.push_back(std::move(word));
    }
    return words;
}

std::vector<std::string> splitWords(std::string_view text, std::string_view separators)
{
    std::vector<std::string> words;
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t begin = text.find_first_not_of(separators, i);
        if (begin == std::string_view::npos) break;
        std::size_t end = text.find_first_of(separators, begin);
        if (end == std::string_view::npos) end = text.size();
        words.emplace_back(text.substr(begin, end - begin));
        i = end;
    }
    return words;
}

std::vector<std::string> splitKeepingEmpty(std::string_view text, char separator)
{
    std::vector<std::string> pieces;
    std::size_t start = 0;
    for (;;) {
        const std::size_t at = text.find(separator, start);
        if (at == std::string_view::npos) {
            pieces.emplace_back(text.substr(start));
            return pieces;
        }
        pieces.emplace_back(text.substr(start, at - start));
        start = at + 1;
    }
}

std::string trimSpacesAndTabs(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    const std::size_t end = text.find_last_not_of(" \t");
    return std::string(text.substr(begin, end - begin + 1));
}

std::string trimWhitespace(std::string_view text)
{
    return trimScalars(text, [](char32_t s) { return isWhitespace(s); });
}

std::string trimWhitespaceAndNewlines(std::string_view text)
{
    return trimScalars(text, [](char32_t s) { return isWhitespace(s) || isNewline(s); });
}

std::string join(const std::vector<std::string>& pieces, std::string_view separator)
{
    std::string out;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i > 0) out.append(separator);
        out.append(pieces[i]);
    }
    return out;
}

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

bool contains(std::string_view text, std::string_view fragment) { return text.find(fragment) != std::string_view::npos; }

bool allASCIIDigits(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::size_t scalarCount(std::string_view text)
{
    const auto decoded = decodeUTF8(text);
    return decoded ? decoded->size() : text.size();
}

std::optional<std::uint64_t> parseUnsigned(std::string_view digits, std::uint64_t max)
{
    if (digits.empty() || !allASCIIDigits(digits)) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : digits) {
        const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
        // `digit > max` first: `max - digit` would wrap for a small maximum.
        if (digit > max || value > (max - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

std::string escapeControlCharacters(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    char hex[16];
    for (std::size_t i = 0; i < text.size();) {
        char32_t scalar = 0;
        const std::size_t length = readScalar(text, i, scalar);
        if (length == 0) {
            std::snprintf(hex, sizeof hex, "\\x{%02x}", static_cast<unsigned>(static_cast<unsigned char>(text[i])));
            out.append(hex);
            ++i;
            continue;
        }
        if (scalar == '\\') out.append("\\\\");
        else if (scalar == '\n') out.append("\\n");
        else if (scalar == '\r') out.append("\\r");
        else if (scalar == '\t') out.append("\\t");
        else if (isControl(scalar) || isNewline(scalar)) {
            std::snprintf(hex, sizeof hex, "\\u{%x}", static_cast<unsigned>(scalar));
            out.append(hex);
        } else {
            out.append(text.substr(i, length));
        }
        i += length;
    }
    return out;
}

} // namespace orven::text
