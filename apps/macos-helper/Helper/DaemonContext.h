#pragma once
// What the daemon shares across connections: one object owned by main (or by
// a test) and handed to every HelperService. There are no mutable globals.

#include <atomic>
#include <mutex>

#include "Host.h"
#include "Log.h"
#include "OrvenHelperProtocol.h"
#include "WorkerPool.h"

namespace orven {

struct DaemonContext {
    explicit DaemonContext(Host& host)
        : host(host), staticLog(host.logSink(), "HardKill")
    {
    }
    DaemonContext(const DaemonContext&) = delete;
    DaemonContext& operator=(const DaemonContext&) = delete;

    Host& host;
    // The class-wide logger for work that has no connection.
    Logger staticLog;
    // Serialises every pf-changing operation; never recursive.
    std::timed_mutex pfLock;
    // How long withPFLock waits; only tests shorten it.
    double pfLockBudgetSeconds = OrvenHelperConstants::pfLockAcquisitionBudget;
    // The time-out of every pfctl run; only tests shorten it.
    double pfctlTimeoutSeconds = OrvenHelperConstants::pfProcessBudget;
    // Changed only under pfLock; read anywhere.
    std::atomic<bool> hardKillEngaged{false};
    std::atomic<bool> uninstallClaimed{false};
    // Pings and the powerline probe run here, off the connection. Declared
    // last so it is destroyed first: its jobs still use everything above.
    WorkerPool backgroundWork{16, 256};
};

} // namespace orven
