// Foundation: GNUstep's headers, corrected where they differ from Apple's,
// plus what GNUstep lacks (Core Foundation, the NSXPC classes as Apple has
// them: see NSXPCConnection.h here, which shadows GNUstep's) and what
// GNUstep's classes lack (NSProcessInfo.h adds the system version).

#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <os/availability.h>

#include_next <Foundation/Foundation.h>

// GNUstep leaves NS_UNAVAILABLE empty; Apple's makes the method unavailable
// (and so exempt from "method definition not found" for a hidden -init).
// https://developer.apple.com/documentation/swift/marking-api-availability-in-objective-c
#undef NS_UNAVAILABLE
#define NS_UNAVAILABLE __attribute__((unavailable))

#import <Foundation/NSProcessInfo.h>
#import <Foundation/NSXPCConnection.h>
