// pf reference tokens: recorded on disk the moment pf hands them out, given
// back only here. A token is the one resource that must never be lost.

#include <algorithm>
#include <set>

#include "Files.h"
#include "HelperService.h"
#include "Text.h"

namespace orven {

namespace {

constexpr mode_t kStateDirectoryMode = 0755;
// A token lets whoever holds it give our pf reference back: root only.
constexpr mode_t kTokenFileMode = 0600;
constexpr std::size_t kReleaseBudgetPerCall = 2;

} // namespace

std::string_view HelperService::tokenStorePath(TokenStore store)
{
    return store == TokenStore::primary ? paths::primaryToken : paths::emergencyToken;
}

std::string_view HelperService::tokenStoreMessageName(TokenStore store)
{
    return store == TokenStore::primary ? "the state directory" : "the boot-scoped emergency file";
}

std::vector<std::string> HelperService::readTokens(DaemonContext& context, TokenStore store)
{
    const auto content = files::read(context.host.path(tokenStorePath(store)));
    if (!content || !text::isValidUTF8(*content)) return {};
    return HardKillState::tokensFromFile(*content);
}

OptionalText HelperService::writeTokens(DaemonContext& context, const std::vector<std::string>& tokens,
                                        TokenStore store)
{
    const std::string path = context.host.path(tokenStorePath(store));
    if (tokens.empty()) {
        files::remove(path);
        return std::nullopt;
    }
    const auto describe = [store](const std::string& reason) {
        return "could not write " + std::string(tokenStoreMessageName(store)) + ": " + reason;
    };
    if (store == TokenStore::primary) {
        if (auto error = files::createDirectories(context.host.path(paths::stateDirectory), kStateDirectoryMode))
            return describe(*error);
    }
    if (auto error = files::writeAtomically(path, HardKillState::tokenFileContent(tokens), kTokenFileMode))
        return describe(*error);
    return std::nullopt;
}

std::vector<HelperService::HeldToken> HelperService::allHeldTokens(DaemonContext& context)
{
    std::vector<HeldToken> held;
    std::set<std::string> seen;
    for (const TokenStore store : tokenStores) {
        for (auto& token : readTokens(context, store))
            if (seen.insert(token).second) held.push_back({std::move(token), store});
    }
    return held;
}

OptionalText HelperService::persistTokenImmediately(DaemonContext& context, const std::string& token)
{
    const auto held = allHeldTokens(context);
    if (std::any_of(held.begin(), held.end(), [&](const HeldToken& h) { return h.token == token; }))
        return std::nullopt;
    std::vector<std::string> failures;
    for (const TokenStore store : tokenStores) {
        auto tokens = readTokens(context, store);
        tokens.push_back(token);
        if (auto error = writeTokens(context, tokens, store)) {
            failures.push_back(std::move(*error));
            continue;
        }
        if (store != TokenStore::primary)
            context.staticLog.error("could not record the pf token in the state directory — wrote it to %{public}s instead",
                                    tokenStorePath(store));
        return std::nullopt;
    }
    return "could not record the pf reference " + token + " anywhere on disk: " + text::join(failures, "; ");
}

std::optional<std::chrono::system_clock::time_point> HelperService::storeWrittenAt(DaemonContext& context,
                                                                                   TokenStore store)
{
    return files::modificationTime(context.host.path(tokenStorePath(store)));
}

std::optional<std::chrono::system_clock::time_point> HelperService::systemBootedAt(DaemonContext& context)
{
    return context.host.bootTime();
}

HelperService::TokenRelease HelperService::releaseHeldTokens(DaemonContext& context,
                                                             const std::optional<std::string>& except)
{
    const auto held = allHeldTokens(context);
    std::vector<HeldToken> candidates;
    std::copy_if(held.begin(), held.end(), std::back_inserter(candidates),
                 [&](const HeldToken& h) { return !except || h.token != *except; });
    if (candidates.empty()) return {TokenRelease::Kind::nothingHeld, {}};

    // Two at most: the time spent under the pf lock stays bounded.
    const std::size_t attemptCount = std::min(candidates.size(), kReleaseBudgetPerCall);
    std::vector<HeldToken> kept(candidates.begin() + static_cast<std::ptrdiff_t>(attemptCount), candidates.end());

    std::vector<HeldToken> refused;
    for (std::size_t i = 0; i < attemptCount; ++i) {
        if (pfctlReleaseToken(context, candidates[i].token)) refused.push_back(candidates[i]);
    }
    std::size_t dropped = 0;
    if (!refused.empty()) {
        std::vector<HardKillState::RefusedToken> dated;
        for (const auto& entry : refused) dated.push_back({entry.token, storeWrittenAt(context, entry.store)});
        const auto keep = HardKillState::keepAfterFailedRelease(dated, systemBootedAt(context));
        for (const auto& entry : refused) {
            if (std::find(keep.begin(), keep.end(), entry.token) != keep.end()) kept.push_back(entry);
            else ++dropped;
        }
    }

    for (const TokenStore store : tokenStores) {
        std::set<std::string> keepHere;
        for (const auto& entry : kept)
            if (entry.store == store) keepHere.insert(entry.token);
        // The reference the caller holds stays wherever it is recorded.
        if (except) keepHere.insert(*except);
        const auto current = readTokens(context, store);
        std::vector<std::string> next;
        std::copy_if(current.begin(), current.end(), std::back_inserter(next),
                     [&](const std::string& token) { return keepHere.count(token) > 0; });
        if (next == current) continue;
        if (auto error = writeTokens(context, next, store))
            context.staticLog.error("could not rewrite %{public}s: %{public}s", tokenStoreMessageName(store), *error);
    }

    const std::size_t keptCount = kept.size();
    if (keptCount == 0) {
        if (dropped > 0)
            context.staticLog.notice("pf token(s) predate this boot — they name no reference and were removed");
        return {TokenRelease::Kind::released, {}};
    }
    return {TokenRelease::Kind::failed,
            "pfctl -X did not accept " + std::to_string(keptCount) +
                " stored token(s) written since the last boot — ORVEN may still be holding pf enabled. They are kept so "
                "the next lift can try again."};
}

void HelperService::rollbackOwnReference(DaemonContext& context, const std::string& token)
{
    if (pfctlReleaseToken(context, token)) {
        context.staticLog.error("engage rolled back, but its own pf reference could not be released — the token stays "
                                "on disk so a later lift can retry");
        return;
    }
    for (const TokenStore store : tokenStores) {
        const auto current = readTokens(context, store);
        std::vector<std::string> next;
        std::copy_if(current.begin(), current.end(), std::back_inserter(next),
                     [&](const std::string& t) { return t != token; });
        if (next != current) writeTokens(context, next, store);
    }
}

} // namespace orven
