#include "SetupOwnership.h"

namespace orven::SetupOwnership {

Result resolve(const std::vector<Entry>& entries)
{
    Result result;
    for (const auto& entry : entries) {
        if (!entry.value) return {{}, entry.key + ": value unreadable"};
        const auto device = entry.value->find("DeviceName");
        if (device == entry.value->end() || !device->second) return {{}, entry.key + ": no DeviceName"};
        if (device->second->empty()) return {{}, entry.key + ": empty DeviceName"};
        result.names.insert(*device->second);
    }
    return result;
}

} // namespace orven::SetupOwnership
