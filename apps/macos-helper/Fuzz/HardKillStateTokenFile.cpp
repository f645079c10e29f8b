// tokensFromFile on any token file: what it reads, written back and read
// again, is the same list, and every token is trimmed and non-empty.
#include "HardKillState.h"
#include "PFFuzzCheck.h"
#include "Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto tokens = HardKillState::tokensFromFile(fuzz::asText(data, size));
    for (const auto& token : tokens) {
        fuzz::check(!token.empty() && text::trimSpacesAndTabs(token) == token, "tokens are trimmed, not empty");
    }
    const std::string written = HardKillState::tokenFileContent(tokens);
    fuzz::check(HardKillState::tokensFromFile(written) == tokens, "a written file reads back the same tokens");
    fuzz::check(HardKillState::tokenFileContent(HardKillState::tokensFromFile(written)) == written,
                "rewriting a written file changes nothing");
    return 0;
}
