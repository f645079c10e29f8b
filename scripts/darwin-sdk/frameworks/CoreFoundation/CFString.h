// CFString: only what the daemon uses.
// https://developer.apple.com/documentation/corefoundation/cfstring
// https://developer.apple.com/documentation/corefoundation/1543419-cfstringcreatewithbytes
// https://developer.apple.com/documentation/corefoundation/1542721-cfstringcreatewithcstring
// https://developer.apple.com/documentation/corefoundation/1542721-cfstringgetcstring
// https://developer.apple.com/documentation/corefoundation/1542133-cfstringgettypeid
// https://developer.apple.com/documentation/corefoundation/cfstringbuiltinencodings
// The creation functions are not nullability-annotated in Apple's header
// (imported into Swift as CFString!): they return NULL for bytes that do not
// decode, so their results must be checked.

#pragma once

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED

typedef UInt32 CFStringEncoding;
typedef CF_ENUM(CFStringEncoding, CFStringBuiltInEncodings){
    kCFStringEncodingMacRoman = 0,
    kCFStringEncodingWindowsLatin1 = 0x0500,
    kCFStringEncodingISOLatin1 = 0x0201,
    kCFStringEncodingNextStepLatin = 0x0B01,
    kCFStringEncodingASCII = 0x0600,
    kCFStringEncodingUnicode = 0x0100,
    kCFStringEncodingUTF8 = 0x08000100,
    kCFStringEncodingNonLossyASCII = 0x0BFF,
    kCFStringEncodingUTF16 = 0x0100,
    kCFStringEncodingUTF16BE = 0x10000100,
    kCFStringEncodingUTF16LE = 0x14000100,
    kCFStringEncodingUTF32 = 0x0c000100,
    kCFStringEncodingUTF32BE = 0x18000100,
    kCFStringEncodingUTF32LE = 0x1c000100,
};
#define kCFStringEncodingInvalidId (0xffffffffU)

CF_EXPORT CFTypeID CFStringGetTypeID(void);
CF_EXPORT CFStringRef CFStringCreateWithBytes(CFAllocatorRef alloc, const UInt8 *bytes, CFIndex numBytes,
                                              CFStringEncoding encoding, Boolean isExternalRepresentation);
CF_EXPORT CFStringRef CFStringCreateWithCString(CFAllocatorRef alloc, const char *cStr, CFStringEncoding encoding);
CF_EXPORT CFIndex CFStringGetLength(CFStringRef theString);
CF_EXPORT Boolean CFStringGetCString(CFStringRef theString, char *buffer, CFIndex bufferSize,
                                     CFStringEncoding encoding);
CF_EXPORT const char *CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding);
CF_EXPORT CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
CF_EXPORT CFComparisonResult CFStringCompare(CFStringRef theString1, CFStringRef theString2,
                                             CFOptionFlags compareOptions);

// A compile-time constant string, as Apple's CFSTR.
#define CFSTR(cStr) ((CFStringRef)__builtin___CFStringMakeConstantString("" cStr ""))

CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
