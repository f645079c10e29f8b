// catchAllEvaluations on any verbose listing: a count is never negative, and
// another rule with its own counters ahead of the listing changes nothing.
#include <string>

#include "HardKillProof.h"
#include "HardKillState.h"
#include "PFFuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const auto count = HardKillProof::catchAllEvaluations(text, kCatchAllRule);
    if (count) fuzz::check(*count >= 0, "a count is never negative");
    const std::string ahead = "pass quick on lo0 all no state\n"
                              "  [ Evaluations: 99        Packets: 5         Bytes: 300         States: 0     ]\n"
                              "  [ Inserted: uid 0 pid 4321 ]\n";
    fuzz::check(HardKillProof::catchAllEvaluations(ahead + std::string(text), kCatchAllRule) == count,
                "another rule's counters are not read");
    return 0;
}
