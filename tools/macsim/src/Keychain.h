#pragma once
// The System keychain and the admin trust settings of the simulated Mac,
// kept in ROOT/.macsim/keychain.json and changed under the state lock.

#include <optional>
#include <string>
#include <vector>

#include "Store.h"

namespace orven::macsim {

// One access-control entry of a key: what it authorises and which programs
// may do it (none listed: any application).
struct KeychainACL {
    std::vector<std::string> authorizations;
    std::optional<std::vector<std::string>> applications;
};

struct KeychainKey {
    std::string id;
    std::string label;  // application label, hex
    std::string type;   // "rsa", "ec" or another name
    std::string data;   // the imported key, base64 (absent for planted keys)
    std::vector<KeychainACL> acl;
    std::string creator;
};

struct KeychainCertificate {
    std::string id;
    std::string der;            // base64
    std::string publicKeyHash;  // hex
};

struct TrustSetting {
    std::string domain;  // "admin" or "user"
    std::string der;     // base64
    std::string resultType;
    std::vector<std::string> policies;
};

struct KeychainModel {
    int nextId = 1;
    int macOSVersion = 15;
    // Trust changes need a user's authorization that a daemon cannot give
    // (macOS 11 and later without anyone logged in to answer).
    bool headless = false;
    std::vector<KeychainKey> keys;
    std::vector<KeychainCertificate> certificates;
    std::vector<TrustSetting> trustSettings;

    std::string newId() { return std::to_string(nextId++); }
};

// Both under the session's lock.
KeychainModel loadKeychain(const StorePaths& paths);
void saveKeychain(const StorePaths& paths, const KeychainModel& model);

std::optional<std::string> base64Decode(const std::string& text);
std::string base64Encode(const std::string& bytes);

// `macsim keychain ROOT ...`
int keychainCommand(const std::string& root, std::vector<std::string> args);

} // namespace orven::macsim
