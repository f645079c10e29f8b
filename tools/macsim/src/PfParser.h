#pragma once
// pf.conf text to rules, as pfctl's parser (OpenBSD 4.1 grammar, Apple's
// additions) reads it: macros, lists expanded into one rule per combination,
// parser defaults (keep state, flags S/SA), statement order, and the error
// lines pfctl writes.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "PfRule.h"

namespace orven::macsim {

struct InterfaceAddress {
    IpAddr addr;
    int prefix = 0;
};

struct ParseContext {
    std::string fileName = "stdin";   // shown in error lines
    std::string anchorPath;           // the ruleset being loaded; "" is the main ruleset
    bool anchorLoad = false;          // -a given: options and `load anchor` are ignored
    bool requireOrder = true;
    // The addresses of a local interface, or nothing when there is no such
    // interface (so the word is not an interface name).
    std::function<std::optional<std::vector<InterfaceAddress>>(std::string_view)> interfaceAddresses;
};

struct LoadAnchor {
    std::string anchor; // path of the anchor to load
    std::string file;   // as written
};

struct ParsedRuleset {
    std::vector<Rule> rules; // every kind, in load order
    bool skipSet = false;    // a `set skip` statement was applied
    std::vector<std::string> skip;
    std::vector<LoadAnchor> loadAnchors;
    std::vector<std::string> errors; // complete lines, e.g. "stdin:3: syntax error"
    bool ok() const { return errors.empty(); }
};

ParsedRuleset parseRuleset(std::string_view text, const ParseContext& context);

// The path an anchor call names, resolved against the ruleset it sits in.
// Returns false for a `..` that climbs above the main ruleset.
bool resolveAnchorCall(std::string_view base, std::string_view call, std::string& path, bool& wildcard);

} // namespace orven::macsim
