#pragma once
// What keeps one client from starving the others on the Linux host's socket:
// connection slots shared out by user id with a reserve for root, a shared
// budget for request bytes held in memory, and a tally that turns a flood of
// refused connections into one log line per interval.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace orven {

class ConnectionSlots {
public:
    struct Limits {
        std::size_t total = 64;
        // A user other than root holds at most this many.
        std::size_t perUID = 16;
        // The last slots, which only root may take.
        std::size_t rootReserve = 8;
    };

    explicit ConnectionSlots(Limits limits) : limits_(limits) {}

    // Takes a slot for `uid`, or says why there is none (the text the
    // refused client is sent).
    std::optional<std::string> take(std::uint32_t uid);
    void give(std::uint32_t uid);
    std::size_t inUse() const;

private:
    Limits limits_;
    mutable std::mutex mutex_;
    std::size_t total_ = 0;
    std::size_t nonRoot_ = 0;
    std::map<std::uint32_t, std::size_t> perUID_;
};

// Bytes of unfinished requests held across all connections. Each connection
// holds up to `freePerConnection` without asking; beyond that it reserves.
class RequestBudget {
public:
    explicit RequestBudget(std::size_t total) : total_(total) {}
    bool reserve(std::size_t bytes);
    void release(std::size_t bytes);
    std::size_t reserved() const { return reserved_.load(); }

private:
    const std::size_t total_;
    std::atomic<std::size_t> reserved_{0};
};

// The first refusal of an interval is logged in full; the rest are counted
// and summed up once the interval is over.
class RefusalTally {
public:
    using Clock = std::chrono::steady_clock;
    explicit RefusalTally(Clock::duration interval) : interval_(interval) {}

    // True when this refusal should be logged in full.
    bool refused(Clock::time_point now);
    // The count to summarise when the interval is over, or absent.
    std::optional<std::size_t> due(Clock::time_point now);
    // When `due` will next have something to say.
    std::optional<Clock::time_point> nextSummary() const;
    Clock::duration interval() const { return interval_; }

private:
    Clock::duration interval_;
    std::optional<Clock::time_point> intervalStart_;
    std::size_t unlogged_ = 0;
};

} // namespace orven
