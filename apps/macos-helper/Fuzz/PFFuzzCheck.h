#pragma once
// Shared by the pf fuzz targets: a property that does not hold is a crash,
// so libFuzzer keeps the input that broke it.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace orven::fuzz {

inline void check(bool holds, const char* property)
{
    if (holds) return;
    std::fprintf(stderr, "property violated: %s\n", property);
    std::abort();
}

inline std::string_view asText(const std::uint8_t* data, std::size_t size)
{
    return {reinterpret_cast<const char*>(data), size};
}

} // namespace orven::fuzz
