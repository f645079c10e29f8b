#pragma once
// The Linux host's stand-in for the XPC listener: a Unix stream socket that
// serves the method table, one JSON object a line each way. The caller's user
// id comes from the kernel (SO_PEERCRED), as XPC's effectiveUserIdentifier
// does; each connection gets its own HelperService and its own thread.

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "DaemonContext.h"
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
        std::size_t maxConnections = 64;
    };

    SocketListener(DaemonContext& context, Options options);
    ~SocketListener();
    SocketListener(const SocketListener&) = delete;
    SocketListener& operator=(const SocketListener&) = delete;

    // Creates the socket and starts listening; an error text when it cannot.
    std::optional<std::string> listen();
    // Accepts connections for ever; returns only when accepting has failed
    // for good, with the reason.
    std::string serve();

    bool isAllowed(std::uint32_t uid) const;

private:
    void serveConnection(int fd, std::uint32_t uid);

    DaemonContext& context_;
    Options options_;
    Logger log_;
    int listenFD_ = -1;
    std::atomic<std::size_t> connections_{0};
};

} // namespace orven
