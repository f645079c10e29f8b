// normalizedIPv6 on any text: the canonical form is its own canonical form,
// carries no zone, and fits inet_ntop's buffer.
#include "PFFuzzCheck.h"
#include "PFRuleBuilder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    const auto text = fuzz::asText(data, size);
    const auto normal = PFRuleBuilder::normalizedIPv6(text);
    if (!normal) return 0;
    fuzz::check(!normal->empty() && normal->size() < 46, "canonical text fits the 46-byte buffer");
    fuzz::check(normal->find('%') == std::string::npos, "no zone survives");
    fuzz::check(PFRuleBuilder::normalizedIPv6(*normal) == normal, "normalisation is idempotent");
    fuzz::check(PFRuleBuilder::normalizedIPv6(*normal + "%en0") == normal, "a zone is ignored");
    fuzz::check(PFRuleBuilder::normalizedCIDRv6(*normal + "/128") == *normal + "/128",
                "a /128 prefix keeps the whole address");
    return 0;
}
