// How network services get their addresses, and the order in which they are
// preferred: everything goes through networksetup, after every value the
// client sent has been checked.

#include <arpa/inet.h>

#include <cstring>

#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

// The four decimal pieces of a dotted IPv4 address, absent unless each is
// 0-255 without leading zeros.
std::optional<std::uint32_t> parseDottedQuad(std::string_view text)
{
    const auto pieces = text::splitKeepingEmpty(text::trimWhitespaceAndNewlines(text), '.');
    if (pieces.size() != 4) return std::nullopt;
    std::uint32_t value = 0;
    for (const auto& piece : pieces) {
        if (piece.empty() || !text::allASCIIDigits(piece) || (piece.size() > 1 && piece.front() == '0'))
            return std::nullopt;
        const auto octet = text::parseUnsigned(piece, 255);
        if (!octet) return std::nullopt;
        value = (value << 8) | static_cast<std::uint32_t>(*octet);
    }
    return value;
}

void replyTo(const Logger& log, std::string_view method, const std::string& mode, const std::string& serviceName,
             const OptionalText& error, ActionReply& reply)
{
    if (error) {
        log.error("%{public}s %{public}s failed: %{public}s", method, mode, *error);
        reply(false, error);
        return;
    }
    log.notice("%{public}s %{public}s on %{public}s succeeded", method, mode, serviceName);
    reply(true, std::nullopt);
}

} // namespace

bool HelperService::isValidIPv4(std::string_view text) { return parseDottedQuad(text).has_value(); }

bool HelperService::isValidIPv4SubnetMask(std::string_view text)
{
    // A mask must be a run of one-bits from the top (a prefix of 1 to 32
    // bits): configd and the routing table only know prefixes, so a
    // non-contiguous mask such as 255.0.255.0 can only be a typing mistake,
    // and 0.0.0.0 would put every destination on the link.
    const auto mask = parseDottedQuad(text);
    if (!mask || *mask == 0) return false;
    const std::uint32_t inverted = ~*mask;
    return (inverted & (inverted + 1)) == 0;
}

bool HelperService::isValidIPv6(std::string_view text)
{
    // The platform's own parser decides; an embedded NUL would cut the text
    // it sees short, so it fails here.
    if (text.empty() || text.find('\0') != std::string_view::npos) return false;
    in6_addr address{};
    return ::inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1;
}

void HelperService::applyIPv4(const std::string& serviceName, const std::string& mode, const std::string& ip,
                              const std::string& subnetMask, const std::string& router, ActionReply reply)
{
    if (!isValidServiceName(serviceName)) return reply(false, "Invalid serviceName: " + serviceName);
    std::vector<std::string> arguments;
    if (mode == "dhcp") {
        arguments = {"-setdhcp", serviceName};
    } else if (mode == "dhcpWithManualAddress") {
        if (!isValidIPv4(ip)) return reply(false, "Invalid IPv4 address: " + ip);
        arguments = {"-setmanualwithdhcprouter", serviceName, ip};
    } else if (mode == "manual") {
        if (!isValidIPv4(ip)) return reply(false, "Invalid IPv4 address: " + ip);
        if (!isValidIPv4(router)) return reply(false, "Invalid IPv4 router: " + router);
        if (!isValidIPv4SubnetMask(subnetMask)) return reply(false, "Invalid subnet mask: " + subnetMask);
        arguments = {"-setmanual", serviceName, ip, subnetMask, router};
    } else if (mode == "off") {
        arguments = {"-setnetworkserviceenabled", serviceName, "off"};
    } else {
        return reply(false, "Unknown IPv4 mode: " + mode);
    }
    const auto outcome = runNetworksetup(context(), arguments);
    replyTo(log(), "applyIPv4", mode, serviceName, outcome.error, reply);
}

void HelperService::applyIPv6(const std::string& serviceName, const std::string& mode, const std::string& router,
                              const std::string& address, std::int64_t prefixLength, ActionReply reply)
{
    if (!isValidServiceName(serviceName)) return reply(false, "Invalid serviceName: " + serviceName);
    std::vector<std::string> arguments;
    if (mode == "automatic") {
        arguments = {"-setv6automatic", serviceName};
    } else if (mode == "linkLocalOnly") {
        arguments = {"-setv6linklocal", serviceName};
    } else if (mode == "off") {
        arguments = {"-setv6off", serviceName};
    } else if (mode == "manual") {
        if (!isValidIPv6(address)) return reply(false, "Invalid IPv6 address: " + address);
        if (!isValidIPv6(router)) return reply(false, "Invalid IPv6 router: " + router);
        // As an unsigned number, so every negative length fails too.
        if (static_cast<std::uint64_t>(prefixLength) > 128)
            return reply(false, "Invalid IPv6 prefix length: " + std::to_string(prefixLength));
        arguments = {"-setv6manual", serviceName, address, std::to_string(prefixLength), router};
    } else {
        return reply(false, "Unknown IPv6 mode: " + mode);
    }
    const auto outcome = runNetworksetup(context(), arguments);
    replyTo(log(), "applyIPv6", mode, serviceName, outcome.error, reply);
}

void HelperService::listServiceOrder(Reply<OptionalText, OptionalText> reply)
{
    auto outcome = runNetworksetup(context(), {"-listnetworkserviceorder"});
    if (outcome.error) {
        log().error("listServiceOrder failed: %{public}s", *outcome.error);
        return reply(std::nullopt, outcome.error);
    }
    reply(std::move(outcome.output), std::nullopt);
}

void HelperService::setServiceOrder(const std::vector<std::string>& orderedServiceNames, ActionReply reply)
{
    if (auto reason = OrvenHelperConstants::validateServiceOrderList(orderedServiceNames))
        return reply(false, std::move(reason));
    std::vector<std::string> arguments{"-ordernetworkservices"};
    arguments.insert(arguments.end(), orderedServiceNames.begin(), orderedServiceNames.end());
    const auto outcome = runNetworksetup(context(), arguments);
    if (outcome.error) {
        log().error("setServiceOrder failed: %{public}s", *outcome.error);
        return reply(false, outcome.error);
    }
    const std::string promoted = orderedServiceNames.empty() ? "?" : orderedServiceNames.front();
    log().notice("service order rewritten — promoted %{public}s (%ld services)", promoted,
                 static_cast<long>(orderedServiceNames.size()));
    reply(true, std::nullopt);
}

} // namespace orven
