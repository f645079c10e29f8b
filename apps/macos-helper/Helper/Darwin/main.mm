// The daemon on macOS: boot work, then the XPC listener on the Mach service,
// then the main run loop for the life of the process.

#import <Foundation/Foundation.h>

#include <unistd.h>

#include "DaemonContext.h"
#include "Darwin/DarwinHost.h"
#include "Startup.h"

#import "Darwin/HelperServiceDelegate.h"

namespace {

// Process-lifetime objects: the listener and its delegate are never released.
NSXPCListener* listener;
HelperServiceDelegate* delegate;

} // namespace

int main()
{
    @autoreleasepool {
        static orven::DarwinHost host;
        static orven::DaemonContext context(host);

        const auto error = orven::Startup::run(context, static_cast<std::uint32_t>(::getuid()), [] {
            listener = [[NSXPCListener alloc]
                initWithMachServiceName:@(orven::OrvenHelperConstants::machServiceName.data())];
            delegate = [[HelperServiceDelegate alloc] initWithContext:context];
            listener.delegate = delegate;
            [listener resume];
            return std::optional<std::string>();
        });
        if (error) return 1;
        [[NSRunLoop mainRunLoop] run];
    }
    return 0;
}
