#include "support/Shell.h"

#include <stdio.h>
#include <sys/wait.h>

namespace TestSupport {

Shell::Result Shell::Run(const std::string& command) {
    Result result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    char buffer[4096];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.out.append(buffer, n);
    const int status = ::pclose(pipe);
    if (status != -1 && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    return result;
}

std::string Shell::Output(const std::string& command) {
    Result result = Run(command);
    if (!result.Ok()) return std::string();
    while (!result.out.empty() && (result.out.back() == '\n' || result.out.back() == '\r')) {
        result.out.pop_back();
    }
    return result.out;
}

}  // namespace TestSupport
