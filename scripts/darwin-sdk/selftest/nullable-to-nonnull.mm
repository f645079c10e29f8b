// An interface may have no BSD name: the name is nullable, the session name
// is not.
// expect: nullable pointer .* to non-nullable pointer
#import <SystemConfiguration/SystemConfiguration.h>

SCDynamicStoreRef _Nullable openStoreNamedAfter(SCNetworkInterfaceRef _Nonnull interface)
{
    return SCDynamicStoreCreate(kCFAllocatorDefault, SCNetworkInterfaceGetBSDName(interface), nullptr, nullptr);
}
