// Trust settings (macOS only).
// https://developer.apple.com/documentation/security/sectrustsettingssettrustsettings(_:_:_:)
// https://developer.apple.com/documentation/security/sectrustsettingscopytrustsettings(_:_:_:)
// https://developer.apple.com/documentation/security/sectrustsettingsremovetrustsettings(_:_:)
// https://developer.apple.com/documentation/security/sectrustsettingsdomain
// https://developer.apple.com/documentation/security/sectrustsettingsresult

#pragma once

#include <Security/SecBase.h>
#include <stdint.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

typedef CF_ENUM(uint32_t, SecTrustSettingsDomain){
    kSecTrustSettingsDomainUser = 0,
    kSecTrustSettingsDomainAdmin,
    kSecTrustSettingsDomainSystem,
};

typedef CF_ENUM(uint32_t, SecTrustSettingsResult){
    kSecTrustSettingsResultInvalid = 0, kSecTrustSettingsResultTrustRoot, kSecTrustSettingsResultTrustAsRoot,
    kSecTrustSettingsResultDeny,        kSecTrustSettingsResultUnspecified,
};

#define kSecTrustSettingsResult CFSTR("kSecTrustSettingsResult")
#define kSecTrustSettingsPolicy CFSTR("kSecTrustSettingsPolicy")

OSStatus SecTrustSettingsCopyTrustSettings(SecCertificateRef certRef, SecTrustSettingsDomain domain,
                                           CFArrayRef _Nullable *_Nonnull CF_RETURNS_RETAINED trustSettings)
    API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios);
OSStatus SecTrustSettingsSetTrustSettings(SecCertificateRef certRef, SecTrustSettingsDomain domain,
                                          CFTypeRef _Nullable trustSettingsDictOrArray)
    API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios);
OSStatus SecTrustSettingsRemoveTrustSettings(SecCertificateRef certRef, SecTrustSettingsDomain domain)
    API_AVAILABLE(macos(10.5)) API_UNAVAILABLE(ios);

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
