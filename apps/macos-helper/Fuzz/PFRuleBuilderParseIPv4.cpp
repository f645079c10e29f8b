// parseIPv4 on any text: a parsed address prints back as a dotted quad that
// parses to the same address.
#include "PFFuzzCheck.h"
#include "PFRuleBuilder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const auto address = PFRuleBuilder::parseIPv4(text);
    if (!address) return 0;
    fuzz::check(text.size() >= 7 && text.size() <= 15, "a dotted quad has 7 to 15 characters");
    const std::string printed = PFRuleBuilder::ipv4String(*address);
    fuzz::check(PFRuleBuilder::parseIPv4(printed) == address, "ipv4String re-parses to the same address");
    fuzz::check(PFRuleBuilder::ipv4String(*PFRuleBuilder::parseIPv4(printed)) == printed, "printing is stable");
    return 0;
}
