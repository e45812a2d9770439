#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace Framework {

/// What the platform knows of each container that other services need in order to see it as
/// the container sees itself: its root filesystem's host path, its id and its first process.
/// The container service records a start before it announces it and an exit after it
/// announced it; a service that gets a host path (the file-notify service) looks up which
/// container's root it lies in. An exited container stays known, without a process, for a
/// while (kMaxExited), so that late requests for its paths are still recognised as its own.
/// Thread-safe; process-wide.
class ContainerRegistry {
public:
    static constexpr std::size_t kMaxExited = 4096;

    struct Entry {
        std::string rootPath;  ///< host path of the root filesystem, no trailing slash
        std::string id;        ///< container id
        int pid = 0;           ///< its first process (host pid namespace); 0 once it exited
    };

    static ContainerRegistry& Instance();

    /// Records (or replaces) the running container whose root is `rootPath`. Ignored unless
    /// rootPath is absolute and not "/".
    void Started(const std::string& rootPath, const std::string& id, int pid);
    /// Marks the container of `rootPath` exited (pid 0).
    void Exited(const std::string& rootPath);
    /// The entry whose root is `path` or a directory above it (the deepest such root).
    bool Find(const std::string& path, Entry& entry) const;
    /// Forgets everything (tests).
    void Clear();

private:
    mutable std::mutex mutex_;              // guards entries_ and exited_
    std::map<std::string, Entry> entries_;  // by root path
    std::deque<std::string> exited_;        // exited roots, oldest first
};

}  // namespace Framework
