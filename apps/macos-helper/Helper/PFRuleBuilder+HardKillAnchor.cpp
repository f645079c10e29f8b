#include "PFRuleBuilder.h"

namespace orven::PFRuleBuilder {

// Loopback stays usable (first, and without state, so nothing lingers once
// the blackout is flushed); everything else, on every interface and in both
// families, is dropped without a reply. The last line is also the catch-all
// whose presence and evaluation counter prove the cut.
const std::string& hardKillAnchorRuleset()
{
    static const std::string ruleset =
        "# ORVEN Hard Kill \u2014 loaded into com.apple/999.test.orven.app, transient.\n"
        "# The main ruleset is NOT touched; this is added and removed.\n"
        "pass quick on lo0 all no state\n"
        "block drop quick all\n";
    return ruleset;
}

} // namespace orven::PFRuleBuilder
