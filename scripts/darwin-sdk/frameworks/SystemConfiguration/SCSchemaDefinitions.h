// The keys and values of the configuration schema used here.
// https://developer.apple.com/documentation/systemconfiguration/scschemadefinitions
// https://developer.apple.com/documentation/systemconfiguration/kscpropnetipv4configmethod
// https://developer.apple.com/documentation/systemconfiguration/kscpropnetipv6configmethod
// https://developer.apple.com/documentation/systemconfiguration/kscdynamicstoredomainstate
// Each is a CFStringRef constant, as in Apple's header.

#pragma once

#include <CoreFoundation/CoreFoundation.h>

CF_EXTERN_C_BEGIN
CF_ASSUME_NONNULL_BEGIN

#define ORVEN_SDK_SC_KEY(name, since) extern const CFStringRef name API_AVAILABLE(macos(since));

ORVEN_SDK_SC_KEY(kSCDynamicStoreDomainState, 10.1)
ORVEN_SDK_SC_KEY(kSCDynamicStoreDomainSetup, 10.1)
ORVEN_SDK_SC_KEY(kSCCompNetwork, 10.1)
ORVEN_SDK_SC_KEY(kSCCompService, 10.1)
ORVEN_SDK_SC_KEY(kSCCompInterface, 10.1)
ORVEN_SDK_SC_KEY(kSCCompGlobal, 10.1)
ORVEN_SDK_SC_KEY(kSCCompAnyRegex, 10.1)
ORVEN_SDK_SC_KEY(kSCEntNetIPv4, 10.1)
ORVEN_SDK_SC_KEY(kSCEntNetIPv6, 10.1)
ORVEN_SDK_SC_KEY(kSCEntNetInterface, 10.1)
ORVEN_SDK_SC_KEY(kSCEntNetDNS, 10.1)
ORVEN_SDK_SC_KEY(kSCPrefNetworkServices, 10.1)
ORVEN_SDK_SC_KEY(kSCPrefSets, 10.1)
ORVEN_SDK_SC_KEY(kSCPrefCurrentSet, 10.1)
ORVEN_SDK_SC_KEY(kSCPropUserDefinedName, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetServiceOrder, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetInterfaceDeviceName, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetInterfaceType, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetIPv4ConfigMethod, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetIPv4Addresses, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetIPv4SubnetMasks, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetIPv4Router, 10.1)
ORVEN_SDK_SC_KEY(kSCValNetIPv4ConfigMethodDHCP, 10.1)
ORVEN_SDK_SC_KEY(kSCValNetIPv4ConfigMethodManual, 10.1)
ORVEN_SDK_SC_KEY(kSCValNetIPv4ConfigMethodBOOTP, 10.1)
ORVEN_SDK_SC_KEY(kSCValNetIPv4ConfigMethodINFORM, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetIPv6ConfigMethod, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetIPv6Addresses, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetIPv6PrefixLength, 10.1)
ORVEN_SDK_SC_KEY(kSCPropNetIPv6Router, 10.1)
ORVEN_SDK_SC_KEY(kSCValNetIPv6ConfigMethodAutomatic, 10.3)
ORVEN_SDK_SC_KEY(kSCValNetIPv6ConfigMethodManual, 10.3)
ORVEN_SDK_SC_KEY(kSCPropNetDNSServerAddresses, 10.1)

#undef ORVEN_SDK_SC_KEY

CF_ASSUME_NONNULL_END
CF_EXTERN_C_END
