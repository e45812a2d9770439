#include "filenotify/WatchTable.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "filenotify/FileNotifyLog.h"
#include "framework/DegradedCounter.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"
#include "sdk/UniqueFd.h"

namespace Engine {

namespace {
constexpr std::size_t kBufferSize = 64 * 1024;
constexpr int kMaxReadsPerCall = 8;  // leaves the task time for its message queue in a flood
constexpr uint64_t kWarnIntervalMs = 10000;

// The paths using one kernel watch, each once, in path order. Nodes are erased only by
// Remove, never while events are handled, so the pointers stay valid meanwhile.
template <typename Users>
std::vector<const std::string*> DistinctUsers(const Users& users) {
    std::vector<const std::string*> paths;
    for (const std::string* path : users) {
        if (paths.empty() || paths.back() != path) paths.push_back(path);
    }
    return paths;
}
constexpr uint32_t kDirectoryChanges = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;
constexpr uint32_t kAnchorMask = kDirectoryChanges | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
Framework::DegradedCounter gOverflow("filenotify.inotify.overflow", kWarnIntervalMs);
Framework::DegradedCounter gTruncated("filenotify.inotify.truncated", kWarnIntervalMs);
Framework::DegradedCounter gWatchFailed("filenotify.watch.failed", kWarnIntervalMs);
Framework::DegradedCounter gRefused("filenotify.request.refused", kWarnIntervalMs);
// A gap is told when it opens and when it closes, once per container and gap.
Framework::DegradedCounter gGapOpened("filenotify.coverage.gap_opened", 0);
Framework::DegradedCounter gGapClosed("filenotify.coverage.gap_closed", 0);
Framework::DegradedCounter gRetried("filenotify.watch.retried");
Framework::DegradedCounter gBadName("filenotify.event.bad_name", kWarnIntervalMs);

bool HasControlCharacter(const std::string& name) {
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7f) return true;
    }
    return false;
}

std::vector<std::string> SplitPath(const std::string& path) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start < path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (end > start) parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

std::string JoinFirst(const std::vector<std::string>& parts, std::size_t count) {
    std::string dir;
    for (std::size_t i = 0; i < count; ++i) dir += "/" + parts[i];
    return dir.empty() ? "/" : dir;
}

bool Contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool Wanted(const _FileNotifyOpt& options, uint32_t mask, const std::string& child) {
    for (uint32_t ignored : options.ignoreMasks) {
        if ((mask & ignored & IN_ALL_EVENTS) != 0) return false;
    }
    if (child.empty()) return true;
    if (options.reportSelfOnly) return false;
    if (!options.includeNames.empty() && !Contains(options.includeNames, child)) return false;
    return !Contains(options.excludeNames, child);
}

// IN_DONT_FOLLOW is not among them: the watch is put through a descriptor's /proc link, which
// must be followed; the option decides how that descriptor is opened (FollowLast).
uint32_t KernelFlags(const _FileNotifyOpt& options) {
    uint32_t flags = 0;
    if (options.onlyDir) flags |= IN_ONLYDIR;
    if (options.exclUnlink) flags |= IN_EXCL_UNLINK;
    return flags;
}

// The kernel has no room for the watch now (watch limit, memory, descriptors); it may later.
bool IsRefusal(int error) {
    return error == ENOSPC || error == ENOMEM || error == EMFILE || error == ENFILE;
}

}  // namespace

WatchTable::WatchTable(const Framework::Clock& clock) : buffer_(kBufferSize), clock_(clock) {
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) {
        TW_LOG(FileNotifyLogger(), PRIO_ERROR, "File notify: inotify instance not created: %s",
               std::string(strerror(errno)));
    }
}

WatchTable::~WatchTable() {
    // Closing the instance drops every kernel watch it holds.
    if (fd_ >= 0) close(fd_);
}

bool WatchTable::Add(const std::string& path, const std::string& requester, uint32_t mask,
                     const _FileNotifyOpt& options) {
    const char* refusal = nullptr;
    if (!IsOpen())
        refusal = "no inotify instance";
    else if (path.empty() || path[0] != '/')
        refusal = "not an absolute path";
    else if (requester.empty())
        refusal = "no requester task";
    else if ((mask & IN_ALL_EVENTS) == 0)
        refusal = "no event in the mask";
    else if (nodes_.count(path) == 0 && nodes_.size() >= kMaxPaths)
        refusal = "too many paths";
    if (refusal != nullptr) {
        TW_DEGRADED(gRefused, 1, FileNotifyLogger(), PRIO_WARNING,
                    "File notify: watch on %s for %s refused: %s", path, requester,
                    std::string(refusal));
        return false;
    }
    auto slot = nodes_.try_emplace(path).first;
    Node& node = slot->second;
    node.key = &slot->first;
    std::string inner;
    auto scope = WatchScope::ForPath(path, inner, scopes_);
    if (node.scope != scope) {
        // New, or its container restarted meanwhile: looked up through the new process.
        if (node.scope) {
            --node.scope->requested;
            SetRefused(node, false, 0);
        }
        node.scope = scope;
        node.components = SplitPath(inner);
        ++node.scope->requested;
    }
    auto sub = std::find_if(node.subscribers.begin(), node.subscribers.end(),
                            [&](const Subscriber& s) { return s.requester == requester; });
    if (sub == node.subscribers.end()) {
        if (node.subscribers.size() >= kMaxRequestersPerPath) {
            TW_DEGRADED(gRefused, 1, FileNotifyLogger(), PRIO_WARNING,
                        "File notify: watch on %s for %s refused: %z requesters", path, requester,
                        node.subscribers.size());
            return false;
        }
        node.subscribers.push_back(Subscriber());
        sub = node.subscribers.end() - 1;
    }
    sub->requester = requester;
    sub->mask = mask;
    sub->options = options;
    Rearm(node);
    TW_LOG(FileNotifyLogger(), PRIO_DEBUG, "File notify: %s watches %s (mask %u, extra %lu)",
           requester, path, static_cast<unsigned int>(mask),
           static_cast<unsigned long>(options.extParm));
    return true;
}

bool WatchTable::Remove(const std::string& path, const std::string& requester) {
    auto node = nodes_.find(path);
    if (node != nodes_.end()) {
        auto& subs = node->second.subscribers;
        auto sub = std::find_if(subs.begin(), subs.end(),
                                [&](const Subscriber& s) { return s.requester == requester; });
        if (sub != subs.end()) {
            subs.erase(sub);
            if (subs.empty()) {
                Node& gone = node->second;
                --gone.scope->requested;
                SetRefused(gone, false, 0);
                Release(gone.selfWd, gone.key);
                for (int wd : gone.chain) Release(wd, gone.key);
                nodes_.erase(node);
            }
            TW_LOG(FileNotifyLogger(), PRIO_DEBUG, "File notify: %s no longer watches %s",
                   requester, path);
            return true;
        }
    }
    TW_LOG(FileNotifyLogger(), PRIO_WARNING,
           "File notify: remove of %s for %s ignored: no such watch", path, requester);
    return false;
}

void WatchTable::ReadEvents(std::vector<WatchNotification>& out) {
    if (!IsOpen()) return;
    for (int i = 0; i < kMaxReadsPerCall; ++i) {
        const ssize_t n = read(fd_, buffer_.data(), buffer_.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN) {
            TW_LOG(FileNotifyLogger(), PRIO_ERROR, "File notify: inotify read failed: %s",
                   std::string(strerror(errno)));
        }
        if (n <= 0) return;
        std::size_t consumed = 0;
        const auto records =
            DecodeInotifyEvents(buffer_.data(), static_cast<std::size_t>(n), &consumed);
        if (consumed != static_cast<std::size_t>(n)) {
            TW_DEGRADED(gTruncated, 1, FileNotifyLogger(), PRIO_WARNING,
                        "File notify: %z bytes of a truncated inotify record dropped",
                        static_cast<std::size_t>(n) - consumed);
        }
        HandleRecords(records, out);
    }
}

void WatchTable::HandleRecords(const std::vector<InotifyRecord>& records,
                               std::vector<WatchNotification>& out) {
    // Where a deletion shows up later in the same read: the kernel reports the link-count
    // change of an unlinked file just before the deletion, and that is not a change of its own.
    std::map<int, std::size_t> deletedSelf;
    std::map<std::pair<int, std::string>, std::size_t> deletedChild;
    for (std::size_t i = 0; i < records.size(); ++i) {
        const InotifyRecord& r = records[i];
        if ((r.mask & IN_DELETE_SELF) != 0) deletedSelf[r.wd] = i;
        if ((r.mask & IN_DELETE) != 0 && !r.name.empty()) deletedChild[{r.wd, r.name}] = i;
    }
    bool overflow = false;
    for (std::size_t i = 0; i < records.size(); ++i) {
        const InotifyRecord& r = records[i];
        if ((r.mask & IN_Q_OVERFLOW) != 0) {
            overflow = true;
            continue;
        }
        auto users = users_.find(r.wd);
        if (users == users_.end()) continue;  // a watch released earlier: its events are stale
        if ((r.mask & IN_IGNORED) != 0) {
            DropKernelWatch(r.wd, out);
            continue;
        }
        for (const std::string* path : DistinctUsers(users->second)) {
            auto it = nodes_.find(*path);
            if (it == nodes_.end()) continue;
            Node& node = it->second;
            if (node.selfWd == r.wd) {
                auto self = deletedSelf.find(r.wd);
                Ahead ahead;
                ahead.selfDeletion = self != deletedSelf.end() && self->second > i;
                const int parent = ParentWd(node);
                if (parent >= 0) {
                    auto child = deletedChild.find({parent, node.components.back()});
                    ahead.parentDeletion = child != deletedChild.end() && child->second > i;
                }
                HandleSelfEvent(node, r, ahead, out);
            }
            // After the file's own handling, which may have looked the path up again.
            for (std::size_t level = 0; level < node.chain.size(); ++level) {
                if (node.chain[level] != r.wd) continue;
                HandleChainEvent(node, level, r, out);
                break;
            }
        }
    }
    if (overflow) {
        ReportOverflow();
        Resync(out);
    }
}

void WatchTable::Resync(std::vector<WatchNotification>& out) {
    for (auto& entry : nodes_) {
        Node& node = entry.second;
        const Arming a = Rearm(node);
        if (!a.before && a.after) Deliver(node, "", IN_CREATE, out);
        if (a.before && !a.after) Deliver(node, "", IN_DELETE, out);
        if (a.replaced) Deliver(node, "", IN_MOVED_TO, out);
    }
}

void WatchTable::HandleChainEvent(Node& node, std::size_t level, const InotifyRecord& record,
                                  std::vector<WatchNotification>& out) {
    uint32_t gone = IN_DELETE;
    if (record.name.empty()) {
        // A directory on the way went away itself: the path is looked up again.
        if ((record.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) == 0) return;
        if ((record.mask & IN_MOVE_SELF) != 0) gone = IN_MOVED_FROM;
    } else {
        if (record.name != node.components[level] || (record.mask & kDirectoryChanges) == 0) {
            return;
        }
        if (level + 1 == node.components.size()) {
            // The path's own directory names the path.
            const bool reported = node.deletionReported && (record.mask & IN_DELETE) != 0;
            node.deletionReported = false;
            if (!reported) Deliver(node, "", record.mask, out);
            Rearm(node);
            return;
        }
        if ((record.mask & IN_MOVED_FROM) != 0) gone = IN_MOVED_FROM;
    }
    // A directory above the path appeared, vanished or was replaced.
    const Arming a = Rearm(node);
    if (!a.before && a.after) {
        Deliver(node, "", (record.mask & IN_MOVED_TO) != 0 ? IN_MOVED_TO : IN_CREATE, out);
    } else if (a.before && !a.after) {
        Deliver(node, "", gone, out);
    } else if (a.replaced) {
        Deliver(node, "", IN_MOVED_TO, out);
    }
}

void WatchTable::HandleSelfEvent(Node& node, const InotifyRecord& record, const Ahead& ahead,
                                 std::vector<WatchNotification>& out) {
    if (!record.name.empty()) {
        Deliver(node, record.name, record.mask, out);
        return;
    }
    if ((record.mask & IN_DELETE_SELF) != 0) {
        // Kernels differ in whether the file's or the directory's word on an unlink comes
        // first. A deletion is reported once, as IN_DELETE: by the directory's event when it is
        // in this read, else here, and then the directory's late one is not reported again.
        if (ahead.parentDeletion) return;
        Deliver(node, "", (record.mask & ~IN_DELETE_SELF) | IN_DELETE, out);
        node.deletionReported = ParentWd(node) >= 0;
        Rearm(node);
        return;
    }
    if ((record.mask & IN_MOVE_SELF) != 0) {
        // A move away from the path came from the directory first and released this watch. A
        // file renamed onto the path can be armed between the directory's event and its own:
        // it is still at the path, and nothing is reported.
        const Arming a = Rearm(node);
        if (!a.after || a.replaced) Deliver(node, "", record.mask, out);
        return;
    }
    if ((record.mask & IN_UNMOUNT) != 0) return;  // IN_IGNORED follows and re-arms
    if ((record.mask & IN_ATTRIB) != 0 && (ahead.selfDeletion || ahead.parentDeletion)) return;
    Deliver(node, "", record.mask, out);
}

void WatchTable::Deliver(const Node& node, const std::string& child, uint32_t mask,
                         std::vector<WatchNotification>& out) const {
    if (HasControlCharacter(child)) {
        // A name the container chose: passed on, it could forge lines in a requester's log.
        TW_DEGRADED(gBadName, 1, FileNotifyLogger(), PRIO_WARNING,
                    "File notify: event in %s dropped: the child's name has control characters "
                    "(%z bytes)",
                    node.Path(), child.size());
        return;
    }
    const uint32_t bits = mask & IN_ALL_EVENTS;
    const std::string path = child.empty() ? node.Path() : node.Path() + "/" + child;
    for (const auto& sub : node.subscribers) {
        uint32_t m = mask;
        if ((bits & sub.mask) == 0) {
            // A requester that asked only for the file's own deletion or move still hears of it.
            if ((bits & IN_DELETE) != 0 && (sub.mask & IN_DELETE_SELF) != 0) {
                m = (mask & ~IN_DELETE) | IN_DELETE_SELF;
            } else if ((bits & IN_MOVED_FROM) != 0 && (sub.mask & IN_MOVE_SELF) != 0) {
                m = (mask & ~IN_MOVED_FROM) | IN_MOVE_SELF;
            } else {
                continue;
            }
        }
        if (!Wanted(sub.options, m, child)) continue;
        WatchNotification n;
        n.requester = sub.requester;
        n.path = path;
        n.watchPath = node.Path();
        n.mask = m;
        n.extParm = sub.options.extParm;
        out.push_back(std::move(n));
    }
}

WatchTable::Arming WatchTable::Rearm(Node& node, bool log) {
    Arming a;
    a.before = node.selfWd >= 0;
    const int oldSelf = node.selfWd;
    const std::vector<int> oldChain = node.chain;
    const std::size_t n = node.components.size();
    // New watches are taken before the old ones are let go, so that a watch kept on the same
    // file or directory is never dropped in between (its queued events stay valid). Each
    // directory is watched before the next one down is looked up: one made in between raises
    // an event we see.
    std::vector<int> chain;
    int error = 0;
    for (std::size_t k = 0; k < n; ++k) {
        const int wd = Acquire(node, k, true, kAnchorMask);
        if (wd < 0) {
            error = -wd;
            break;
        }
        chain.push_back(wd);
    }
    int self = -1;
    if (chain.size() == n && error == 0) {
        self = Acquire(node, n, false, SelfMask(node));
        if (self < 0) error = -self;
    }
    node.selfWd = self < 0 ? -1 : self;
    node.chain = chain;
    node.viaLink = chain.size() == n && n > 0 && IsLink(node);
    Release(oldSelf, node.key);
    for (int wd : oldChain) Release(wd, node.key);
    SetRefused(node, IsRefusal(error), error);
    a.after = node.selfWd >= 0;
    a.replaced = a.before && a.after && oldSelf != node.selfWd;
    if (!log) return a;
    if (a.after) {
        TW_LOG(FileNotifyLogger(), PRIO_DEBUG, "File notify: watch on %s armed on the file (wd %d)",
               node.Path(), node.selfWd);
    } else if (node.refused) {
        TW_LOG(FileNotifyLogger(), PRIO_DEBUG,
               "File notify: watch on %s refused by the kernel (%s); retried", node.Path(),
               std::string(strerror(error)));
    } else if (chain.size() < n) {
        TW_LOG(FileNotifyLogger(), PRIO_DEBUG, "File notify: watch on %s waits for %s in %s",
               node.Path(), node.components[chain.size()],
               JoinFirst(node.components, chain.size()));
    } else {
        TW_LOG(FileNotifyLogger(), PRIO_DEBUG, "File notify: watch on %s waits for the file",
               node.Path());
    }
    return a;
}

uint32_t WatchTable::SelfMask(const Node& node) const {
    uint32_t mask = IN_DELETE_SELF | IN_MOVE_SELF;
    for (const auto& sub : node.subscribers) {
        mask |= (sub.mask & IN_ALL_EVENTS) | KernelFlags(sub.options);
    }
    return mask;
}

bool WatchTable::FollowLast(const Node& node) const {
    for (const auto& sub : node.subscribers) {
        if (sub.options.dontFollow) return false;
    }
    return true;
}

bool WatchTable::IsLink(Node& node) {
    SDK::UniqueFd fd(
        node.scope->Open(JoinFirst(node.components, node.components.size()), O_PATH, false));
    struct stat st {};
    return fd.Valid() && fstat(fd.Get(), &st) == 0 && S_ISLNK(st.st_mode);
}

int WatchTable::ParentWd(const Node& node) const {
    const std::size_t n = node.components.size();
    if (n == 0 || node.chain.size() != n) return -1;
    return node.chain.back();
}

int WatchTable::Acquire(const Node& node, std::size_t depth, bool directory, uint32_t mask) {
    const std::string inner = JoinFirst(node.components, depth);
    // Looked up inside the scope; the watch goes on what the lookup found, through its
    // descriptor, so that nothing can swap a host file in between.
    SDK::UniqueFd fd(node.scope->Open(inner, O_PATH | (directory ? O_DIRECTORY : 0),
                                      directory || FollowLast(node)));
    int error = fd.Valid() ? 0 : errno;
    int wd = -1;
    if (error == 0) {
        const std::string link = "/proc/self/fd/" + std::to_string(fd.Get());
        // IN_MASK_ADD: several paths may share one directory (or file); each keeps its bits.
        wd = inotify_add_watch(fd_, link.c_str(), mask | IN_MASK_ADD);
        if (wd < 0) error = errno;
    }
    if (error == 0) {
        users_[wd].insert(node.key);
        return wd;
    }
    if (error != ENOENT && error != ENOTDIR) {
        TW_DEGRADED(gWatchFailed, 1, FileNotifyLogger(), PRIO_WARNING,
                    "File notify: cannot watch %s (%s in container %s): %s", node.Path(), inner,
                    node.scope->Label(), std::string(strerror(error)));
    }
    return -error;
}

void WatchTable::Release(int wd, const std::string* user) {
    if (wd < 0) return;
    auto it = users_.find(wd);
    if (it == users_.end()) return;
    auto one = it->second.find(user);
    if (one != it->second.end()) it->second.erase(one);
    if (!it->second.empty()) return;
    users_.erase(it);
    inotify_rm_watch(fd_, wd);
}

void WatchTable::SetRefused(Node& node, bool refused, int error) {
    if (node.refused == refused) return;
    node.refused = refused;
    WatchScope& scope = *node.scope;
    if (refused) {
        if (retryAtMs_ == 0) retryAtMs_ = clock_.NowMs() + retryDelayMs_;
        if (scope.refused++ != 0) return;
        TW_DEGRADED(gGapOpened, 1, FileNotifyLogger(), PRIO_WARNING,
                    "File notify: coverage gap in %s: the kernel refuses watches (%s); %z of %z "
                    "paths watched, retrying",
                    scope.Label(), std::string(strerror(error)), scope.requested - scope.refused,
                    scope.requested);
        return;
    }
    if (--scope.refused != 0) return;
    TW_DEGRADED(gGapClosed, 1, FileNotifyLogger(), PRIO_INFORMATION,
                "File notify: coverage gap in %s closed: %z of %z paths watched", scope.Label(),
                scope.requested, scope.requested);
}

void WatchTable::Tick(uint64_t nowMs, std::vector<WatchNotification>& out) {
    for (auto it = scopes_.begin(); it != scopes_.end();) {
        it = it->second.expired() ? scopes_.erase(it) : std::next(it);
    }
    if (nowMs >= linkCheckAtMs_) {
        linkCheckAtMs_ = nowMs + kLinkCheckMs;
        CheckLinks(out);
    }
    if (retryAtMs_ == 0 || nowMs < retryAtMs_) return;
    retryAtMs_ = 0;
    bool stillRefused = false;
    for (auto& entry : nodes_) {
        Node& node = entry.second;
        if (!node.refused) continue;
        gRetried.Add();
        Rearm(node);
        // The limit is the kernel's, for all paths alike: no point asking again for the rest.
        if (node.refused) {
            stillRefused = true;
            break;
        }
    }
    retryDelayMs_ = stillRefused ? std::min(retryDelayMs_ * 2, kRetryMaxMs) : kRetryFirstMs;
    retryAtMs_ = stillRefused ? nowMs + retryDelayMs_ : 0;
}

void WatchTable::CheckLinks(std::vector<WatchNotification>& out) {
    for (auto& entry : nodes_) {
        Node& node = entry.second;
        if (!node.viaLink || node.refused) continue;
        const Arming a = Rearm(node, false);
        if (!a.before && a.after) Deliver(node, "", IN_CREATE, out);
        if (a.before && !a.after) Deliver(node, "", IN_DELETE, out);
        if (a.replaced) Deliver(node, "", IN_MOVED_TO, out);
        if (a.before != a.after || a.replaced) {
            TW_LOG(FileNotifyLogger(), PRIO_DEBUG,
                   "File notify: watch on %s re-armed at the link's target", node.Path());
        }
    }
}

std::size_t WatchTable::RefusedCount() const {
    std::size_t count = 0;
    for (const auto& entry : nodes_) count += entry.second.refused ? 1 : 0;
    return count;
}

std::string WatchTable::CoverageText() const {
    std::map<const WatchScope*, std::string> labels;
    std::size_t requested = 0;
    std::size_t refused = 0;
    for (const auto& entry : nodes_) {
        const WatchScope* scope = entry.second.scope.get();
        if (labels.count(scope) != 0) continue;
        labels[scope] = scope->Label() + " " + std::to_string(scope->requested - scope->refused) +
                        "/" + std::to_string(scope->requested);
        requested += scope->requested;
        refused += scope->refused;
    }
    std::string text =
        std::to_string(requested - refused) + "/" + std::to_string(requested) + " paths watched";
    for (const auto& label : labels) text += ", " + label.second;
    return text;
}

WatchTable::Coverage WatchTable::CoverageNumbers() const {
    Coverage coverage;
    std::set<const WatchScope*> seen;
    for (const auto& entry : nodes_) {
        const WatchScope* scope = entry.second.scope.get();
        if (!seen.insert(scope).second) continue;
        coverage.requested += scope->requested;
        coverage.refused += scope->refused;
        if (scope->GetKind() != WatchScope::Kind::kHost) coverage.containers.insert(scope->Id());
    }
    return coverage;
}

void WatchTable::DropKernelWatch(int wd, std::vector<WatchNotification>& out) {
    auto it = users_.find(wd);
    if (it == users_.end()) return;
    const std::vector<const std::string*> paths = DistinctUsers(it->second);
    users_.erase(it);  // the kernel dropped it already
    for (const std::string* path : paths) {
        auto node = nodes_.find(*path);
        if (node == nodes_.end()) continue;
        const bool wasArmed = node->second.selfWd >= 0;
        if (node->second.selfWd == wd) node->second.selfWd = -1;
        for (int& link : node->second.chain) {
            if (link == wd) link = -1;
        }
        const Arming a = Rearm(node->second);
        if (!wasArmed && a.after) Deliver(node->second, "", IN_CREATE, out);
    }
}

void WatchTable::ReportOverflow() {
    TW_DEGRADED(gOverflow, 1, FileNotifyLogger(), PRIO_WARNING,
                "File notify: inotify queue overflowed, events were lost; watches "
                "re-synchronised (%lu overflows)",
                static_cast<unsigned long>(gOverflow.Value() + 1));
}

}  // namespace Engine
