// NSXPCConnection, NSXPCListener, NSXPCInterface as Apple declares them
// (GNUstep's differ: no exportedObject, no code-signing requirement, a
// required delegate method).
// https://developer.apple.com/documentation/foundation/nsxpcconnection
// https://developer.apple.com/documentation/foundation/nsxpcconnection/setcodesigningrequirement(_:)
// https://developer.apple.com/documentation/foundation/nsxpcconnection/effectiveuseridentifier
// https://developer.apple.com/documentation/foundation/nsxpclistener
// https://developer.apple.com/documentation/foundation/nsxpclistener/init(machservicename:)
// https://developer.apple.com/documentation/foundation/nsxpclistenerdelegate/listener(_:shouldacceptnewconnection:)
// https://developer.apple.com/documentation/foundation/nsxpcinterface
// https://developer.apple.com/documentation/foundation/nsxpcinterface/setclasses(_:for:argumentindex:ofreply:)

#pragma once

#import <Foundation/NSObject.h>
#import <Foundation/NSError.h>
#import <Foundation/NSSet.h>
#import <Foundation/NSString.h>
#include <os/availability.h>
#include <sys/types.h>

// Apple's meaning (GNUstep leaves it empty); see Foundation.h here.
#undef NS_UNAVAILABLE
#define NS_UNAVAILABLE __attribute__((unavailable))

NS_ASSUME_NONNULL_BEGIN

@class NSXPCListenerEndpoint, NSXPCInterface, NSXPCListener, NSXPCConnection, Protocol;
@protocol NSXPCListenerDelegate;

@protocol NSXPCProxyCreating
- (id)remoteObjectProxy;
- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError *error))handler;
@optional
- (id)synchronousRemoteObjectProxyWithErrorHandler:(void (^)(NSError *error))handler API_AVAILABLE(macos(10.11));
@end

typedef NS_OPTIONS(NSUInteger, NSXPCConnectionOptions) {
    NSXPCConnectionPrivileged = (1 << 12UL)
} API_AVAILABLE(macos(10.8));

API_AVAILABLE(macos(10.8))
@interface NSXPCConnection : NSObject <NSXPCProxyCreating>

- (instancetype)initWithServiceName:(NSString *)serviceName;
@property (nullable, readonly, copy) NSString *serviceName;
- (instancetype)initWithMachServiceName:(NSString *)name options:(NSXPCConnectionOptions)options;
- (instancetype)initWithListenerEndpoint:(NSXPCListenerEndpoint *)endpoint;
@property (readonly, retain) NSXPCListenerEndpoint *endpoint;

@property (nullable, retain) NSXPCInterface *exportedInterface;
@property (nullable, retain) id exportedObject;
@property (nullable, retain) NSXPCInterface *remoteObjectInterface;
@property (readonly, retain) id remoteObjectProxy;
- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError *error))handler;
- (id)synchronousRemoteObjectProxyWithErrorHandler:(void (^)(NSError *error))handler API_AVAILABLE(macos(10.11));

@property (nullable, copy) void (^interruptionHandler)(void);
@property (nullable, copy) void (^invalidationHandler)(void);

- (void)resume;
- (void)suspend;
- (void)activate API_AVAILABLE(macos(14.0));
- (void)invalidate;

@property (readonly) pid_t processIdentifier;
@property (readonly) uid_t effectiveUserIdentifier;
@property (readonly) gid_t effectiveGroupIdentifier;

+ (nullable NSXPCConnection *)currentConnection API_AVAILABLE(macos(10.8));
- (void)scheduleSendBarrierBlock:(void (^)(void))block API_AVAILABLE(macos(10.15));

// Raises NSInvalidArgumentException when `requirement` does not compile.
- (void)setCodeSigningRequirement:(NSString *)requirement API_AVAILABLE(macos(13.0));

@end

API_AVAILABLE(macos(10.8))
@interface NSXPCListener : NSObject

+ (NSXPCListener *)serviceListener;
+ (NSXPCListener *)anonymousListener;
- (instancetype)initWithMachServiceName:(NSString *)name NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;

@property (nullable, weak) id<NSXPCListenerDelegate> delegate;
@property (readonly, retain) NSXPCListenerEndpoint *endpoint;

- (void)resume;
- (void)suspend;
- (void)activate API_AVAILABLE(macos(14.0));
- (void)invalidate;

- (void)setConnectionCodeSigningRequirement:(NSString *)requirement API_AVAILABLE(macos(13.0));

@end

@protocol NSXPCListenerDelegate <NSObject>
@optional
- (BOOL)listener:(NSXPCListener *)listener shouldAcceptNewConnection:(NSXPCConnection *)newConnection;
@end

API_AVAILABLE(macos(10.8))
@interface NSXPCInterface : NSObject

+ (NSXPCInterface *)interfaceWithProtocol:(Protocol *)protocol;
@property (assign) Protocol *protocol;

- (void)setClasses:(NSSet<Class> *)classes forSelector:(SEL)sel argumentIndex:(NSUInteger)arg ofReply:(BOOL)ofReply;
- (NSSet<Class> *)classesForSelector:(SEL)sel argumentIndex:(NSUInteger)arg ofReply:(BOOL)ofReply;
- (void)setInterface:(NSXPCInterface *)ifc forSelector:(SEL)sel argumentIndex:(NSUInteger)arg ofReply:(BOOL)ofReply;
- (nullable NSXPCInterface *)interfaceForSelector:(SEL)sel argumentIndex:(NSUInteger)arg ofReply:(BOOL)ofReply;

@end

API_AVAILABLE(macos(10.8))
@interface NSXPCListenerEndpoint : NSObject <NSSecureCoding>
@end

NS_ASSUME_NONNULL_END
