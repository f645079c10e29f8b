// siblingAnchorNames on any anchor listing: names are bare paths, never our
// own anchor, and there are no more names than lines.
#include <algorithm>

#include "HardKillProof.h"
#include "HardKillState.h"
#include "PFFuzzCheck.h"
#include "Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const auto names = HardKillProof::siblingAnchorNames(text, kBlackoutAnchor);
    fuzz::check(names.size() <= static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1,
                "at most one name a line");
    for (const auto& name : names) {
        fuzz::check(!name.empty() && name.find_first_of(" \t\n") == std::string::npos, "names are bare paths");
        fuzz::check(name.front() != '#', "comments are not names");
        fuzz::check(text::contains(name, "/"), "every name is a full path");
        const auto leaf = text::splitWords(name, "/");
        fuzz::check(leaf.empty() || leaf.back() != "999.test.orven.app", "our own anchor is never a sibling");
    }
    return 0;
}
