// The log tool's output through the IKEv2 line filter, and the server
// address check that guards the filter word. Input: the first line is the
// server address, the rest the tool's output.
//
// Beyond not crashing: every kept line is a whole line of the input that
// holds one of the telling words or the address, in input order; the result
// never exceeds the cap in characters and stays valid UTF-8 when the input was.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "HelperService.h"
#include "Text.h"

using namespace orven;

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

bool telling(std::string_view line, std::string_view address)
{
    for (const std::string_view word : {"NEIKEv2ProtocolErrorDomain", " state ", "Completed connection", "Tunnel Status"})
        if (text::contains(line, word)) return true;
    return text::contains(line, address);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto newline = input.find('\n');
    const std::string_view address = input.substr(0, newline);
    const std::string_view output = newline == std::string_view::npos ? std::string_view() : input.substr(newline + 1);

    const bool valid = HelperService::isValidServerAddress(address);
    if (valid) {
        require(!address.empty() && text::scalarCount(address) < 256);
        require(address.find(' ') == std::string_view::npos && address.find('/') == std::string_view::npos);
    }
    const std::string filtered = HelperService::filterIKEv2DiagnosticLines(output, address);
    if (text::isValidUTF8(output)) {
        require(text::isValidUTF8(filtered));
        require(text::scalarCount(filtered) <= 262144);
    }
    if (!filtered.empty() && filtered.size() <= 262144) {
        // Uncut: the kept lines are the telling lines of the input, in order.
        std::size_t from = 0;
        for (const auto& line : text::splitAtLineFeed(filtered, true)) {
            require(!line.empty() && telling(line, address));
            const auto at = output.find(line, from);
            require(at != std::string_view::npos);
            from = at + line.size();
        }
    }
    return 0;
}
