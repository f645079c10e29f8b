#pragma once
// `macsim <command> ROOT ...`, the simulator's own command line.

#include <string>
#include <vector>

namespace orven::macsim {

int adminMain(std::vector<std::string> args);

} // namespace orven::macsim
