// NSProcessInfo: GNUstep's, plus the operating system version Apple's has.
// https://developer.apple.com/documentation/foundation/nsoperatingsystemversion
// https://developer.apple.com/documentation/foundation/processinfo/operatingsystemversion
// https://developer.apple.com/documentation/foundation/processinfo/isoperatingsystematleast(_:)

#pragma once

#include_next <Foundation/NSProcessInfo.h>
#include <os/availability.h>

typedef struct {
    NSInteger majorVersion;
    NSInteger minorVersion;
    NSInteger patchVersion;
} NSOperatingSystemVersion;

@interface NSProcessInfo (OperatingSystemVersion)
@property(readonly) NSOperatingSystemVersion operatingSystemVersion API_AVAILABLE(macos(10.10));
- (BOOL)isOperatingSystemAtLeastVersion:(NSOperatingSystemVersion)version API_AVAILABLE(macos(10.10));
@end
