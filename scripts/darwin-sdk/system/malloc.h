// Linux only: macOS has no <malloc.h>.
#error "<malloc.h> does not exist on macOS"
