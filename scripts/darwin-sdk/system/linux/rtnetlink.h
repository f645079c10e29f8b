// Linux only: macOS has no <linux/rtnetlink.h>.
#error "<linux/rtnetlink.h> does not exist on macOS"
