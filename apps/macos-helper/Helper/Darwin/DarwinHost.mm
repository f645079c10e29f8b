#include "DarwinHost.h"

#include <sys/sysctl.h>
#include <sys/time.h>

#include <unistd.h>

#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>

namespace orven {

namespace {

// A Core Foundation reference released when it goes out of scope.
template <class T>
class CFOwned {
public:
    explicit CFOwned(T reference) : reference_(reference) {}
    ~CFOwned()
    {
        if (reference_) CFRelease(reference_);
    }
    CFOwned(const CFOwned&) = delete;
    CFOwned& operator=(const CFOwned&) = delete;
    T get() const { return reference_; }
    explicit operator bool() const { return reference_ != nullptr; }

private:
    T reference_;
};

CFStringRef createString(std::string_view text)
{
    return CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                   static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

std::optional<std::string> stringOf(CFTypeRef value)
{
    if (!value || CFGetTypeID(value) != CFStringGetTypeID()) return std::nullopt;
    NSString* text = (__bridge NSString*)value;
    NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding];
    if (!bytes) return std::nullopt;
    return std::string(static_cast<const char*>(bytes.bytes), bytes.length);
}

os_log_type_t osLogType(LogLevel level)
{
    switch (level) {
    case LogLevel::debug: return OS_LOG_TYPE_DEBUG;
    case LogLevel::info: return OS_LOG_TYPE_INFO;
    case LogLevel::defaultLevel: return OS_LOG_TYPE_DEFAULT;
    case LogLevel::error: return OS_LOG_TYPE_ERROR;
    }
    return OS_LOG_TYPE_DEFAULT;
}

} // namespace

// --- Log ---------------------------------------------------------------------

os_log_t OSLogSink::logFor(const std::string& subsystem, const std::string& category)
{
    const std::lock_guard lock(mutex_);
    const std::string key = subsystem + "\n" + category;
    auto found = logs_.find(key);
    if (found == logs_.end()) found = logs_.emplace(key, os_log_create(subsystem.c_str(), category.c_str())).first;
    return found->second;
}

void OSLogSink::write(const LogRecord& record)
{
    os_log_with_type(logFor(record.subsystem, record.category), osLogType(record.level), "%{public}s",
                     record.message.c_str());
}

// --- Processes, clock, exit --------------------------------------------------

BoundedProcess::Result DarwinHost::run(std::string_view macPath, const std::vector<std::string>& arguments,
                                       const std::optional<std::string>& standardInput, double timeout,
                                       double killGrace)
{
    return BoundedProcess::run(std::string(macPath), arguments, standardInput, timeout, killGrace);
}

std::optional<Host::WallClock::time_point> DarwinHost::bootTime() const
{
    timeval boot{};
    size_t size = sizeof boot;
    if (::sysctlbyname("kern.boottime", &boot, &size, nullptr, 0) != 0 || size != sizeof boot || boot.tv_sec <= 0)
        return std::nullopt;
    return WallClock::time_point(std::chrono::seconds(boot.tv_sec));
}

// Called from worker threads: leave without running the destructors of the
// static host and context under XPC threads that still use them.
void DarwinHost::exitProcess(int status) { ::_exit(status); }

std::string DarwinHost::temporaryDirectory() const
{
    return std::string(NSTemporaryDirectory().fileSystemRepresentation);
}

// --- SystemConfiguration -----------------------------------------------------

Host::StoreCopy DarwinHost::copyDynamicStore(std::string_view sessionName, std::string_view pattern)
{
    CFOwned<CFStringRef> name(createString(sessionName));
    if (!name) return {{}, "cannot open a SystemConfiguration dynamic store session"};
    CFOwned<SCDynamicStoreRef> store(SCDynamicStoreCreate(kCFAllocatorDefault, name.get(), nullptr, nullptr));
    if (!store) return {{}, "cannot open a SystemConfiguration dynamic store session"};
    CFOwned<CFStringRef> patternText(createString(pattern));
    if (!patternText) return {{}, "cannot enumerate configured services"};
    const void* patternValues[] = {patternText.get()};
    CFOwned<CFArrayRef> patterns(CFArrayCreate(kCFAllocatorDefault, patternValues, 1, &kCFTypeArrayCallBacks));
    CFOwned<CFDictionaryRef> copied(SCDynamicStoreCopyMultiple(store.get(), nullptr, patterns.get()));
    if (!copied) return {{}, "cannot enumerate configured services"};

    StoreCopy copy;
    NSDictionary* entries = (__bridge NSDictionary*)copied.get();
    for (id key in entries) {
        auto keyText = stringOf((__bridge CFTypeRef)key);
        if (!keyText) continue;
        SetupOwnership::Entry entry{*keyText, std::nullopt};
        id value = entries[key];
        if ([value isKindOfClass:NSDictionary.class]) {
            entry.value.emplace();
            for (id field in (NSDictionary*)value) {
                auto fieldName = stringOf((__bridge CFTypeRef)field);
                if (!fieldName) {
                    entry.value.reset();  // not a string-keyed dictionary
                    break;
                }
                (*entry.value)[*fieldName] = stringOf((__bridge CFTypeRef)((NSDictionary*)value)[field]);
            }
        }
        copy.entries.push_back(std::move(entry));
    }
    return copy;
}

std::optional<std::vector<std::string>> DarwinHost::networkInterfaceNames()
{
    CFOwned<CFArrayRef> interfaces(SCNetworkInterfaceCopyAll());
    if (!interfaces) return std::nullopt;
    std::vector<std::string> names;
    const CFIndex count = CFArrayGetCount(interfaces.get());
    for (CFIndex i = 0; i < count; ++i) {
        const auto interface = static_cast<SCNetworkInterfaceRef>(CFArrayGetValueAtIndex(interfaces.get(), i));
        if (auto name = stringOf(SCNetworkInterfaceGetBSDName(interface))) names.push_back(std::move(*name));
    }
    return names;
}

bool DarwinHost::forceConfigurationRefresh(std::string_view bsdName)
{
    CFOwned<CFArrayRef> interfaces(SCNetworkInterfaceCopyAll());
    if (!interfaces) return false;
    const CFIndex count = CFArrayGetCount(interfaces.get());
    for (CFIndex i = 0; i < count; ++i) {
        const auto interface = static_cast<SCNetworkInterfaceRef>(CFArrayGetValueAtIndex(interfaces.get(), i));
        if (stringOf(SCNetworkInterfaceGetBSDName(interface)) == bsdName)
            return SCNetworkInterfaceForceConfigurationRefresh(interface);
    }
    return false;
}

} // namespace orven
