#include "Getopt.h"

namespace orven::macsim {

GetoptResult getopt(const std::vector<std::string>& args, std::string_view optstring, bool permute) {
    GetoptResult r;
    std::size_t i = 0;
    while (i < args.size()) {
        const std::string& a = args[i];
        if (a == "--") {
            for (++i; i < args.size(); ++i)
                r.operands.push_back(args[i]);
            break;
        }
        if (a.size() < 2 || a[0] != '-') {
            if (!permute) {
                for (; i < args.size(); ++i)
                    r.operands.push_back(args[i]);
                break;
            }
            r.operands.push_back(a);
            ++i;
            continue;
        }
        for (std::size_t k = 1; k < a.size(); ++k) {
            const char c = a[k];
            const auto at = optstring.find(c);
            if (c == ':' || at == std::string_view::npos) {
                r.error = std::string("illegal option -- ") + c;
                return r;
            }
            const bool takesValue = at + 1 < optstring.size() && optstring[at + 1] == ':';
            if (!takesValue) {
                r.options.push_back({c, {}});
                continue;
            }
            if (k + 1 < a.size()) {
                r.options.push_back({c, a.substr(k + 1)});
            } else if (i + 1 < args.size()) {
                r.options.push_back({c, args[++i]});
            } else {
                r.error = std::string("option requires an argument -- ") + c;
                return r;
            }
            break;
        }
        ++i;
    }
    return r;
}

} // namespace orven::macsim
