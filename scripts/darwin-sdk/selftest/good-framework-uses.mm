// A correct use of each declared framework: must compile without a diagnostic,
// so the declarations are usable, not only strict. The ioctl numbers are
// macOS's.
// expect: nothing
#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>
#import <Security/Security.h>
#include <net/bpf.h>
#include <sys/event.h>
#include <sys/sysctl.h>
#include <os/log.h>
#include <dispatch/dispatch.h>
#include <fcntl.h>
#include <unistd.h>

static_assert(BIOCSETIF == 0x8020426cUL);
static_assert(BIOCIMMEDIATE == 0x80044270UL);
static_assert(BIOCGBLEN == 0x40044266UL);
static_assert(sizeof(struct bpf_hdr) == 20);

bool use(SCPreferencesRef prefs, CFDataRef p12, CFStringRef pass)
{
    SCNetworkSetRef set = SCNetworkSetCopyCurrent(prefs);
    if (!set) return false;
    CFArrayRef order = SCNetworkSetGetServiceOrder(set);
    bool ok = order && SCNetworkSetSetServiceOrder(set, order);
    CFRelease(set);
    const void* keys[] = {kSecImportExportPassphrase};
    const void* values[] = {pass};
    CFDictionaryRef options = CFDictionaryCreate(kCFAllocatorDefault, keys, values, 1, &kCFTypeDictionaryKeyCallBacks,
                                                 &kCFTypeDictionaryValueCallBacks);
    CFArrayRef items = nullptr;
    OSStatus status = SecPKCS12Import(p12, options, &items);
    CFRelease(options);
    if (items) CFRelease(items);
    struct bpf_insn program[] = {BPF_STMT(BPF_LD + BPF_H + BPF_ABS, 12), BPF_JUMP(BPF_JMP + BPF_JEQ + BPF_K, 0x88e1, 0, 1),
                                 BPF_STMT(BPF_RET + BPF_K, 65535), BPF_STMT(BPF_RET + BPF_K, 0)};
    struct bpf_program filter = {4, program};
    int fd = ::open("/dev/bpf0", O_RDWR);
    ::ioctl(fd, BIOCSETF, &filter);
    os_log_t log = os_log_create("a", "b");
    os_log_with_type(log, OS_LOG_TYPE_ERROR, "%{public}s %d", "x", 3);
    dispatch_async(dispatch_get_main_queue(), ^{ });
    return ok && status == errSecSuccess;
}

// The file-keychain calls, silenced as a file that uses them knowingly does.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
bool useFileKeychain(SecKeyRef key, CFDataRef pem, SCNetworkSetRef set)
{
    SecKeychainRef keychain = nullptr;
    SecTrustedApplicationRef application = nullptr;
    SecAccessRef access = nullptr;
    if (SecKeychainOpen("/tmp/a.keychain", &keychain) != errSecSuccess || !keychain) return false;
    if (SecTrustedApplicationCreateFromPath(nullptr, &application) != errSecSuccess || !application) return false;
    if (SecAccessCreate(CFSTR("a"), nullptr, &access) != errSecSuccess || !access) return false;
    CFArrayRef acls = SecAccessCopyMatchingACLList(access, kSecACLAuthorizationSign);
    CFArrayRef applications = nullptr;
    CFStringRef description = nullptr;
    SecKeychainPromptSelector prompt = 0;
    if (acls && CFArrayGetCount(acls) > 0)
        SecACLCopyContents((SecACLRef)CFArrayGetValueAtIndex(acls, 0), &applications, &description, &prompt);
    SecExternalFormat format = kSecFormatOpenSSL;
    SecExternalItemType type = kSecItemTypePrivateKey;
    SecItemImportExportKeyParameters parameters{};
    parameters.version = SEC_KEY_IMPORT_EXPORT_PARAMS_VERSION;
    parameters.accessRef = access;
    OSStatus status = SecItemImport(pem, nullptr, &format, &type, 0, &parameters, keychain, nullptr);
    CFDictionaryRef attributes = SecKeyCopyAttributes(key);
    CFDataRef external = SecKeyCopyExternalRepresentation(key, nullptr);
    CFStringRef setID = SCNetworkSetGetSetID(set);
    const NSOperatingSystemVersion version{15, 0, 0};
    bool recent = [NSProcessInfo.processInfo isOperatingSystemAtLeastVersion:version];
    SecKeychainItemDelete((SecKeychainItemRef)key);
    return status == errSecSuccess && attributes && external && setID && recent &&
           SecKeychainSetUserInteractionAllowed(false) == errSecSuccess;
}
#pragma clang diagnostic pop
