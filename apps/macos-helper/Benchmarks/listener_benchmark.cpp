// The daemon's socket under load from many clients:
//  - resident memory with 64 connections that have each sent one 1 MiB
//    request (all at once), while they stay open, and the peak on the way;
//  - root's engage (and lift) round trip, alone and while other users hold
//    every connection they may, idle (needs root to make those users).
//
//   listener_benchmark [--rounds N]
//
// One figure a line, name=value.

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>

#include "Support/BenchmarkDaemon.h"

namespace {

using bench::Clock;
using bench::Connection;
using bench::Daemon;
using bench::fail;
using bench::Mac;
using bench::median;

constexpr int kLargeClients = 64;

// A ping carrying a 1 MiB argument: read whole, parsed, refused for its
// arguments, answered.
std::string largeRequest()
{
    const std::string head = R"({"id":1,"selector":"pingWithReply:","arguments":[")";
    const std::string tail = "\"]}\n";
    return head + std::string((std::size_t{1} << 20) - head.size() - tail.size(), 'x') + tail;
}

// Children, each as one user, holding as many idle connections as they can.
class IdleHolders {
public:
    IdleHolders(const std::string& socket, const std::vector<std::uint32_t>& uids, int perUID)
    {
        for (const auto uid : uids) {
            int ready[2];
            int release[2];
            if (::pipe(ready) != 0 || ::pipe(release) != 0) fail("pipe failed");
            const pid_t child = ::fork();
            if (child == 0) {
                ::close(ready[0]);
                ::close(release[1]);
                if (::setgroups(0, nullptr) != 0 || ::setgid(20) != 0 || ::setuid(uid) != 0) ::_exit(2);
                sockaddr_un address{};
                address.sun_family = AF_UNIX;
                std::memcpy(address.sun_path, socket.data(), std::min(socket.size(), sizeof address.sun_path - 1));
                std::vector<int> fds;
                for (int i = 0; i < perUID; ++i) {
                    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
                    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                        ::_exit(3);
                    fds.push_back(fd);
                }
                // An admitted connection stays silent; a refused one is
                // answered and closed at once.
                int held = 0;
                for (const int fd : fds) {
                    pollfd entry{fd, POLLIN, 0};
                    if (::poll(&entry, 1, 300) == 0) ++held;
                }
                if (::write(ready[1], &held, sizeof held) != sizeof held) ::_exit(4);
                char byte;
                (void)::read(release[0], &byte, 1);
                ::_exit(0);
            }
            ::close(ready[1]);
            ::close(release[0]);
            int held = 0;
            if (::read(ready[0], &held, sizeof held) != sizeof held) fail("an idle holder failed");
            ::close(ready[0]);
            held_ += held;
            children_.push_back({child, release[1]});
        }
    }
    ~IdleHolders()
    {
        for (const auto& [pid, release] : children_) {
            ::close(release);
            ::waitpid(pid, nullptr, 0);
        }
    }
    int held() const { return held_; }

private:
    std::vector<std::pair<pid_t, int>> children_;
    int held_ = 0;
};

// Milliseconds of each engage and each lift, `rounds` times.
std::pair<double, double> engageAndLift(const std::string& socket, int rounds)
{
    Connection root(socket);
    std::vector<double> engages;
    std::vector<double> lifts;
    for (int i = 0; i < rounds; ++i) {
        for (const bool engage : {true, false}) {
            const auto start = Clock::now();
            const auto answer = root.call(std::string(R"({"id":1,"selector":"setHardKillWithEngaged:reply:","arguments":[)") +
                                          (engage ? "true" : "false") + "]}");
            const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
            if (answer.find(R"("reply":[true,null])") == std::string::npos) fail("root's call failed: " + answer);
            (engage ? engages : lifts).push_back(ms);
        }
    }
    return {median(engages), median(lifts)};
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = 10;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--rounds" && i + 1 < argc) rounds = std::max(1, std::atoi(argv[++i]));
        else fail("usage: listener_benchmark [--rounds N]");
    }
    const Mac mac;

    {
        const Daemon daemon(mac);
        daemon.waitUntilListening();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const long idle = daemon.residentKiB();

        // Every client sends at once, then keeps its connection open.
        const std::string request = largeRequest();
        std::vector<std::optional<Connection>> connections(kLargeClients);
        std::atomic<int> answered{0};
        std::atomic<int> turnedAway{0};
        std::vector<std::thread> clients;
        for (int c = 0; c < kLargeClients; ++c) {
            clients.emplace_back([&, c] {
                connections[c].emplace(daemon.socket());
                const std::string answer = connections[c]->call(request);
                if (answer.find("Invalid arguments for pingWithReply:") != std::string::npos) ++answered;
                else if (answer.find("unfinished requests") != std::string::npos) ++turnedAway;
                else fail("unexpected answer: " + answer.substr(0, 200));
            });
        }
        for (auto& client : clients) client.join();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        std::printf("idle_rss_kib=%ld\n", idle);
        std::printf("large_requests_answered=%d\n", answered.load());
        std::printf("large_requests_turned_away_for_memory=%d\n", turnedAway.load());
        std::printf("rss_with_64_connections_after_1mib_each_kib=%ld\n", daemon.residentKiB());
        std::printf("peak_rss_during_64_concurrent_1mib_requests_kib=%ld\n", daemon.peakResidentKiB());
    }

    {
        const Daemon daemon(mac);
        daemon.waitUntilListening();
        const auto [engage, lift] = engageAndLift(daemon.socket(), rounds);
        std::printf("root_engage_ms_alone=%.2f\nroot_lift_ms_alone=%.2f\n", engage, lift);
    }

    if (::geteuid() == 0) {
        const std::vector<std::uint32_t> users{501, 502, 503, 504, 505};
        std::vector<std::string> options;
        for (const auto uid : users) {
            options.emplace_back("--allow-uid");
            options.push_back(std::to_string(uid));
        }
        // Other users' clients must reach the socket's folder.
        ::chmod(std::filesystem::path(mac.socket()).parent_path().c_str(), 0755);
        const Daemon daemon(mac, options);
        daemon.waitUntilListening();
        // 80 tries: more than the users together may hold.
        const IdleHolders holders(daemon.socket(), users, 16);
        const auto [engage, lift] = engageAndLift(daemon.socket(), rounds);
        std::printf("idle_connections_held_by_users=%d\n", holders.held());
        std::printf("root_engage_ms_with_idle_connections=%.2f\nroot_lift_ms_with_idle_connections=%.2f\n", engage,
                    lift);
    } else {
        std::printf("root_engage_ms_with_idle_connections=skipped (needs root to make other users' clients)\n");
    }
    std::printf("rounds=%d\n", rounds);
    return 0;
}
