// normalizedCIDRv6 on any text: the canonical prefix is its own canonical
// form and its network is a canonical address.
#include <string>

#include "PFFuzzCheck.h"
#include "PFRuleBuilder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const auto normal = PFRuleBuilder::normalizedCIDRv6(text);
    if (!normal) return 0;
    const std::size_t slash = normal->rfind('/');
    fuzz::check(slash != std::string::npos && slash > 0, "canonical prefix is addr/N");
    const std::string address = normal->substr(0, slash);
    const int length = std::stoi(normal->substr(slash + 1));
    fuzz::check(length >= 0 && length <= 128, "prefix length within 0...128");
    fuzz::check(PFRuleBuilder::normalizedCIDRv6(*normal) == normal, "normalisation is idempotent");
    fuzz::check(PFRuleBuilder::normalizedIPv6(address) == address, "the network is a canonical address");
    fuzz::check(PFRuleBuilder::normalizedCIDRv6(address + "/0") == "::/0", "a /0 prefix clears everything");
    return 0;
}
