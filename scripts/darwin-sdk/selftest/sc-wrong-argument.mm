// SCDynamicStoreCreate takes a CFStringRef name, not a C string.
// expect: no matching function for call to 'SCDynamicStoreCreate'
#import <SystemConfiguration/SystemConfiguration.h>

SCDynamicStoreRef _Nullable openStore()
{
    return SCDynamicStoreCreate(kCFAllocatorDefault, "test.orven.app.helper", nullptr, nullptr);
}
