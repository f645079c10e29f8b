// Linux only: macOS has no <sys/eventfd.h>.
#error "<sys/eventfd.h> does not exist on macOS"
