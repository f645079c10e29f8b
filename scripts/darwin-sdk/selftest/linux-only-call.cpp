// glibc's closefrom file action does not exist on macOS.
// expect: is unavailable
#include <spawn.h>
#include <unistd.h>

int closeOthers(posix_spawn_file_actions_t *actions)
{
#ifdef __APPLE__
    return posix_spawn_file_actions_addclosefrom_np(actions, STDERR_FILENO + 1);
#else
    return 0;
#endif
}
