// Keys.
// https://developer.apple.com/documentation/security/seckeycopyattributes(_:)
// https://developer.apple.com/documentation/security/seckeycopyexternalrepresentation(_:_:)

#pragma once

#include <Security/SecBase.h>

CF_EXTERN_C_BEGIN
CF_IMPLICIT_BRIDGING_ENABLED
CF_ASSUME_NONNULL_BEGIN

CFDictionaryRef _Nullable SecKeyCopyAttributes(SecKeyRef key) API_AVAILABLE(macos(10.12));

CFDataRef _Nullable SecKeyCopyExternalRepresentation(SecKeyRef key, CFErrorRef _Nullable *_Nullable error)
    API_AVAILABLE(macos(10.12));

CF_ASSUME_NONNULL_END
CF_IMPLICIT_BRIDGING_DISABLED
CF_EXTERN_C_END
