// A selector NSXPCConnection does not have (setCodeSigningRequirement: is).
// expect: declares the selector 'setCodeSigningRequirements:'
#import <Foundation/Foundation.h>

void requireSigner(NSXPCConnection *connection)
{
    [connection setCodeSigningRequirements:@"anchor apple"];
}
