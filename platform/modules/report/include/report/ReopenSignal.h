#pragma once

namespace Report {

/// SIGHUP for the alarm sink: Install hooks the signal (keeping the previous action to put back
/// on Uninstall), Take tells once per signal that the sink should be reopened. The handler only
/// sets a lock-free flag, the one thing a signal handler may safely do here, and passes the
/// signal on to a handler the process had installed before (the agent's own).
class ReopenSignal {
public:
    static bool Install();
    static void Uninstall();
    static bool Take();
    /// Raises the flag as the signal would (tests).
    static void Request();
};

}  // namespace Report
