// /usr/bin/security: add-trusted-cert and remove-trusted-cert over the trust
// settings of the simulated Mac, with the real tool's words and statuses.

#include <algorithm>
#include <array>

#include "Keychain.h"
#include "Tools.h"

namespace orven::macsim {

namespace {

constexpr std::string_view kAddUsage =
    "Usage: add-trusted-cert [-d] [-r resultType] [-p policy] [-a appPath] [-s policyString] [-e allowedError] "
    "[-u keyUsage] [-k keychain] [-i settingsFileIn] [-o settingsFileOut] certFile\n";
constexpr std::string_view kRemoveUsage = "Usage: remove-trusted-cert [-d] certFile\n";
constexpr std::string_view kToolUsage =
    "Usage: security [-h] [-i] [-l] [-p prompt] [-q] [-v] [command] [opt ...]\n";
constexpr std::string_view kNoUserInteraction = "The authorization was denied since no user interaction was possible.";

constexpr std::array<std::string_view, 4> kResultTypes{"trustRoot", "trustAsRoot", "deny", "unspecified"};
constexpr std::array<std::string_view, 14> kPolicies{"ssl",          "smime",    "codeSign",    "IPSec",
                                                     "iChat",        "basic",    "swUpdate",    "pkgSign",
                                                     "pkinitClient", "pkinitServer", "eap",      "macappstore",
                                                     "appleID",      "timestamping"};

template <std::size_t N>
bool oneOf(const std::array<std::string_view, N>& names, const std::string& value)
{
    return std::find(names.begin(), names.end(), value) != names.end();
}

// The DER of a certificate file, PEM or DER; absent when it is not one. Only
// the outer SEQUENCE is checked: the daemon parses certificates for real.
std::optional<std::string> certificateDER(const std::string& content)
{
    std::string der = content;
    const std::string begin = "-----BEGIN CERTIFICATE-----", end = "-----END CERTIFICATE-----";
    if (const auto at = content.find(begin); at != std::string::npos) {
        const auto stop = content.find(end, at);
        if (stop == std::string::npos) return std::nullopt;
        auto decoded = base64Decode(content.substr(at + begin.size(), stop - at - begin.size()));
        if (!decoded) return std::nullopt;
        der = *decoded;
    }
    if (der.size() < 2 || static_cast<unsigned char>(der[0]) != 0x30) return std::nullopt;
    std::size_t length = static_cast<unsigned char>(der[1]);
    std::size_t header = 2;
    if (length & 0x80) {
        const std::size_t octets = length & 0x7F;
        if (octets == 0 || octets > 4 || der.size() < 2 + octets) return std::nullopt;
        length = 0;
        for (std::size_t i = 0; i < octets; ++i) length = (length << 8) | static_cast<unsigned char>(der[2 + i]);
        header += octets;
    }
    if (header + length != der.size()) return std::nullopt;
    return der;
}

struct Parsed {
    bool adminDomain = false;
    std::string resultType = "trustRoot";
    std::vector<std::string> policies;
    std::string file;
};

// Options of both commands; absent on a usage error.
std::optional<Parsed> parse(const std::vector<std::string>& args, bool add)
{
    Parsed parsed;
    std::size_t i = 1;
    for (; i < args.size() && args[i].size() > 1 && args[i][0] == '-'; ++i) {
        const std::string& option = args[i];
        if (option == "-d") {
            parsed.adminDomain = true;
            continue;
        }
        if (!add) return std::nullopt;
        if (option != "-r" && option != "-p" && option != "-k") return std::nullopt;
        if (i + 1 >= args.size()) return std::nullopt;
        const std::string& value = args[++i];
        if (option == "-r") {
            if (!oneOf(kResultTypes, value)) return std::nullopt;
            parsed.resultType = value;
        } else if (option == "-p") {
            if (!oneOf(kPolicies, value)) return std::nullopt;
            parsed.policies.push_back(value);
        }
    }
    if (i + 1 != args.size()) return std::nullopt;
    parsed.file = args[i];
    return parsed;
}

} // namespace

bool securityMutates(const std::vector<std::string>& args)
{
    return !args.empty() && (args[0] == "add-trusted-cert" || args[0] == "remove-trusted-cert");
}

int securityMain(ToolContext& c)
{
    if (c.args.empty() || !securityMutates(c.args)) {
        c.err += kToolUsage;
        return 2;
    }
    const bool add = c.args[0] == "add-trusted-cert";
    const auto parsed = parse(c.args, add);
    if (!parsed) {
        c.err += add ? kAddUsage : kRemoveUsage;
        return 2;
    }
    const auto content = readFile(c.paths.host(parsed->file));
    if (!content) {
        c.out += "***Error reading file " + parsed->file + "\n";
        c.err += "Error reading file " + parsed->file + "\n";
        return 1;
    }
    const auto der = certificateDER(*content);
    if (!der) {
        c.err += "SecCertificateCreateFromData: Unknown format in import.\nError reading file " + parsed->file + "\n";
        return 1;
    }
    const std::string domain = parsed->adminDomain ? "admin" : "user";
    const std::string encoded = base64Encode(*der);
    const std::string function = add ? "SecTrustSettingsSetTrustSettings" : "SecTrustSettingsRemoveTrustSettings";

    Session session(c.paths);
    auto model = loadKeychain(c.paths);
    auto existing = std::find_if(model.trustSettings.begin(), model.trustSettings.end(),
                                 [&](const TrustSetting& s) { return s.domain == domain && s.der == encoded; });
    if (!add && existing == model.trustSettings.end()) {
        c.err += function + ": The specified item could not be found in the keychain.\n";
        return 1;
    }
    if (model.headless && parsed->adminDomain) {
        c.err += function + ": " + std::string(kNoUserInteraction) + "\n";
        return 1;
    }
    if (add) {
        TrustSetting setting{domain, encoded, parsed->resultType, parsed->policies};
        if (existing != model.trustSettings.end()) *existing = setting;
        else model.trustSettings.push_back(setting);
    } else {
        model.trustSettings.erase(existing);
    }
    saveKeychain(c.paths, model);
    return 0;
}

} // namespace orven::macsim
