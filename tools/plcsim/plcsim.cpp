// plcsim: HomePlug AV adapters on one Linux interface (the far end of a
// veth pair), answering the probe's requests from a JSON description.
//
//   plcsim --interface NAME --config FILE
//
// Prints "ready" on its own line once it listens; runs until SIGTERM or
// SIGINT. The description and the faults it can play: tools/plcsim/README.md.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Adapters.h"
#include "Linux/PacketLink.h"

namespace {

volatile std::sig_atomic_t stopping = 0;
void stop(int) { stopping = 1; }

struct Pending {
    std::chrono::steady_clock::time_point due;
    plcsim::Frame frame;
};

int usage(const char* message)
{
    std::fprintf(stderr, "plcsim: %s\nusage: plcsim --interface NAME --config FILE\n", message);
    return 64;
}

} // namespace

int main(int argc, char** argv)
{
    std::string interface, config;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--interface") interface = argv[i + 1];
        else if (option == "--config") config = argv[i + 1];
        else return usage(("unknown option " + option).c_str());
    }
    if (interface.empty() || config.empty()) return usage("--interface and --config are required");

    std::vector<plcsim::Adapter> adapters;
    try {
        std::ifstream file(config);
        adapters = plcsim::adaptersFrom(nlohmann::json::parse(file));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "plcsim: %s: %s\n", config.c_str(), error.what());
        return 65;
    }

    auto opening = orven::PacketLink::open(interface, {.promiscuous = true});
    if (!opening.channel) {
        std::fprintf(stderr, "plcsim: %s\n", opening.error.c_str());
        return 69;
    }
    std::signal(SIGTERM, stop);
    std::signal(SIGINT, stop);
    std::printf("ready\n");
    std::fflush(stdout);

    auto& channel = *opening.channel;
    std::vector<Pending> pending;
    std::vector<plcsim::Frame> frames;
    while (!stopping) {
        const auto now = std::chrono::steady_clock::now();
        for (auto it = pending.begin(); it != pending.end();) {
            if (it->due > now) {
                ++it;
                continue;
            }
            (void)channel.write(it->frame);
            it = pending.erase(it);
        }
        frames.clear();
        if (channel.read(frames, std::chrono::milliseconds(pending.empty() ? 100 : 5)).count < 0) continue;
        for (const auto& frame : frames) {
            for (const auto& adapter : adapters) {
                for (auto& answer : plcsim::answersTo(adapter, frame)) {
                    if (answer.delay.count() == 0) (void)channel.write(answer.frame);
                    else pending.push_back({std::chrono::steady_clock::now() + answer.delay, std::move(answer.frame)});
                }
            }
        }
    }
    return 0;
}
