// SCNetworkConfiguration: network interfaces (and, as they are needed, the
// services and sets of the stored configuration).
// https://developer.apple.com/documentation/systemconfiguration/scnetworkconfiguration
// https://developer.apple.com/documentation/systemconfiguration/scnetworkinterfacecopyall()
// https://developer.apple.com/documentation/systemconfiguration/scnetworkinterfacegetbsdname(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkinterfacegetinterfacetype(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkinterfacegetlocalizeddisplayname(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkinterfaceforceconfigurationrefresh(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkinterfacecopymtu(_:_:_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkinterfacesetmtu(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkinterfacegetconfiguration(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkinterfacesetconfiguration(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkservicecopyall(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkservicecopy(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkservicegetname(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkservicegetserviceid(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkservicegetinterface(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkservicegetenabled(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkservicecopyprotocol(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkprotocolgetconfiguration(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworkprotocolsetconfiguration(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworksetcopycurrent(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworksetcopyservices(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworksetgetsetid(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworksetgetserviceorder(_:)
// https://developer.apple.com/documentation/systemconfiguration/scnetworksetsetserviceorder(_:_:)
// https://developer.apple.com/documentation/systemconfiguration/kscnetworkprotocoltypeipv4
// https://developer.apple.com/documentation/systemconfiguration/kscnetworkinterfacetypeieee80211

#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SCPreferences.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef const struct CF_BRIDGED_TYPE(id) __SCNetworkInterface *SCNetworkInterfaceRef;

CFTypeID SCNetworkInterfaceGetTypeID(void) API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

// Of SCNetworkInterfaceRef.
CFArrayRef SCNetworkInterfaceCopyAll(void) API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

CFStringRef _Nullable SCNetworkInterfaceGetBSDName(SCNetworkInterfaceRef interface)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

CFStringRef _Nullable SCNetworkInterfaceGetInterfaceType(SCNetworkInterfaceRef interface)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

CFStringRef _Nullable SCNetworkInterfaceGetLocalizedDisplayName(SCNetworkInterfaceRef interface)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

Boolean SCNetworkInterfaceForceConfigurationRefresh(SCNetworkInterfaceRef interface)
    API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios, tvos, watchos);

Boolean SCNetworkInterfaceCopyMTU(SCNetworkInterfaceRef interface, int *_Nullable mtu_cur, int *_Nullable mtu_min,
                                  int *_Nullable mtu_max) API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios, tvos, watchos);

Boolean SCNetworkInterfaceSetMTU(SCNetworkInterfaceRef interface, int mtu)
    API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios, tvos, watchos);

CFDictionaryRef _Nullable SCNetworkInterfaceGetConfiguration(SCNetworkInterfaceRef interface)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCNetworkInterfaceSetConfiguration(SCNetworkInterfaceRef interface, CFDictionaryRef _Nullable config)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

extern const CFStringRef kSCNetworkInterfaceTypeEthernet API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
extern const CFStringRef kSCNetworkInterfaceTypeIEEE80211 API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
extern const CFStringRef kSCNetworkInterfaceTypeIPSec API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios, tvos, watchos);
extern const CFStringRef kSCNetworkInterfaceTypePPP API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
extern const CFStringRef kSCNetworkInterfaceTypeBond API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios, tvos, watchos);
extern const CFStringRef kSCNetworkInterfaceTypeVLAN API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios, tvos, watchos);

// Services, protocols and sets of the stored configuration.
typedef const struct CF_BRIDGED_TYPE(id) __SCNetworkService *SCNetworkServiceRef;
typedef const struct CF_BRIDGED_TYPE(id) __SCNetworkProtocol *SCNetworkProtocolRef;
typedef const struct CF_BRIDGED_TYPE(id) __SCNetworkSet *SCNetworkSetRef;

extern const CFStringRef kSCNetworkProtocolTypeDNS API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
extern const CFStringRef kSCNetworkProtocolTypeIPv4 API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
extern const CFStringRef kSCNetworkProtocolTypeIPv6 API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
extern const CFStringRef kSCNetworkProtocolTypeProxies API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

CFArrayRef _Nullable SCNetworkServiceCopyAll(SCPreferencesRef prefs)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
SCNetworkServiceRef _Nullable SCNetworkServiceCopy(SCPreferencesRef prefs, CFStringRef serviceID)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
CFStringRef _Nullable SCNetworkServiceGetName(SCNetworkServiceRef service)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
CFStringRef SCNetworkServiceGetServiceID(SCNetworkServiceRef service)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
SCNetworkInterfaceRef _Nullable SCNetworkServiceGetInterface(SCNetworkServiceRef service)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCNetworkServiceGetEnabled(SCNetworkServiceRef service)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
SCNetworkProtocolRef _Nullable SCNetworkServiceCopyProtocol(SCNetworkServiceRef service, CFStringRef protocolType)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

CFDictionaryRef _Nullable SCNetworkProtocolGetConfiguration(SCNetworkProtocolRef protocol)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCNetworkProtocolSetConfiguration(SCNetworkProtocolRef protocol, CFDictionaryRef _Nullable config)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

SCNetworkSetRef _Nullable SCNetworkSetCopyCurrent(SCPreferencesRef prefs)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
CFArrayRef _Nullable SCNetworkSetCopyServices(SCNetworkSetRef set)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
CFStringRef _Nullable SCNetworkSetGetSetID(SCNetworkSetRef set)
    API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios, tvos, watchos);
CFArrayRef _Nullable SCNetworkSetGetServiceOrder(SCNetworkSetRef set)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);
Boolean SCNetworkSetSetServiceOrder(SCNetworkSetRef set, CFArrayRef newOrder)
    API_AVAILABLE(macos(10.4)) API_UNAVAILABLE(ios, tvos, watchos);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
