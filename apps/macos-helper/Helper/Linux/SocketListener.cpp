#include "SocketListener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "HelperService.h"
#include "MethodDispatch.h"

namespace orven {

namespace {

std::string describe(int error) { return std::strerror(error); }

// One client: replies may come from other threads, and after the client has
// gone; writes are serialised and a dead peer only makes them fail.
class Connection {
public:
    explicit Connection(int fd) : fd_(fd) {}
    ~Connection() { ::close(fd_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int fd() const { return fd_; }

    void sendLine(std::string line)
    {
        line.push_back('\n');
        const std::lock_guard lock(writeMutex_);
        std::size_t sent = 0;
        while (sent < line.size()) {
            const ssize_t n = ::send(fd_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return;
            sent += static_cast<std::size_t>(n);
        }
    }

    // Calls in flight: the service must outlive every reply it handed out.
    void begin()
    {
        const std::lock_guard lock(countMutex_);
        ++inFlight_;
    }
    void end()
    {
        const std::lock_guard lock(countMutex_);
        if (--inFlight_ == 0) idle_.notify_all();
    }
    void waitUntilIdle()
    {
        std::unique_lock lock(countMutex_);
        idle_.wait(lock, [this] { return inFlight_ == 0; });
    }

private:
    int fd_;
    std::mutex writeMutex_;
    std::mutex countMutex_;
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

} // namespace

SocketListener::SocketListener(DaemonContext& context, Options options)
    : context_(context), options_(std::move(options)), log_(context.host.logSink(), "Listener")
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

std::optional<std::string> SocketListener::listen()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (options_.socketPath.empty() || options_.socketPath.size() >= sizeof address.sun_path)
        return "socket path must be 1 to " + std::to_string(sizeof address.sun_path - 1) + " bytes";
    std::memcpy(address.sun_path, options_.socketPath.data(), options_.socketPath.size());

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return "socket: " + describe(errno);

    // A socket left by an earlier run is replaced; anything else is not ours.
    struct stat existing{};
    if (::lstat(options_.socketPath.c_str(), &existing) == 0) {
        if (!S_ISSOCK(existing.st_mode)) {
            ::close(fd);
            return options_.socketPath + " exists and is not a socket";
        }
        ::unlink(options_.socketPath.c_str());
    }

    // The mode is right from the start: the umask closes the gap between
    // bind and chmod.
    const mode_t mode = options_.allowedUIDs.empty() ? 0600 : 0666;
    const mode_t previousMask = ::umask(0777 & ~mode);
    const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int bindError = errno;
    ::umask(previousMask);
    if (bound != 0) {
        ::close(fd);
        return "bind " + options_.socketPath + ": " + describe(bindError);
    }
    if (::chmod(options_.socketPath.c_str(), mode) != 0 || ::listen(fd, 64) != 0) {
        const int error = errno;
        ::close(fd);
        return "listen " + options_.socketPath + ": " + describe(error);
    }
    listenFD_ = fd;
    log_.info("Serving the method table on %{public}s", options_.socketPath);
    return std::nullopt;
}

std::string SocketListener::serve()
{
    for (;;) {
        const int fd = ::accept4(listenFD_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            const int error = errno;
            if (error == EINTR || error == ECONNABORTED || error == EPROTO) continue;
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
            log_.error("Refused a connection from uid %{public}u — not an allowed caller", uid);
            const std::string line = MethodDispatch::dumpLine({{"error", "uid " + std::to_string(uid) +
                                                                              " may not use this daemon"}}) + "\n";
            (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
            ::close(fd);
            continue;
        }
        if (connections_.load() >= options_.maxConnections) {
            log_.error("Refused a connection from uid %{public}u — %{public}u connections are open already", uid,
                       static_cast<std::uint32_t>(options_.maxConnections));
            const std::string line = MethodDispatch::dumpLine({{"error", "too many connections"}}) + "\n";
            (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
            ::close(fd);
            continue;
        }
        ++connections_;
        try {
            std::thread([this, fd, uid] {
                serveConnection(fd, uid);
                --connections_;
            }).detach();
        } catch (const std::system_error& error) {
            --connections_;
            log_.error("Refused a connection: no thread for it (%{public}s)", error.what());
            ::close(fd);
        }
    }
}

void SocketListener::serveConnection(int fd, std::uint32_t uid)
{
    auto connection = std::make_shared<Connection>(fd);
    {
        HelperService service(context_, uid);
        log_.notice("Accepted XPC connection");

        std::string pending;
        char buffer[64 * 1024];
        bool open = true;
        while (open) {
            const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            pending.append(buffer, static_cast<std::size_t>(n));

            std::size_t start = 0;
            for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
                const std::string_view line(pending.data() + start, end - start);
                if (line.size() > options_.maxLineBytes) {
                    open = false;
                    break;
                }
                if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
                auto inFlight = std::make_shared<InFlight>(connection);
                MethodDispatch::handleLine(service, line, [inFlight](std::string answer) {
                    inFlight->connection().sendLine(std::move(answer));
                });
            }
            pending.erase(0, start);
            if (!open || pending.size() > options_.maxLineBytes) {
                connection->sendLine(MethodDispatch::dumpLine(
                    {{"error", "request line longer than " + std::to_string(options_.maxLineBytes) + " bytes"}}));
                break;
            }
        }
        // The client is gone or was cut off: no new calls, but replies still
        // owed must be given before the service goes away.
        ::shutdown(fd, SHUT_RD);
        connection->waitUntilIdle();
    }
    log_.debug("Connection invalidated");
}

} // namespace orven
