#pragma once

#include <string>

namespace Poco {
class Channel;
class Logger;
}  // namespace Poco

namespace SDK {

/// The agent's loggers. The agent configures the root channel once (Configure); every module
/// logger is a child of it and shares its channel. Until then the root logger is "absent" and
/// GetRootLogger returns null, so that code running before configuration logs nothing.
/// Thread-safe.
class LoggerUtils {
public:
    static LoggerUtils* GetInstance();

    /// Installs `channel` (takes a reference) and `level` (Poco priority 1..8) on the root logger
    /// and on every module logger created so far. Records reach `channel` through a
    /// LogEscapingChannel: control bytes in their text arrive escaped, one record one line.
    void Configure(Poco::Channel* channel, int level);
    /// Parses a level name ("error", "warning", "information", "debug", "trace", ...) or number;
    /// -1 when it is neither.
    static int ParseLevel(const std::string& text);

    /// The root logger, or null until Configure ran.
    Poco::Logger* GetRootLogger();
    /// The logger of a module: null when absent and `create` is false; created as a child of the
    /// root logger (same channel and level) when `create` is true.
    Poco::Logger* GetModuleLogger(const std::string& name, bool create);

private:
    LoggerUtils() = default;
    bool configured_ = false;  // guarded by the Poco logger registry's own lock ordering: set once
};

}  // namespace SDK
