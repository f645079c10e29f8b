// struct stat has st_mtimespec on macOS, not st_mtim.
// expect: poisoned
#include <sys/stat.h>

long modifiedSeconds(const struct stat &info)
{
#ifdef __APPLE__
    return info.st_mtim.tv_sec;
#else
    return 0;
#endif
}
