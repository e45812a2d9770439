#pragma once

#include <map>
#include <mutex>
#include <string>

namespace Framework {

/// Named lines of state (not counts) that services publish for the agent's periodic status
/// output, such as the file-notify service's watch coverage per container. A service
/// replaces its line whenever it likes; the agent prints every line. Thread-safe.
class StatusBoard {
public:
    static StatusBoard& Instance();

    void Set(const std::string& name, const std::string& text);
    void Erase(const std::string& name);
    /// name -> text, in name order.
    std::map<std::string, std::string> Snapshot() const;

private:
    mutable std::mutex mutex_;  // guards lines_
    std::map<std::string, std::string> lines_;
};

}  // namespace Framework
