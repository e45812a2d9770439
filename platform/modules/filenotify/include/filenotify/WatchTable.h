#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "filenotify/FileNotifyOpt.h"
#include "filenotify/InotifyDecoder.h"

namespace Engine {

/// One event for one requester.
struct WatchNotification {
    std::string requester;  ///< task name to send to
    std::string path;       ///< watched path, plus "/" and the child name for a child event
    std::string watchPath;  ///< the watched path alone
    uint32_t mask = 0;      ///< one inotify event mask
    uint64_t extParm = 0;   ///< the requester's extra parameter
};

/// The path watches of "filenotify_task" over one inotify instance (owned: opened by the
/// constructor, closed by the destructor, which drops every kernel watch).
///
/// A watch follows its path, not an inode. Each watched path P holds a kernel watch on the
/// nearest existing directory on its way (its "anchor": normally P's parent) and, while P
/// exists, one on P itself. Whatever appears at P (created, renamed onto it, its directory
/// made) gets the file watch; whatever leaves it (deleted, moved away, replaced) releases it.
///
/// One user operation is reported once: a deletion is one IN_DELETE (from the directory's or
/// the file's event, whichever the kernel queues first; nor is the link-count IN_ATTRIB that
/// precedes it in the same read reported), a move away is the parent's IN_MOVED_FROM (not
/// IN_MOVE_SELF), a replacement by rename is the parent's IN_MOVED_TO; all carry P as path.
///
/// Not thread-safe: one thread (the task's) calls everything. Memory is bounded by kMaxPaths
/// paths of at most kMaxRequestersPerPath requesters.
class WatchTable {
public:
    static constexpr std::size_t kMaxPaths = 65536;
    static constexpr std::size_t kMaxRequestersPerPath = 1024;

    WatchTable();
    ~WatchTable();
    WatchTable(const WatchTable&) = delete;
    WatchTable& operator=(const WatchTable&) = delete;

    /// false when the inotify instance could not be created (everything else then refuses).
    bool IsOpen() const { return fd_ >= 0; }
    /// The inotify descriptor (non-blocking) to wait on for readability.
    int Fd() const { return fd_; }

    /// Watches `path` (absolute) for `mask` on behalf of `requester`, replacing that
    /// requester's earlier watch on the same path. false (logged) when refused.
    bool Add(const std::string& path, const std::string& requester, uint32_t mask,
             const _FileNotifyOpt& options);
    /// Drops `requester`'s watch on `path`; false (logged) when it has none.
    bool Remove(const std::string& path, const std::string& requester);

    /// Reads what the descriptor has ready (a bounded amount) and appends the resulting
    /// notifications to `out`.
    void ReadEvents(std::vector<WatchNotification>& out);
    /// Handles the records of one read, in order, appending notifications to `out`.
    void HandleRecords(const std::vector<InotifyRecord>& records,
                       std::vector<WatchNotification>& out);
    /// Re-arms every path against the file system as it is now (after lost events); a path
    /// that appeared, vanished or was replaced meanwhile is reported as such.
    void Resync(std::vector<WatchNotification>& out);

    std::size_t PathCount() const { return nodes_.size(); }
    std::size_t KernelWatchCount() const { return users_.size(); }

private:
    struct Subscriber {
        std::string requester;
        uint32_t mask = 0;
        _FileNotifyOpt options;
    };
    struct Node {
        std::string path;
        std::vector<std::string> components;  // non-empty parts of path
        std::vector<Subscriber> subscribers;
        int selfWd = -1;              // watch on the file at path, -1 while it does not exist
        int anchorWd = -1;            // watch on the nearest existing directory on the way
        std::string anchorName;       // the component inside the anchor that leads to path
        bool anchorIsParent = false;  // the anchor is path's own directory
        bool deletionReported = false;  // by the file's event; the directory's is still due
    };
    struct Ahead {  // what comes later in the same read for a file's watch
        bool selfDeletion = false;
        bool parentDeletion = false;
    };
    struct Arming {
        bool before = false;  // path was watched as a file before
        bool after = false;   // path is watched as a file now
        bool replaced = false;  // a different file than before
    };

    Arming Rearm(Node& node);
    int Acquire(const std::string& path, uint32_t mask, const std::string& user);
    void Release(int wd, const std::string& user);
    uint32_t SelfMask(const Node& node) const;
    void DropKernelWatch(int wd, std::vector<WatchNotification>& out);
    void HandleAnchorEvent(Node& node, const InotifyRecord& record,
                           std::vector<WatchNotification>& out);
    void HandleSelfEvent(Node& node, const InotifyRecord& record, const Ahead& ahead,
                         std::vector<WatchNotification>& out);
    void Deliver(const Node& node, const std::string& child, uint32_t mask,
                 std::vector<WatchNotification>& out) const;
    void ReportOverflow();

    int fd_ = -1;
    std::vector<char> buffer_;
    std::map<std::string, Node> nodes_;               // by watched path
    std::map<int, std::multiset<std::string>> users_;  // kernel watch -> paths using it
};

}  // namespace Engine
