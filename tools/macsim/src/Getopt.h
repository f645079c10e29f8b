#pragma once
// POSIX/BSD getopt over an argument vector, with the messages BSD prints.
// `permute` follows getopt_long, which lets operands and options mix.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orven::macsim {

struct ParsedOption {
    char name = 0;
    std::string value;
};

struct GetoptResult {
    std::vector<ParsedOption> options;
    std::vector<std::string> operands;
    std::optional<std::string> error; // e.g. "illegal option -- Q"
};

GetoptResult getopt(const std::vector<std::string>& args, std::string_view optstring, bool permute = false);

} // namespace orven::macsim
