// Linux only: macOS has no <sys/pidfd.h>.
#error "<sys/pidfd.h> does not exist on macOS"
