#pragma once

#include <sys/wait.h>

#include <cstdio>
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
    static Result Run(const std::string& command) {
        Result result;
        FILE* pipe = ::popen(command.c_str(), "r");
        if (pipe == nullptr) return result;
        char buffer[4096];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
            result.out.append(buffer, n);
        }
        const int status = ::pclose(pipe);
        if (status != -1 && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
        return result;
    }
    /// Standard output without its trailing newlines; "" when the command failed, so that
    /// `Output(...).empty()` tests for failure and for an empty answer alike.
    static std::string Output(const std::string& command) {
        Result result = Run(command);  // npos + 1 is 0: newlines only make an empty answer
        return result.Ok() ? result.out.erase(result.out.find_last_not_of("\r\n") + 1) : "";
    }
};

}  // namespace TestSupport
