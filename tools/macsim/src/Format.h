#pragma once
// printf-style formatting for the tools' printed lines, which are short and
// follow the real tools' printf formats.

#include <cstdio>
#include <string>

namespace orven::macsim {

template <class... Args>
std::string format(const char* fmt, Args... args)
{
    char buf[512];
    std::snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}

} // namespace orven::macsim
