// Apple's C++ library before LLVM 20 has no floating-point from_chars.
// expect: no matching function for call to 'from_chars'
#include <charconv>

double parse(const char *first, const char *last)
{
    double value = 0;
    std::from_chars(first, last, value, std::chars_format::fixed);
    return value;
}
