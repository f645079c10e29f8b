// Included before every checked file (clang -include). Turns this machine's
// glibc into the closest it can be to the macOS C library's view of things;
// everything Apple-only is declared in include/, framework by framework.

#pragma once

// macOS shows POSIX and its own BSD extensions by default, never the GNU
// ones: ask glibc for POSIX 2008 + XSI + BSD, and nothing GNU-only, so a call
// such as pipe2 or accept4 stays undeclared as it is on a Mac.
#define _DEFAULT_SOURCE 1
#define _XOPEN_SOURCE 700

// clang defines `__nonnull` as the old spelling of _Nonnull for Apple
// targets; glibc's headers use the name for their own attribute macro.
#undef __nonnull
