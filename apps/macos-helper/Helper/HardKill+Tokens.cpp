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
// The intent's line for "pf's list could not be read before the enable".
constexpr std::string_view kUnknownReferences = "?";

std::int64_t secondsSinceEpoch(std::chrono::system_clock::time_point time)
{
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

struct EnableIntent {
    std::int64_t writtenAt = 0;
    std::optional<std::set<std::string>> before;  // absent: not known
};

std::optional<EnableIntent> readEnableIntent(DaemonContext& context)
{
    const auto content = files::read(context.host.path(paths::enablePending), 64 * 1024);
    if (!content) return std::nullopt;
    const auto lines = text::splitLines(*content, /*keepEmpty=*/false);
    if (lines.empty()) return std::nullopt;
    const auto writtenAt = text::parseUnsigned(text::trimSpacesAndTabs(lines.front()), INT64_MAX);
    if (!writtenAt) return std::nullopt;
    EnableIntent intent{static_cast<std::int64_t>(*writtenAt), std::set<std::string>{}};
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const auto token = text::trimSpacesAndTabs(lines[i]);
        if (token == kUnknownReferences) intent.before.reset();
        else if (intent.before && !token.empty()) intent.before->insert(token);
    }
    return intent;
}

// Removes every occurrence of the tokens from both stores, rewriting only a
// store that changes.
void forgetTokens(DaemonContext& context, const std::vector<std::string>& tokens)
{
    for (const auto store : HelperService::tokenStores) {
        const auto current = HelperService::readTokens(context, store);
        std::vector<std::string> next;
        std::copy_if(current.begin(), current.end(), std::back_inserter(next), [&](const std::string& t) {
            return std::find(tokens.begin(), tokens.end(), t) == tokens.end();
        });
        if (next != current) HelperService::writeTokens(context, next, store);
    }
}

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

HelperService::StoreDates HelperService::storeDates(DaemonContext& context)
{
    return {storeWrittenAt(context, TokenStore::primary), storeWrittenAt(context, TokenStore::emergency)};
}

HelperService::TokenRelease HelperService::releaseHeldTokens(DaemonContext& context,
                                                             const std::optional<std::string>& except,
                                                             const std::optional<StoreDates>& datedAsOf)
{
    const auto held = allHeldTokens(context);
    std::vector<HeldToken> candidates;
    std::copy_if(held.begin(), held.end(), std::back_inserter(candidates),
                 [&](const HeldToken& h) { return !except || h.token != *except; });
    if (candidates.empty()) return {TokenRelease::Kind::nothingHeld, {}};

    const StoreDates dates = datedAsOf ? *datedAsOf : storeDates(context);
    // Two at most: the time spent under the pf lock stays bounded.
    const std::size_t attemptCount = std::min(candidates.size(), kReleaseBudgetPerCall);
    std::vector<HeldToken> kept(candidates.begin() + static_cast<std::ptrdiff_t>(attemptCount), candidates.end());

    std::vector<HeldToken> refused;
    std::vector<HeldToken> accepted;
    for (std::size_t i = 0; i < attemptCount; ++i) {
        if (pfctlReleaseToken(context, candidates[i].token)) refused.push_back(candidates[i]);
        else accepted.push_back(candidates[i]);
    }
    // pf's own list settles both answers: an exit 0 that left the reference
    // in place released nothing, and a refused token pf does not list names
    // no reference at all.
    const auto listed = pfReferences(context);
    const auto pfHolds = [&](const std::string& token) {
        return std::any_of(listed->begin(), listed->end(),
                           [&](const HardKillState::PfReference& r) { return r.token == token; });
    };
    if (listed) {
        for (const auto& entry : accepted) {
            if (!pfHolds(entry.token)) continue;
            context.staticLog.error("pfctl -X %{public}s exited 0 but pf still holds that reference — the token stays "
                                    "on disk",
                                    entry.token);
            kept.push_back(entry);
        }
    }
    std::size_t dropped = 0;
    std::size_t dead = 0;
    std::vector<HardKillState::RefusedToken> dated;
    for (const auto& entry : refused) {
        if (listed) {
            if (pfHolds(entry.token)) kept.push_back(entry);
            else ++dead;
            continue;
        }
        dated.push_back({entry.token, dates[entry.store == TokenStore::primary ? 0 : 1]});
    }
    if (!dated.empty()) {
        const auto keep = HardKillState::keepAfterFailedRelease(dated, systemBootedAt(context));
        for (const auto& entry : refused) {
            if (std::none_of(dated.begin(), dated.end(), [&](const auto& d) { return d.token == entry.token; }))
                continue;
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

    if (dead > 0)
        context.staticLog.notice("pf token(s) name no reference pf holds — they were removed from disk");
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
    const bool refused = pfctlReleaseToken(context, token).has_value();
    const auto listed = refused ? std::nullopt : pfReferences(context);
    const bool stillHeld = listed && std::any_of(listed->begin(), listed->end(),
                                                 [&](const HardKillState::PfReference& r) { return r.token == token; });
    if (refused || stillHeld) {
        context.staticLog.error("engage rolled back, but its own pf reference could not be released — the token stays "
                                "on disk so a later lift can retry");
        return;
    }
    forgetTokens(context, {token});
}

std::optional<std::vector<HardKillState::PfReference>> HelperService::pfReferences(DaemonContext& context)
{
    const auto listing = runPfctl(context, {"-s", "References"});
    if (listing.code != 0) return std::nullopt;
    return HardKillState::referencesFromListing(listing.out);
}

OptionalText HelperService::recordEnableIntent(DaemonContext& context)
{
    const auto before = pfReferences(context);
    std::string content = std::to_string(secondsSinceEpoch(std::chrono::system_clock::now())) + "\n";
    if (!before) content += std::string(kUnknownReferences) + "\n";
    else
        for (const auto& reference : *before) content += reference.token + "\n";
    if (auto error = files::createDirectories(context.host.path(paths::stateDirectory), kStateDirectoryMode))
        return "could not create state directory: " + *error;
    if (auto error = files::writeAtomically(context.host.path(paths::enablePending), content, kTokenFileMode))
        return "could not record that pf is about to be enabled: " + *error;
    return std::nullopt;
}

void HelperService::clearEnableIntent(DaemonContext& context) { files::remove(context.host.path(paths::enablePending)); }

std::optional<std::string> HelperService::referenceTakenSinceIntent(DaemonContext& context)
{
    const auto intent = readEnableIntent(context);
    if (!intent) return std::nullopt;
    const auto listed = pfReferences(context);
    if (!listed) return std::nullopt;
    const auto recorded = allHeldTokens(context);
    const std::int64_t sinceIntent = secondsSinceEpoch(std::chrono::system_clock::now()) - intent->writtenAt;
    std::vector<std::string> candidates;
    for (const auto& reference : *listed) {
        const bool isRecorded = std::any_of(recorded.begin(), recorded.end(),
                                            [&](const HeldToken& h) { return h.token == reference.token; });
        const bool heldBefore = intent->before && intent->before->count(reference.token) > 0;
        // pf's age column is whole seconds: one second of slack.
        if (reference.processName == "pfctl" && !isRecorded && !heldBefore && reference.ageSeconds <= sinceIntent + 1)
            candidates.push_back(reference.token);
    }
    // More than one newcomer cannot be told apart: adopt none of them.
    if (candidates.size() != 1) return std::nullopt;
    return candidates.front();
}

void HelperService::reconcileTokensWithPf(DaemonContext& context)
{
    auto& log = context.staticLog;
    if (const auto intent = readEnableIntent(context)) {
        const auto booted = systemBootedAt(context);
        const bool beforeBoot = booted && intent->writtenAt < secondsSinceEpoch(*booted);
        if (!beforeBoot) {
            if (const auto token = referenceTakenSinceIntent(context)) {
                if (auto error = persistTokenImmediately(context, *token)) {
                    log.error("found the pf reference %{public}s of an enable that was interrupted before its token was "
                              "recorded, and could not record it: %{public}s",
                              *token, *error);
                    return;  // the intent stays, so the next look finds it again
                }
                log.error("found the pf reference %{public}s of an enable that was interrupted before its token was "
                          "recorded — recorded it now, so it is given back",
                          *token);
            }
        }
        clearEnableIntent(context);
    }

    const auto held = allHeldTokens(context);
    if (held.empty()) return;
    const auto listed = pfReferences(context);
    if (!listed) return;
    std::vector<std::string> dead;
    for (const auto& entry : held) {
        const bool holds = std::any_of(listed->begin(), listed->end(),
                                       [&](const HardKillState::PfReference& r) { return r.token == entry.token; });
        if (!holds) dead.push_back(entry.token);
    }
    if (dead.empty()) return;
    forgetTokens(context, dead);
    log.notice("pf holds no reference for the recorded token(s) %{public}s — removed from disk",
               text::join(dead, ", "));
}

} // namespace orven
