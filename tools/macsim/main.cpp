// One program, many names: run through a link such as ROOT/sbin/pfctl it is
// that tool of the simulated Mac under ROOT; run as macsim it manages Macs.

#include <iostream>
#include <string>
#include <vector>

#include "Admin.h"
#include "Tools.h"

int main(int argc, char** argv) {
    using namespace orven::macsim;
    const std::string argv0 = argc > 0 ? argv[0] : "macsim";
    std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    const auto slash = argv0.rfind('/');
    const std::string base = slash == std::string::npos ? argv0 : argv0.substr(slash + 1);
    if (const ToolEntry* tool = findTool(base)) {
        // The daemon runs tools by absolute path, so the root is whatever
        // precedes the tool's install path.
        if (argv0.starts_with("/") && argv0.ends_with(tool->installPath)) {
            std::string root = argv0.substr(0, argv0.size() - tool->installPath.size());
            return runTool(*tool, root.empty() ? "/" : root, std::move(args));
        }
        std::cerr << base << ": cannot tell the simulated Mac's root from '" << argv0
                  << "'; run it by its absolute path under the root\n";
        return 127;
    }
    return adminMain(std::move(args));
}
