// <net/if_dl.h>: link-level socket addresses (AF_LINK), as getifaddrs(3)
// gives an interface's hardware address on macOS.
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man3/getifaddrs.3.html
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man3/link_addr.3.html
// Layout from the macOS <net/if_dl.h>.

#pragma once

#include <sys/socket.h>
#include <sys/types.h>

struct sockaddr_dl {
    u_char sdl_len;      // total length of the address
    u_char sdl_family;   // AF_LINK
    u_short sdl_index;   // interface index, when not 0
    u_char sdl_type;     // interface type (IFT_ETHER …)
    u_char sdl_nlen;     // length of the interface name, no terminating 0
    u_char sdl_alen;     // length of the link-level address
    u_char sdl_slen;     // length of the link-layer selector
    char sdl_data[12];   // the name, then the address; can be longer
};

#define LLADDR(s) ((caddr_t)((s)->sdl_data + (s)->sdl_nlen))
