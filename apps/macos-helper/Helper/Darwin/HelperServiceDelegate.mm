#import "HelperServiceDelegate.h"

#include <memory>
#include <optional>

#include "HelperService.h"
#include "MethodDispatch.h"

#import "Darwin/OrvenHelperProtocol.h"

namespace {

namespace md = orven::MethodDispatch;

// --- Foundation values to wire values ------------------------------------------
// nil, or an object of another class than the table says, becomes a value the
// dispatcher refuses, exactly as a wrong JSON type does on the Linux host.

md::WireValue wireString(NSString* _Nullable text)
{
    if (![text isKindOfClass:NSString.class]) return md::NilValue{};
    NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding];
    if (!bytes) return md::NilValue{};  // lone surrogates: not a string we can pass on
    return std::string(static_cast<const char*>(bytes.bytes), bytes.length);
}

md::WireValue wireStrings(NSArray* _Nullable items)
{
    if (![items isKindOfClass:NSArray.class]) return md::NilValue{};
    std::vector<std::string> out;
    out.reserve(items.count);
    for (id item in items) {
        auto text = wireString(item);
        if (!std::holds_alternative<std::string>(text)) return md::NilValue{};
        out.push_back(std::move(std::get<std::string>(text)));
    }
    return out;
}

md::WireValue wireData(NSData* _Nullable data)
{
    if (![data isKindOfClass:NSData.class]) return md::NilValue{};
    const auto* bytes = static_cast<const std::uint8_t*>(data.bytes);
    return md::Bytes(bytes, bytes + data.length);
}

md::WireValue wireNumber(NSNumber* _Nullable number)
{
    if (!number) return md::NilValue{};
    if (![number isKindOfClass:NSNumber.class]) return std::string();  // refused: not an NSNumber
    if (CFGetTypeID((__bridge CFTypeRef)number) == CFBooleanGetTypeID()) return static_cast<bool>(number.boolValue);
    if (CFNumberIsFloatType((__bridge CFNumberRef)number)) return number.doubleValue;
    return static_cast<std::int64_t>(number.longLongValue);
}

md::WireValue wireBool(BOOL value) { return static_cast<bool>(value); }
md::WireValue wireInt(NSInteger value) { return static_cast<std::int64_t>(value); }

// --- Wire values to Foundation values ------------------------------------------

BOOL boolAt(const md::WireValues& values, std::size_t i)
{
    const auto* value = i < values.size() ? std::get_if<bool>(&values[i]) : nullptr;
    return value && *value ? YES : NO;
}

NSInteger intAt(const md::WireValues& values, std::size_t i)
{
    const auto* value = i < values.size() ? std::get_if<std::int64_t>(&values[i]) : nullptr;
    return value ? static_cast<NSInteger>(*value) : -1;
}

double doubleAt(const md::WireValues& values, std::size_t i)
{
    const auto* value = i < values.size() ? std::get_if<double>(&values[i]) : nullptr;
    return value ? *value : -1.0;
}

NSString* _Nullable stringAt(const md::WireValues& values, std::size_t i)
{
    const auto* value = i < values.size() ? std::get_if<std::string>(&values[i]) : nullptr;
    if (!value) return nil;
    NSString* text = [[NSString alloc] initWithBytes:value->data() length:value->size() encoding:NSUTF8StringEncoding];
    if (text) return text;
    // Tool output that is not UTF-8 still answers, lossily.
    return [[NSString alloc] initWithBytes:value->data() length:value->size() encoding:NSISOLatin1StringEncoding];
}

NSData* _Nullable dataAt(const md::WireValues& values, std::size_t i)
{
    const auto* value = i < values.size() ? std::get_if<md::Bytes>(&values[i]) : nullptr;
    return value ? [NSData dataWithBytes:value->data() length:value->size()] : nil;
}

} // namespace

// The exported object: one per connection, owning its C++ service.
@interface OrvenHelperExportedService : NSObject <OrvenHelperProtocol>
- (instancetype)initWithContext:(orven::DaemonContext&)context peerUID:(uid_t)peerUID NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
@end

@implementation OrvenHelperExportedService {
    std::unique_ptr<orven::HelperService> _service;
}

- (instancetype)initWithContext:(orven::DaemonContext&)context peerUID:(uid_t)peerUID
{
    if ((self = [super init])) _service = std::make_unique<orven::HelperService>(context, peerUID);
    return self;
}

// Every selector goes the same way: its table entry, the converted arguments,
// and a block fed from the reply values. The answer keeps `self` (and so the
// service) alive until it has been given.
- (void)forward:(SEL)selector
      arguments:(md::WireValues)arguments
         answer:(void (^)(const md::WireValues& values))answer
{
    const orven::MethodSpec* method = orven::findMethod(NSStringFromSelector(selector).UTF8String);
    if (!method) {
        // The protocol and the table list the same selectors, so this should
        // not happen; if it does, the caller still gets its one answer, the
        // refusal of every shape: NO, -1 and nil in each place.
        answer(md::WireValues{});
        return;
    }
    OrvenHelperExportedService* keepAlive = self;
    md::dispatch(*_service, *method, std::move(arguments),
                 [keepAlive, answer](md::WireValues values, const std::optional<std::string>&) {
                     (void)keepAlive;
                     answer(values);
                 });
}

- (void)pingWithReply:(void (^)(NSString*))reply
{
    [self forward:_cmd
        arguments:md::WireValues{}
           answer:^(const md::WireValues& v) {
               NSString* version = stringAt(v, 0);
               reply(version ? version : @"");
           }];
}

- (void)setLANIsolationWithEnabled:(BOOL)enabled
                         interface:(NSString*)interface
                         gatewayV4:(NSString*)gatewayV4
                          subnetV4:(NSString*)subnetV4
                             dnsV4:(NSArray<NSString*>*)dnsV4
                         gatewayV6:(NSString*)gatewayV6
                         subnetsV6:(NSArray<NSString*>*)subnetsV6
                             dnsV6:(NSArray<NSString*>*)dnsV6
                             reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireBool(enabled), wireString(interface), wireString(gatewayV4), wireString(subnetV4),
                   wireStrings(dnsV4), wireString(gatewayV6), wireStrings(subnetsV6), wireStrings(dnsV6)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)setHardKillWithEngaged:(BOOL)engaged reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireBool(engaged)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)readHardKillStatusWithReply:(void (^)(BOOL, BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), boolAt(v, 1), stringAt(v, 2)); }];
}

- (void)readHardKillEnforcementWithReply:(void (^)(BOOL, BOOL, BOOL, NSInteger, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{}
           answer:^(const md::WireValues& v) {
               reply(boolAt(v, 0), boolAt(v, 1), boolAt(v, 2), intAt(v, 3), stringAt(v, 4));
           }];
}

- (void)readHardKillResidueWithTokenWithReply:(void (^)(BOOL, BOOL, BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), boolAt(v, 1), boolAt(v, 2), stringAt(v, 3)); }];
}

- (void)readHardKillProofWithReply:(void (^)(BOOL, NSString* _Nullable, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1), stringAt(v, 2)); }];
}

- (void)applyIPv4WithServiceName:(NSString*)serviceName
                            mode:(NSString*)mode
                              ip:(NSString*)ip
                      subnetMask:(NSString*)subnetMask
                          router:(NSString*)router
                           reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(serviceName), wireString(mode), wireString(ip), wireString(subnetMask),
                   wireString(router)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)applyIPv6WithServiceName:(NSString*)serviceName
                            mode:(NSString*)mode
                          router:(NSString*)router
                         address:(NSString*)address
                    prefixLength:(NSInteger)prefixLength
                           reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(serviceName), wireString(mode), wireString(router), wireString(address),
                   wireInt(prefixLength)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)listServiceOrderWithReply:(void (^)(NSString* _Nullable, NSString* _Nullable))reply
{
    [self forward:_cmd arguments:md::WireValues{} answer:^(const md::WireValues& v) { reply(stringAt(v, 0), stringAt(v, 1)); }];
}

- (void)setServiceOrderWithOrderedServiceNames:(NSArray<NSString*>*)orderedServiceNames
                                         reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireStrings(orderedServiceNames)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)setInterfaceMTUWithBsdName:(NSString*)bsdName mtu:(NSInteger)mtu reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(bsdName), wireInt(mtu)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)setRawInterfaceMTUWithBsdName:(NSString*)bsdName
                                  mtu:(NSInteger)mtu
                                reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(bsdName), wireInt(mtu)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)setInterfaceHoldUntilNeededWithBsdName:(NSString*)bsdName
                                          hold:(NSNumber* _Nullable)hold
                                         reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(bsdName), wireNumber(hold)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)restoreDriverProvisionedInterfaceWithBsdName:(NSString*)bsdName
                                               reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(bsdName)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)pingWithDontFragmentWithTarget:(NSString*)target
                          payloadBytes:(NSInteger)payloadBytes
                        boundInterface:(NSString*)boundInterface
                         timeoutMillis:(NSInteger)timeoutMillis
                                 reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(target), wireInt(payloadBytes), wireString(boundInterface), wireInt(timeoutMillis)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)gatewayPingRTTWithTarget:(NSString*)target
                           count:(NSInteger)count
                   spacingMillis:(NSInteger)spacingMillis
                  boundInterface:(NSString*)boundInterface
                   timeoutMillis:(NSInteger)timeoutMillis
                           reply:(void (^)(double, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(target), wireInt(count), wireInt(spacingMillis), wireString(boundInterface),
                   wireInt(timeoutMillis)}
           answer:^(const md::WireValues& v) { reply(doubleAt(v, 0), stringAt(v, 1)); }];
}

- (void)readIKEv2DiagnosticLogSinceEpoch:(double)sinceEpoch
                           serverAddress:(NSString*)serverAddress
                                   reply:(void (^)(NSString* _Nullable, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{md::WireValue(sinceEpoch), wireString(serverAddress)}
           answer:^(const md::WireValues& v) { reply(stringAt(v, 0), stringAt(v, 1)); }];
}

- (void)readPowerlineTopologyWithInterfaceName:(NSString*)interfaceName
                                         reply:(void (^)(NSData* _Nullable, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(interfaceName)}
           answer:^(const md::WireValues& v) { reply(dataAt(v, 0), stringAt(v, 1)); }];
}

- (void)installVPNIdentityWithPkcs12:(NSData*)pkcs12
                          passphrase:(NSString*)passphrase
                               reply:(void (^)(NSInteger, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireData(pkcs12), wireString(passphrase)}
           answer:^(const md::WireValues& v) { reply(intAt(v, 0), stringAt(v, 1)); }];
}

- (void)releaseVPNIdentityWithPkcs12:(NSData*)pkcs12
                          passphrase:(NSString*)passphrase
                               reply:(void (^)(NSInteger, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireData(pkcs12), wireString(passphrase)}
           answer:^(const md::WireValues& v) { reply(intAt(v, 0), stringAt(v, 1)); }];
}

- (void)installTrustedCAWithCertificateDER:(NSData*)certificateDER reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireData(certificateDER)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)removeTrustedCAWithCertificateDER:(NSData*)certificateDER reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireData(certificateDER)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)setWiFiPowerWithServiceName:(NSString*)serviceName on:(BOOL)on reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(serviceName), wireBool(on)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)addPreferredWiFiNetworkWithServiceName:(NSString*)serviceName
                                          ssid:(NSString*)ssid
                                  securityType:(NSString*)securityType
                                      password:(NSString*)password
                                         reply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd
        arguments:md::WireValues{wireString(serviceName), wireString(ssid), wireString(securityType), wireString(password)}
           answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)readKnownWiFiPlistDataWithReply:(void (^)(NSData* _Nullable, NSString* _Nullable))reply
{
    [self forward:_cmd arguments:md::WireValues{} answer:^(const md::WireValues& v) { reply(dataAt(v, 0), stringAt(v, 1)); }];
}

- (void)uninstallSelfWithReply:(void (^)(BOOL, NSString* _Nullable))reply
{
    [self forward:_cmd arguments:md::WireValues{} answer:^(const md::WireValues& v) { reply(boolAt(v, 0), stringAt(v, 1)); }];
}

- (void)selfTerminateWithReply:(void (^)(BOOL))reply
{
    [self forward:_cmd arguments:md::WireValues{} answer:^(const md::WireValues& v) { reply(boolAt(v, 0)); }];
}

@end

@implementation HelperServiceDelegate {
    orven::DaemonContext* _context;
    std::optional<orven::Logger> _log;
}

- (instancetype)initWithContext:(orven::DaemonContext&)context
{
    if ((self = [super init])) {
        _context = &context;
        _log.emplace(context.host.logSink(), "Listener");
    }
    return self;
}

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection
{
    (void)listener;
    const orven::Logger log = *_log;

    // The requirement is enforced by XPC itself; without the call to set it
    // there is no check at all, so such a system gets no connection.
    if (@available(macOS 13.0, *)) {
        [connection setCodeSigningRequirement:@(orven::OrvenHelperConstants::clientCodeRequirement.data())];
    } else {
        log.error("Refused an XPC connection: this macOS cannot check the client's code signature");
        return NO;
    }

    NSXPCInterface* interface = [NSXPCInterface interfaceWithProtocol:@protocol(OrvenHelperProtocol)];
    NSSet* strings = [NSSet setWithObjects:NSArray.class, NSString.class, nil];
    SEL isolation = @selector(setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply:);
    for (NSUInteger index : {4u, 6u, 7u}) [interface setClasses:strings forSelector:isolation argumentIndex:index ofReply:NO];
    [interface setClasses:strings forSelector:@selector(setServiceOrderWithOrderedServiceNames:reply:) argumentIndex:0 ofReply:NO];
    connection.exportedInterface = interface;

    connection.exportedObject = [[OrvenHelperExportedService alloc] initWithContext:*_context
                                                                            peerUID:connection.effectiveUserIdentifier];
    connection.invalidationHandler = ^{
        log.debug("Connection invalidated");
    };
    connection.interruptionHandler = ^{
        log.debug("Connection interrupted");
    };
    [connection resume];
    log.notice("Accepted XPC connection");
    return YES;
}

@end
