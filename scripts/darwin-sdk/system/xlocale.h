// <xlocale.h>: the per-locale variants of the C library calls, which LLVM's
// C++ library uses on Apple platforms.
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man3/xlocale.3.html
// glibc already declares locale_t, newlocale, uselocale and friends; the _l
// functions below are those Apple declares in <xlocale/_stdlib.h>,
// <xlocale/_stdio.h> and <xlocale/_ctype.h>, with the macOS signatures.

#pragma once

#include <locale.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <ctype.h>

// glibc's <ctype.h> makes these macros that reach into its own locale
// structure; on macOS they are functions taking any locale_t, NULL included.
#undef isalnum_l
#undef isalpha_l
#undef isblank_l
#undef iscntrl_l
#undef isdigit_l
#undef isgraph_l
#undef islower_l
#undef isprint_l
#undef ispunct_l
#undef isspace_l
#undef isupper_l
#undef isxdigit_l
#undef tolower_l
#undef toupper_l

#ifdef __cplusplus
extern "C" {
#endif

double strtod_l(const char *, char **, locale_t);
float strtof_l(const char *, char **, locale_t);
long double strtold_l(const char *, char **, locale_t);
long long strtoll_l(const char *, char **, int, locale_t);
unsigned long long strtoull_l(const char *, char **, int, locale_t);
long strtol_l(const char *, char **, int, locale_t);
unsigned long strtoul_l(const char *, char **, int, locale_t);
int snprintf_l(char *, size_t, locale_t, const char *, ...) __attribute__((__format__(__printf__, 4, 5)));
int asprintf_l(char **, locale_t, const char *, ...) __attribute__((__format__(__printf__, 3, 4)));
int sscanf_l(const char *, locale_t, const char *, ...) __attribute__((__format__(__scanf__, 3, 4)));
int vsnprintf_l(char *, size_t, locale_t, const char *, va_list) __attribute__((__format__(__printf__, 4, 0)));
int vasprintf_l(char **, locale_t, const char *, va_list) __attribute__((__format__(__printf__, 3, 0)));
size_t __mb_cur_max_l(locale_t);
#define MB_CUR_MAX_L(x) (__mb_cur_max_l(x))

#ifdef __cplusplus
}
#endif
