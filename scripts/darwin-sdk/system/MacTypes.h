// <MacTypes.h>: the basic types Core Foundation and the Security framework use.
// https://developer.apple.com/documentation/kernel/osstatus
// https://developer.apple.com/documentation/kernel/boolean

#pragma once

#include <stdint.h>

typedef unsigned char Boolean;
typedef uint8_t UInt8;
typedef int8_t SInt8;
typedef uint16_t UInt16;
typedef int16_t SInt16;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef uint64_t UInt64;
typedef int64_t SInt64;
typedef SInt32 OSStatus;
typedef UInt32 FourCharCode;
typedef FourCharCode OSType;
