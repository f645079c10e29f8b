// normalisedDump on any ruleset text: normalising twice changes nothing,
// blank lines around the text change nothing, and the result never starts
// or ends with a line break.
#include <string>

#include "HardKillProof.h"
#include "PFFuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const std::string normal = HardKillProof::normalisedDump(text);
    fuzz::check(HardKillProof::normalisedDump(normal) == normal, "normalisation is idempotent");
    fuzz::check(HardKillProof::normalisedDump("\n \t\n" + std::string(text) + "\n\t \n\n") == normal,
                "blank lines at either end change nothing");
    fuzz::check(normal.empty() || (normal.front() != '\n' && normal.back() != '\n'), "no outer line breaks");
    fuzz::check(normal.size() <= size, "normalising never grows the text");
    return 0;
}
