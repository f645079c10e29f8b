// SecKeychain and its family are deprecated: a call outside a file that
// knowingly silences the warning must be reported.
// expect: 'SecKeychainOpen' is deprecated
#import <Security/Security.h>

OSStatus open(const char* path, SecKeychainRef* keychain) { return SecKeychainOpen(path, keychain); }
