// kSecImportToMemoryOnly exists only from macOS 15: using it on the macOS 13
// deployment target without @available must be reported.
// expect: 'kSecImportToMemoryOnly' is only available on macOS 15
#import <Security/Security.h>

CFStringRef option() { return kSecImportToMemoryOnly; }
