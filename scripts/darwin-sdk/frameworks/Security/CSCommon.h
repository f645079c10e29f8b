// Code Signing Services: common types and flags.
// https://developer.apple.com/documentation/security/code-signing-services
// https://developer.apple.com/documentation/security/seccsflags
// https://developer.apple.com/documentation/security/secrequirement
// https://developer.apple.com/documentation/security/seccode
// https://developer.apple.com/documentation/security/secstaticcode

#pragma once

#include <Security/SecBase.h>
#include <stdint.h>

CF_EXTERN_C_BEGIN

typedef struct CF_BRIDGED_TYPE(id) __SecCode *SecCodeRef;
typedef struct CF_BRIDGED_TYPE(id) __SecCode const *SecStaticCodeRef;
typedef struct CF_BRIDGED_TYPE(id) __SecRequirement *SecRequirementRef;

typedef CF_OPTIONS(uint32_t, SecCSFlags){
    kSecCSDefaultFlags = 0,
    kSecCSConsiderExpiration = 1U << 31,
    kSecCSEnforceRevocationChecks = 1 << 30,
    kSecCSNoNetworkAccess = 1 << 29,
    kSecCSReportProgress = 1 << 28,
    kSecCSCheckTrustedAnchors = 1 << 27,
    kSecCSQuickCheck = 1 << 26,
    kSecCSApplyEmbeddedPolicy = 1 << 25,
};

enum {
    errSecCSUnimplemented = -67072,
    errSecCSInvalidObjectRef = -67071,
    errSecCSInvalidFlags = -67070,
    errSecCSObjectRequired = -67069,
    errSecCSReqInvalid = -67052,
    errSecCSReqFailed = -67050,
};

CF_EXTERN_C_END
