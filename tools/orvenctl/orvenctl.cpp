// orvenctl: calls one method of the helper on the Linux host's socket and
// prints the answer, one JSON object on one line.
//
//   orvenctl --socket PATH [--id ID] [--timeout SECONDS] SELECTOR [ARGS...]
//   orvenctl --socket PATH [--timeout SECONDS] --raw LINE
//   orvenctl --list
//
// Arguments follow the method table: Bool true|false; Int and Double as
// numbers; String as given; [String] as a JSON array ('["a","b"]'); Data as
// base64, or @FILE for a file's bytes; NSNumber? true|false|null.
//
// Exit status: 0 when the call was answered with a reply, 1 when the daemon
// answered with an error only, 2 when no answer came, 64 on a usage error.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Linux/SocketClient.h"
#include "MethodDispatch.h"
#include "OrvenHelperProtocol.h"

namespace {

constexpr int kAnswered = 0;
constexpr int kErrorAnswer = 1;
constexpr int kNoAnswer = 2;
constexpr int kUsage = 64;
constexpr double kDefaultTimeoutSeconds = 300.0;  // longer than a Hard Kill may take

[[noreturn]] void fail(int status, const std::string& message)
{
    std::fprintf(stderr, "orvenctl: %s\n", message.c_str());
    std::exit(status);
}

[[noreturn]] void usage(const std::string& message)
{
    fail(kUsage, message +
                     "\nusage: orvenctl --socket PATH [--id ID] [--timeout SECONDS] SELECTOR [ARGS...]\n"
                     "       orvenctl --socket PATH [--timeout SECONDS] --raw LINE\n"
                     "       orvenctl --list");
}

std::optional<std::int64_t> parseInteger(const std::string& text)
{
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return std::nullopt;
    return value;
}

std::optional<double> parseReal(const std::string& text)
{
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(value)) return std::nullopt;
    return value;
}

using orven::WireType;

[[noreturn]] void badArgument(std::size_t position, const std::string& text, const char* expected)
{
    usage("argument " + std::to_string(position) + " (\"" + text + "\") must be " + expected);
}

// One command-line argument as the JSON value its wire type takes.
nlohmann::json argumentValue(WireType type, const std::string& text, std::size_t position)
{
    switch (type) {
    case WireType::boolean:
        if (text == "true") return true;
        if (text == "false") return false;
        badArgument(position, text, "true or false");
    case WireType::integer:
        if (auto value = parseInteger(text)) return *value;
        badArgument(position, text, "an integer");
    case WireType::real:
        if (auto value = parseReal(text)) return *value;
        badArgument(position, text, "a number");
    case WireType::string:
    case WireType::optionalString:
        return text;
    case WireType::stringArray: {
        auto value = nlohmann::json::parse(text, nullptr, false);
        if (value.is_array() && std::all_of(value.begin(), value.end(), [](const auto& item) { return item.is_string(); }))
            return value;
        badArgument(position, text, "a JSON array of strings, e.g. '[\"a\",\"b\"]'");
    }
    case WireType::data:
    case WireType::optionalData: {
        if (!text.empty() && text[0] == '@') {
            std::ifstream file(text.substr(1), std::ios::binary);
            if (!file) usage("cannot read " + text.substr(1));
            const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
            return orven::MethodDispatch::base64Encode(
                std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
        }
        if (orven::MethodDispatch::base64Decode(text)) return text;
        badArgument(position, text, "base64 data or @FILE");
    }
    case WireType::optionalNumber:
        if (text == "true") return true;
        if (text == "false") return false;
        if (text == "null") return nullptr;
        if (auto value = parseInteger(text)) return *value;
        badArgument(position, text, "true, false, null or a number");
    }
    badArgument(position, text, "a value");
}

} // namespace

int main(int argc, char** argv)
{
    std::string socketPath;
    nlohmann::json id = 1;
    double timeout = kDefaultTimeoutSeconds;
    std::optional<std::string> raw;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= argc) usage(std::string(option) + " takes a value");
            return argv[++i];
        };
        if (option == "--list") {
            for (const auto& method : orven::kOrvenHelperMethods)
                std::printf("%s %s -> %s\n", std::string(method.selector).c_str(),
                            orven::MethodDispatch::signature(method.arguments).c_str(),
                            orven::MethodDispatch::signature(method.reply).c_str());
            return 0;
        }
        if (option == "--socket") socketPath = value();
        else if (option == "--id") {
            const std::string text = value();
            id = nlohmann::json::parse(text, nullptr, false);
            if (id.is_discarded()) id = text;
        } else if (option == "--timeout") {
            const auto seconds = parseReal(value());
            if (!seconds || *seconds <= 0) usage("--timeout takes a positive number of seconds");
            timeout = *seconds;
        } else if (option == "--raw") raw = value();
        else if (option == "--") {
            positional.insert(positional.end(), argv + i + 1, argv + argc);
            break;
        } else if (option.starts_with("--") && positional.empty()) usage("unknown option " + std::string(option));
        else positional.emplace_back(option);
    }
    if (socketPath.empty()) usage("--socket is required");

    std::string request;
    if (raw) {
        if (!positional.empty()) usage("--raw takes no selector");
        request = *raw;
    } else {
        if (positional.empty()) usage("a selector is required");
        const auto* method = orven::findMethod(positional[0]);
        if (!method) usage("unknown selector " + positional[0] + " (orvenctl --list shows them)");
        if (positional.size() - 1 != method->arguments.size())
            usage(std::string(method->selector) + " takes " + std::to_string(method->arguments.size()) +
                  " argument(s): " + orven::MethodDispatch::signature(method->arguments));
        nlohmann::json arguments = nlohmann::json::array();
        for (std::size_t k = 0; k < method->arguments.size(); ++k)
            arguments.push_back(argumentValue(method->arguments[k], positional[k + 1], k + 1));
        request = orven::MethodDispatch::dumpLine({{"id", id}, {"selector", method->selector}, {"arguments", arguments}});
    }
    if (request.find('\n') != std::string::npos) usage("a request is one line");

    std::string error;
    auto client = orven::SocketClient::connect(socketPath, &error);
    if (!client) fail(kNoAnswer, error);
    const auto line = client->call(request, std::chrono::milliseconds(static_cast<long long>(timeout * 1000)));
    if (!line.text) fail(kNoAnswer, line.error);
    const std::string& answer = *line.text;

    std::printf("%s\n", answer.c_str());
    std::fflush(stdout);
    const auto parsed = nlohmann::json::parse(answer, nullptr, false);
    if (parsed.is_object() && parsed.contains("reply")) return kAnswered;
    if (parsed.is_object() && parsed.contains("error")) {
        std::fprintf(stderr, "orvenctl: the daemon answered with an error: %s\n",
                     parsed["error"].is_string() ? parsed["error"].get<std::string>().c_str() : "?");
        return kErrorAnswer;
    }
    fail(kNoAnswer, "the answer is not a JSON object");
}
