#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "filenotify/FileNotifyOpt.h"
#include "filenotify/InotifyDecoder.h"
#include "filenotify/WatchScope.h"
#include "framework/Clock.h"

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
/// A watch follows its path, not an inode. A path below a container's root means what the
/// container sees there (WatchScope): every lookup is made inside the container, and a kernel
/// watch is put on what the lookup found (through its descriptor), never on a host file the
/// container's links or ".." point at. Each watched path P holds a kernel watch on every
/// directory on its way, from the root down as far as they exist, and, while P exists, one on
/// P itself (on a link's target). Whatever appears at P or at a directory above it (created,
/// renamed onto it, its directory made) gets watched; whatever leaves (deleted, moved away,
/// replaced) is let go and the path is looked up again.
///
/// One user operation is reported once: a deletion is one IN_DELETE (from the directory's or
/// the file's event, whichever the kernel queues first; nor is the link-count IN_ATTRIB that
/// precedes it in the same read reported), a move away is the parent's IN_MOVED_FROM (not
/// IN_MOVE_SELF), a replacement by rename is the parent's IN_MOVED_TO; all carry P as path.
/// A directory above P that goes or comes reports P as moved/deleted or created.
///
/// Watches the kernel refuses (watch limit, memory, descriptors) leave the path uncovered
/// and are retried by Tick with backoff until they succeed; coverage is kept per container,
/// and a container's gap is logged and counted once when it opens and once when it closes.
///
/// Not thread-safe: one thread (the task's) calls everything. Memory is bounded by kMaxPaths
/// paths of at most kMaxRequestersPerPath requesters.
class WatchTable {
public:
    static constexpr std::size_t kMaxPaths = 65536;
    static constexpr std::size_t kMaxRequestersPerPath = 1024;

    /// `clock` times the retries of refused watches; it must outlive the table.
    explicit WatchTable(const Framework::Clock& clock = Framework::Clock::System());
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

    /// Periodic work (`nowMs`: steady clock, ms). Retries refused watches when their backoff
    /// is over; a retried path is not reported: what happened while it was uncovered is
    /// unknown. Every kLinkCheckMs looks paths that are links up again, since their target's
    /// directories are not watched: a target that appeared, vanished or was replaced is
    /// reported like the path's own (appended to `out`).
    void Tick(uint64_t nowMs, std::vector<WatchNotification>& out);
    /// "<container> <watched>/<requested>" per container, blank-separated, after a total.
    std::string CoverageText() const;
    struct Coverage {
        std::size_t requested = 0;         ///< watched paths
        std::size_t refused = 0;           ///< of which the kernel refused, waiting for a retry
        std::set<std::string> containers;  ///< ids of the containers the paths belong to
    };
    /// The numbers behind CoverageText, for metrics and health.
    Coverage CoverageNumbers() const;

    std::size_t PathCount() const { return nodes_.size(); }
    std::size_t KernelWatchCount() const { return users_.size(); }
    /// Paths whose watches the kernel refused and that wait for a retry.
    std::size_t RefusedCount() const;

    static constexpr uint64_t kRetryFirstMs = 250;
    static constexpr uint64_t kRetryMaxMs = 5000;
    static constexpr uint64_t kLinkCheckMs = 2000;

private:
    struct Subscriber {
        std::string requester;
        uint32_t mask = 0;
        _FileNotifyOpt options;
    };
    struct Node {
        const std::string* key = nullptr;     // the path as requested: its key in nodes_
        std::shared_ptr<WatchScope> scope;    // where it is looked up
        std::vector<std::string> components;  // non-empty parts of the path inside the scope
        std::vector<Subscriber> subscribers;
        int selfWd = -1;         // on the file at path, -1 while it does not exist
        std::vector<int> chain;  // chain[k]: on the directory of the first k components, down
                                 // as far as they exist; -1 where the kernel dropped it
        bool refused = false;    // the kernel refused one of its watches: retried by Tick
        bool viaLink = false;    // the path itself is a link: looked up again by Tick
        bool deletionReported = false;  // by the file's event; the directory's is still due

        const std::string& Path() const { return *key; }
    };
    // Paths are held once, as the keys of nodes_; a kernel watch's users point at them (a map
    // key stays put until its node is erased, and a node lets go of its watches first).
    struct KeyLess {
        bool operator()(const std::string* a, const std::string* b) const { return *a < *b; }
    };
    using Users = std::multiset<const std::string*, KeyLess>;
    struct Ahead {  // what comes later in the same read for a file's watch
        bool selfDeletion = false;
        bool parentDeletion = false;
    };
    struct Arming {
        bool before = false;    // path was watched as a file before
        bool after = false;     // path is watched as a file now
        bool replaced = false;  // a different file than before
    };

    Arming Rearm(Node& node, bool log = true);
    bool IsLink(Node& node);
    void CheckLinks(std::vector<WatchNotification>& out);
    int Acquire(const Node& node, std::size_t depth, bool directory, uint32_t mask);
    void Release(int wd, const std::string* user);
    void SetRefused(Node& node, bool refused, int error);
    uint32_t SelfMask(const Node& node) const;
    bool FollowLast(const Node& node) const;
    int ParentWd(const Node& node) const;
    void DropKernelWatch(int wd, std::vector<WatchNotification>& out);
    void HandleChainEvent(Node& node, std::size_t level, const InotifyRecord& record,
                          std::vector<WatchNotification>& out);
    void HandleSelfEvent(Node& node, const InotifyRecord& record, const Ahead& ahead,
                         std::vector<WatchNotification>& out);
    void Deliver(const Node& node, const std::string& child, uint32_t mask,
                 std::vector<WatchNotification>& out) const;
    void ReportOverflow();

    int fd_ = -1;
    std::vector<char> buffer_;
    std::map<std::string, Node> nodes_;  // by watched path
    std::map<int, Users> users_;         // kernel watch -> paths using it
    WatchScope::Cache scopes_;
    uint64_t retryAtMs_ = 0;  // 0: no retry due
    uint64_t retryDelayMs_ = kRetryFirstMs;
    const Framework::Clock& clock_;
    uint64_t linkCheckAtMs_ = 0;
};

}  // namespace Engine
