#pragma once
// Text helpers shared by every reader of tool output and client input.
// Newline characters are LF, VT, FF, CR, NEL, LS and PS (CR LF is one
// break); white space is the Unicode space separators and tab.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orven::text {

// Decodes UTF-8 into scalars; absent when the bytes are not valid UTF-8
// (overlongs, surrogates and values above U+10FFFF included).
std::optional<std::u32string> decodeUTF8(std::string_view bytes);
bool isValidUTF8(std::string_view bytes);
// Appends one scalar as UTF-8.
void appendUTF8(std::string& out, char32_t scalar);

bool isNewline(char32_t scalar);
bool isWhitespace(char32_t scalar);  // Zs and tab
bool isControl(char32_t scalar);     // Cc and Cf

// Splits at newline characters; empty lines are dropped or kept.
std::vector<std::string> splitLines(std::string_view text, bool keepEmpty);
// Splits at "\n" only.
std::vector<std::string> splitAtLineFeed(std::string_view text, bool keepEmpty);
// Splits at any of `separators` (ASCII), dropping empty pieces.
std::vector<std::string> splitWords(std::string_view text, std::string_view separators);
// Splits at white space (Zs and tab) and newline characters, dropping empty pieces.
std::vector<std::string> splitAtWhitespaceAndNewlines(std::string_view text);
// Splits at `separator`, keeping empty pieces.
std::vector<std::string> splitKeepingEmpty(std::string_view text, char separator);

std::string trimSpacesAndTabs(std::string_view text);
std::string trimWhitespace(std::string_view text);             // Zs and tab
std::string trimWhitespaceAndNewlines(std::string_view text);  // Zs, tab and newlines

std::string join(const std::vector<std::string>& pieces, std::string_view separator);
bool startsWith(std::string_view text, std::string_view prefix);
bool contains(std::string_view text, std::string_view fragment);
bool allASCIIDigits(std::string_view text);
// Number of Unicode scalars; invalid UTF-8 counts bytes.
std::size_t scalarCount(std::string_view text);

// Decimal parsers that accept exactly the digits given (no sign unless said).
std::optional<std::uint64_t> parseUnsigned(std::string_view digits, std::uint64_t max);

// Text safe to put on one log line: control characters (Cc, Cf), newline
// characters and backslash are written as escapes (\n, \r, \t, \\, \u{85}),
// bytes that are not UTF-8 as \x{ff}; everything else is kept as it is.
std::string escapeControlCharacters(std::string_view text);

} // namespace orven::text
