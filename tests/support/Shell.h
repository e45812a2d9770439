#pragma once

#include <string>

namespace TestSupport {

/// Runs commands through /bin/sh for tests that drive real tools (docker, auditctl, the agent).
/// Standard error is not captured unless the command redirects it ("2>&1").
class Shell {
public:
    struct Result {
        int exitCode = -1;  // -1 when the shell could not run or was killed by a signal
        std::string out;    // standard output, as written
        bool Ok() const { return exitCode == 0; }
    };

    /// Runs `command` to its end.
    static Result Run(const std::string& command);
    /// Standard output without its trailing newlines; "" when the command failed, so that
    /// `Output(...).empty()` tests for failure and for an empty answer alike.
    static std::string Output(const std::string& command);
};

}  // namespace TestSupport
