// <sys/stat.h> as macOS has it: the times of struct stat are st_atimespec,
// st_mtimespec and st_ctimespec (struct timespec), not glibc's st_atim family.
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man2/stat.2.html

#pragma once

#include_next <sys/stat.h>

// Same type and meaning, other name: the macOS spelling reads glibc's field.
#define st_atimespec st_atim
#define st_mtimespec st_mtim
#define st_ctimespec st_ctim
// The Linux spelling does not exist on macOS. (st_atime and friends, defined
// by glibc above, stay usable: both systems have them.)
#pragma GCC poison st_atim st_mtim st_ctim
