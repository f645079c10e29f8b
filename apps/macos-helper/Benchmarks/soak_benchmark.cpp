// Six clients engage, lift, switch LAN isolation and ask for status at
// random for a while, as one-shot pfctl faults land at random too. After
// every reply that says the cut stands, the simulated Mac's leak test runs
// before anything could weaken the cut. Every request must get one answer,
// and no leak test may see a packet through.
//
//   soak_benchmark [--seconds N] [--clients N] [--random N]
//
// Prints requests=, replies=, cut_said=, leak_tests=, leaks=, faults=,
// engaged=, lifted=, refused= and ends with soak_ok=1 or soak_ok=0.

#include <atomic>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "Support/BenchmarkDaemon.h"

namespace {

using bench::Clock;
using nlohmann::json;

struct Counts {
    std::atomic<long> requests{0}, replies{0}, cutSaid{0}, leakTests{0}, leaks{0}, faults{0}, engaged{0},
        lifted{0}, refused{0}, badAnswers{0};
};

const json kIsolationOn = json::array({true, "en0", "192.168.1.1", "192.168.1.0/24", json::array({"192.168.1.53"}),
                                       "", json::array(), json::array()});
const json kIsolationOff = json::array({false, "", "", "", json::array(), "", json::array(), json::array()});
const std::string kIsolation =
    "setLANIsolationWithEnabled:interface:gatewayV4:subnetV4:dnsV4:gatewayV6:subnetsV6:dnsV6:reply:";

// One-shot answers that say "done" without the effect, or fail outright.
const std::vector<std::vector<std::string>> kFaults = {
    {"--tool", "pfctl", "--args", "-sr", "--exit", "0"},
    {"--tool", "pfctl", "--args", "-f -", "--exit", "0"},
    {"--tool", "pfctl", "--args", "-F states", "--exit", "0"},
    {"--tool", "pfctl", "--args", "-X .*", "--exit", "0"},
    {"--tool", "pfctl", "--args", "-E", "--stderr", "pf enabled\n"},
    {"--tool", "pfctl", "--args", ".* -F rules", "--exit", "1", "--stderr", "busy"},
    {"--tool", "pfctl", "--args", "-s References", "--exit", "1"},
    {"--tool", "pfctl", "--args", "-s info", "--exit", "1"},
    {"--tool", "pfctl", "--args", "-a .* -f -", "--exit", "1", "--stderr", "busy"},
    {"--tool", "ping", "--exit", "0"},
    {"--tool", "nc", "--exit", "0"},
};

bool leakTestPasses(const bench::Mac& mac)
{
    return orven::BoundedProcess::run(ORVEN_MACSIM_PATH, {"leak-test", mac.root()}, std::nullopt, 60, 2).code == 0;
}

void addFault(const bench::Mac& mac, const std::vector<std::string>& fault)
{
    std::vector<std::string> arguments{"fault", mac.root(), "add"};
    arguments.insert(arguments.end(), fault.begin(), fault.end());
    orven::BoundedProcess::run(ORVEN_MACSIM_PATH, arguments, std::nullopt, 60, 2);
}

} // namespace

int main(int argc, char** argv)
{
    int seconds = 120;
    int clients = 6;
    unsigned randomStart = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        const int value = std::atoi(argv[i + 1]);
        if (option == "--seconds") seconds = value;
        else if (option == "--clients") clients = value;
        else if (option == "--random") randomStart = static_cast<unsigned>(value);
        else bench::fail("unknown option " + option);
    }

    bench::Mac mac;
    bench::Daemon daemon(mac);
    daemon.waitUntilListening();
    Counts counts;
    // Lifts and isolation changes may weaken a cut; a reply that says the
    // cut stands is checked before any of them runs.
    std::shared_mutex weakening;
    const auto end = Clock::now() + std::chrono::seconds(seconds);

    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            std::mt19937 random(randomStart * 97 + static_cast<unsigned>(c));
            bench::Connection connection(daemon.socket());
            long id = 0;
            while (Clock::now() < end) {
                const int pick = static_cast<int>(random() % 10);
                std::string selector;
                json arguments = json::array();
                if (pick < 4) selector = "setHardKillWithEngaged:reply:", arguments = {true};
                else if (pick < 7) selector = "setHardKillWithEngaged:reply:", arguments = {false};
                else if (pick < 9) selector = kIsolation, arguments = random() % 2 ? kIsolationOn : kIsolationOff;
                else selector = "readHardKillStatusWithReply:";
                const bool weakens = (pick >= 4 && pick < 9);
                ++id;
                const json line{{"id", id}, {"selector", selector}, {"arguments", arguments}};
                ++counts.requests;
                std::string answer;
                std::optional<bool> cutSaid;
                if (weakens) {
                    std::shared_lock lock(weakening);
                    answer = connection.call(line.dump() + "\n");
                } else {
                    std::unique_lock lock(weakening);
                    answer = connection.call(line.dump() + "\n");
                    const auto reply = json::parse(answer, nullptr, false).value("reply", json());
                    cutSaid = reply.is_array() && !reply.empty() && reply[0] == true;
                    if (*cutSaid) {
                        ++counts.cutSaid;
                        ++counts.leakTests;
                        if (!leakTestPasses(mac)) ++counts.leaks;
                    }
                }
                const auto parsed = json::parse(answer, nullptr, false);
                if (parsed.is_discarded() || parsed.value("id", json()) != id || !parsed.contains("reply"))
                    ++counts.badAnswers;
                else ++counts.replies;
                const auto reply = parsed.value("reply", json());
                if (selector == "setHardKillWithEngaged:reply:" && reply.is_array() && !reply.empty()) {
                    if (reply[0] != true) ++counts.refused;
                    else if (arguments[0] == true) ++counts.engaged;
                    else ++counts.lifted;
                }
            }
        });
    }
    threads.emplace_back([&] {
        std::mt19937 random(randomStart);
        while (Clock::now() < end) {
            addFault(mac, kFaults[random() % kFaults.size()]);
            ++counts.faults;
            std::this_thread::sleep_for(std::chrono::milliseconds(200 + random() % 400));
        }
    });
    for (auto& thread : threads) thread.join();

    const bool ok = counts.leaks == 0 && counts.badAnswers == 0 && counts.replies == counts.requests;
    std::printf("requests=%ld\nreplies=%ld\nbad_answers=%ld\ncut_said=%ld\nleak_tests=%ld\nleaks=%ld\nfaults=%ld\n"
                "engaged=%ld\nlifted=%ld\nrefused=%ld\nsoak_ok=%d\n",
                counts.requests.load(), counts.replies.load(), counts.badAnswers.load(), counts.cutSaid.load(),
                counts.leakTests.load(), counts.leaks.load(), counts.faults.load(), counts.engaged.load(),
                counts.lifted.load(), counts.refused.load(), ok ? 1 : 0);
    return ok ? 0 : 1;
}
