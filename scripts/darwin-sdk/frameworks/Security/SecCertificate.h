// Certificates and identities.
// https://developer.apple.com/documentation/security/seccertificatecreatewithdata(_:_:)
// https://developer.apple.com/documentation/security/seccertificatecopydata(_:)
// https://developer.apple.com/documentation/security/seccertificatecopysubjectsummary(_:)
// https://developer.apple.com/documentation/security/seccertificatecopykey(_:)
// https://developer.apple.com/documentation/security/secidentitycopycertificate(_:_:)
// https://developer.apple.com/documentation/security/secidentitycopyprivatekey(_:_:)

#pragma once

#include <Security/SecBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

CFTypeID SecCertificateGetTypeID(void) API_AVAILABLE(macos(10.3));
SecCertificateRef _Nullable SecCertificateCreateWithData(CFAllocatorRef _Nullable allocator, CFDataRef data)
    API_AVAILABLE(macos(10.6));
CFDataRef SecCertificateCopyData(SecCertificateRef certificate) API_AVAILABLE(macos(10.6));
CFStringRef _Nullable SecCertificateCopySubjectSummary(SecCertificateRef certificate) API_AVAILABLE(macos(10.6));
SecKeyRef _Nullable SecCertificateCopyKey(SecCertificateRef certificate) API_AVAILABLE(macos(10.14));

CFTypeID SecIdentityGetTypeID(void) API_AVAILABLE(macos(10.3));
OSStatus SecIdentityCopyCertificate(SecIdentityRef identityRef,
                                    SecCertificateRef _Nullable *_Nonnull CF_RETURNS_RETAINED certificateRef)
    API_AVAILABLE(macos(10.3));
OSStatus SecIdentityCopyPrivateKey(SecIdentityRef identityRef,
                                   SecKeyRef _Nullable *_Nonnull CF_RETURNS_RETAINED privateKeyRef)
    API_AVAILABLE(macos(10.3));

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
