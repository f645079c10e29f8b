// PowerlineProbe::records on any buffer and length: never reads outside the
// buffer, and every frame it returns lies inside the first `length` bytes.

#include <algorithm>
#include <cstring>
#include <vector>

#include "PFFuzzCheck.h"
#include "PowerlineProbe.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orven;
    if (size < 2) return 0;
    // The first two bytes choose how much of the buffer counts as read.
    std::uint16_t claimed;
    std::memcpy(&claimed, data, sizeof claimed);
    const std::vector<std::uint8_t> buffer(data + 2, data + size);
    const std::size_t length = claimed % (buffer.size() + 8);
    const auto frames = PowerlineProbe::records(buffer, length);
    std::size_t total = 0;
    // Records never overlap, so their frames fit in what was read.
    for (const auto& frame : frames) total += frame.size();
    fuzz::check(total <= std::min(length, buffer.size()), "frames lie inside what was read");
    return 0;
}
