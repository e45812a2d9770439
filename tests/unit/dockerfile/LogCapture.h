#pragma once

#include <string>

namespace DockerFileUnit {

/// Routes the agent's loggers (the module logger included) into memory at debug level, once
/// per process, and counts the texts written since the last Clear.
class LogCapture {
public:
    static LogCapture& Instance();
    void Clear();
    /// How many records carried exactly this text.
    int Count(const std::string& text) const;
    /// Every captured text, one per line, for failure messages.
    std::string Dump() const;

private:
    LogCapture();
};

}  // namespace DockerFileUnit
