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

#pragma once

#include <CoreFoundation/CoreFoundation.h>

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

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
