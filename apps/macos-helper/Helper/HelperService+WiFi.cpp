// Wi-Fi power, the preferred-networks list, and the known-networks file an
// unprivileged client cannot read. The password of a network is handed to
// networksetup and to nothing else: no log line, no message.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

constexpr std::array<std::string_view, 11> kSecurityTypes{
    "OPEN", "WEP", "WPA", "WPA2", "WPAE", "WPA2E", "WPA/WPA2 Personal", "WPA/WPA2 Enterprise",
    "WPA3 Personal", "WPA3 Enterprise", "8021XWEP"};

constexpr std::size_t kMaxSSIDBytes = 32;  // the 802.11 limit
constexpr std::size_t kReadChunk = 32768;
constexpr std::size_t kInitialReserve = 65536;

// Replaces every occurrence of `secret` in `text`, in case a tool ever
// echoes its arguments into what it prints.
std::string withoutSecret(std::string text, const std::string& secret)
{
    if (secret.empty()) return text;
    for (std::size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at + 10))
        text.replace(at, secret.size(), "<password>");
    return text;
}

} // namespace

bool HelperService::isValidSSID(std::string_view ssid)
{
    // An SSID is up to 32 arbitrary bytes on the air, but this one travels
    // as text on a tool's command line and shows up in lists and logs: it
    // must be valid UTF-8 without control or newline characters (which
    // could forge lines in the tool's output and the log). Spaces,
    // punctuation and symbols, emoji included, are ordinary network names.
    if (ssid.empty() || ssid.size() > kMaxSSIDBytes) return false;
    const auto scalars = text::decodeUTF8(ssid);
    if (!scalars) return false;
    for (const char32_t scalar : *scalars)
        if (text::isControl(scalar) || text::isNewline(scalar)) return false;
    return true;
}

bool HelperService::isAcceptedWiFiSecurityType(std::string_view type)
{
    return std::find(kSecurityTypes.begin(), kSecurityTypes.end(), type) != kSecurityTypes.end();
}

void HelperService::setWiFiPower(const std::string& serviceName, bool on, ActionReply reply)
{
    if (!isValidServiceName(serviceName)) return reply(false, "Invalid serviceName: " + serviceName);
    const std::string state = on ? "on" : "off";
    const auto outcome = runNetworksetup(context(), {"-setairportpower", serviceName, state});
    if (outcome.error) {
        log().error("setWiFiPower failed for %{public}s (%{public}s): %{public}s", serviceName, state, *outcome.error);
        return reply(false, outcome.error);
    }
    log().notice("set Wi-Fi power for %{public}s → %{public}s", serviceName, state);
    reply(true, std::nullopt);
}

void HelperService::addPreferredWiFiNetwork(const std::string& serviceName, const std::string& ssid,
                                            const std::string& securityType, const std::string& password,
                                            ActionReply reply)
{
    if (!isValidServiceName(serviceName)) return reply(false, "Invalid serviceName: " + serviceName);
    if (!isValidSSID(ssid)) return reply(false, "Invalid SSID: " + ssid);
    if (!isAcceptedWiFiSecurityType(securityType)) return reply(false, "Invalid securityType: " + securityType);
    std::vector<std::string> arguments{"-addpreferredwirelessnetworkatindex", serviceName, ssid, "0", securityType};
    // An open network is added without one.
    if (!password.empty()) arguments.push_back(password);
    const auto outcome = runNetworksetup(context(), arguments);
    if (outcome.error) {
        const std::string error = withoutSecret(*outcome.error, password);
        log().error("addPreferredWiFiNetwork failed for %{public}s on %{public}s: %{public}s", ssid, serviceName, error);
        return reply(false, error);
    }
    log().notice("added preferred Wi-Fi network %{public}s (%{public}s, %{public}s) at the top of %{public}s", ssid,
                 securityType, std::string(password.empty() ? "no password" : "password given"), serviceName);
    reply(true, std::nullopt);
}

void HelperService::readKnownWiFiPlistData(Reply<std::optional<std::vector<std::uint8_t>>, OptionalText> reply)
{
    const std::string path(paths::knownWiFiNetworks);
    const int fd = ::open(context().host.path(path).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        if (error == ENOENT) {
            log().notice("Plist not present at %{public}s", path);
            return reply(std::nullopt, "File not found at " + path);
        }
        const std::string description = std::strerror(error);
        log().error("open(%{public}s) failed: %{public}s (errno %d)", path, description, error);
        return reply(std::nullopt, "open() failed: " + description);
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(kInitialReserve);
    std::array<std::uint8_t, kReadChunk> chunk;
    for (;;) {
        const ssize_t count = ::read(fd, chunk.data(), chunk.size());
        if (count == 0) break;
        if (count < 0) {
            const int error = errno;
            if (error == EINTR) continue;
            const std::string description = std::strerror(error);
            log().error("read failed: %{public}s (errno %d)", description, error);
            ::close(fd);
            return reply(std::nullopt, "read() failed: " + description);
        }
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + count);
    }
    ::close(fd);
    log().notice("Read %ld bytes from Wi-Fi-known-networks plist", static_cast<long>(bytes.size()));
    reply(std::move(bytes), std::nullopt);
}

} // namespace orven
