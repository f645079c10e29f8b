#pragma once
// The Linux host's stand-in for the XPC listener: a Unix stream socket that
// serves the method table, one JSON object a line each way. The caller's user
// id comes from the kernel (SO_PEERCRED), as XPC's effectiveUserIdentifier
// does; each connection gets its own HelperService and its own thread.
//
// A client is never anybody's problem but its own: answers are queued, not
// written from the code that produced them (which may hold the pf lock), and
// a client that does not read them, sends nothing, or dribbles a request is
// dropped after a bound. Connections are shared out per user with a reserve
// for root, and the request bytes held in memory have a per-connection and a
// total bound.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "DaemonContext.h"
#include "Linux/InstanceLock.h"
#include "Linux/ListenerLimits.h"
#include "Log.h"

namespace orven {

class SocketListener {
public:
    struct Options {
        std::string socketPath;
        // Callers besides root and the daemon's own user. When there are any,
        // the socket is opened to everyone (0666) and the listener turns the
        // others away itself; otherwise the socket is 0600.
        std::set<std::uint32_t> allowedUIDs;
        std::size_t maxLineBytes = std::size_t{1} << 20;
        ConnectionSlots::Limits connections;
        // Bytes of unfinished requests held at once across all connections,
        // beyond the first 64 KiB of each.
        std::size_t requestBudgetBytes = std::size_t{16} << 20;
        // A connection with nothing in progress is closed after this long.
        std::chrono::seconds idleTimeout{120};
        // A request line must arrive whole within this long of its first byte.
        std::chrono::seconds requestTimeout{10};
        // An answer must be taken by the client within this long.
        std::chrono::seconds writeTimeout{10};
        // At most one full and one summary line of refused connections per interval.
        std::chrono::seconds refusalLogInterval{10};
    };

    SocketListener(DaemonContext& context, Options options);
    ~SocketListener();
    SocketListener(const SocketListener&) = delete;
    SocketListener& operator=(const SocketListener&) = delete;

    // Makes sure no other daemon serves on the socket path: holds a lock
    // next to it for the life of the process and checks that nothing
    // answers there. An error text when another one does.
    std::optional<std::string> claim();
    // Creates the socket and starts listening; an error text when it cannot.
    std::optional<std::string> listen();
    // Accepts connections for ever; returns only when accepting has failed
    // for good, with the reason.
    std::string serve();

    bool isAllowed(std::uint32_t uid) const;

private:
    void refuse(int fd, std::uint32_t uid, const std::string& reason, bool allowed);
    void summariseRefusals();
    void serveConnection(int fd, std::uint32_t uid);

    DaemonContext& context_;
    Options options_;
    Logger log_;
    int listenFD_ = -1;
    std::optional<InstanceLock> socketLock_;
    ConnectionSlots slots_;
    RequestBudget budget_;
    RefusalTally refusals_;
};

} // namespace orven
