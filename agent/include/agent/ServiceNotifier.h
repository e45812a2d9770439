#pragma once

#include <string>

namespace Agent {

/// Tells the service manager how the agent is doing ("READY=1", "STOPPING=1") with one datagram
/// to the socket named by $NOTIFY_SOCKET (a path, or "@name" in the abstract namespace). Without
/// the variable there is no one to tell and Notify does nothing. Callable from any thread.
class ServiceNotifier {
public:
    /// True when the state was sent or there is no socket to send it to; false with `error` set
    /// when the variable is malformed or the socket refused the datagram.
    static bool Notify(const std::string& state, std::string& error);
};

}  // namespace Agent
