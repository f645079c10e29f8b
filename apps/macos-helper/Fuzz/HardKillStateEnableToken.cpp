// tokenFromEnableOutput on any `pfctl -E` output: a token is non-empty, has
// no colon, no line break and no outer spaces or tabs, and lines before the
// first "Token" line never change it.
#include <string>

#include "HardKillState.h"
#include "PFFuzzCheck.h"
#include "Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const auto token = HardKillState::tokenFromEnableOutput(text);
    fuzz::check(HardKillState::tokenFromEnableOutput("pf enabled\n" + std::string(text)) == token,
                "a leading status line changes nothing");
    if (!token) return 0;
    fuzz::check(!token->empty(), "a token is not empty");
    fuzz::check(token->find(':') == std::string::npos, "a token is what follows the last colon");
    fuzz::check(text::trimSpacesAndTabs(*token) == *token, "a token is trimmed");
    fuzz::check(text::splitLines(*token, true).size() == 1, "a token holds no line break");
    fuzz::check(text::contains(text, *token), "a token is taken from the text");
    return 0;
}
