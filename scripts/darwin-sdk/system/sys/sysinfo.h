// Linux only: macOS has no <sys/sysinfo.h>.
#error "<sys/sysinfo.h> does not exist on macOS"
