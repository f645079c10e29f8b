// parseCIDRv4 on any text: the network never has host bits, and its printed
// form parses back to the same network and length.
#include <string>

#include "PFFuzzCheck.h"
#include "PFRuleBuilder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const auto cidr = PFRuleBuilder::parseCIDRv4(text);
    if (!cidr) return 0;
    fuzz::check(cidr->prefixLength >= 0 && cidr->prefixLength <= 32, "prefix length within 0...32");
    const std::uint32_t hostBits =
        cidr->prefixLength == 32 ? 0u : (~std::uint32_t{0} >> cidr->prefixLength);
    fuzz::check((cidr->network & hostBits) == 0, "the network is masked");
    const std::string printed = PFRuleBuilder::ipv4String(cidr->network) + "/" + std::to_string(cidr->prefixLength);
    fuzz::check(PFRuleBuilder::parseCIDRv4(printed) == cidr, "the printed network re-parses equal");
    return 0;
}
