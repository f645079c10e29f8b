// The IKEv2 provider's recent log lines, cut down to the ones that say why a
// tunnel failed or which states it went through. Runs on the connection: the
// log tool is bounded by its own budget, and the look-back and the reply size
// are capped so one request stays cheap for the tool and for the transport.

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>

#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

constexpr double kLogShowBudget = 30.0;
constexpr std::int64_t kMaxLookBackSeconds = 300;
constexpr std::int64_t kLookBackMarginSeconds = 5;
constexpr std::size_t kMaxReplyBytes = 262144;
constexpr std::size_t kMaxErrorCharacters = 200;
constexpr std::string_view kProviderPredicate = "process == \"NEIKEv2Provider\"";

constexpr std::array<std::string_view, 4> kTellingFragments{
    "NEIKEv2ProtocolErrorDomain", " state ", "Completed connection", "Tunnel Status"};

// The first `count` Unicode scalars of UTF-8 text (all of it when shorter).
std::string firstCharacters(std::string_view text, std::size_t count)
{
    const auto scalars = text::decodeUTF8(text);
    if (!scalars) return std::string(text.substr(0, std::min(text.size(), count)));
    if (scalars->size() <= count) return std::string(text);
    std::string out;
    for (std::size_t i = 0; i < count; ++i) text::appendUTF8(out, (*scalars)[i]);
    return out;
}

} // namespace

std::int64_t HelperService::ikev2LookBackSeconds(double nowEpoch, double sinceEpoch)
{
    const double elapsed = std::ceil(nowEpoch - sinceEpoch);
    // A time that is not a number asks for nothing in particular: the widest
    // look-back allowed.
    if (std::isnan(elapsed) || elapsed >= static_cast<double>(kMaxLookBackSeconds)) return kMaxLookBackSeconds;
    if (elapsed <= 1.0) return 1;
    return static_cast<std::int64_t>(elapsed);
}

std::string HelperService::filterIKEv2DiagnosticLines(std::string_view output, std::string_view serverAddress)
{
    std::vector<std::string> kept;
    for (auto& line : text::splitAtLineFeed(output, false)) {
        const bool telling = std::any_of(kTellingFragments.begin(), kTellingFragments.end(),
                                         [&](std::string_view fragment) { return text::contains(line, fragment); }) ||
                             text::contains(line, serverAddress);
        if (telling) kept.push_back(std::move(line));
    }
    std::string joined = text::join(kept, "\n");
    // The oldest lines come first and are the ones kept.
    if (joined.size() > kMaxReplyBytes) joined = firstCharacters(joined, kMaxReplyBytes);
    return joined;
}

void HelperService::readIKEv2DiagnosticLog(double sinceEpoch, const std::string& serverAddress,
                                           Reply<OptionalText, OptionalText> reply)
{
    if (!isValidServerAddress(serverAddress)) return reply(std::nullopt, "Invalid server address");

    const double now =
        std::chrono::duration<double>(context_.host.wallNow().time_since_epoch()).count();
    const auto lookBack = ikev2LookBackSeconds(now, sinceEpoch) + kLookBackMarginSeconds;
    const std::vector<std::string> arguments{
        "show", "--last", std::to_string(lookBack) + "s", "--info", "--debug", "--predicate",
        std::string(kProviderPredicate)};
    const auto result = runProcess(context_, paths::log, arguments, std::nullopt, kLogShowBudget);
    if (result.code != 0)
        return reply(std::nullopt, "log show exited " + std::to_string(result.code) + ": " +
                                       firstCharacters(result.err, kMaxErrorCharacters));
    reply(filterIKEv2DiagnosticLines(result.out, serverAddress), std::nullopt);
}

} // namespace orven
