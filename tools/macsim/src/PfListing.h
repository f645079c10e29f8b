#pragma once
// The listings pfctl prints from the kernel's answers: rules (with -v
// counters), anchors, status, references, states, interfaces.

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "Pf.h"

namespace orven::macsim {

// Rules of the given kinds of one anchor. A missing anchor adds pfctl's
// DIOCGETRULES complaint to `err`. `recursive` follows anchor calls.
std::string listRules(const PfModel& pf, const std::string& path, const std::set<RuleKind>& kinds, int verbose,
                      bool recursive, std::string& err, int depth = 0);
std::string listAnchors(const PfModel& pf, const std::string& path, bool verbose, std::string& err);
std::string listInfo(const PfModel& pf, std::int64_t now, bool verbose);
std::string listReferences(const PfModel& pf, std::int64_t now);
std::string listStates(const PfModel& pf);
std::string listInterfaces(const PfModel& pf, const std::vector<std::string>& names, bool verbose);
std::string counterLines(const PfModel& pf, const std::string& path, const Ruleset& rs, std::size_t index);

} // namespace orven::macsim
