// CFData and CFError.
// https://developer.apple.com/documentation/corefoundation/cfdata
// https://developer.apple.com/documentation/corefoundation/1542359-cfdatacreate
// https://developer.apple.com/documentation/corefoundation/cfdatacreatewithbytesnocopy(_:_:_:_:)
// https://developer.apple.com/documentation/corefoundation/cferror
// https://developer.apple.com/documentation/corefoundation/1494656-cferrorgetcode

#pragma once

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef const struct CF_BRIDGED_TYPE(NSData) __CFData *CFDataRef;
typedef struct CF_BRIDGED_MUTABLE_TYPE(NSMutableData) __CFData *CFMutableDataRef;
CF_EXPORT CFTypeID CFDataGetTypeID(void);
CF_EXPORT CFDataRef CFDataCreate(CFAllocatorRef _Nullable allocator, const UInt8 *_Nullable bytes, CFIndex length);
CF_EXPORT CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef _Nullable allocator, const UInt8 *_Nullable bytes,
                                                CFIndex length, CFAllocatorRef _Nullable bytesDeallocator);
CF_EXPORT CFIndex CFDataGetLength(CFDataRef theData);
CF_EXPORT const UInt8 *_Nullable CFDataGetBytePtr(CFDataRef theData);

typedef struct CF_BRIDGED_TYPE(NSError) __CFError *CFErrorRef;
CF_EXPORT CFTypeID CFErrorGetTypeID(void);
CF_EXPORT CFIndex CFErrorGetCode(CFErrorRef err);
CF_EXPORT CFStringRef CFErrorCopyDescription(CFErrorRef err);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
