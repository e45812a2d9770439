#pragma once

namespace Framework {

/// Lets the agent hold back what services announce on their own (container start and exit
/// notifications) until it has handed the modules their first policies, so that a container
/// that runs before the agent starts meets the policy, not the lack of one. Open unless the
/// agent closes it. Thread-safe.
class StartupGate {
public:
    static void Close();
    static void Open();
    static bool IsOpen();
};

}  // namespace Framework
