// The daemon on macOS: boot work, then the XPC listener on the Mach service,
// then the main queue for the life of the process.

#import <Foundation/Foundation.h>

#include <dispatch/dispatch.h>
#include <unistd.h>

#include "DaemonContext.h"
#include "Darwin/CodeRequirement.h"
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
    static orven::DarwinHost host;
    static orven::DaemonContext context(host);

    // What start-up autoreleases is released here, not held for the life of
    // the process by a pool that never drains.
    @autoreleasepool {
        const auto error = orven::Startup::run(context, static_cast<std::uint32_t>(::getuid()), [] {
            // A requirement that does not compile would make every connection
            // raise; refuse to listen at all, and say why.
            if (auto invalid = orven::codeRequirementError(orven::OrvenHelperConstants::clientCodeRequirement))
                return invalid;
            listener = [[NSXPCListener alloc]
                initWithMachServiceName:@(orven::OrvenHelperConstants::machServiceName.data())];
            delegate = [[HelperServiceDelegate alloc] initWithContext:context];
            listener.delegate = delegate;
            [listener resume];
            return std::optional<std::string>();
        });
        if (error) return 1;
    }
    dispatch_main();
}
