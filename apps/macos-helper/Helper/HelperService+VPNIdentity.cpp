// Installing and releasing the VPN client identity in the System keychain.

#include "HelperService.h"
#include "VPNIdentityKeychain.h"

namespace orven {

namespace {

constexpr std::string_view kOutsideBounds = "Identity or passphrase outside the accepted size";

bool withinBounds(const std::vector<std::uint8_t>& pkcs12, const std::string& passphrase)
{
    return pkcs12.size() <= static_cast<std::size_t>(OrvenHelperConstants::maxVPNIdentityBytes) &&
           passphrase.size() <= static_cast<std::size_t>(OrvenHelperConstants::maxVPNIdentityPassphraseBytes);
}

std::vector<std::string> signingPrograms()
{
    return {OrvenHelperConstants::vpnIdentitySigners.begin(), OrvenHelperConstants::vpnIdentitySigners.end()};
}

} // namespace

void HelperService::installVPNIdentity(const std::vector<std::uint8_t>& pkcs12, const std::string& passphrase,
                                       Reply<std::int64_t, OptionalText> reply)
{
    if (!withinBounds(pkcs12, passphrase)) {
        log_.error("installVPNIdentity: rejected input outside the size bounds");
        reply(-1, std::string(kOutsideBounds));
        return;
    }
    const auto result = VPNIdentityKeychain::install(pkcs12, passphrase, VPNIdentityKeychain::systemKeychainPath,
                                                     signingPrograms(), context_.host.keychain());
    if (const auto* failure = std::get_if<VPNIdentityKeychain::Failure>(&result)) {
        log_.error("installVPNIdentity failed: %{public}s", failure->message);
        reply(-1, failure->message);
        return;
    }
    const auto outcome = std::get<VPNIdentityKeychain::Outcome>(result);
    log_.notice("installVPNIdentity: %{public}s", VPNIdentityKeychain::name(outcome));
    reply(static_cast<std::int64_t>(outcome), std::nullopt);
}

void HelperService::releaseVPNIdentity(const std::vector<std::uint8_t>& pkcs12, const std::string& passphrase,
                                       Reply<std::int64_t, OptionalText> reply)
{
    if (!withinBounds(pkcs12, passphrase)) {
        log_.error("releaseVPNIdentity: rejected input outside the size bounds");
        reply(-1, std::string(kOutsideBounds));
        return;
    }
    const auto result = VPNIdentityKeychain::release(pkcs12, passphrase, VPNIdentityKeychain::systemKeychainPath,
                                                     signingPrograms(), context_.host.keychain());
    if (const auto* failure = std::get_if<VPNIdentityKeychain::Failure>(&result)) {
        log_.error("releaseVPNIdentity failed: %{public}s", failure->message);
        reply(-1, failure->message);
        return;
    }
    const auto outcome = std::get<VPNIdentityKeychain::ReleaseOutcome>(result);
    log_.notice("releaseVPNIdentity: %{public}s", VPNIdentityKeychain::name(outcome));
    reply(static_cast<std::int64_t>(outcome), std::nullopt);
}

} // namespace orven
