// `macsim keychain ROOT ...`: what the daemon's keychain calls read and
// change on the simulated Mac, and what a test plants there.

#include "Keychain.h"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <iterator>

#include <nlohmann/json.hpp>

#include "Tools.h"

namespace orven::macsim {

namespace {

using nlohmann::json;

constexpr int kItemNotFound = -25300;
constexpr int kDuplicateItem = -25299;
constexpr int kIO = -36;

constexpr std::string_view kUsage =
    "usage: macsim keychain ROOT list\n"
    "       macsim keychain ROOT plant-key LABEL-HEX [--type rsa|ec] [--creator PATH] [--signer PATH]... "
    "[--any-application]\n"
    "       macsim keychain ROOT macos VERSION | headless on|off\n"
    "       macsim keychain ROOT import-key | add-certificate   (a JSON request on standard input)\n"
    "       macsim keychain ROOT delete ID\n";

// A program that is not one of the system's VPN programs.
constexpr std::string_view kOtherProgram = "/Applications/Other VPN.app";

std::string keychainPath(const StorePaths& paths) { return paths.dir + "/keychain.json"; }

json aclToJSON(const KeychainACL& acl)
{
    json out = {{"authorizations", acl.authorizations}};
    out["applications"] = acl.applications ? json(*acl.applications) : json(nullptr);
    return out;
}

KeychainACL aclFromJSON(const json& in)
{
    KeychainACL acl;
    acl.authorizations = in.at("authorizations").get<std::vector<std::string>>();
    if (!in.at("applications").is_null()) acl.applications = in.at("applications").get<std::vector<std::string>>();
    return acl;
}

json modelToJSON(const KeychainModel& model)
{
    json keys = json::array(), certificates = json::array(), trust = json::array();
    for (const auto& key : model.keys) {
        json acl = json::array();
        for (const auto& entry : key.acl) acl.push_back(aclToJSON(entry));
        keys.push_back({{"id", key.id}, {"label", key.label}, {"type", key.type}, {"data", key.data},
                        {"acl", acl}, {"creator", key.creator}});
    }
    for (const auto& certificate : model.certificates)
        certificates.push_back(
            {{"id", certificate.id}, {"der", certificate.der}, {"publicKeyHash", certificate.publicKeyHash}});
    for (const auto& setting : model.trustSettings)
        trust.push_back({{"domain", setting.domain}, {"der", setting.der}, {"resultType", setting.resultType},
                         {"policies", setting.policies}});
    return {{"nextId", model.nextId}, {"macOSVersion", model.macOSVersion}, {"headless", model.headless},
            {"keys", keys}, {"certificates", certificates}, {"trustSettings", trust}};
}

// One of the keychain's own changes: recorded like a tool call (as
// "securityd"), and a fault rule for it makes it fail with errSecIO.
bool refusedByFault(const StorePaths& paths, const std::vector<std::string>& call)
{
    Session session(paths);
    auto fault = consultFaults(session, "securityd", call, true);
    session.save();
    return fault && fault->exitStatus && *fault->exitStatus != 0;
}

int answer(int status, const std::optional<std::string>& id = std::nullopt)
{
    json out = {{"status", status}};
    if (id) out["id"] = *id;
    std::cout << out.dump() << "\n";
    return 0;
}

json readRequest()
{
    const std::string text(std::istreambuf_iterator<char>(std::cin), {});
    return json::parse(text);
}

std::vector<std::string> allOf(std::vector<std::string>& args, const std::string& name)
{
    std::vector<std::string> values;
    for (auto it = std::find(args.begin(), args.end(), name); it != args.end();
         it = std::find(args.begin(), args.end(), name)) {
        if (it + 1 == args.end()) throw std::invalid_argument(name + " needs a value");
        values.push_back(*(it + 1));
        args.erase(it, it + 2);
    }
    return values;
}

bool isHex(const std::string& text)
{
    return !text.empty() && text.size() % 2 == 0 &&
           std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

int plantKey(const StorePaths& paths, std::vector<std::string> args)
{
    const bool anyApplication = [&] {
        auto it = std::find(args.begin(), args.end(), "--any-application");
        if (it == args.end()) return false;
        args.erase(it);
        return true;
    }();
    const auto types = allOf(args, "--type");
    const auto creators = allOf(args, "--creator");
    auto signers = allOf(args, "--signer");
    if (args.size() != 1 || !isHex(args[0]) || types.size() > 1 || creators.size() > 1 ||
        (anyApplication && !signers.empty())) {
        std::cerr << kUsage;
        return 64;
    }
    KeychainKey key;
    key.label = args[0];
    std::transform(key.label.begin(), key.label.end(), key.label.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    key.type = types.empty() ? "rsa" : types[0];
    key.creator = creators.empty() ? std::string(kOtherProgram) : creators[0];
    if (signers.empty() && !anyApplication) signers.push_back(key.creator);
    key.acl.push_back({{"encrypt"}, std::nullopt});
    key.acl.push_back({{"decrypt", "derive", "sign"},
                       anyApplication ? std::nullopt : std::optional<std::vector<std::string>>(signers)});
    Session session(paths);
    auto model = loadKeychain(paths);
    key.id = model.newId();
    model.keys.push_back(key);
    saveKeychain(paths, model);
    std::cout << key.id << "\n";
    return 0;
}

int importKey(const StorePaths& paths)
{
    const json request = readRequest();
    KeychainKey key;
    key.label = request.at("label").get<std::string>();
    key.type = request.at("type").get<std::string>();
    key.data = request.at("data").get<std::string>();
    key.creator = request.value("creator", std::string("/Library/PrivilegedHelperTools/test.orven.app"));
    for (const auto& entry : request.at("acl")) key.acl.push_back(aclFromJSON(entry));
    if (refusedByFault(paths, {"import-key", key.label})) return answer(kIO);
    Session session(paths);
    auto model = loadKeychain(paths);
    if (std::any_of(model.keys.begin(), model.keys.end(), [&](const auto& k) { return k.label == key.label; }))
        return answer(kDuplicateItem);
    key.id = model.newId();
    model.keys.push_back(key);
    saveKeychain(paths, model);
    return answer(0, key.id);
}

int addCertificate(const StorePaths& paths)
{
    const json request = readRequest();
    KeychainCertificate certificate;
    certificate.der = request.at("der").get<std::string>();
    certificate.publicKeyHash = request.at("publicKeyHash").get<std::string>();
    if (refusedByFault(paths, {"add-certificate", certificate.publicKeyHash})) return answer(kIO);
    Session session(paths);
    auto model = loadKeychain(paths);
    if (std::any_of(model.certificates.begin(), model.certificates.end(),
                    [&](const auto& c) { return c.der == certificate.der; }))
        return answer(kDuplicateItem);
    certificate.id = model.newId();
    model.certificates.push_back(certificate);
    saveKeychain(paths, model);
    return answer(0, certificate.id);
}

int deleteItem(const StorePaths& paths, const std::string& id)
{
    if (refusedByFault(paths, {"delete", id})) return answer(kIO);
    Session session(paths);
    auto model = loadKeychain(paths);
    const auto keys = std::erase_if(model.keys, [&](const auto& k) { return k.id == id; });
    const auto certificates = std::erase_if(model.certificates, [&](const auto& c) { return c.id == id; });
    if (keys + certificates == 0) return answer(kItemNotFound);
    saveKeychain(paths, model);
    return answer(0);
}

} // namespace

KeychainModel loadKeychain(const StorePaths& paths)
{
    KeychainModel model;
    const auto text = readFile(keychainPath(paths));
    if (!text) return model;
    const json in = json::parse(*text);
    model.nextId = in.value("nextId", 1);
    model.macOSVersion = in.value("macOSVersion", 15);
    model.headless = in.value("headless", false);
    for (const auto& item : in.value("keys", json::array())) {
        KeychainKey key{item.at("id"), item.at("label"), item.at("type"), item.value("data", ""), {},
                        item.value("creator", "")};
        for (const auto& entry : item.at("acl")) key.acl.push_back(aclFromJSON(entry));
        model.keys.push_back(std::move(key));
    }
    for (const auto& item : in.value("certificates", json::array()))
        model.certificates.push_back({item.at("id"), item.at("der"), item.at("publicKeyHash")});
    for (const auto& item : in.value("trustSettings", json::array()))
        model.trustSettings.push_back({item.at("domain"), item.at("der"), item.at("resultType"),
                                       item.at("policies").get<std::vector<std::string>>()});
    return model;
}

void saveKeychain(const StorePaths& paths, const KeychainModel& model)
{
    if (!writeFileAtomic(keychainPath(paths), modelToJSON(model).dump(2) + "\n"))
        throw std::runtime_error("cannot write " + keychainPath(paths));
}

std::string base64Encode(const std::string& bytes)
{
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const unsigned group = (static_cast<unsigned char>(bytes[i]) << 16) |
                               (static_cast<unsigned char>(bytes[i + 1]) << 8) | static_cast<unsigned char>(bytes[i + 2]);
        for (int shift = 18; shift >= 0; shift -= 6) out += alphabet[(group >> shift) & 63];
    }
    if (i < bytes.size()) {
        unsigned group = static_cast<unsigned char>(bytes[i]) << 16;
        if (i + 1 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        out += alphabet[(group >> 18) & 63];
        out += alphabet[(group >> 12) & 63];
        out += i + 1 < bytes.size() ? alphabet[(group >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::optional<std::string> base64Decode(const std::string& text)
{
    std::string out;
    unsigned group = 0;
    int bits = 0;
    int padding = 0;
    for (const char c : text) {
        if (c == '\n' || c == '\r' || c == ' ' || c == '\t') continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        if (padding > 0) return std::nullopt;
        int value;
        if (c >= 'A' && c <= 'Z') value = c - 'A';
        else if (c >= 'a' && c <= 'z') value = c - 'a' + 26;
        else if (c >= '0' && c <= '9') value = c - '0' + 52;
        else if (c == '+') value = 62;
        else if (c == '/') value = 63;
        else return std::nullopt;
        group = (group << 6) | static_cast<unsigned>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((group >> bits) & 0xFF);
        }
    }
    if (padding > 2) return std::nullopt;
    return out;
}

int keychainCommand(const std::string& root, std::vector<std::string> args)
{
    const StorePaths paths(root);
    try {
        const std::string sub = args.empty() ? "" : args.front();
        if (!args.empty()) args.erase(args.begin());
        if (sub == "list" && args.empty()) {
            Session session(paths);
            std::cout << modelToJSON(loadKeychain(paths)).dump(2) << "\n";
            return 0;
        }
        if (sub == "plant-key") return plantKey(paths, args);
        if (sub == "import-key" && args.empty()) return importKey(paths);
        if (sub == "add-certificate" && args.empty()) return addCertificate(paths);
        if (sub == "delete" && args.size() == 1) return deleteItem(paths, args[0]);
        if ((sub == "macos" || sub == "headless") && args.size() == 1) {
            Session session(paths);
            auto model = loadKeychain(paths);
            if (sub == "macos") {
                model.macOSVersion = std::stoi(args[0]);
            } else if (args[0] == "on" || args[0] == "off") {
                model.headless = args[0] == "on";
            } else {
                std::cerr << kUsage;
                return 64;
            }
            saveKeychain(paths, model);
            return 0;
        }
        std::cerr << kUsage;
        return 64;
    } catch (const std::exception& e) {
        std::cerr << "macsim: keychain: " << e.what() << "\n";
        return 64;
    }
}

} // namespace orven::macsim
