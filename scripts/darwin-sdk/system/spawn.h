// <spawn.h>: Apple's posix_spawn flags and extensions.
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man3/posix_spawnattr_setflags.3.html
// https://developer.apple.com/library/archive/documentation/System/Conceptual/ManPages_iPhoneOS/man2/posix_spawn.2.html
// Values from the macOS <spawn.h>.

#pragma once

#include_next <spawn.h>

#define POSIX_SPAWN_SETEXEC 0x0040
#define POSIX_SPAWN_START_SUSPENDED 0x0080
#define POSIX_SPAWN_CLOEXEC_DEFAULT 0x4000

extern "C" {
// macOS 10.7: the descriptor stays open in the child despite POSIX_SPAWN_CLOEXEC_DEFAULT.
int posix_spawn_file_actions_addinherit_np(posix_spawn_file_actions_t *, int);
// macOS 10.15.
int posix_spawn_file_actions_addchdir_np(posix_spawn_file_actions_t *__restrict, const char *__restrict) __THROW;

// glibc-only extensions.
int posix_spawn_file_actions_addclosefrom_np(posix_spawn_file_actions_t *, int) __THROW
    __attribute__((unavailable("glibc only: on macOS use POSIX_SPAWN_CLOEXEC_DEFAULT")));
int posix_spawn_file_actions_addtcsetpgrp_np(posix_spawn_file_actions_t *, int) __THROW
    __attribute__((unavailable("glibc only")));
}
