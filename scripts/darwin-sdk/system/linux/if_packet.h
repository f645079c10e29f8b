// Linux only: macOS has no <linux/if_packet.h>.
#error "<linux/if_packet.h> does not exist on macOS"
