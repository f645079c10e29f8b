// No epoll on macOS.
// expect: does not exist on macOS
#ifdef __APPLE__
#include <sys/epoll.h>
#endif
