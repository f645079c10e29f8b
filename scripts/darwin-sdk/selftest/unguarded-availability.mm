// -activate is macOS 14; the daemon supports macOS 13, so it needs @available.
// expect: only available on macOS 14
#import <Foundation/Foundation.h>

void start(NSXPCListener *listener)
{
    [listener activate];
}
