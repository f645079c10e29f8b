// <net/bpf.h>: the Berkeley Packet Filter device, as macOS has it.
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man4/bpf.4.html
// Structures, ioctl numbers and the BSD ioctl encoding from the macOS
// <net/bpf.h> and <sys/ioccom.h>. The ioctl numbers differ from Linux's:
// they are encoded here, not with glibc's _IOR/_IOW.

#pragma once

#include <net/if.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <sys/types.h>

typedef int32_t bpf_int32;
typedef uint32_t bpf_u_int32;

#define ORVEN_SDK_IOCPARM_MASK 0x1fff
#define ORVEN_SDK_IOC_VOID 0x20000000UL
#define ORVEN_SDK_IOC_OUT 0x40000000UL
#define ORVEN_SDK_IOC_IN 0x80000000UL
#define ORVEN_SDK_IOC_INOUT (ORVEN_SDK_IOC_IN | ORVEN_SDK_IOC_OUT)
#define ORVEN_SDK_IOC(inout, group, num, len)                                                                       \
    ((unsigned long)((inout) | (((len) & ORVEN_SDK_IOCPARM_MASK) << 16) | ((group) << 8) | (num)))
#define ORVEN_SDK_IO(g, n) ORVEN_SDK_IOC(ORVEN_SDK_IOC_VOID, (g), (n), 0)
#define ORVEN_SDK_IOR(g, n, t) ORVEN_SDK_IOC(ORVEN_SDK_IOC_OUT, (g), (n), sizeof(t))
#define ORVEN_SDK_IOW(g, n, t) ORVEN_SDK_IOC(ORVEN_SDK_IOC_IN, (g), (n), sizeof(t))
#define ORVEN_SDK_IOWR(g, n, t) ORVEN_SDK_IOC(ORVEN_SDK_IOC_INOUT, (g), (n), sizeof(t))

#define BPF_ALIGNMENT sizeof(int32_t)
#define BPF_WORDALIGN(x) (((x) + (BPF_ALIGNMENT - 1)) & ~(BPF_ALIGNMENT - 1))

struct bpf_insn {
    u_short code;
    u_char jt;
    u_char jf;
    bpf_u_int32 k;
};

struct bpf_program {
    u_int bf_len;
    struct bpf_insn *bf_insns;
};

struct bpf_stat {
    u_int bs_recv;
    u_int bs_drop;
};

struct bpf_version {
    u_short bv_major;
    u_short bv_minor;
};

// User space reads 32-bit time stamps on 64-bit macOS.
struct timeval32 {
    int32_t tv_sec;
    int32_t tv_usec;
};

struct bpf_hdr {
    struct timeval32 bh_tstamp;
    bpf_u_int32 bh_caplen;
    bpf_u_int32 bh_datalen;
    u_short bh_hdrlen;
};

#define BIOCGBLEN ORVEN_SDK_IOR('B', 102, u_int)
#define BIOCSBLEN ORVEN_SDK_IOWR('B', 102, u_int)
#define BIOCSETF ORVEN_SDK_IOW('B', 103, struct bpf_program)
#define BIOCFLUSH ORVEN_SDK_IO('B', 104)
#define BIOCPROMISC ORVEN_SDK_IO('B', 105)
#define BIOCGDLT ORVEN_SDK_IOR('B', 106, u_int)
// struct ifreq is 32 bytes on macOS (glibc's, seen here, is 40).
#define BIOCGETIF ORVEN_SDK_IOC(ORVEN_SDK_IOC_OUT, 'B', 107, 32)
#define BIOCSETIF ORVEN_SDK_IOC(ORVEN_SDK_IOC_IN, 'B', 108, 32)
#define BIOCSRTIMEOUT ORVEN_SDK_IOW('B', 109, struct timeval)
#define BIOCGRTIMEOUT ORVEN_SDK_IOR('B', 110, struct timeval)
#define BIOCGSTATS ORVEN_SDK_IOR('B', 111, struct bpf_stat)
#define BIOCIMMEDIATE ORVEN_SDK_IOW('B', 112, u_int)
#define BIOCVERSION ORVEN_SDK_IOR('B', 113, struct bpf_version)
#define BIOCGHDRCMPLT ORVEN_SDK_IOR('B', 116, u_int)
#define BIOCSHDRCMPLT ORVEN_SDK_IOW('B', 117, u_int)
#define BIOCGSEESENT ORVEN_SDK_IOR('B', 118, u_int)
#define BIOCSSEESENT ORVEN_SDK_IOW('B', 119, u_int)
#define BIOCSDLT ORVEN_SDK_IOW('B', 120, u_int)
#define BIOCSETFNR ORVEN_SDK_IOW('B', 126, struct bpf_program)

#define DLT_NULL 0
#define DLT_EN10MB 1

// Instruction classes and fields.
#define BPF_CLASS(code) ((code) & 0x07)
#define BPF_LD 0x00
#define BPF_LDX 0x01
#define BPF_ST 0x02
#define BPF_STX 0x03
#define BPF_ALU 0x04
#define BPF_JMP 0x05
#define BPF_RET 0x06
#define BPF_MISC 0x07
#define BPF_W 0x00
#define BPF_H 0x08
#define BPF_B 0x10
#define BPF_IMM 0x00
#define BPF_ABS 0x20
#define BPF_IND 0x40
#define BPF_MEM 0x60
#define BPF_LEN 0x80
#define BPF_MSH 0xa0
#define BPF_ADD 0x00
#define BPF_SUB 0x10
#define BPF_MUL 0x20
#define BPF_DIV 0x30
#define BPF_OR 0x40
#define BPF_AND 0x50
#define BPF_LSH 0x60
#define BPF_RSH 0x70
#define BPF_NEG 0x80
#define BPF_JA 0x00
#define BPF_JEQ 0x10
#define BPF_JGT 0x20
#define BPF_JGE 0x30
#define BPF_JSET 0x40
#define BPF_K 0x00
#define BPF_X 0x08
#define BPF_A 0x10
#define BPF_TAX 0x00
#define BPF_TXA 0x80
#define BPF_STMT(code, k) {(u_short)(code), 0, 0, k}
#define BPF_JUMP(code, k, jt, jf) {(u_short)(code), jt, jf, k}
