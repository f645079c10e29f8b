#pragma once
// A reply that must be called exactly once: every XPC method answers once,
// never twice and never not at all.

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Log.h"

namespace orven {

// Reports a reply called twice or dropped uncalled: debug builds abort so the
// test that caused it fails loudly; release builds log the fault and go on.
void reportReplyMisuse(const Logger* log, const char* what);

template <class... Args>
class Reply {
public:
    using Function = std::function<void(Args...)>;

    Reply() = default;
    explicit Reply(Function function, const Logger* misuseLog = nullptr)
        : function_(std::move(function)), misuseLog_(misuseLog)
    {
    }
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;
    Reply(Reply&& other) noexcept
        : function_(std::exchange(other.function_, nullptr)),
          misuseLog_(other.misuseLog_),
          called_(other.called_.load())
    {
    }
    Reply& operator=(Reply&& other) noexcept
    {
        if (this != &other) {
            checkAnswered();
            function_ = std::exchange(other.function_, nullptr);
            misuseLog_ = other.misuseLog_;
            called_ = other.called_.load();
        }
        return *this;
    }
    ~Reply() { checkAnswered(); }

    void operator()(Args... args)
    {
        if (called_.exchange(true)) {
            reportReplyMisuse(misuseLog_, "a reply was called a second time");
            return;
        }
        if (function_) function_(std::forward<Args>(args)...);
    }

    bool wasCalled() const { return called_.load(); }

private:
    void checkAnswered()
    {
        if (function_ && !called_.load()) reportReplyMisuse(misuseLog_, "a reply was destroyed without being called");
    }

    Function function_;
    const Logger* misuseLog_ = nullptr;
    std::atomic<bool> called_{false};
};

using OptionalText = std::optional<std::string>;
using ActionReply = Reply<bool, OptionalText>;

} // namespace orven
