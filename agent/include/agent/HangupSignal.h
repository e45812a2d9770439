#pragma once

namespace Agent {

/// SIGHUP for the agent itself: Install replaces the default action (which would end the agent)
/// with a handler that only raises a lock-free flag; Take tells once per signal that the log
/// file should be reopened. Modules that hook SIGHUP later chain to this handler. Install and
/// Take are called from the agent's own threads; the handler stays until the process ends.
class HangupSignal {
public:
    static bool Install();
    static bool Take();
};

}  // namespace Agent
