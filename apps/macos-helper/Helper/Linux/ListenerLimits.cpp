#include "ListenerLimits.h"

namespace orven {

std::optional<std::string> ConnectionSlots::take(std::uint32_t uid)
{
    const std::lock_guard lock(mutex_);
    if (total_ >= limits_.total) return "too many connections";
    if (uid != 0) {
        const std::size_t shared = limits_.total > limits_.rootReserve ? limits_.total - limits_.rootReserve : 0;
        if (nonRoot_ >= shared) return "too many connections";
        auto& mine = perUID_[uid];
        if (mine >= limits_.perUID) return "too many connections from uid " + std::to_string(uid);
        ++mine;
        ++nonRoot_;
    }
    ++total_;
    return std::nullopt;
}

void ConnectionSlots::give(std::uint32_t uid)
{
    const std::lock_guard lock(mutex_);
    if (total_ > 0) --total_;
    if (uid == 0) return;
    if (nonRoot_ > 0) --nonRoot_;
    const auto mine = perUID_.find(uid);
    if (mine != perUID_.end() && --mine->second == 0) perUID_.erase(mine);
}

std::size_t ConnectionSlots::inUse() const
{
    const std::lock_guard lock(mutex_);
    return total_;
}

bool RequestBudget::reserve(std::size_t bytes)
{
    std::size_t now = reserved_.load();
    do {
        if (bytes > total_ - now) return false;
    } while (!reserved_.compare_exchange_weak(now, now + bytes));
    return true;
}

void RequestBudget::release(std::size_t bytes) { reserved_.fetch_sub(bytes); }

bool RefusalTally::refused(Clock::time_point now)
{
    if (!intervalStart_ || now - *intervalStart_ >= interval_) {
        // A new interval; what the last one counted is said by `due` first.
        if (unlogged_ > 0) {
            ++unlogged_;
            return false;
        }
        intervalStart_ = now;
        return true;
    }
    ++unlogged_;
    return false;
}

std::optional<std::size_t> RefusalTally::due(Clock::time_point now)
{
    if (unlogged_ == 0 || !intervalStart_ || now - *intervalStart_ < interval_) return std::nullopt;
    const std::size_t count = unlogged_;
    unlogged_ = 0;
    intervalStart_ = now;
    return count;
}

std::optional<RefusalTally::Clock::time_point> RefusalTally::nextSummary() const
{
    if (unlogged_ == 0 || !intervalStart_) return std::nullopt;
    return *intervalStart_ + interval_;
}

} // namespace orven
