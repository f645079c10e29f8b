// pfStatusIsEnabled on any `pfctl -s info` text: an answer needs a "Status:"
// line, and lines before the first such line never change the answer.
#include <string>

#include "HardKillState.h"
#include "PFFuzzCheck.h"
#include "Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const auto enabled = HardKillState::pfStatusIsEnabled(text);
    if (enabled) fuzz::check(text::contains(text, "Status:"), "an answer comes from a Status: line");
    fuzz::check(HardKillState::pfStatusIsEnabled("No ALTQ support in kernel\n" + std::string(text)) == enabled,
                "a leading line without a status changes nothing");
    return 0;
}
