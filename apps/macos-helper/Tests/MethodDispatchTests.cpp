#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "HelperService.h"
#include "MethodDispatch.h"
#include "Support/SimulatedMac.h"

namespace orven {
namespace {

namespace md = MethodDispatch;
using nlohmann::json;
using testing::TemporaryFolder;

// A daemon over an empty folder: no tool can start, so every method that
// gets as far as a tool fails at once and nothing on the machine changes.
struct BareDaemon {
    TemporaryFolder folder;
    RecordingLogSink log;
    std::mutex mutex;
    std::condition_variable exited;
    std::vector<int> exitStatuses;
    SimulatedMacHost host{folder.path(), log, [this](int status) {
                              const std::lock_guard lock(mutex);
                              exitStatuses.push_back(status);
                              exited.notify_all();
                          }};
    DaemonContext context{host};

    bool waitForExit()
    {
        std::unique_lock lock(mutex);
        return exited.wait_for(lock, std::chrono::seconds(30), [this] { return !exitStatuses.empty(); });
    }
};

// Every answer a dispatch gave.
struct Answers {
    struct Entry {
        md::WireValues values;
        std::optional<std::string> refusal;
    };
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Entry> entries;

    md::Answer answer()
    {
        return [this](md::WireValues values, const std::optional<std::string>& refusal) {
            const std::lock_guard lock(mutex);
            entries.push_back({std::move(values), refusal});
            arrived.notify_all();
        };
    }
    bool waitForOne()
    {
        std::unique_lock lock(mutex);
        return arrived.wait_for(lock, std::chrono::seconds(60), [this] { return !entries.empty(); });
    }
};

md::WireValue sampleValue(WireType type)
{
    switch (type) {
    case WireType::string: return std::string();
    case WireType::data: return md::Bytes{};
    case WireType::stringArray: return std::vector<std::string>{};
    case WireType::optionalNumber: return md::NilValue{};
    case WireType::boolean: return false;
    case WireType::integer: return std::int64_t{0};
    case WireType::real: return 0.0;
    case WireType::optionalString: return md::NilValue{};
    case WireType::optionalData: return md::NilValue{};
    }
    return md::NilValue{};
}

// A value of some other type than `type` accepts.
md::WireValue wrongValue(WireType type)
{
    return type == WireType::string || type == WireType::optionalString ? md::WireValue(true)
                                                                         : md::WireValue(std::string("x"));
}

std::string selectorName(const ::testing::TestParamInfo<MethodSpec>& info)
{
    std::string name;
    for (const char c : info.param.selector)
        if (std::isalnum(static_cast<unsigned char>(c))) name += c;
    return name;
}

// --- Argument types on the JSON lines ----------------------------------------

struct JSONArgumentCase {
    WireType type;
    const char* value;
    bool accepted;
};

class ArgumentTypes : public ::testing::TestWithParam<JSONArgumentCase> {};

TEST_P(ArgumentTypes, AreCheckedAgainstTheTable)
{
    const WireType types[] = {GetParam().type};
    const MethodSpec method{"probe:reply:", types, wire::replyAction};
    const auto arguments = json::array({json::parse(GetParam().value)});
    const auto decoded = md::argumentsFromJSON(method, arguments);
    EXPECT_EQ(decoded.has_value(), GetParam().accepted) << md::typeName(GetParam().type) << " " << GetParam().value;
    if (decoded) {
        EXPECT_TRUE(md::matchesAll(*decoded, types));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Wire, ArgumentTypes,
    ::testing::Values(JSONArgumentCase{WireType::boolean, "true", true}, JSONArgumentCase{WireType::boolean, "1", false},
                      JSONArgumentCase{WireType::boolean, "\"true\"", false},
                      JSONArgumentCase{WireType::boolean, "null", false},
                      JSONArgumentCase{WireType::integer, "-5", true},
                      JSONArgumentCase{WireType::integer, "9223372036854775807", true},
                      JSONArgumentCase{WireType::integer, "9223372036854775808", false},
                      JSONArgumentCase{WireType::integer, "1.5", false},
                      JSONArgumentCase{WireType::integer, "\"5\"", false},
                      JSONArgumentCase{WireType::integer, "true", false},
                      JSONArgumentCase{WireType::real, "1.5", true}, JSONArgumentCase{WireType::real, "2", true},
                      JSONArgumentCase{WireType::real, "\"1.5\"", false},
                      JSONArgumentCase{WireType::string, "\"en0\"", true},
                      JSONArgumentCase{WireType::string, "\"\"", true}, JSONArgumentCase{WireType::string, "0", false},
                      JSONArgumentCase{WireType::string, "null", false},
                      JSONArgumentCase{WireType::string, "[\"en0\"]", false},
                      JSONArgumentCase{WireType::stringArray, "[]", true},
                      JSONArgumentCase{WireType::stringArray, "[\"a\",\"b\"]", true},
                      JSONArgumentCase{WireType::stringArray, "[\"a\",1]", false},
                      JSONArgumentCase{WireType::stringArray, "[[\"a\"]]", false},
                      JSONArgumentCase{WireType::stringArray, "\"a\"", false},
                      JSONArgumentCase{WireType::data, "\"AAEC\"", true}, JSONArgumentCase{WireType::data, "\"\"", true},
                      JSONArgumentCase{WireType::data, "\"AAE\"", false},
                      JSONArgumentCase{WireType::data, "\"AA=C\"", false},
                      JSONArgumentCase{WireType::data, "\"****\"", false},
                      JSONArgumentCase{WireType::data, "[0,1,2]", false},
                      JSONArgumentCase{WireType::optionalNumber, "null", true},
                      JSONArgumentCase{WireType::optionalNumber, "false", true},
                      JSONArgumentCase{WireType::optionalNumber, "1", true},
                      JSONArgumentCase{WireType::optionalNumber, "\"yes\"", false},
                      JSONArgumentCase{WireType::optionalNumber, "[]", false}));

TEST(ArgumentCount, TooFewOrTooManyAreRefused)
{
    const auto* method = findMethod("setHardKillWithEngaged:reply:");
    ASSERT_NE(method, nullptr);
    EXPECT_FALSE(md::argumentsFromJSON(*method, json::array()));
    EXPECT_FALSE(md::argumentsFromJSON(*method, json::array({true, true})));
    EXPECT_FALSE(md::argumentsFromJSON(*method, json::object()));
    EXPECT_TRUE(md::argumentsFromJSON(*method, json::array({true})));
}

TEST(InvalidArgumentsMessage, NamesTheSelectorAndTheExpectedTypes)
{
    EXPECT_EQ(md::invalidArgumentsMessage(*findMethod("setHardKillWithEngaged:reply:")),
              "Invalid arguments for setHardKillWithEngaged:reply: — expected (Bool)");
    EXPECT_EQ(md::invalidArgumentsMessage(*findMethod(
                  "setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply:")),
              "Invalid arguments for "
              "setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply: — "
              "expected (Bool, String, String, String, [String], String, [String], [String])");
    EXPECT_EQ(md::invalidArgumentsMessage(*findMethod("setInterfaceHoldUntilNeededWithBsdName:hold:reply:")),
              "Invalid arguments for setInterfaceHoldUntilNeededWithBsdName:hold:reply: — expected (String, NSNumber?)");
    EXPECT_EQ(md::invalidArgumentsMessage(*findMethod("pingWithReply:")),
              "Invalid arguments for pingWithReply: — expected ()");
}

// --- Every method of the table -------------------------------------------------

class EveryMethod : public ::testing::TestWithParam<MethodSpec> {};

TEST_P(EveryMethod, WrongArgumentsAreAnsweredOnceInTheMethodsShape)
{
    const MethodSpec& method = GetParam();
    // One wrong type in each position, then one argument too many.
    std::vector<md::WireValues> attempts;
    for (std::size_t i = 0; i < method.arguments.size(); ++i) {
        md::WireValues arguments;
        for (const WireType type : method.arguments) arguments.push_back(sampleValue(type));
        arguments[i] = wrongValue(method.arguments[i]);
        attempts.push_back(std::move(arguments));
    }
    md::WireValues tooMany;
    for (const WireType type : method.arguments) tooMany.push_back(sampleValue(type));
    tooMany.emplace_back(md::NilValue{});
    attempts.push_back(std::move(tooMany));

    BareDaemon daemon;
    HelperService service(daemon.context, 501);
    for (auto& arguments : attempts) {
        Answers answers;
        md::dispatch(service, method, std::move(arguments), answers.answer());
        ASSERT_EQ(answers.entries.size(), 1u);
        const auto& entry = answers.entries.front();
        const std::string expected = md::invalidArgumentsMessage(method);
        EXPECT_EQ(entry.refusal, expected);
        ASSERT_TRUE(md::matchesAll(entry.values, method.reply));
        bool carriesMessage = false;
        for (std::size_t i = 0; i < method.reply.size(); ++i) {
            const auto& value = entry.values[i];
            if (const auto* flag = std::get_if<bool>(&value)) {
                EXPECT_FALSE(*flag);
            }
            if (const auto* number = std::get_if<std::int64_t>(&value)) {
                EXPECT_EQ(*number, -1);
            }
            if (const auto* real = std::get_if<double>(&value)) {
                EXPECT_EQ(*real, -1.0);
            }
            if (const auto* text = std::get_if<std::string>(&value)) carriesMessage |= *text == expected;
        }
        const bool hasMessageSlot =
            std::find(method.reply.begin(), method.reply.end(), WireType::optionalString) != method.reply.end();
        EXPECT_EQ(carriesMessage, hasMessageSlot);
    }
    // Refused before the method ran: nothing was logged, nothing was run.
    EXPECT_TRUE(daemon.log.records().empty());
}

TEST_P(EveryMethod, ValidArgumentsGetExactlyOneReplyOfTheMethodsShape)
{
    const MethodSpec& method = GetParam();
    BareDaemon daemon;
    daemon.context.pfLockBudgetSeconds = 1;
    Answers answers;
    {
        HelperService service(daemon.context, 501);
        md::WireValues arguments;
        for (const WireType type : method.arguments) arguments.push_back(sampleValue(type));
        md::dispatch(service, method, std::move(arguments), answers.answer());
        ASSERT_TRUE(answers.waitForOne());
    }
    if (method.selector == "selfTerminateWithReply:") {
        ASSERT_TRUE(daemon.waitForExit());
        EXPECT_EQ(daemon.exitStatuses, std::vector<int>{0});
    }
    const std::lock_guard lock(answers.mutex);
    ASSERT_EQ(answers.entries.size(), 1u);
    EXPECT_TRUE(md::matchesAll(answers.entries[0].values, method.reply));
    if (md::isImplemented(method)) {
        EXPECT_FALSE(answers.entries[0].refusal) << *answers.entries[0].refusal;
    } else {
        EXPECT_EQ(answers.entries[0].refusal, md::notAvailableMessage(method));
        EXPECT_EQ(answers.entries[0].values, md::refusal(method, md::notAvailableMessage(method)));
    }
}

INSTANTIATE_TEST_SUITE_P(Table, EveryMethod, ::testing::ValuesIn(kOrvenHelperMethods), selectorName);

TEST(Implemented, TheHardKillCoreIsWired)
{
    for (const char* selector :
         {"pingWithReply:", "setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply:",
          "setHardKillWithEngaged:reply:", "readHardKillStatusWithReply:", "readHardKillEnforcementWithReply:",
          "readHardKillResidueWithTokenWithReply:", "readHardKillProofWithReply:", "uninstallSelfWithReply:",
          "selfTerminateWithReply:"}) {
        ASSERT_NE(findMethod(selector), nullptr) << selector;
        EXPECT_TRUE(md::isImplemented(*findMethod(selector))) << selector;
    }
}

TEST(Implemented, TheIdentityAndCAMethodsAreWired)
{
    for (const char* selector : {"installVPNIdentityWithPkcs12:passphrase:reply:",
                                 "releaseVPNIdentityWithPkcs12:passphrase:reply:",
                                 "installTrustedCAWithCertificateDER:reply:", "removeTrustedCAWithCertificateDER:reply:"}) {
        ASSERT_NE(findMethod(selector), nullptr) << selector;
        EXPECT_TRUE(md::isImplemented(*findMethod(selector))) << selector;
    }
}

TEST(Refusal, FillsEachShape)
{
    const auto message = std::string("no");
    using V = md::WireValues;
    EXPECT_EQ(md::refusal(*findMethod("readHardKillProofWithReply:"), message), (V{false, md::NilValue{}, message}));
    EXPECT_EQ(md::refusal(*findMethod("readHardKillEnforcementWithReply:"), message),
              (V{false, false, false, std::int64_t{-1}, message}));
    EXPECT_EQ(md::refusal(*findMethod("listServiceOrderWithReply:"), message), (V{md::NilValue{}, message}));
    EXPECT_EQ(md::refusal(*findMethod("readKnownWiFiPlistDataWithReply:"), message), (V{md::NilValue{}, message}));
    EXPECT_EQ(md::refusal(*findMethod("gatewayPingRTTWithTarget:count:spacingMillis:boundInterface:timeoutMillis:reply:"),
                          message),
              (V{-1.0, message}));
    EXPECT_EQ(md::refusal(*findMethod("installVPNIdentityWithPkcs12:passphrase:reply:"), message),
              (V{std::int64_t{-1}, message}));
    EXPECT_EQ(md::refusal(*findMethod("selfTerminateWithReply:"), message), (V{false}));
}

// --- Lines ---------------------------------------------------------------------

struct MalformedCase {
    const char* name;
    std::string line;
    json id;
};

class MalformedLines : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(MalformedLines, GetAnErrorLineAndRunNothing)
{
    BareDaemon daemon;
    HelperService service(daemon.context, 501);
    std::vector<std::string> sent;
    md::handleLine(service, GetParam().line, [&](std::string line) { sent.push_back(std::move(line)); });
    ASSERT_EQ(sent.size(), 1u);
    const auto answer = json::parse(sent[0]);
    ASSERT_TRUE(answer.is_object());
    EXPECT_TRUE(answer.contains("error"));
    EXPECT_FALSE(answer.contains("reply"));
    EXPECT_EQ(answer.value("id", json()), GetParam().id);
    EXPECT_TRUE(daemon.log.records().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MalformedLines,
    ::testing::Values(MalformedCase{"NotJSON", "garbage", nullptr}, MalformedCase{"Array", "[1,2]", nullptr},
                      MalformedCase{"Truncated", "{\"id\":1,\"selector\":\"pingWithReply:\"", nullptr},
                      MalformedCase{"InvalidUTF8", "{\"id\":1,\"selector\":\"\xff\"}", nullptr},
                      MalformedCase{"NoSelector", "{\"id\":4}", 4},
                      MalformedCase{"SelectorNotString", "{\"id\":\"a\",\"selector\":7}", "a"},
                      MalformedCase{"ArgumentsNotArray",
                                    "{\"id\":[1],\"selector\":\"pingWithReply:\",\"arguments\":{}}", json::array({1})},
                      MalformedCase{"UnknownSelector", "{\"id\":9,\"selector\":\"rm -rf /\",\"arguments\":[]}", 9},
                      MalformedCase{"NestedTooDeeply", std::string(40, '[') + std::string(40, ']'), nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Lines, AReplyEchoesTheIdAndCarriesTheValuesInOrder)
{
    BareDaemon daemon;
    HelperService service(daemon.context, 501);
    std::vector<std::string> sent;
    md::handleLine(service, R"({"id":{"n":[7]},"selector":"pingWithReply:","arguments":[]})",
                   [&](std::string line) { sent.push_back(std::move(line)); });
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(json::parse(sent[0]), json::parse(R"({"id":{"n":[7]},"reply":["ORVEN Helper 2.10.0"]})"));
}

TEST(Lines, WrongArgumentsAnswerTheShapeWithTheMessage)
{
    BareDaemon daemon;
    HelperService service(daemon.context, 501);
    std::vector<std::string> sent;
    md::handleLine(service, R"({"id":2,"selector":"setHardKillWithEngaged:reply:","arguments":["yes"]})",
                   [&](std::string line) { sent.push_back(std::move(line)); });
    ASSERT_EQ(sent.size(), 1u);
    const std::string message = "Invalid arguments for setHardKillWithEngaged:reply: — expected (Bool)";
    EXPECT_EQ(json::parse(sent[0]), (json{{"id", 2}, {"reply", {false, message}}, {"error", message}}));
}

TEST(Lines, ValuesBecomeJSON)
{
    const md::WireValues values{md::NilValue{}, true, std::int64_t{-3}, 2.5, std::string("a"),
                                std::vector<std::string>{"x", "y"}, md::Bytes{'f', 'o', 'o'}};
    EXPECT_EQ(md::valuesToJSON(values), json::parse(R"([null,true,-3,2.5,"a",["x","y"],"Zm9v"])"));
}

TEST(Lines, TextThatIsNotUTF8IsReplacedNotDropped)
{
    const auto line = md::dumpLine(json{{"reply", {std::string("bad \xff byte")}}});
    EXPECT_TRUE(json::accept(line)) << line;
}

struct Base64Case {
    std::string bytes;
    std::string text;
};

class Base64 : public ::testing::TestWithParam<Base64Case> {};

TEST_P(Base64, RoundTrips)
{
    const md::Bytes bytes(GetParam().bytes.begin(), GetParam().bytes.end());
    EXPECT_EQ(md::base64Encode(bytes), GetParam().text);
    EXPECT_EQ(md::base64Decode(GetParam().text), bytes);
}

INSTANTIATE_TEST_SUITE_P(Vectors, Base64,
                         ::testing::Values(Base64Case{"", ""}, Base64Case{"f", "Zg=="}, Base64Case{"fo", "Zm8="},
                                           Base64Case{"foo", "Zm9v"}, Base64Case{"foobar", "Zm9vYmFy"},
                                           Base64Case{std::string("\x00\xff\xfe", 3), "AP/+"}));

TEST(Base64Decode, RefusesWhatIsNotBase64)
{
    for (const char* text : {"Zg", "Zg=", "Z===", "Zg==Zg==", "Zm9v\n", "Zm9-", " Zg=="})
        EXPECT_FALSE(md::base64Decode(text)) << text;
}

} // namespace
} // namespace orven
