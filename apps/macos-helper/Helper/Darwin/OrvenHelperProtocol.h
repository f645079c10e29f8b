// The XPC interface the daemon exports, as Objective-C sees it. Selectors,
// argument types and reply shapes are those of kOrvenHelperMethods; the
// client application declares the same protocol.

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

@protocol OrvenHelperProtocol

- (void)pingWithReply:(void (^)(NSString *version))reply;

- (void)setLANIsolationWithEnabled:(BOOL)enabled
                         interface:(NSString *)interface
                         gatewayV4:(NSString *)gatewayV4
                          subnetV4:(NSString *)subnetV4
                             dnsV4:(NSArray<NSString *> *)dnsV4
                         gatewayV6:(NSString *)gatewayV6
                         subnetsV6:(NSArray<NSString *> *)subnetsV6
                             dnsV6:(NSArray<NSString *> *)dnsV6
                             reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)setHardKillWithEngaged:(BOOL)engaged reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)readHardKillStatusWithReply:(void (^)(BOOL rulesLoaded, BOOL markerPresent, NSString *_Nullable error))reply;

- (void)readHardKillEnforcementWithReply:(void (^)(BOOL rulesLoaded, BOOL pfEnabled, BOOL markerPresent,
                                                   NSInteger stateCount, NSString *_Nullable error))reply;

- (void)readHardKillResidueWithTokenWithReply:(void (^)(BOOL rulesLoaded, BOOL markerPresent, BOOL referenceHeld,
                                                        NSString *_Nullable error))reply;

- (void)readHardKillProofWithReply:(void (^)(BOOL proven, NSString *_Nullable bypassReason,
                                             NSString *_Nullable effectivenessNote))reply;

- (void)applyIPv4WithServiceName:(NSString *)serviceName
                            mode:(NSString *)mode
                              ip:(NSString *)ip
                      subnetMask:(NSString *)subnetMask
                          router:(NSString *)router
                           reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)applyIPv6WithServiceName:(NSString *)serviceName
                            mode:(NSString *)mode
                          router:(NSString *)router
                         address:(NSString *)address
                    prefixLength:(NSInteger)prefixLength
                           reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)listServiceOrderWithReply:(void (^)(NSString *_Nullable order, NSString *_Nullable message))reply;

- (void)setServiceOrderWithOrderedServiceNames:(NSArray<NSString *> *)orderedServiceNames
                                         reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)setInterfaceMTUWithBsdName:(NSString *)bsdName
                               mtu:(NSInteger)mtu
                             reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)setRawInterfaceMTUWithBsdName:(NSString *)bsdName
                                  mtu:(NSInteger)mtu
                                reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)setInterfaceHoldUntilNeededWithBsdName:(NSString *)bsdName
                                          hold:(nullable NSNumber *)hold
                                         reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)restoreDriverProvisionedInterfaceWithBsdName:(NSString *)bsdName
                                               reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)pingWithDontFragmentWithTarget:(NSString *)target
                          payloadBytes:(NSInteger)payloadBytes
                        boundInterface:(NSString *)boundInterface
                         timeoutMillis:(NSInteger)timeoutMillis
                                 reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)gatewayPingRTTWithTarget:(NSString *)target
                           count:(NSInteger)count
                   spacingMillis:(NSInteger)spacingMillis
                  boundInterface:(NSString *)boundInterface
                   timeoutMillis:(NSInteger)timeoutMillis
                           reply:(void (^)(double milliseconds, NSString *_Nullable message))reply;

- (void)readIKEv2DiagnosticLogSinceEpoch:(double)sinceEpoch
                           serverAddress:(NSString *)serverAddress
                                   reply:(void (^)(NSString *_Nullable log, NSString *_Nullable message))reply;

- (void)readPowerlineTopologyWithInterfaceName:(NSString *)interfaceName
                                         reply:(void (^)(NSData *_Nullable reading, NSString *_Nullable message))reply;

- (void)installVPNIdentityWithPkcs12:(NSData *)pkcs12
                          passphrase:(NSString *)passphrase
                               reply:(void (^)(NSInteger code, NSString *_Nullable message))reply;

- (void)releaseVPNIdentityWithPkcs12:(NSData *)pkcs12
                          passphrase:(NSString *)passphrase
                               reply:(void (^)(NSInteger code, NSString *_Nullable message))reply;

- (void)installTrustedCAWithCertificateDER:(NSData *)certificateDER
                                     reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)removeTrustedCAWithCertificateDER:(NSData *)certificateDER
                                    reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)setWiFiPowerWithServiceName:(NSString *)serviceName
                                 on:(BOOL)on
                              reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)addPreferredWiFiNetworkWithServiceName:(NSString *)serviceName
                                          ssid:(NSString *)ssid
                                  securityType:(NSString *)securityType
                                      password:(NSString *)password
                                         reply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)readKnownWiFiPlistDataWithReply:(void (^)(NSData *_Nullable plist, NSString *_Nullable message))reply;

- (void)uninstallSelfWithReply:(void (^)(BOOL success, NSString *_Nullable message))reply;

- (void)selfTerminateWithReply:(void (^)(BOOL accepted))reply;

@end

NS_ASSUME_NONNULL_END
