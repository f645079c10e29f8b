// <os/log.h>: the unified logging system.
// https://developer.apple.com/documentation/os/os_log_create(_:_:)
// https://developer.apple.com/documentation/os/os_log_t
// https://developer.apple.com/documentation/os/os_log_type_t
// https://developer.apple.com/documentation/os/os_log_with_type
// https://developer.apple.com/documentation/os/os_log_type_enabled
// https://developer.apple.com/documentation/os/logging/message-argument-formatters
// The logging macros check their format as os_log formats ("%{public}s").

#pragma once

#include <os/availability.h>
#include <os/object.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

OS_OBJECT_DECL(os_log);

typedef enum : uint8_t {
    OS_LOG_TYPE_DEFAULT = 0x00,
    OS_LOG_TYPE_INFO = 0x01,
    OS_LOG_TYPE_DEBUG = 0x02,
    OS_LOG_TYPE_ERROR = 0x10,
    OS_LOG_TYPE_FAULT = 0x11,
} os_log_type_t;

extern struct os_log_s _os_log_default;
#define OS_LOG_DEFAULT OS_OBJECT_GLOBAL_OBJECT(os_log_t, _os_log_default)
#define OS_LOG_DISABLED ((os_log_t _Nonnull)nullptr)

os_log_t _Nonnull os_log_create(const char *_Nonnull subsystem, const char *_Nonnull category) OS_OBJECT_RETURNS_RETAINED
    __attribute__((warn_unused_result)) API_AVAILABLE(macos(10.12));

bool os_log_type_enabled(os_log_t _Nonnull oslog, os_log_type_t type) API_AVAILABLE(macos(10.12));

// What the macros below call; its arguments are built by the compiler.
void _os_log_impl(void *_Nonnull dso, os_log_t _Nonnull log, os_log_type_t type, const char *_Nonnull format,
                  uint8_t *_Nonnull buf, uint32_t size) API_AVAILABLE(macos(10.12));
extern struct mach_header __dso_handle;

#ifdef __cplusplus
}
#endif

#define os_log_with_type(log, type, format, ...)                                                                    \
    __extension__({                                                                                                 \
        os_log_t _log_tmp = (log);                                                                                  \
        os_log_type_t _type_tmp = (type);                                                                           \
        if (os_log_type_enabled(_log_tmp, _type_tmp)) {                                                             \
            __attribute__((section("__TEXT,__oslogstring,cstring_literals"))) static const char _os_fmt[] = format;  \
            uint8_t _os_buf[__builtin_os_log_format_buffer_size(format, ##__VA_ARGS__)];                            \
            _os_log_impl((void *)&__dso_handle, _log_tmp, _type_tmp, _os_fmt,                                       \
                         (uint8_t *)__builtin_os_log_format(_os_buf, format, ##__VA_ARGS__),                        \
                         (uint32_t)sizeof(_os_buf));                                                                \
        }                                                                                                           \
    })
#define os_log(log, format, ...) os_log_with_type(log, OS_LOG_TYPE_DEFAULT, format, ##__VA_ARGS__)
#define os_log_info(log, format, ...) os_log_with_type(log, OS_LOG_TYPE_INFO, format, ##__VA_ARGS__)
#define os_log_debug(log, format, ...) os_log_with_type(log, OS_LOG_TYPE_DEBUG, format, ##__VA_ARGS__)
#define os_log_error(log, format, ...) os_log_with_type(log, OS_LOG_TYPE_ERROR, format, ##__VA_ARGS__)
#define os_log_fault(log, format, ...) os_log_with_type(log, OS_LOG_TYPE_FAULT, format, ##__VA_ARGS__)
