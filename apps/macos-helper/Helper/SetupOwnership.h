#pragma once
// Which interfaces belong to a configured network service. One malformed
// service makes the whole answer an error: ownership is then unknown.

#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace orven::SetupOwnership {

struct Entry {
    std::string key;
    // Absent when the store's value was not a string-keyed dictionary; the
    // inner optional is absent when that key's value is not a string.
    std::optional<std::map<std::string, std::optional<std::string>>> value;
};

struct Result {
    std::set<std::string> names;
    std::optional<std::string> error;  // set: ownership unknown
};

Result resolve(const std::vector<Entry>& entries);

} // namespace orven::SetupOwnership
