// SystemConfiguration preferences on macOS: each member of the session is
// one SCPreferences / SCNetwork call and a translation of its values.

#include "DarwinHost.h"

#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>

namespace orven {

namespace {

// A Core Foundation reference we own (a Create or Copy result).
struct CFReleaser {
    void operator()(const void* reference) const
    {
        if (reference) CFRelease(reference);
    }
};
template <class T>
using Owned = std::unique_ptr<std::remove_pointer_t<T>, CFReleaser>;

Owned<CFStringRef> makeString(std::string_view text)
{
    return Owned<CFStringRef>(CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                                      static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
}

std::optional<std::string> textOf(CFTypeRef value)
{
    if (!value || CFGetTypeID(value) != CFStringGetTypeID()) return std::nullopt;
    NSData* bytes = [(__bridge NSString*)value dataUsingEncoding:NSUTF8StringEncoding];
    if (!bytes) return std::nullopt;
    return std::string(static_cast<const char*>(bytes.bytes), bytes.length);
}

Host::PreferencesValue valueOf(CFTypeRef value)
{
    const CFTypeID type = CFGetTypeID(value);
    if (type == CFBooleanGetTypeID()) return static_cast<bool>(CFBooleanGetValue(static_cast<CFBooleanRef>(value)));
    if (type == CFNumberGetTypeID()) {
        const auto number = static_cast<CFNumberRef>(value);
        if (CFNumberIsFloatType(number)) {
            double real = 0;
            CFNumberGetValue(number, kCFNumberDoubleType, &real);
            return real;
        }
        std::int64_t integer = 0;
        CFNumberGetValue(number, kCFNumberSInt64Type, &integer);
        return integer;
    }
    if (auto text = textOf(value)) return *text;
    CFRetain(value);
    return Host::PreferencesOpaque{std::shared_ptr<const void>(value, CFReleaser{})};
}

Owned<CFTypeRef> makeValue(const Host::PreferencesValue& value)
{
    return std::visit(
        [](const auto& item) -> Owned<CFTypeRef> {
            using T = std::decay_t<decltype(item)>;
            if constexpr (std::is_same_v<T, bool>) {
                return Owned<CFTypeRef>(CFRetain(item ? kCFBooleanTrue : kCFBooleanFalse));
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
                return Owned<CFTypeRef>(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &item));
            } else if constexpr (std::is_same_v<T, double>) {
                return Owned<CFTypeRef>(CFNumberCreate(kCFAllocatorDefault, kCFNumberDoubleType, &item));
            } else if constexpr (std::is_same_v<T, std::string>) {
                return Owned<CFTypeRef>(makeString(item).release());
            } else {
                return Owned<CFTypeRef>(item.value ? CFRetain(item.value.get()) : nullptr);
            }
        },
        value);
}

class DarwinPreferencesSession final : public Host::PreferencesSession {
public:
    explicit DarwinPreferencesSession(SCPreferencesRef preferences) : preferences_(preferences) {}

    std::optional<std::string> currentSetID() override
    {
        Owned<SCNetworkSetRef> set(SCNetworkSetCopyCurrent(preferences_.get()));
        if (!set) return failed();
        return textOf(SCNetworkSetGetSetID(set.get()));
    }

    std::optional<std::vector<Host::NetworkService>> currentSetServices() override
    {
        Owned<SCNetworkSetRef> set(SCNetworkSetCopyCurrent(preferences_.get()));
        if (!set) return failed();
        Owned<CFArrayRef> services(SCNetworkSetCopyServices(set.get()));
        if (!services) return failed();
        std::vector<Host::NetworkService> out;
        for (CFIndex i = 0; i < CFArrayGetCount(services.get()); ++i) {
            const auto service = static_cast<SCNetworkServiceRef>(CFArrayGetValueAtIndex(services.get(), i));
            const auto id = textOf(SCNetworkServiceGetServiceID(service));
            if (!id) continue;
            const SCNetworkInterfaceRef interface = SCNetworkServiceGetInterface(service);
            out.push_back({*id, interface ? textOf(SCNetworkInterfaceGetBSDName(interface)) : std::nullopt});
        }
        return out;
    }

    std::vector<std::string> currentSetServiceOrder() override
    {
        std::vector<std::string> order;
        Owned<SCNetworkSetRef> set(SCNetworkSetCopyCurrent(preferences_.get()));
        if (!set) return order;
        const CFArrayRef ids = SCNetworkSetGetServiceOrder(set.get());
        if (!ids) return order;
        for (CFIndex i = 0; i < CFArrayGetCount(ids); ++i)
            if (auto id = textOf(CFArrayGetValueAtIndex(ids, i))) order.push_back(*id);
        return order;
    }

    std::optional<Host::MTURange> copyMTU(std::string_view serviceID) override
    {
        const auto service = copyService(serviceID);
        const SCNetworkInterfaceRef interface = service ? SCNetworkServiceGetInterface(service.get()) : nullptr;
        Host::MTURange range;
        if (!interface || !SCNetworkInterfaceCopyMTU(interface, &range.current, &range.minimum, &range.maximum))
            return failed();
        return range;
    }

    bool setMTU(std::string_view serviceID, int mtu) override
    {
        const auto service = copyService(serviceID);
        const SCNetworkInterfaceRef interface = service ? SCNetworkServiceGetInterface(service.get()) : nullptr;
        return remember(interface && SCNetworkInterfaceSetMTU(interface, mtu));
    }

    std::optional<Host::PreferencesDictionary> pathGetValue(std::string_view path) override
    {
        const auto pathText = makeString(path);
        const CFDictionaryRef value = pathText ? SCPreferencesPathGetValue(preferences_.get(), pathText.get()) : nullptr;
        if (!value) return failed();
        if (CFGetTypeID(value) != CFDictionaryGetTypeID()) return std::nullopt;
        Host::PreferencesDictionary out;
        for (id key in (__bridge NSDictionary*)value) {
            auto name = textOf((__bridge CFTypeRef)key);
            if (!name) return std::nullopt;  // not a string-keyed dictionary
            out[*name] = valueOf((__bridge CFTypeRef)((__bridge NSDictionary*)value)[key]);
        }
        return out;
    }

    bool pathSetValue(std::string_view path, const Host::PreferencesDictionary& value) override
    {
        Owned<CFMutableDictionaryRef> dictionary(CFDictionaryCreateMutable(
            kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
        for (const auto& [key, item] : value) {
            const auto name = makeString(key);
            const auto converted = makeValue(item);
            if (!name || !converted) return remember(false);
            CFDictionarySetValue(dictionary.get(), name.get(), converted.get());
        }
        const auto pathText = makeString(path);
        return remember(pathText && SCPreferencesPathSetValue(preferences_.get(), pathText.get(), dictionary.get()));
    }

    bool commitChanges() override { return remember(SCPreferencesCommitChanges(preferences_.get())); }
    bool applyChanges() override { return remember(SCPreferencesApplyChanges(preferences_.get())); }
    int lastError() const override { return lastError_; }

private:
    Owned<SCNetworkServiceRef> copyService(std::string_view serviceID) const
    {
        const auto id = makeString(serviceID);
        return Owned<SCNetworkServiceRef>(id ? SCNetworkServiceCopy(preferences_.get(), id.get()) : nullptr);
    }

    std::nullopt_t failed()
    {
        lastError_ = SCError();
        return std::nullopt;
    }

    bool remember(bool succeeded)
    {
        if (!succeeded) lastError_ = SCError();
        return succeeded;
    }

    Owned<SCPreferencesRef> preferences_;
    int lastError_ = 0;
};

} // namespace

std::unique_ptr<Host::PreferencesSession> DarwinHost::openPreferences(std::string_view name)
{
    const auto nameText = makeString(name);
    if (!nameText) return nullptr;
    SCPreferencesRef preferences = SCPreferencesCreate(kCFAllocatorDefault, nameText.get(), nullptr);
    if (!preferences) return nullptr;
    return std::make_unique<DarwinPreferencesSession>(preferences);
}

} // namespace orven
