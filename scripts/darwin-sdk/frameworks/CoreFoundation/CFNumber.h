// CFNumber and CFBoolean.
// https://developer.apple.com/documentation/corefoundation/cfnumber
// https://developer.apple.com/documentation/corefoundation/1542352-cfnumberisfloattype
// https://developer.apple.com/documentation/corefoundation/1543196-cfnumbergetvalue
// https://developer.apple.com/documentation/corefoundation/cfboolean
// https://developer.apple.com/documentation/corefoundation/1541733-cfbooleangettypeid

#pragma once

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef const struct CF_BRIDGED_TYPE(NSNumber) __CFBoolean *CFBooleanRef;
CF_EXPORT const CFBooleanRef kCFBooleanTrue;
CF_EXPORT const CFBooleanRef kCFBooleanFalse;
CF_EXPORT CFTypeID CFBooleanGetTypeID(void);
CF_EXPORT Boolean CFBooleanGetValue(CFBooleanRef boolean);

typedef CF_ENUM(CFIndex, CFNumberType){
    kCFNumberSInt8Type = 1,  kCFNumberSInt16Type = 2,     kCFNumberSInt32Type = 3,  kCFNumberSInt64Type = 4,
    kCFNumberFloat32Type = 5, kCFNumberFloat64Type = 6,   kCFNumberCharType = 7,    kCFNumberShortType = 8,
    kCFNumberIntType = 9,    kCFNumberLongType = 10,      kCFNumberLongLongType = 11, kCFNumberFloatType = 12,
    kCFNumberDoubleType = 13, kCFNumberCFIndexType = 14,  kCFNumberNSIntegerType = 15, kCFNumberCGFloatType = 16,
    kCFNumberMaxType = 16,
};

typedef const struct CF_BRIDGED_TYPE(NSNumber) __CFNumber *CFNumberRef;
CF_EXPORT CFTypeID CFNumberGetTypeID(void);
CF_EXPORT CFNumberRef _Nullable CFNumberCreate(CFAllocatorRef _Nullable allocator, CFNumberType theType,
                                               const void *valuePtr);
CF_EXPORT CFNumberType CFNumberGetType(CFNumberRef number);
CF_EXPORT Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void *valuePtr);
CF_EXPORT Boolean CFNumberIsFloatType(CFNumberRef number);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
