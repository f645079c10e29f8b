#include "Reply.h"

#include <cstdio>
#include <cstdlib>

namespace orven {

void reportReplyMisuse(const Logger* log, const char* what)
{
#ifndef NDEBUG
    (void)log;
    std::fprintf(stderr, "fatal: %s\n", what);
    std::abort();
#else
    if (log) log->error("%{public}s", what);
    else std::fprintf(stderr, "error: %s\n", what);
#endif
}

} // namespace orven
