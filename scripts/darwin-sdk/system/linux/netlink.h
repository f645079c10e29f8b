// Linux only: macOS has no <linux/netlink.h>.
#error "<linux/netlink.h> does not exist on macOS"
