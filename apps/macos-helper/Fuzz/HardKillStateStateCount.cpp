// stateCountFromListing on any `pfctl -s state` listing: the count is within
// the text's size, ignores trailing line breaks, and one more line after the
// trimmed listing is one more state.
#include <string>

#include "HardKillState.h"
#include "PFFuzzCheck.h"
#include "Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const std::int64_t count = HardKillState::stateCountFromListing(text);
    fuzz::check(count >= 0 && static_cast<std::size_t>(count) <= size, "the count is within the text's size");
    fuzz::check(HardKillState::stateCountFromListing(std::string(text) + "\n\n") == count,
                "trailing line breaks add no state");
    // Not after the raw text: its trailing blanks may hold a line of spaces,
    // which counts once something follows it.
    const std::string trimmed = text::trimWhitespaceAndNewlines(text);
    fuzz::check(HardKillState::stateCountFromListing(trimmed + "\nALL tcp a -> b       X:Y") == count + 1,
                "one more line is one more state");
    return 0;
}
