#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "Text.h"

namespace orven {
namespace {

using Lines = std::vector<std::string>;

struct SplitCase {
    const char* label;
    std::string text;
    Lines dropped;  // keepEmpty false
    Lines kept;     // keepEmpty true
};

TEST(Text, SplitLinesAtEveryNewlineCharacter)
{
    const SplitCase cases[] = {
        {"line feed", "a\nb", {"a", "b"}, {"a", "b"}},
        {"CR LF is one break", "a\r\nb", {"a", "b"}, {"a", "b"}},
        {"CR alone", "a\rb", {"a", "b"}, {"a", "b"}},
        {"LF CR is two breaks", "a\n\rb", {"a", "b"}, {"a", "", "b"}},
        {"CR CR LF", "a\r\r\nb", {"a", "b"}, {"a", "", "b"}},
        {"vertical tab and form feed", "a\vb\fc", {"a", "b", "c"}, {"a", "b", "c"}},
        {"next line", "a\u0085b", {"a", "b"}, {"a", "b"}},
        {"line and paragraph separators", "a\u2028b\u2029c", {"a", "b", "c"}, {"a", "b", "c"}},
        {"trailing break", "a\n", {"a"}, {"a", ""}},
        {"leading breaks", "\r\n\nx", {"x"}, {"", "", "x"}},
        {"empty text", "", {}, {""}},
        {"no break", "abc", {"abc"}, {"abc"}},
        {"a lookalike is not a break", "a\u2027b\u0084c", {"a\u2027b\u0084c"}, {"a\u2027b\u0084c"}},
        {"invalid bytes stay in their line", "\xFF\n\xC2", {"\xFF", "\xC2"}, {"\xFF", "\xC2"}},
    };
    for (const SplitCase& c : cases) {
        EXPECT_EQ(text::splitLines(c.text, false), c.dropped) << c.label;
        EXPECT_EQ(text::splitLines(c.text, true), c.kept) << c.label;
    }
}

TEST(Text, SplitAtLineFeedIgnoresOtherBreaks)
{
    EXPECT_EQ(text::splitAtLineFeed("a\r\nb\u2028c\n\nd", false), (Lines{"a\r", "b\u2028c", "d"}));
    EXPECT_EQ(text::splitAtLineFeed("a\n\n", true), (Lines{"a", "", ""}));
}

struct TrimCase {
    const char* label;
    std::string text;
    std::string whitespace;             // trimWhitespace
    std::string whitespaceAndNewlines;  // trimWhitespaceAndNewlines
};

TEST(Text, TrimmingSpaceSeparatorsAndNewlines)
{
    const TrimCase cases[] = {
        {"spaces and tabs", " \t a b \t ", "a b", "a b"},
        {"other space separators", "\u00A0\u3000x\u2003\u202F", "x", "x"},
        {"newlines are kept by the narrow trim", "\n x \r\n", "\n x \r\n", "x"},
        {"every newline character", "\v\f\u0085\u2028\u2029x\u2029", "\v\f\u0085\u2028\u2029x\u2029", "x"},
        {"format characters are not white space", "\u200Bx\uFEFF", "\u200Bx\uFEFF", "\u200Bx\uFEFF"},
        {"only white space", " \t\u3000", "", ""},
        {"invalid bytes are not trimmed", " \xFF x \xA0 ", "\xFF x \xA0", "\xFF x \xA0"},
        {"a lone continuation byte is not NBSP", "x\xA0", "x\xA0", "x\xA0"},
        {"truncated NBSP", "\xC2", "\xC2", "\xC2"},
        {"empty", "", "", ""},
    };
    for (const TrimCase& c : cases) {
        EXPECT_EQ(text::trimWhitespace(c.text), c.whitespace) << c.label;
        EXPECT_EQ(text::trimWhitespaceAndNewlines(c.text), c.whitespaceAndNewlines) << c.label;
    }
    // The ASCII trim leaves the other separators alone.
    EXPECT_EQ(text::trimSpacesAndTabs("\t x\u00A0 "), "x\u00A0");
}

TEST(Text, DecodeUTF8RejectsEveryMalformedShape)
{
    const std::string invalid[] = {
        "\x80",              // lone continuation byte
        "\xC3",              // truncated two-byte sequence
        "\xE5\xAE",          // truncated three-byte sequence
        "\xC0\xAF",          // overlong "/"
        "\xE0\x80\xAF",      // overlong "/", three bytes
        "\xF0\x80\x80\xAF",  // overlong "/", four bytes
        "\xED\xA0\x80",      // surrogate U+D800
        "\xED\xBF\xBF",      // surrogate U+DFFF
        "\xF4\x90\x80\x80",  // U+110000
        "\xF8\x88\x80\x80\x80",  // five-byte form
        "\xFE",
        "a\xC3(b",           // continuation byte missing
    };
    for (const std::string& bytes : invalid) {
        EXPECT_FALSE(text::decodeUTF8(bytes).has_value()) << testing::PrintToString(bytes);
        EXPECT_FALSE(text::isValidUTF8(bytes)) << testing::PrintToString(bytes);
        EXPECT_EQ(text::scalarCount(bytes), bytes.size()) << "invalid text counts bytes";
    }
    EXPECT_EQ(text::decodeUTF8("a\u00FC\u5BBF\U0010FFFF"), std::u32string(U"a\u00FC\u5BBF\U0010FFFF"));
    EXPECT_EQ(text::scalarCount("\u00FC\u5BBF\U0001F600"), 3u);
    EXPECT_EQ(text::decodeUTF8(std::string("a\0b", 3)), std::u32string(U"a\0b", 3));
}

TEST(Text, EveryScalarSurvivesEncodingAndDecoding)
{
    std::u32string scalars;
    std::string encoded;
    // Every scalar of the one- to three-byte forms (around the surrogate gap
    // included), then a stride through the four-byte form with both its ends.
    const auto add = [&](char32_t scalar) {
        scalars.push_back(scalar);
        text::appendUTF8(encoded, scalar);
    };
    for (char32_t scalar = 0; scalar < 0x10000; ++scalar) {
        if (scalar < 0xD800 || scalar > 0xDFFF) add(scalar);
    }
    for (char32_t scalar = 0x10000; scalar < 0x10FFFF; scalar += 251) add(scalar);
    add(0x10FFFF);
    const auto decoded = text::decodeUTF8(encoded);
    ASSERT_TRUE(decoded.has_value());
    EXPECT_TRUE(*decoded == scalars);
    EXPECT_EQ(text::scalarCount(encoded), scalars.size());
}

TEST(Text, ControlMeansCcAndCf)
{
    const char32_t controls[] = {0x00, 0x09, 0x0A, 0x1F, 0x7F, 0x85, 0x9F,          // Cc
                                 0xAD, 0x600, 0x605, 0x61C, 0x200B, 0x200E, 0x202E,  // Cf
                                 0x2066, 0xFEFF, 0xFFFB, 0x110BD, 0x13430, 0x1343F, 0xE0001, 0xE007F};
    const char32_t others[] = {U'A', U' ', 0x20, 0x7E, 0xA0, 0xA9, 0x300, 0x2028, 0x2029, 0x2065,
                               0xE000, 0xFFFD, 0x1F600, 0xE0000, 0xE0080, 0x10FFFF};
    for (const char32_t s : controls) EXPECT_TRUE(text::isControl(s)) << std::hex << static_cast<std::uint32_t>(s);
    for (const char32_t s : others) EXPECT_FALSE(text::isControl(s)) << std::hex << static_cast<std::uint32_t>(s);
}

TEST(Text, WhitespaceAndNewlineClasses)
{
    for (const char32_t s : {U'\t', U' ', U'\u00A0', U'\u1680', U'\u2000', U'\u200A', U'\u202F', U'\u205F', U'\u3000'}) {
        EXPECT_TRUE(text::isWhitespace(s)) << std::hex << static_cast<std::uint32_t>(s);
        EXPECT_FALSE(text::isNewline(s)) << std::hex << static_cast<std::uint32_t>(s);
    }
    for (const char32_t s : {U'\n', U'\v', U'\f', U'\r', U'\u0085', U'\u2028', U'\u2029'}) {
        EXPECT_TRUE(text::isNewline(s)) << std::hex << static_cast<std::uint32_t>(s);
        EXPECT_FALSE(text::isWhitespace(s)) << std::hex << static_cast<std::uint32_t>(s);
    }
    for (const char32_t s : {U'\u200B', U'\u180E', U'\uFEFF', U'x'}) {
        EXPECT_FALSE(text::isWhitespace(s) || text::isNewline(s)) << std::hex << static_cast<std::uint32_t>(s);
    }
}

TEST(Text, ParseUnsignedHonoursItsMaximum)
{
    constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(text::parseUnsigned("18446744073709551615", most), most);
    EXPECT_EQ(text::parseUnsigned("18446744073709551616", most), std::nullopt);
    EXPECT_EQ(text::parseUnsigned("255", 255), 255u);
    EXPECT_EQ(text::parseUnsigned("256", 255), std::nullopt);
    EXPECT_EQ(text::parseUnsigned("7", 5), std::nullopt);  // a single digit above a small maximum
    EXPECT_EQ(text::parseUnsigned("0", 0), 0u);
    EXPECT_EQ(text::parseUnsigned("1", 0), std::nullopt);
    for (const char* bad : {"", "+1", "-1", " 1", "1 ", "0x1", "\xD9\xA1"}) {
        EXPECT_EQ(text::parseUnsigned(bad, most), std::nullopt) << bad;
    }
}

TEST(Text, SplittingWords)
{
    EXPECT_EQ(text::splitWords("  a\tb  c ", " \t"), (Lines{"a", "b", "c"}));
    EXPECT_EQ(text::splitWords(" \t ", " \t"), Lines{});
    EXPECT_EQ(text::splitKeepingEmpty(",a,,b,", ','), (Lines{"", "a", "", "b", ""}));
}

} // namespace
} // namespace orven
