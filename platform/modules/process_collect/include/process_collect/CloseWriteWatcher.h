#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sdk/UniqueFd.h"

namespace Engine {

/// Tells when a writer has closed a file inside a watched container root: fanotify
/// FAN_CLOSE_WRITE with a filesystem mark on the root's own file system (the container's
/// overlay). A mount mark on the host's view of the root would not see the container's writes,
/// which go through the container's own mount of the same file system. Needs CAP_SYS_ADMIN;
/// without it Open fails and callers fall back to waiting for the file to settle.
/// Owns its fanotify descriptor. One thread at a time.
class CloseWriteWatcher {
public:
    /// One closed file, identified by device and inode, with its state at the close.
    struct Closed {
        uint64_t dev = 0;
        uint64_t ino = 0;
        int64_t size = 0;
        int64_t mtimeNs = 0;
        int pid = 0;  ///< the writer (0 when the kernel did not say)
    };

    CloseWriteWatcher() = default;
    CloseWriteWatcher(const CloseWriteWatcher&) = delete;
    CloseWriteWatcher& operator=(const CloseWriteWatcher&) = delete;

    bool Open(std::string& error);
    bool IsOpen() const { return fd_.Valid(); }
    /// The fanotify descriptor (non-blocking) to wait on for readability.
    int Fd() const { return fd_.Get(); }

    /// Marks the file system of `root`. Counted: a root marked twice needs two Unmarks. Refuses
    /// (false, `error`) a root that is not the top of a file system of its own, so that a plain
    /// host directory never puts the whole host file system under watch.
    bool Mark(const std::string& root, std::string& error);
    void Unmark(const std::string& root);
    std::size_t MarkedRoots() const { return marks_.size(); }

    /// Reads the events that are ready (a bounded amount) and appends them to `out`; `overflows`
    /// counts the times the kernel's queue overflowed and events were lost.
    void Read(std::vector<Closed>& out, uint64_t& overflows);

private:
    struct MarkEntry {
        uint64_t dev = 0;
        int users = 0;
    };

    SDK::UniqueFd fd_;
    std::map<std::string, MarkEntry> marks_;  // root -> its file system and users
    std::vector<char> buffer_;
};

}  // namespace Engine
