// What the powerline probe costs above its two listening periods
// (1000 + 600 ms), against simulated adapters on a veth pair: the median of
// 20 probes. Prints powerline_overhead_ms=<median> (and the spread) for
// scripts; without root it prints why it cannot measure and exits 0.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include <nlohmann/json.hpp>

#include "Linux/SimulatedMacHost.h"
#include "PowerlineProbe.h"
#include "VethSegment.h"

namespace {
class DiscardingSink final : public orven::LogSink {
public:
    void write(const orven::LogRecord&) override {}
};
} // namespace

int main()
{
    using namespace orven;
    plcsim::VethSegment segment;
    if (segment.unavailable()) {
        std::printf("powerline_overhead_skipped=%s\n", segment.unavailable()->c_str());
        return 0;
    }
    // A local adapter and two remote ones, every message answered.
    const auto description = nlohmann::json::parse(R"({"adapters": [
      {"mac": "00:b0:52:00:00:a1", "local": true,
       "discover": [{"mac": "00:b0:52:00:00:b2", "tei": 2}, {"mac": "00:b0:52:00:00:b3", "tei": 3}],
       "networks": [{"networkID": "0123456789abcd", "shortNetworkID": 5, "tei": 1, "role": 2,
                     "ccoMAC": "00:b0:52:00:00:a1", "ccoTEI": 1,
                     "stations": [{"mac": "00:b0:52:00:00:b2", "tei": 2, "bridgedMAC": "3c:97:0e:00:00:b2",
                                   "txMbps": 1201, "rxMbps": 987}]}],
       "firmware": "MAC-QCA7420-1.5.0.0026", "manufacturer": "A", "ethernet": {"speedCode": 2, "duplexCode": 1}},
      {"mac": "00:b0:52:00:00:b2", "discover": [{"mac": "00:b0:52:00:00:a1", "tei": 1}],
       "firmware": "MAC-QCA7500-2.10.0.0032", "manufacturer": "B"},
      {"mac": "00:b0:52:00:00:b3", "firmware": "MAC-QCA7500-2.10.0.0032", "manufacturer": "C"}]})");
    if (const auto failed = segment.startAdapters(description)) {
        std::fprintf(stderr, "powerline_benchmark: %s\n", failed->c_str());
        return 1;
    }

    DiscardingSink sink;
    SimulatedMacHost host("/nonexistent", sink);
    const Logger log(sink, std::string(PowerlineProbe::logCategory));
    std::vector<double> overheads;
    for (int run = 0; run < 20; ++run) {
        const auto start = std::chrono::steady_clock::now();
        const auto outcome = PowerlineProbe::probe(host, log, segment.hostInterface(), 1000);
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
        const auto* reading = std::get_if<PowerlineTopologyReading>(&outcome);
        if (!reading || !reading->deviceInfo || reading->deviceInfo->size() != 3) {
            std::fprintf(stderr, "powerline_benchmark: the probe did not hear every adapter\n");
            return 1;
        }
        overheads.push_back(took.count() - static_cast<double>(reading->listenedMillis));
    }
    std::sort(overheads.begin(), overheads.end());
    std::printf("powerline_overhead_min_ms=%.2f\n", overheads.front());
    std::printf("powerline_overhead_max_ms=%.2f\n", overheads.back());
    std::printf("powerline_overhead_ms=%.2f\n", (overheads[9] + overheads[10]) / 2);
    return 0;
}
