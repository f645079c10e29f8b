// Linux only: macOS has no <sys/signalfd.h>.
#error "<sys/signalfd.h> does not exist on macOS"
