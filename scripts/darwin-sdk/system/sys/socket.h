// <sys/socket.h>: macOS has no SOCK_CLOEXEC, SOCK_NONBLOCK or MSG_NOSIGNAL
// (set FD_CLOEXEC with fcntl, and SO_NOSIGPIPE on the socket), and has
// LOCAL_PEERCRED and getpeereid for the peer's credentials.
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man2/socket.2.html
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man2/setsockopt.2.html
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man3/getpeereid.3.html
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man4/netintro.4.html
// Not modelled: macOS's struct sockaddr starts with sa_len (and sockaddr_in
// with sin_len); glibc's structures, used here, have no such field.

#pragma once

#include_next <sys/socket.h>

#undef SOCK_CLOEXEC
#define SOCK_CLOEXEC SOCK_CLOEXEC_does_not_exist_on_macOS
#undef SOCK_NONBLOCK
#define SOCK_NONBLOCK SOCK_NONBLOCK_does_not_exist_on_macOS
#undef MSG_NOSIGNAL
#define MSG_NOSIGNAL MSG_NOSIGNAL_does_not_exist_on_macOS
#undef SO_PEERCRED
#define SO_PEERCRED SO_PEERCRED_does_not_exist_on_macOS

#undef AF_PACKET
#define AF_PACKET AF_PACKET_does_not_exist_on_macOS
#undef PF_PACKET
#define PF_PACKET PF_PACKET_does_not_exist_on_macOS
#undef AF_NETLINK
#define AF_NETLINK AF_NETLINK_does_not_exist_on_macOS
#undef PF_NETLINK
#define PF_NETLINK PF_NETLINK_does_not_exist_on_macOS

// Link-level addresses (struct sockaddr_dl, <net/if_dl.h>), as getifaddrs
// reports them on macOS.
#define AF_LINK 18
#define PF_LINK AF_LINK

#define SO_NOSIGPIPE 0x1022
#define LOCAL_PEERCRED 0x001  // level SOL_LOCAL (0): struct xucred

#ifdef __cplusplus
extern "C"
#endif
int getpeereid(int, uid_t *, gid_t *);
