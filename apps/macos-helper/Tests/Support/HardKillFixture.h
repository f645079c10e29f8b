#pragma once
// A fresh simulated Mac with a daemon over it, and the questions Hard Kill
// tests keep asking of it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>

#include <string>
#include <vector>

#include "HelperService.h"
#include "PFRuleBuilder.h"
#include "SimulatedMac.h"

namespace orven::testing {

inline const PFRuleBuilder::LANIsolationParams kHomeLAN{
    "en0", "192.168.1.1", "192.168.1.0/24", {"192.168.1.53"}, std::nullopt, {}, {}};

class HardKillFixture : public ::testing::Test {
protected:
    HardKillFixture() { daemon.context.pfctlTimeoutSeconds = 1.0; }

    DaemonContext& context() { return daemon.context; }

    ActionCapture setHardKill(bool engaged, std::uint32_t uid = 501)
    {
        ActionCapture capture;
        daemon.service(uid).setHardKill(engaged, capture.reply());
        EXPECT_EQ(capture.count(), 1);
        return capture;
    }
    ActionCapture engage(std::uint32_t uid = 501) { return setHardKill(true, uid); }
    ActionCapture lift(std::uint32_t uid = 501) { return setHardKill(false, uid); }

    ActionCapture setIsolation(bool enabled, const PFRuleBuilder::LANIsolationParams& p = kHomeLAN)
    {
        ActionCapture capture;
        daemon.service(501).setLANIsolation(enabled, p.interface, p.gatewayV4, p.subnetV4, p.dnsV4,
                                            p.gatewayV6.value_or(""), p.subnetsV6, p.dnsV6, capture.reply());
        EXPECT_EQ(capture.count(), 1);
        return capture;
    }

    // The references pf holds, from `pfctl -s References`.
    std::vector<std::string> references() const
    {
        std::vector<std::string> tokens;
        const auto listing = daemon.mac.pfctl({"-s", "References"});
        std::istringstream lines(listing.out);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            std::vector<std::string> row{std::istream_iterator<std::string>(words), {}};
            if (row.size() >= 3 && row[0] != "PID" && std::all_of(row[2].begin(), row[2].end(), ::isdigit))
                tokens.push_back(row[2]);
        }
        return tokens;
    }

    std::string anchorRules() const { return daemon.mac.pfctl({"-a", std::string(kBlackoutAnchor), "-sr"}).out; }
    std::string mainRules() const { return daemon.mac.pfctl({"-sr"}).out; }
    bool pfEnabled() const { return daemon.mac.pfctl({"-s", "info"}).out.find("Status: Enabled") == 0; }

    static bool changesPf(const ObservedHost::Run& run)
    {
        if (run.path != paths::pfctl) return false;
        for (const auto& argument : run.arguments)
            if (argument == "-f" || argument == "-e" || argument == "-d" || argument == "-E" || argument == "-X" ||
                argument == "-F")
                return true;
        return false;
    }
    // The pf-changing commands the daemon ran since the last clear.
    std::vector<ObservedHost::Run> pfChanges() const
    {
        std::vector<ObservedHost::Run> changes;
        for (const auto& run : daemon.host.runs())
            if (changesPf(run)) changes.push_back(run);
        return changes;
    }
    bool ran(std::string_view path) const
    {
        const auto runs = daemon.host.runs();
        return std::any_of(runs.begin(), runs.end(), [&](const auto& run) { return run.path == path; });
    }

    // What must hold whatever happened: no reference pf holds goes
    // unrecorded and unreported; the owner record and the marker exist only
    // while a cut stands (or, for the marker, a re-apply is owed).
    void expectNothingLost(bool reapplyOwed = false)
    {
        const auto held = HelperService::allHeldTokens(daemon.context);
        for (const auto& token : references()) {
            const bool recorded =
                std::any_of(held.begin(), held.end(), [&](const auto& h) { return h.token == token; });
            EXPECT_TRUE(recorded || daemon.log.containsFragment("ORPHANED pf REFERENCE " + token))
                << "pf holds reference " << token << " that nothing records";
        }
        const bool cut = anchorRules().find(std::string(kCatchAllRule)) != std::string::npos && pfEnabled();
        if (!cut) {
            EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillOwner)) << "owner record left without a cut";
            if (!reapplyOwed) {
                EXPECT_FALSE(daemon.mac.fileExists(paths::hardKillMarker)) << "marker without a cut";
            }
        }
    }

    SimulatedDaemon daemon;
};

} // namespace orven::testing
