#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <locale>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "OrvenHelperProtocol.h"

namespace orven {
namespace {

namespace C = OrvenHelperConstants;

std::string repeat(std::string_view piece, std::size_t times)
{
    std::string out;
    for (std::size_t i = 0; i < times; ++i) out.append(piece);
    return out;
}

// --- Interface MTU ------------------------------------------------------------

struct MTUCase {
    const char* label;
    std::int64_t mtu, deviceMin, deviceMax;
    std::optional<std::string> expected;
};

TEST(OrvenHelperConstants, RejectionForInterfaceMTU)
{
    constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
    const MTUCase cases[] = {
        {"floor beats a lower device minimum", 1200, 1000, 1500, "MTU 1200 is below the 1280-byte floor for this device"},
        {"a higher device minimum is the floor", 1300, 1400, 1500, "MTU 1300 is below the 1400-byte floor for this device"},
        {"above the device maximum", 9000, 1280, 1500, "MTU 9000 is above this device's maximum of 1500"},
        {"the maximum itself", 1500, 1280, 1500, std::nullopt},
        {"the floor itself", 1280, 1000, 1500, std::nullopt},
        {"a device minimum above the floor, met exactly", 1400, 1400, 9000, std::nullopt},
        {"impossible range", 1500, 9000, 1500, "Device reported an impossible MTU range 9000\u20261500"},
        {"impossible range wins over a bad MTU", 1, 9000, 1500, "Device reported an impossible MTU range 9000\u20261500"},
        {"negative MTU", -5, 0, 1500, "MTU -5 is below the 1280-byte floor for this device"},
        {"extreme MTU", lowest, 0, 1500,
         "MTU -9223372036854775808 is below the 1280-byte floor for this device"},
        {"device maximum below the floor", 1280, 1000, 1200, "MTU 1280 is above this device's maximum of 1200"},
    };
    for (const MTUCase& c : cases) {
        EXPECT_EQ(C::rejectionForInterfaceMTU(c.mtu, c.deviceMin, c.deviceMax), c.expected) << c.label;
    }
}

// --- Service order list -------------------------------------------------------

struct OrderCase {
    const char* label;
    std::vector<std::string> names;
    std::optional<std::string> expected;
};

TEST(OrvenHelperConstants, ValidateServiceOrderList)
{
    const std::string controlMessage = "Service name contains control characters";
    const std::string emptyMessage = "Service order list contains an empty name";
    const OrderCase cases[] = {
        {"empty list", {}, "Service order list is empty"},
        {"64 names", std::vector<std::string>(64, "Wi-Fi"), std::nullopt},
        {"65 names", std::vector<std::string>(65, "Wi-Fi"), "Service order list too long (65 > 64)"},
        {"ordinary names", {"Wi-Fi", "Thunderbolt Bridge", "USB 10/100/1000 LAN"}, std::nullopt},
        {"empty name", {"Wi-Fi", ""}, emptyMessage},
        {"spaces and tabs only", {" \t "}, emptyMessage},
        {"other space separators only", {"\u00A0\u3000\u2003"}, emptyMessage},
        {"newline only is not empty", {"\n"}, controlMessage},
        {"128 characters", {repeat("a", 128)}, std::nullopt},
        {"128 two-byte characters", {repeat("\u00FC", 128)}, std::nullopt},
        {"129 characters", {repeat("a", 129)}, "Service name too long (129 chars)"},
        {"129 three-byte characters", {repeat("\u5BBF", 129)}, "Service name too long (129 chars)"},
        {"too long is reported before control characters", {repeat("\x01", 130)}, "Service name too long (130 chars)"},
        {"C0 control", {"Wi\x01" "Fi"}, controlMessage},
        {"DEL", {"Wi\x7F"}, controlMessage},
        {"format character (zero width space)", {"Wi\u200BFi"}, controlMessage},
        {"format character (right-to-left override)", {"\u202EiF-iW"}, controlMessage},
        {"line feed", {"Wi-Fi\nEthernet"}, controlMessage},
        {"carriage return line feed", {"Wi-Fi\r\n"}, controlMessage},
        {"next line", {"Wi\u0085Fi"}, controlMessage},
        {"line separator (not Cc or Cf)", {"Wi\u2028Fi"}, controlMessage},
        {"paragraph separator", {"Wi\u2029Fi"}, controlMessage},
        {"invalid UTF-8", {"Wi\xFF" "Fi"}, controlMessage},
        {"truncated UTF-8", {"Wi-Fi\xC3"}, controlMessage},
        {"the first problem is reported", {"Wi-Fi", " ", "a\x01"}, emptyMessage},
        {"non-ASCII names", {"B\u00FCro WLAN", "\u5BBF\u820D"}, std::nullopt},
    };
    for (const OrderCase& c : cases) {
        EXPECT_EQ(C::validateServiceOrderList(c.names), c.expected) << c.label;
    }
}

// --- Gateway ping median ------------------------------------------------------

std::string pingReplies(const std::vector<std::string>& times)
{
    std::string out = "PING 192.168.1.1 (192.168.1.1): 56 data bytes\n";
    for (std::size_t i = 0; i < times.size(); ++i) {
        out += "64 bytes from 192.168.1.1: icmp_seq=" + std::to_string(i) + " ttl=64 time=" + times[i] + " ms\n";
    }
    out += "\n--- 192.168.1.1 ping statistics ---\n";
    out += "3 packets transmitted, 3 packets received, 0.0% packet loss\n";
    out += "round-trip min/avg/max/stddev = 2.000/11.500/30.100/13.152 ms\n";
    return out;
}

struct PingCase {
    const char* label;
    std::string output;
    bool discardCold;
    std::optional<double> expected;
};

TEST(OrvenHelperConstants, ParseGatewayPingMedianMillis)
{
    const std::string huge = "1" + std::string(308, '0');  // 1e308 fits a double
    const std::string tooLarge = "1" + std::string(400, '0');
    const PingCase cases[] = {
        {"cold reply dropped", pingReplies({"30.100", "2.000", "2.400"}), true, 2.2},
        {"cold reply kept", pingReplies({"30.100", "2.000", "2.400"}), false, 2.4},
        {"a single reply is never dropped", pingReplies({"7.5"}), true, 7.5},
        {"even count gives the mean of the middle two", pingReplies({"4", "1", "3", "2"}), false, 2.5},
        {"unsorted odd count", pingReplies({"9", "1", "5", "7", "3"}), false, 5.0},
        {"every probe lost",
         "PING 10.0.0.1 (10.0.0.1): 56 data bytes\nRequest timeout for icmp_seq 0\nRequest timeout for icmp_seq 1\n"
         "\n--- 10.0.0.1 ping statistics ---\n2 packets transmitted, 0 packets received, 100.0% packet loss\n",
         true, std::nullopt},
        {"empty output", "", false, std::nullopt},
        {"CR LF, NEL, LS and PS all break lines",
         "time=1\r\ntime=2\u0085time=3\u2028time=4\u2029time=5\vtime=6\ftime=7\rtime=8", false, 4.5},
        {"only the first time= of a line counts", "time=x time=5 ms\ntime=2 time=100", false, 2.0},
        {"digits and dots only", "time=12ms\ntime=3.5e9\ntime=-4", false, 7.75},
        {"a run that is not a number is skipped", "time=1.2.3 ms\ntime=. ms\ntime= 9 ms\ntime=6 ms", false, 6.0},
        {"leading and trailing dots", "time=.5\ntime=2.", false, 1.25},
        {"zero is a sample", "time=0.000 ms", false, 0.0},
        {"a run too large for a double is skipped", "time=" + tooLarge + "\ntime=8", false, 8.0},
        {"two huge samples do not overflow their mean", "time=" + huge + "\ntime=" + huge, false, 1e308},
        {"a run too small for a normal double is skipped", "time=0." + std::string(400, '0') + "1\ntime=0." +
             std::string(310, '0') + "1\ntime=3", false, 3.0},
        {"the smallest normal double is a sample", "time=0." + std::string(307, '0') + "22250738585072014", false,
         2.2250738585072014e-308},
        {"long fractions round to the nearest double", "time=0.1000000000000000055511151231257827", false, 0.1},
        {"many zero digits are still zero", "time=0." + std::string(400, '0') + "\ntime=00.0", false, 0.0},
    };
    for (const PingCase& c : cases) {
        const auto median = C::parseGatewayPingMedianMillis(c.output, c.discardCold);
        ASSERT_EQ(median.has_value(), c.expected.has_value()) << c.label;
        if (median) {
            EXPECT_DOUBLE_EQ(*median, *c.expected) << c.label;
        }
    }
}

// A process whose global locale writes a decimal comma still reads ping's dots.
TEST(OrvenHelperConstants, ParseGatewayPingIgnoresTheGlobalLocale)
{
    struct DecimalComma : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
    };
    const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new DecimalComma));
    const auto median = C::parseGatewayPingMedianMillis("time=2.5 ms\ntime=3,5 ms", false);
    std::locale::global(previous);
    ASSERT_TRUE(median.has_value());
    EXPECT_DOUBLE_EQ(*median, 2.75);
}

// --- Budgets and versions -----------------------------------------------------

TEST(OrvenHelperConstants, PingBudgets)
{
    EXPECT_DOUBLE_EQ(C::dfPingBudgetSeconds(2000), 7.0);
    EXPECT_DOUBLE_EQ(C::dfPingBudgetSeconds(0), 5.0);
    EXPECT_DOUBLE_EQ(C::dfPingBudgetSeconds(1), 5.001);  // no integer division
    EXPECT_DOUBLE_EQ(C::gatewayPingBudgetSeconds(5, 200, 1000), 7.0);
    EXPECT_DOUBLE_EQ(C::gatewayPingBudgetSeconds(3, 1, 1), 5.004);
    // Client-supplied extremes stay finite and positive instead of wrapping.
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
    EXPECT_GT(C::gatewayPingBudgetSeconds(most, most, most), 1e30);
}

TEST(OrvenHelperConstants, HardKillBudgetsAddUp)
{
    EXPECT_DOUBLE_EQ(C::hardKillHelperBudget, 224.0);
    EXPECT_DOUBLE_EQ(C::hardKillXPCTimeout, 234.0);
}

std::vector<int> versionParts(std::string_view version)
{
    std::vector<int> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t dot = version.find('.', start);
        parts.push_back(std::stoi(std::string(version.substr(start, dot - start))));
        if (dot == std::string_view::npos) return parts;
        start = dot + 1;
    }
}

TEST(OrvenHelperConstants, VersionNumberAndCapabilityMinimums)
{
    EXPECT_EQ(C::expectedHelperVersionNumber(), "2.10.0");
    // A capability newer than the daemon itself could never be called.
    const auto daemon = versionParts(C::expectedHelperVersionNumber());
    for (const std::string_view minimum :
         {C::minServiceOrderVersion, C::minInterfaceHoldVersion, C::minGatewayPingVersion, C::minInterfaceMTUVersion,
          C::minPowerlineTopologyVersion, C::minPowerlineDeviceInfoVersion, C::minDriverInterfaceRestoreVersion,
          C::minHardKillDisengageVersion, C::minHardKillStatusVersion, C::minHardKillEnforcementVersion,
          C::minHardKillProofVersion, C::minHardKillVersion, C::minHardKillResidueTokenVersion,
          C::minVPNIdentityInstallVersion, C::minVPNIdentityReleaseVersion}) {
        const auto parts = versionParts(minimum);
        EXPECT_EQ(parts.size(), 3u) << minimum;
        EXPECT_LE(parts, daemon) << minimum;
    }
    // Engaging needs a newer daemon than lifting and inspecting.
    EXPECT_GT(versionParts(C::minHardKillVersion), versionParts(C::minHardKillDisengageVersion));
    EXPECT_GT(versionParts(C::minHardKillVersion), versionParts(C::minHardKillProofVersion));
}

// --- Method table -------------------------------------------------------------

TEST(OrvenHelperMethodTable, SelectorsMatchTheirArguments)
{
    std::set<std::string_view> seen;
    for (const MethodSpec& method : kOrvenHelperMethods) {
        const std::string_view selector = method.selector;
        EXPECT_TRUE(selector.ends_with("reply:") || selector.ends_with("Reply:")) << selector;
        // One label per argument, plus the reply block.
        const auto labels = static_cast<std::size_t>(std::count(selector.begin(), selector.end(), ':'));
        EXPECT_EQ(labels, method.arguments.size() + 1) << selector;
        EXPECT_FALSE(method.reply.empty()) << selector;
        EXPECT_TRUE(seen.insert(selector).second) << "duplicate selector " << selector;
        EXPECT_EQ(findMethod(selector), &method) << selector;
    }
    EXPECT_EQ(seen.size(), 28u);
}

TEST(OrvenHelperMethodTable, FindMethodRejectsNearMisses)
{
    for (const std::string_view selector :
         {"", "pingWithReply", "pingwithreply:", "pingWithReply: ", "setHardKillWithEngaged:", "nope:"}) {
        EXPECT_EQ(findMethod(selector), nullptr) << selector;
    }
    const MethodSpec* gatewayPing = findMethod("gatewayPingRTTWithTarget:count:spacingMillis:boundInterface:timeoutMillis:reply:");
    ASSERT_NE(gatewayPing, nullptr);
    EXPECT_EQ(gatewayPing->reply.front(), WireType::real);
}

} // namespace
} // namespace orven
