// The Security framework umbrella: the parts declared here.
// https://developer.apple.com/documentation/security

#pragma once

#include <Security/SecBase.h>
#include <Security/CSCommon.h>
#include <Security/SecAccess.h>
#include <Security/SecACL.h>
#include <Security/SecCertificate.h>
#include <Security/SecImportExport.h>
#include <Security/SecItem.h>
#include <Security/SecKey.h>
#include <Security/SecKeychain.h>
#include <Security/SecKeychainItem.h>
#include <Security/SecRequirement.h>
#include <Security/SecTrustSettings.h>
#include <Security/SecTrustedApplication.h>
