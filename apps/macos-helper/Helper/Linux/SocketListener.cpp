#include "SocketListener.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "HelperService.h"
#include "Linux/SocketClient.h"
#include "MethodDispatch.h"

namespace orven {

namespace {

using Clock = std::chrono::steady_clock;

// What a connection may hold of an unfinished request without asking the
// shared budget, and how much unread output stops it reading more requests.
constexpr std::size_t kFreeRequestBytes = std::size_t{64} << 10;
constexpr std::size_t kOutputHighWater = std::size_t{64} << 10;

std::string describe(int error) { return std::strerror(error); }

std::uint32_t secondsOf(std::chrono::seconds duration) { return static_cast<std::uint32_t>(duration.count()); }

int millisecondsUntil(Clock::time_point deadline, Clock::time_point now)
{
    if (deadline <= now) return 0;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    return static_cast<int>(std::min<long long>(left, 60'000));
}

// One client's answers. A reply only queues its line here and returns, so
// code that answers while holding the pf lock never waits for a client; the
// connection's own thread writes the queue out. Lines queued after the
// connection ended are dropped.
class Connection {
public:
    explicit Connection(int fd) : fd_(fd), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Connection()
    {
        ::close(fd_);
        if (wake_ >= 0) ::close(wake_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int fd() const { return fd_; }
    int wakeFD() const { return wake_; }

    void queue(std::string line)
    {
        line.push_back('\n');
        {
            const std::lock_guard lock(mutex_);
            if (closed_) return;
            if (output_.empty()) headSince_ = Clock::now();
            queuedBytes_ += line.size();
            output_.push_back(std::move(line));
        }
        const std::uint64_t one = 1;
        if (wake_ >= 0) (void)::write(wake_, &one, sizeof one);
    }

    void drainWakeups() const
    {
        std::uint64_t count = 0;
        if (wake_ >= 0) (void)::read(wake_, &count, sizeof count);
    }

    // Writes what the socket takes now; false when the client is gone.
    bool flush()
    {
        const std::lock_guard lock(mutex_);
        if (output_.empty()) return true;
        while (!output_.empty()) {
            std::string& head = output_.front();
            const ssize_t n = ::send(fd_, head.data() + headWritten_, head.size() - headWritten_,
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
            if (n <= 0) return false;
            headWritten_ += static_cast<std::size_t>(n);
            if (headWritten_ < head.size()) continue;
            queuedBytes_ -= head.size();
            output_.pop_front();
            headWritten_ = 0;
            headSince_ = Clock::now();
        }
        // A long answer's buffer goes back at once, not with the connection.
        std::deque<std::string>().swap(output_);
        return true;
    }

    // When the answer at the head of the queue began waiting, if any does.
    std::optional<Clock::time_point> oldestUnwritten() const
    {
        const std::lock_guard lock(mutex_);
        if (output_.empty()) return std::nullopt;
        return headSince_;
    }
    std::size_t queuedBytes() const
    {
        const std::lock_guard lock(mutex_);
        return queuedBytes_;
    }

    void close()
    {
        const std::lock_guard lock(mutex_);
        closed_ = true;
        std::deque<std::string>().swap(output_);
        queuedBytes_ = 0;
    }

    // Calls in flight: the service must outlive every reply it handed out.
    void begin()
    {
        const std::lock_guard lock(countMutex_);
        ++inFlight_;
    }
    void end()
    {
        {
            const std::lock_guard lock(countMutex_);
            if (--inFlight_ == 0) idle_.notify_all();
        }
        const std::uint64_t one = 1;
        if (wake_ >= 0) (void)::write(wake_, &one, sizeof one);
    }
    bool busy() const
    {
        const std::lock_guard lock(countMutex_);
        return inFlight_ > 0;
    }
    void waitUntilIdle()
    {
        std::unique_lock lock(countMutex_);
        idle_.wait(lock, [this] { return inFlight_ == 0; });
    }

private:
    int fd_;
    int wake_;
    mutable std::mutex mutex_;
    std::deque<std::string> output_;
    std::size_t headWritten_ = 0;
    std::size_t queuedBytes_ = 0;
    Clock::time_point headSince_;
    bool closed_ = false;
    mutable std::mutex countMutex_;
    std::condition_variable idle_;
    std::size_t inFlight_ = 0;
};

// Counts a call while any copy of its answer function is alive.
class InFlight {
public:
    explicit InFlight(std::shared_ptr<Connection> connection) : connection_(std::move(connection))
    {
        connection_->begin();
    }
    ~InFlight() { connection_->end(); }
    InFlight(const InFlight&) = delete;
    InFlight& operator=(const InFlight&) = delete;
    Connection& connection() const { return *connection_; }

private:
    std::shared_ptr<Connection> connection_;
};

// The shared budget's share one connection holds for its unfinished request.
class BudgetShare {
public:
    explicit BudgetShare(RequestBudget& budget) : budget_(budget) {}
    ~BudgetShare() { budget_.release(held_); }
    BudgetShare(const BudgetShare&) = delete;
    BudgetShare& operator=(const BudgetShare&) = delete;

    // Makes the share fit `bytes` buffered; false when the budget is spent.
    bool fit(std::size_t bytes)
    {
        const std::size_t needed = bytes > kFreeRequestBytes ? bytes - kFreeRequestBytes : 0;
        if (needed > held_) {
            // In steps, so a growing line asks a few times, not per chunk.
            const std::size_t step = std::size_t{256} << 10;
            const std::size_t more = (needed - held_ + step - 1) / step * step;
            if (!budget_.reserve(more)) return false;
            held_ += more;
        } else if (needed == 0 && held_ > 0) {
            budget_.release(held_);
            held_ = 0;
        }
        return true;
    }

private:
    RequestBudget& budget_;
    std::size_t held_ = 0;
};

} // namespace

SocketListener::SocketListener(DaemonContext& context, Options options)
    : context_(context),
      options_(std::move(options)),
      log_(context.host.logSink(), "Listener"),
      slots_(options_.connections),
      budget_(options_.requestBudgetBytes),
      refusals_(options_.refusalLogInterval)
{
}

SocketListener::~SocketListener()
{
    if (listenFD_ >= 0) ::close(listenFD_);
}

bool SocketListener::isAllowed(std::uint32_t uid) const
{
    return uid == 0 || uid == ::geteuid() || options_.allowedUIDs.count(uid) > 0;
}

std::optional<std::string> SocketListener::claim()
{
    auto lock = InstanceLock::acquire(options_.socketPath + ".lock");
    if (auto* error = std::get_if<std::string>(&lock)) return *error;
    socketLock_.emplace(std::move(std::get<InstanceLock>(lock)));
    // A daemon that does not take the lock may still be serving there.
    if (SocketClient::connect(options_.socketPath)) return "another daemon answers on " + options_.socketPath;
    return std::nullopt;
}

std::optional<std::string> SocketListener::listen()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (options_.socketPath.empty() || options_.socketPath.size() >= sizeof address.sun_path)
        return "socket path must be 1 to " + std::to_string(sizeof address.sun_path - 1) + " bytes";
    std::memcpy(address.sun_path, options_.socketPath.data(), options_.socketPath.size());
    if (!socketLock_) {
        if (auto error = claim()) return error;
    }

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return "socket: " + describe(errno);

    // A socket left by an earlier run is replaced (no daemon answers on it:
    // `claim` made sure); anything else is not ours.
    struct stat existing{};
    if (::lstat(options_.socketPath.c_str(), &existing) == 0) {
        if (!S_ISSOCK(existing.st_mode)) {
            ::close(fd);
            return options_.socketPath + " exists and is not a socket";
        }
        ::unlink(options_.socketPath.c_str());
    }

    // The socket is made with its final mode: the umask decides it at bind,
    // and nothing changes it by path afterwards.
    const mode_t mode = options_.allowedUIDs.empty() ? 0600 : 0666;
    const mode_t previousMask = ::umask(0777 & ~mode);
    const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int bindError = errno;
    ::umask(previousMask);
    if (bound != 0) {
        ::close(fd);
        return "bind " + options_.socketPath + ": " + describe(bindError);
    }
    if (::listen(fd, 64) != 0) {
        const int error = errno;
        ::close(fd);
        return "listen " + options_.socketPath + ": " + describe(error);
    }
    listenFD_ = fd;
    log_.info("Serving the method table on %{public}s", options_.socketPath);
    return std::nullopt;
}

void SocketListener::refuse(int fd, std::uint32_t uid, const std::string& reason, bool allowed)
{
    if (refusals_.refused(Clock::now())) {
        if (allowed) log_.error("Refused a connection from uid %{public}u — %{public}s", uid, reason);
        else log_.error("Refused a connection from uid %{public}u — not an allowed caller", uid);
    }
    const std::string line = MethodDispatch::dumpLine({{"error", reason}}) + "\n";
    (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    ::close(fd);
}

void SocketListener::summariseRefusals()
{
    if (const auto count = refusals_.due(Clock::now()))
        log_.error("Refused %{public}u more connections in the last %{public}u s",
                   static_cast<std::uint64_t>(*count),
                   static_cast<std::uint64_t>(std::chrono::ceil<std::chrono::seconds>(refusals_.interval()).count()));
}

std::string SocketListener::serve()
{
    for (;;) {
        summariseRefusals();
        const auto summary = refusals_.nextSummary();
        pollfd entry{listenFD_, POLLIN, 0};
        const int ready = ::poll(&entry, 1, summary ? millisecondsUntil(*summary, Clock::now()) : -1);
        if (ready < 0 && errno != EINTR) return "poll: " + describe(errno);
        if (ready <= 0) continue;

        const int fd = ::accept4(listenFD_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            const int error = errno;
            if (error == EINTR || error == ECONNABORTED || error == EPROTO || error == EAGAIN) continue;
            if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
                // Out of descriptors or memory: wait for connections to end.
                log_.error("accept failed: %{public}s", describe(error));
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                continue;
            }
            return "accept: " + describe(error);
        }

        ucred credentials{};
        socklen_t length = sizeof credentials;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 || length != sizeof credentials) {
            log_.error("Refused a connection: its credentials could not be read (%{public}s)", describe(errno));
            ::close(fd);
            continue;
        }
        const auto uid = static_cast<std::uint32_t>(credentials.uid);
        if (!isAllowed(uid)) {
            refuse(fd, uid, "uid " + std::to_string(uid) + " may not use this daemon", false);
            continue;
        }
        if (auto full = slots_.take(uid)) {
            refuse(fd, uid, *full, true);
            continue;
        }
        try {
            std::thread([this, fd, uid] {
                serveConnection(fd, uid);
                slots_.give(uid);
            }).detach();
        } catch (const std::system_error& error) {
            slots_.give(uid);
            log_.error("Refused a connection: no thread for it (%{public}s)", error.what());
            ::close(fd);
        }
    }
}

void SocketListener::serveConnection(int fd, std::uint32_t uid)
{
    auto connection = std::make_shared<Connection>(fd);
    if (const int flags = ::fcntl(fd, F_GETFL); flags >= 0) ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    {
        HelperService service(context_, uid);
        BudgetShare share(budget_);
        log_.notice("Accepted XPC connection");

        std::string pending;
        bool reading = true;
        auto lastActivity = Clock::now();
        std::optional<Clock::time_point> requestStarted;

        // Stops reading; the last words, if any, still go out within the
        // write time-out.
        const auto stopReading = [&](const std::string& farewell) {
            reading = false;
            std::string().swap(pending);
            share.fit(0);
            if (!farewell.empty()) connection->queue(MethodDispatch::dumpLine({{"error", farewell}}));
        };

        // Serves every whole line in `pending`; false when the connection must end.
        const auto serveLines = [&] {
            std::size_t start = 0;
            for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
                const std::string_view line(pending.data() + start, end - start);
                if (line.size() > options_.maxLineBytes) break;
                if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
                auto inFlight = std::make_shared<InFlight>(connection);
                MethodDispatch::handleLine(service, line, [inFlight](std::string answer) {
                    inFlight->connection().queue(std::move(answer));
                });
            }
            if (start > 0) {
                // What is left is the start of the next request.
                pending.erase(0, start);
                lastActivity = Clock::now();
                requestStarted = pending.empty() ? std::nullopt : std::optional(lastActivity);
            }
            // Buffers of a large request go back once it is served.
            if (pending.capacity() > kFreeRequestBytes && pending.size() * 2 < pending.capacity())
                std::string(pending).swap(pending);
            share.fit(pending.size());
            const std::size_t firstLine = std::min(pending.find('\n'), pending.size());
            if (firstLine > options_.maxLineBytes) {
                stopReading("request line longer than " + std::to_string(options_.maxLineBytes) + " bytes");
                return;
            }
        };

        for (;;) {
            if (!connection->flush()) break;
            const auto now = Clock::now();
            const auto unwritten = connection->oldestUnwritten();
            const bool busy = connection->busy();
            if (!reading && !unwritten && !busy) break;
            // Idle time counts from the last answer, not from its request.
            if (busy || unwritten) lastActivity = now;

            if (unwritten && now - *unwritten >= options_.writeTimeout) {
                log_.error("Dropped a connection from uid %{public}u — it did not take its answers within %{public}u s",
                           uid, secondsOf(options_.writeTimeout));
                break;
            }
            if (reading && requestStarted && now - *requestStarted >= options_.requestTimeout) {
                log_.notice("Closed a connection from uid %{public}u — a request did not arrive whole within %{public}u s",
                            uid, secondsOf(options_.requestTimeout));
                stopReading("request not completed within " + std::to_string(secondsOf(options_.requestTimeout)) + " s");
                continue;
            }
            const bool idle = reading && !requestStarted && !unwritten && !busy;
            if (idle && now - lastActivity >= options_.idleTimeout) {
                log_.debug("Closed a connection from uid %{public}u — idle for %{public}u s", uid,
                           secondsOf(options_.idleTimeout));
                stopReading("closed after " + std::to_string(secondsOf(options_.idleTimeout)) + " s without a request");
                continue;
            }

            std::optional<Clock::time_point> deadline;
            const auto until = [&](Clock::time_point at) { deadline = deadline ? std::min(*deadline, at) : at; };
            if (unwritten) until(*unwritten + options_.writeTimeout);
            if (reading && requestStarted) until(*requestStarted + options_.requestTimeout);
            if (idle) until(lastActivity + options_.idleTimeout);

            const bool wantInput = reading && connection->queuedBytes() < kOutputHighWater;
            pollfd entries[2] = {
                {fd, static_cast<short>((wantInput ? POLLIN : 0) | (unwritten ? POLLOUT : 0)), 0},
                {connection->wakeFD(), POLLIN, 0},
            };
            const int ready = ::poll(entries, connection->wakeFD() >= 0 ? 2 : 1,
                                     deadline ? millisecondsUntil(*deadline, now) : -1);
            if (ready < 0 && errno != EINTR) break;
            if (ready <= 0) continue;
            if (entries[1].revents & POLLIN) connection->drainWakeups();
            if ((entries[0].revents & (POLLERR | POLLHUP)) && !(entries[0].revents & POLLIN)) break;
            if (!(entries[0].revents & POLLIN) || !wantInput) continue;

            char chunk[16 * 1024];
            const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
            if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
            if (n < 0) break;
            if (n == 0) {
                // The client has finished sending; answers still owed go out.
                stopReading("");
                continue;
            }
            if (!share.fit(pending.size() + static_cast<std::size_t>(n))) {
                log_.error("Closed a connection from uid %{public}u — unfinished requests of all clients hold "
                           "%{public}u bytes already",
                           uid, static_cast<std::uint64_t>(budget_.reserved()));
                stopReading("the daemon holds too many unfinished requests; try again later");
                continue;
            }
            if (pending.empty()) requestStarted = Clock::now();
            pending.append(chunk, static_cast<std::size_t>(n));
            lastActivity = Clock::now();
            serveLines();
        }
        // The client is gone or was cut off: no new calls, and replies still
        // owed are dropped, but the service must outlive them.
        connection->close();
        ::shutdown(fd, SHUT_RDWR);
        connection->waitUntilIdle();
    }
    log_.debug("Connection invalidated");
}

} // namespace orven
