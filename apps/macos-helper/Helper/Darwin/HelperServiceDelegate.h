// The XPC listener's delegate: sets the client requirement and the exported
// interface on each connection, and gives it its own HelperService.

#import <Foundation/Foundation.h>

#include "DaemonContext.h"

NS_ASSUME_NONNULL_BEGIN

@interface HelperServiceDelegate : NSObject <NSXPCListenerDelegate>

// `context` outlives the delegate (both live as long as the process).
- (instancetype)initWithContext:(orven::DaemonContext&)context NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;

@end

NS_ASSUME_NONNULL_END
