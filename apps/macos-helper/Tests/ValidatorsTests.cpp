#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "HelperService.h"

namespace orven {
namespace {

std::string repeat(std::string_view piece, std::size_t times)
{
    std::string out;
    for (std::size_t i = 0; i < times; ++i) out.append(piece);
    return out;
}

struct NameCase {
    std::string name;
    bool valid;
};

// Prints the name's bytes in a form that survives control characters.
std::string shown(std::string_view name)
{
    std::string out;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F) out.push_back(c);
        else out += "\\x" + std::string(1, "0123456789ABCDEF"[byte >> 4]) + "0123456789ABCDEF"[byte & 0xF];
    }
    return "\"" + out + "\"";
}

TEST(Validators, BSDName)
{
    const NameCase cases[] = {
        {"en0", true},
        {"bridge100", true},
        {"utun12", true},
        {repeat("a", 24), true},
        {repeat("a", 25), false},
        {"en0:1", false},
        {"en 0", false},
        {"", false},
        {"en-0", false},
        {"en0\r\n", false},
        {"\u00FCn0", false},  // a letter, but not ASCII
        {std::string("en0\0", 4), false},
        {"en0/", false},
    };
    for (const NameCase& c : cases) EXPECT_EQ(HelperService::isValidBSDName(c.name), c.valid) << shown(c.name);
}

TEST(Validators, TunnelInterfaceName)
{
    const NameCase cases[] = {
        {"utun12", true},
        {"ipsec0", true},
        {"utun0", true},
        {"utun" + repeat("9", 12), true},  // 16 characters
        {"utun" + repeat("9", 13), false},  // 17 characters
        {"ipsec" + repeat("1", 12), false},  // 17 characters
        {"utun", false},
        {"ipsec", false},
        {"utunx", false},
        {"ipsec1a", false},
        {"utun-1", false},
        {" utun1", false},
        {"UTUN1", false},
        {"en0", false},
        {"utun\uFF11", false},  // a fullwidth digit is not a digit here
        {"utun\u0661", false},  // nor is an Arabic-Indic one
    };
    for (const NameCase& c : cases) {
        EXPECT_EQ(HelperService::isValidTunnelInterfaceName(c.name), c.valid) << shown(c.name);
    }
}

TEST(Validators, ServiceNameAccepts)
{
    const std::string accepted[] = {
        "Wi-Fi",
        "Thunderbolt Bridge (2)",
        "USB_LAN.1",
        "Ethernet\tAdapter",
        "B\u00FCro WLAN",             // precomposed letter
        "Bu\u0308ro WLAN",            // letter plus combining diaeresis (Mn)
        "\u5BBF\u820D",               // CJK ideographs from the range entries of the database
        "\u0915\u094D\u0937",         // Devanagari with a virama (Mn)
        "\u0645\u0643\u062A\u0628",   // Arabic letters
        "LAN \u0661\u0662",           // Arabic-Indic digits (Nd)
        "Port \u2167",                // Roman numeral eight (Nl)
        "Port \u00B2",                // superscript two (No)
        "No\u00A0Break\u3000Space",   // space separators other than U+0020
        "\U00020000",                 // first CJK Extension B ideograph (4-byte UTF-8)
        "\U000323AF",                 // last CJK Extension H ideograph, new in Unicode 15.0
        "\u0903",                     // spacing combining mark (Mc)
        repeat("a", 64),
        repeat("\u5BBF", 64),  // 64 characters in 192 bytes
        "-",
    };
    for (const std::string& name : accepted) EXPECT_TRUE(HelperService::isValidServiceName(name)) << shown(name);
}

TEST(Validators, ServiceNameRejects)
{
    const std::string rejected[] = {
        "",
        "Wi-Fi/2",
        repeat("a", 65),
        repeat("\u5BBF", 65),
        "Wi\x01" "Fi",
        "Wi-Fi\n",
        "Wi-Fi\r\n",
        "Wi\u2028Fi",           // line separator
        "Wi\u200BFi",           // zero width space (Cf)
        "Wi\u200DFi",           // zero width joiner (Cf)
        "Wi-Fi \U0001F600",     // emoji (So)
        "Wi-Fi \u2764\uFE0F",   // heart with a variation selector: symbol plus a selector
        "Wi\xFF" "Fi",          // invalid UTF-8
        "Wi-Fi\xC3",            // truncated sequence
        "\xC0\xAF",             // overlong slash
        "\xED\xA0\x80",         // a surrogate
        "Wi-Fi & LAN",
        "Wi-Fi+",
        "LAN\u2019s",           // right single quotation mark (Pf)
        "\u00D7",               // multiplication sign (Sm)
        "\uE000",               // private use
        "\u0378",               // unassigned
        "\u4DC0",               // hexagram symbol, just past CJK Extension A
        std::string("Wi\0Fi", 5),
    };
    for (const std::string& name : rejected) EXPECT_FALSE(HelperService::isValidServiceName(name)) << shown(name);
}

} // namespace
} // namespace orven
