// setServiceOrder with 64 services and setInterfaceMTU on the simulated Mac:
// wall time per call and how many tool runs and SystemConfiguration
// preferences calls each makes.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "ForwardingHost.h"
#include "HelperService.h"
#include "Linux/SimulatedMacHost.h"
#include "Support/BenchmarkDaemon.h"

namespace orven {
namespace {

using Clock = std::chrono::steady_clock;

class DiscardingSink final : public LogSink {
public:
    void write(const LogRecord&) override {}
};

// Counts the session's calls; each one that reaches the simulator is a
// process of its own there (opening, the MTU range, commit, apply), an
// in-process call on a Mac.
class CountingSession final : public Host::PreferencesSession {
public:
    CountingSession(std::unique_ptr<PreferencesSession> inner, std::atomic<int>& calls)
        : inner_(std::move(inner)), calls_(calls)
    {
    }
    std::optional<std::string> currentSetID() override { return ++calls_, inner_->currentSetID(); }
    std::optional<std::vector<Host::NetworkService>> currentSetServices() override
    {
        return ++calls_, inner_->currentSetServices();
    }
    std::vector<std::string> currentSetServiceOrder() override { return ++calls_, inner_->currentSetServiceOrder(); }
    std::optional<Host::MTURange> copyMTU(std::string_view id) override { return ++calls_, inner_->copyMTU(id); }
    bool setMTU(std::string_view id, int mtu) override { return ++calls_, inner_->setMTU(id, mtu); }
    std::optional<Host::PreferencesDictionary> pathGetValue(std::string_view path) override
    {
        return ++calls_, inner_->pathGetValue(path);
    }
    bool pathSetValue(std::string_view path, const Host::PreferencesDictionary& value) override
    {
        return ++calls_, inner_->pathSetValue(path, value);
    }
    bool commitChanges() override { return ++calls_, inner_->commitChanges(); }
    bool applyChanges() override { return ++calls_, inner_->applyChanges(); }
    int lastError() const override { return inner_->lastError(); }

private:
    std::unique_ptr<PreferencesSession> inner_;
    std::atomic<int>& calls_;
};

class CountingHost final : public ForwardingHost {
public:
    using ForwardingHost::ForwardingHost;
    BoundedProcess::Result run(std::string_view macPath, const std::vector<std::string>& arguments,
                               const std::optional<std::string>& standardInput, double timeout,
                               double killGrace) override
    {
        ++tools;
        return ForwardingHost::run(macPath, arguments, standardInput, timeout, killGrace);
    }
    std::unique_ptr<PreferencesSession> openPreferences(std::string_view name) override
    {
        ++preferences;
        auto session = ForwardingHost::openPreferences(name);
        if (!session) return session;
        return std::make_unique<CountingSession>(std::move(session), preferences);
    }
    std::atomic<int> tools{0}, preferences{0};
};

double milliseconds(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

using bench::median;

} // namespace
} // namespace orven

int main(int argc, char** argv)
{
    using namespace orven;
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 25;
    const bench::Mac mac;
    const std::string root = mac.root();
    std::vector<std::string> names{"Wi-Fi", "Thunderbolt Bridge"};
    for (int i = static_cast<int>(names.size()); i < 64; ++i) {
        names.push_back("USB LAN " + std::to_string(i));
        if (BoundedProcess::run(ORVEN_MACSIM_PATH, {"service", root, "add", names.back(), "--device", "en0"},
                                std::nullopt, 30, 2)
                .code != 0)
            return 1;
    }

    DiscardingSink sink;
    SimulatedMacHost simulated(root, sink);
    CountingHost host(simulated);
    DaemonContext context(host);
    HelperService service(context, 501);
    std::vector<double> orderTimes, orderTools, orderSC, mtuTimes, mtuTools, mtuSC;
    for (int round = 0; round < rounds; ++round) {
        std::reverse(names.begin(), names.end());
        bool ok = false;
        host.tools = host.preferences = 0;
        auto start = Clock::now();
        service.setServiceOrder(names, ActionReply([&](bool done, OptionalText) { ok = done; }));
        orderTimes.push_back(milliseconds(Clock::now() - start));
        orderTools.push_back(host.tools);
        orderSC.push_back(host.preferences);
        if (!ok) return std::fprintf(stderr, "setServiceOrder failed in round %d\n", round), 1;

        host.tools = host.preferences = 0;
        start = Clock::now();
        service.setInterfaceMTU("en0", round % 2 ? 1500 : 1400, ActionReply([&](bool done, OptionalText) { ok = done; }));
        mtuTimes.push_back(milliseconds(Clock::now() - start));
        mtuTools.push_back(host.tools);
        mtuSC.push_back(host.preferences);
        if (!ok) return std::fprintf(stderr, "setInterfaceMTU failed in round %d\n", round), 1;
    }
    std::printf("rounds=%d\n", rounds);
    std::printf("set_service_order_64_ms=%.2f\n", median(orderTimes));
    std::printf("set_service_order_64_tool_calls=%.0f\n", median(orderTools));
    std::printf("set_service_order_64_sc_calls=%.0f\n", median(orderSC));
    std::printf("set_interface_mtu_ms=%.2f\n", median(mtuTimes));
    std::printf("set_interface_mtu_tool_calls=%.0f\n", median(mtuTools));
    std::printf("set_interface_mtu_sc_calls=%.0f\n", median(mtuSC));
    return 0;
}
