#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "HardKillProof.h"
#include "MainRulesetRecord.h"

namespace orven {
namespace {

PFRuleBuilder::LANIsolationParams someParams()
{
    return {"en0", "192.168.1.1", "192.168.1.0/24", {"192.168.1.2"}, "fe80::1%en0", {"fd00::/64"}, {}};
}

constexpr const char* kParamsJSON =
    R"({"interface":"en0","gatewayV4":"192.168.1.1","subnetV4":"192.168.1.0/24","dnsV4":["192.168.1.2"],)"
    R"("gatewayV6":"fe80::1%en0","subnetsV6":["fd00::/64"],"dnsV6":[]})";

std::string recordText(const std::string& members) { return "{" + members + "}"; }

TEST(MainRulesetRecord, EncodesKeysInOrder)
{
    const MainRulesetRecord withDump{"isolation", "pass quick all\n\"quoted\"\t", someParams()};
    EXPECT_EQ(encodeMainRulesetRecord(withDump),
              R"({"shape":"isolation","dump":"pass quick all\n\"quoted\"\t","params":)" + std::string(kParamsJSON) +
                  "}");

    const MainRulesetRecord withoutDump{"isolationSuspended", std::nullopt, someParams()};
    EXPECT_EQ(encodeMainRulesetRecord(withoutDump),
              R"({"shape":"isolationSuspended","params":)" + std::string(kParamsJSON) + "}");
}

TEST(MainRulesetRecord, DecodesWhatItEncodes)
{
    const MainRulesetRecord records[] = {
        {"isolation", "pass quick all\nanchor \"com.apple/*\" all\n", someParams()},
        {"isolationSuspended", std::nullopt, someParams()},
        {"isolation", "", {"en0", "1.2.3.4", "1.2.3.0/24", {}, std::nullopt, {}, {}}},
        {"a shape from a later version", "\u2014 \u00e9 \U0001F600", someParams()},
        {"isolation", std::string("nul\0inside", 10), someParams()},
    };
    for (const auto& record : records) {
        EXPECT_EQ(decodeMainRulesetRecord(encodeMainRulesetRecord(record)), record) << record.shape;
        EXPECT_EQ(encodeMainRulesetRecordExactly(record), encodeMainRulesetRecord(record)) << record.shape;
    }
}

TEST(MainRulesetRecord, DecodesRecordsWrittenByHand)
{
    struct Case {
        const char* label;
        std::string text;
        std::optional<MainRulesetRecord> expected;
    };
    const std::string params = std::string(R"("params":)") + kParamsJSON;
    const Case cases[] = {
        {"without a dump", recordText(R"("shape":"isolation",)" + params),
         MainRulesetRecord{"isolation", std::nullopt, someParams()}},
        {"null dump", recordText(R"("shape":"isolation","dump":null,)" + params),
         MainRulesetRecord{"isolation", std::nullopt, someParams()}},
        {"keys in another order, white space, extra keys",
         " {\n  " + params + R"(, "extra": [1, {"x": null}], "dump": "d", "shape": "isolation" } )",
         MainRulesetRecord{"isolation", "d", someParams()}},
        {"unknown shape still decodes", recordText(R"("shape":"legacy",)" + params),
         MainRulesetRecord{"legacy", std::nullopt, someParams()}},
        {"escaped text", recordText(R"("shape":"isolation","dump":"\u2014\ud83d\ude00\/",)" + params),
         MainRulesetRecord{"isolation", "\u2014\U0001F600/", someParams()}},
        {"missing shape", recordText(params), std::nullopt},
        {"missing params", recordText(R"("shape":"isolation","dump":"d")"), std::nullopt},
        {"shape of the wrong type", recordText(R"("shape":1,)" + params), std::nullopt},
        {"null shape", recordText(R"("shape":null,)" + params), std::nullopt},
        {"dump of the wrong type", recordText(R"("shape":"isolation","dump":["d"],)" + params), std::nullopt},
        {"params of the wrong type", recordText(R"("shape":"isolation","params":"en0")"), std::nullopt},
        {"params missing a key", recordText(R"("shape":"isolation","params":{"interface":"en0"})"), std::nullopt},
        {"not an object", "[" + recordText(R"("shape":"isolation",)" + params) + "]", std::nullopt},
        {"empty file", "", std::nullopt},
        {"truncated", recordText(R"("shape":"isolation",)" + params).substr(0, 40), std::nullopt},
        {"trailing garbage", recordText(R"("shape":"isolation",)" + params) + "x", std::nullopt},
        {"two documents", recordText(R"("shape":"isolation",)" + params) + "{}", std::nullopt},
        {"invalid UTF-8 in a string", recordText("\"shape\":\"\xff\"," + params), std::nullopt},
        {"lone surrogate escape", recordText(R"("shape":"\ud800",)" + params), std::nullopt},
        {"comments are not JSON", recordText(R"(/*x*/"shape":"isolation",)" + params), std::nullopt},
    };
    for (const Case& c : cases) EXPECT_EQ(decodeMainRulesetRecord(c.text), c.expected) << c.label;
}

TEST(MainRulesetRecord, RefusesHostileFilesWithinBounds)
{
    const std::string valid = encodeMainRulesetRecord({"isolation", "d", someParams()});

    // Deep nesting in an ignored key.
    const std::string deep = valid.substr(0, valid.size() - 1) + R"(,"x":)" + std::string(100000, '[') +
                             std::string(100000, ']') + "}";
    EXPECT_EQ(decodeMainRulesetRecord(deep), std::nullopt);

    // Brackets inside strings do not count as nesting.
    const std::string bracketsInText = encodeMainRulesetRecord({"isolation", std::string(1000, '['), someParams()});
    EXPECT_TRUE(decodeMainRulesetRecord(bracketsInText).has_value());

    // Larger than any record of ours.
    const MainRulesetRecord huge{"isolation", std::string(kMaxMainRulesetRecordBytes, 'a'), someParams()};
    EXPECT_EQ(decodeMainRulesetRecord(encodeMainRulesetRecord(huge)), std::nullopt);
    const MainRulesetRecord large{"isolation", std::string(kMaxMainRulesetRecordBytes / 2, 'a'), someParams()};
    EXPECT_EQ(decodeMainRulesetRecord(encodeMainRulesetRecord(large)), large);
}

TEST(MainRulesetRecord, TextThatIsNotUTF8CannotBeRecordedExactly)
{
    MainRulesetRecord record{"isolation", "rule \xff\xfe", someParams()};
    EXPECT_EQ(encodeMainRulesetRecordExactly(record), std::nullopt);
    record.dump = "fine";
    record.params.dnsV6 = {"\xc3"};
    EXPECT_EQ(encodeMainRulesetRecordExactly(record), std::nullopt);

    // The total encoder still writes something, and what it wrote can never
    // again prove that the ruleset with the original bytes is ours.
    const MainRulesetRecord bad{"isolation", "rule \xff", someParams()};
    const auto decoded = decodeMainRulesetRecord(encodeMainRulesetRecord(bad));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(decoded->dump, "rule \uFFFD");
    EXPECT_EQ(HardKillProof::planFor(decoded, true, "rule \xff").kind, HardKillProof::MainRulesetPlan::Kind::refuse);
}

} // namespace
} // namespace orven
