// Linux only: macOS has no <sys/sendfile.h>.
#error "<sys/sendfile.h> does not exist on macOS"
