// SystemConfiguration preferences on the simulated Mac: a session reads the
// preferences once (`macsim sc ROOT preferences`), answers from that
// snapshot, keeps its writes, and commits them in one call that the
// simulator refuses as stale when the configuration changed meanwhile, as
// SCPreferencesCommitChanges does.

#include <sstream>

#include <nlohmann/json.hpp>

#include "SimulatedMacHost.h"
#include "Text.h"

namespace orven {

namespace {

// SCError codes the simulated calls can leave.
constexpr int kSCStatusFailed = 1001;
constexpr int kSCStatusInvalidArgument = 1002;
constexpr int kSCStatusNoKey = 1004;

using Runner = std::function<BoundedProcess::Result(const std::vector<std::string>&)>;
using Json = nlohmann::json;

Host::PreferencesValue fromJson(const Json& value)
{
    if (value.is_boolean()) return value.get<bool>();
    if (value.is_number_integer()) return value.get<std::int64_t>();
    if (value.is_number_float()) return value.get<double>();
    if (value.is_string()) return value.get<std::string>();
    return Host::PreferencesOpaque{std::make_shared<const Json>(value)};
}

Json toJson(const Host::PreferencesValue& value)
{
    return std::visit(
        [](const auto& item) -> Json {
            using T = std::decay_t<decltype(item)>;
            if constexpr (std::is_same_v<T, Host::PreferencesOpaque>) {
                const auto* held = static_cast<const Json*>(item.value.get());
                return held ? *held : Json(nullptr);
            } else {
                return Json(item);
            }
        },
        value);
}

// A preferences path as a JSON pointer into the snapshot; absent for a path
// that is not absolute.
std::optional<Json::json_pointer> pointer(std::string_view path)
{
    if (path.empty() || path.front() != '/') return std::nullopt;
    std::string escaped;
    for (const char c : path) {
        if (c == '~') escaped += "~0";
        else escaped += c;
    }
    return Json::json_pointer(escaped);
}

class SimulatedPreferencesSession final : public Host::PreferencesSession {
public:
    SimulatedPreferencesSession(Runner runner, Json snapshot, std::int64_t generation)
        : runner_(std::move(runner)), snapshot_(std::move(snapshot)), generation_(generation)
    {
    }

    std::optional<std::string> currentSetID() override
    {
        const auto current = currentSetPath();
        if (!text::startsWith(current, "/Sets/") || current.size() == 6) return fail(kSCStatusNoKey);
        return current.substr(6);
    }

    std::optional<std::vector<Host::NetworkService>> currentSetServices() override
    {
        const auto set = setNode();
        if (!set) return fail(kSCStatusNoKey);
        std::vector<Host::NetworkService> services;
        const Json::json_pointer at("/Network/Service");
        if (!set->contains(at) || !set->at(at).is_object()) return services;
        for (const auto& [id, link] : set->at(at).items()) {
            (void)link;
            Host::NetworkService service{id, std::nullopt};
            const auto device = serviceInterface(id);
            if (device && device->contains("DeviceName") && (*device)["DeviceName"].is_string())
                service.bsdName = (*device)["DeviceName"].get<std::string>();
            services.push_back(std::move(service));
        }
        return services;
    }

    std::vector<std::string> currentSetServiceOrder() override
    {
        std::vector<std::string> order;
        const auto set = setNode();
        const Json::json_pointer at("/Network/Global/IPv4/ServiceOrder");
        if (!set || !set->contains(at) || !set->at(at).is_array()) return order;
        for (const auto& id : set->at(at))
            if (id.is_string()) order.push_back(id.get<std::string>());
        return order;
    }

    std::optional<Host::MTURange> copyMTU(std::string_view serviceID) override
    {
        const auto device = deviceOf(serviceID);
        if (!device) return fail(kSCStatusInvalidArgument);
        const auto result = runner_({"sc", "mtu", *device});
        std::istringstream words(result.out);
        Reading reading;
        if (result.code != 0 || !(words >> reading.range.current >> reading.range.minimum >> reading.range.maximum >>
                                  reading.entity)) {
            const auto code = text::parseUnsigned(text::trimWhitespaceAndNewlines(result.out), 99999);
            return fail(code ? static_cast<int>(*code) : kSCStatusFailed);
        }
        readings_[std::string(serviceID)] = reading;
        return reading.range;
    }

    bool setMTU(std::string_view serviceID, int mtu) override
    {
        auto found = readings_.find(std::string(serviceID));
        if (found == readings_.end()) {
            if (!copyMTU(serviceID)) return false;
            found = readings_.find(std::string(serviceID));
        }
        const auto& [range, entity] = found->second;
        // 0 removes the setting; anything else must lie in the device's range.
        if (mtu != 0 && (mtu < range.minimum || mtu > range.maximum)) return refuse(kSCStatusInvalidArgument);
        const auto set = currentSetID();
        if (!set) return false;
        const std::string path = "/Sets/" + *set + "/Network/Interface/" + *deviceOf(serviceID);
        Json dictionary = valueAt(path).value_or(Json::object());
        if (!dictionary.is_object()) dictionary = Json::object();
        Json& settings = dictionary[entity];
        if (!settings.is_object()) settings = Json::object();
        if (mtu == 0) settings.erase("MTU");
        else settings["MTU"] = mtu;
        return write(path, dictionary);
    }

    std::optional<Host::PreferencesDictionary> pathGetValue(std::string_view path) override
    {
        const auto value = valueAt(path);
        if (!value) return fail(kSCStatusNoKey);
        if (!value->is_object()) return std::nullopt;
        Host::PreferencesDictionary dictionary;
        for (const auto& [key, item] : value->items()) dictionary[key] = fromJson(item);
        return dictionary;
    }

    bool pathSetValue(std::string_view path, const Host::PreferencesDictionary& value) override
    {
        Json dictionary = Json::object();
        for (const auto& [key, item] : value) dictionary[key] = toJson(item);
        return write(path, dictionary);
    }

    bool commitChanges() override
    {
        Json writes = Json::array();
        for (const auto& [path, value] : writes_) writes.push_back(Json::array({path, value}));
        if (!change({"sc", "commit", std::to_string(generation_), writes.dump()})) return false;
        writes_.clear();
        ++generation_;
        return true;
    }

    bool applyChanges() override { return change({"sc", "apply"}); }

    int lastError() const override { return lastError_; }

private:
    struct Reading {
        Host::MTURange range;
        std::string entity;
    };

    std::nullopt_t fail(int code)
    {
        lastError_ = code;
        return std::nullopt;
    }
    bool refuse(int code)
    {
        lastError_ = code;
        return false;
    }

    bool change(const std::vector<std::string>& arguments)
    {
        const auto result = runner_(arguments);
        if (result.code == 0) return true;
        const auto code = text::parseUnsigned(text::trimWhitespaceAndNewlines(result.out), 99999);
        lastError_ = code ? static_cast<int>(*code) : kSCStatusFailed;
        return false;
    }

    bool write(std::string_view path, const Json& value)
    {
        const auto at = pointer(path);
        if (!at) return refuse(kSCStatusInvalidArgument);
        try {
            snapshot_[*at] = value;
        } catch (const Json::exception&) {
            // A path through a value that is not a dictionary.
            return refuse(kSCStatusInvalidArgument);
        }
        writes_.emplace_back(std::string(path), value);
        return true;
    }

    std::optional<Json> valueAt(std::string_view path) const
    {
        const auto at = pointer(path);
        try {
            if (!at || !snapshot_.contains(*at)) return std::nullopt;
            return snapshot_.at(*at);
        } catch (const Json::exception&) {
            return std::nullopt;  // a path through an array
        }
    }

    // "/Sets/<id>", or empty when the snapshot has no such string.
    std::string currentSetPath() const
    {
        const auto found = snapshot_.find("CurrentSet");
        return found != snapshot_.end() && found->is_string() ? found->get<std::string>() : std::string();
    }

    std::optional<Json> setNode() const
    {
        const auto node = valueAt(currentSetPath());
        if (!node || !node->is_object()) return std::nullopt;
        return node;
    }

    std::optional<Json> serviceInterface(const std::string& serviceID) const
    {
        return valueAt("/NetworkServices/" + serviceID + "/Interface");
    }

    std::optional<std::string> deviceOf(std::string_view serviceID) const
    {
        const auto itf = serviceInterface(std::string(serviceID));
        if (!itf || !itf->contains("DeviceName") || !(*itf)["DeviceName"].is_string()) return std::nullopt;
        return (*itf)["DeviceName"].get<std::string>();
    }

    Runner runner_;
    Json snapshot_;
    std::int64_t generation_;
    std::vector<std::pair<std::string, Json>> writes_;
    std::map<std::string, Reading> readings_;
    int lastError_ = 0;
};

} // namespace

std::unique_ptr<Host::PreferencesSession> SimulatedMacHost::openPreferences(std::string_view)
{
    const auto result = simulator({"sc", "preferences"});
    if (result.code != 0) return nullptr;
    auto json = Json::parse(result.out, nullptr, false);
    if (!json.is_object() || !json.contains("preferences") || !json["preferences"].is_object() ||
        !json.contains("generation") || !json["generation"].is_number_integer())
        return nullptr;
    return std::make_unique<SimulatedPreferencesSession>(
        [this](const std::vector<std::string>& arguments) { return simulator(arguments); },
        std::move(json["preferences"]), json["generation"].get<std::int64_t>());
}

} // namespace orven
