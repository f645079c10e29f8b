// Linux only: macOS has no <netpacket/packet.h>.
#error "<netpacket/packet.h> does not exist on macOS"
