#pragma once

namespace Agent {

/// Exit codes of the agent's check commands (--check-config, --check-policy).
enum CheckExit {
    kCheckValid = 0,      ///< valid, nothing to report
    kCheckAttention = 1,  ///< valid, but with problems an operator should look at
    kCheckInvalid = 2,    ///< invalid or unreadable
};

}  // namespace Agent
