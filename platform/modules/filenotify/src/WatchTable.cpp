#include "filenotify/WatchTable.h"

#include <errno.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "framework/Counters.h"
#include "framework/RateLimiter.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {
constexpr std::size_t kBufferSize = 64 * 1024;
constexpr int kMaxReadsPerCall = 8;
constexpr int kMaxResolveAttempts = 16;  // bounds the walk down directories being made  // leaves the task time for its message queue in a flood
constexpr uint64_t kWarnIntervalMs = 10000;
constexpr uint32_t kDirectoryChanges = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;
constexpr uint32_t kAnchorMask = kDirectoryChanges | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr const char* kOverflowCounter = "filenotify.inotify.overflow";
constexpr const char* kTruncatedCounter = "filenotify.inotify.truncated";
constexpr const char* kWatchFailedCounter = "filenotify.watch.failed";
constexpr const char* kRefusedCounter = "filenotify.request.refused";

Poco::Logger* Logger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", true);
}

Framework::RateLimiter gOverflowWarn(kWarnIntervalMs);
Framework::RateLimiter gWatchFailedWarn(kWarnIntervalMs);
Framework::RateLimiter gTruncatedWarn(kWarnIntervalMs);

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

uint32_t KernelFlags(const _FileNotifyOpt& options) {
    uint32_t flags = 0;
    if (options.onlyDir) flags |= IN_ONLYDIR;
    if (options.dontFollow) flags |= IN_DONT_FOLLOW;
    if (options.exclUnlink) flags |= IN_EXCL_UNLINK;
    return flags;
}
}  // namespace

WatchTable::WatchTable() : buffer_(kBufferSize) {
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) {
        TW_LOG(Logger(), PRIO_ERROR, "File notify: inotify instance not created: %s",
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
    if (!IsOpen()) refusal = "no inotify instance";
    else if (path.empty() || path[0] != '/') refusal = "not an absolute path";
    else if (requester.empty()) refusal = "no requester task";
    else if ((mask & IN_ALL_EVENTS) == 0) refusal = "no event in the mask";
    else if (nodes_.count(path) == 0 && nodes_.size() >= kMaxPaths) refusal = "too many paths";
    if (refusal != nullptr) {
        Framework::Counters::Instance().Add(kRefusedCounter);
        TW_LOG(Logger(), PRIO_WARNING, "File notify: watch on %s for %s refused: %s", path,
               requester, std::string(refusal));
        return false;
    }
    Node& node = nodes_[path];
    if (node.path.empty()) {
        node.path = path;
        node.components = SplitPath(path);
    }
    auto sub = std::find_if(node.subscribers.begin(), node.subscribers.end(),
                            [&](const Subscriber& s) { return s.requester == requester; });
    if (sub == node.subscribers.end()) {
        if (node.subscribers.size() >= kMaxRequestersPerPath) {
            Framework::Counters::Instance().Add(kRefusedCounter);
            TW_LOG(Logger(), PRIO_WARNING, "File notify: watch on %s for %s refused: %z requesters",
                   path, requester, node.subscribers.size());
            return false;
        }
        node.subscribers.push_back(Subscriber());
        sub = node.subscribers.end() - 1;
    }
    sub->requester = requester;
    sub->mask = mask;
    sub->options = options;
    Rearm(node);
    TW_LOG(Logger(), PRIO_DEBUG, "File notify: %s watches %s (mask %u, extra %lu)", requester, path,
           static_cast<unsigned int>(mask), static_cast<unsigned long>(options.extParm));
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
                Release(node->second.selfWd, path);
                Release(node->second.anchorWd, path);
                nodes_.erase(node);
            }
            TW_LOG(Logger(), PRIO_DEBUG, "File notify: %s no longer watches %s", requester, path);
            return true;
        }
    }
    TW_LOG(Logger(), PRIO_WARNING, "File notify: remove of %s for %s ignored: no such watch", path,
           requester);
    return false;
}

void WatchTable::ReadEvents(std::vector<WatchNotification>& out) {
    if (!IsOpen()) return;
    for (int i = 0; i < kMaxReadsPerCall; ++i) {
        const ssize_t n = read(fd_, buffer_.data(), buffer_.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN) {
            TW_LOG(Logger(), PRIO_ERROR, "File notify: inotify read failed: %s",
                   std::string(strerror(errno)));
        }
        if (n <= 0) return;
        std::size_t consumed = 0;
        const auto records =
            DecodeInotifyEvents(buffer_.data(), static_cast<std::size_t>(n), &consumed);
        if (consumed != static_cast<std::size_t>(n)) {
            Framework::Counters::Instance().Add(kTruncatedCounter);
            uint64_t suppressed = 0;
            if (gTruncatedWarn.Allow(suppressed)) {
                TW_LOG(Logger(), PRIO_WARNING,
                       "File notify: %z bytes of a truncated inotify record dropped (%lu more "
                       "not logged)",
                       static_cast<std::size_t>(n) - consumed,
                       static_cast<unsigned long>(suppressed));
            }
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
        const std::set<std::string> paths(users->second.begin(), users->second.end());
        for (const auto& path : paths) {
            auto it = nodes_.find(path);
            if (it == nodes_.end()) continue;
            Node& node = it->second;
            const bool asSelf = node.selfWd == r.wd;
            const bool asAnchor = node.anchorWd == r.wd;
            if (asSelf) {
                auto self = deletedSelf.find(r.wd);
                Ahead ahead;
                ahead.selfDeletion = self != deletedSelf.end() && self->second > i;
                if (node.anchorIsParent && !node.components.empty()) {
                    auto child = deletedChild.find({node.anchorWd, node.components.back()});
                    ahead.parentDeletion = child != deletedChild.end() && child->second > i;
                }
                HandleSelfEvent(node, r, ahead, out);
            }
            if (asAnchor && node.anchorWd == r.wd) HandleAnchorEvent(node, r, out);
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

void WatchTable::HandleAnchorEvent(Node& node, const InotifyRecord& record,
                                   std::vector<WatchNotification>& out) {
    if (record.name.empty()) {
        // The anchor directory itself went away: the path is looked up again from further up.
        if ((record.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) == 0) return;
        const Arming a = Rearm(node);
        if (a.before && !a.after) {
            Deliver(node, "", (record.mask & IN_MOVE_SELF) != 0 ? IN_MOVED_FROM : IN_DELETE, out);
        }
        return;
    }
    if (record.name != node.anchorName || (record.mask & kDirectoryChanges) == 0) return;
    if (node.anchorIsParent) {
        const bool reported = node.deletionReported && (record.mask & IN_DELETE) != 0;
        node.deletionReported = false;
        if (!reported) Deliver(node, "", record.mask, out);
        Rearm(node);
        return;
    }
    // A directory on the way appeared or vanished; the path itself may already be there.
    const Arming a = Rearm(node);
    if (!a.before && a.after) {
        Deliver(node, "", (record.mask & IN_MOVED_TO) != 0 ? IN_MOVED_TO : IN_CREATE, out);
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
        node.deletionReported = node.anchorIsParent;
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
    const uint32_t bits = mask & IN_ALL_EVENTS;
    const std::string path = child.empty() ? node.path : node.path + "/" + child;
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
        n.watchPath = node.path;
        n.mask = m;
        n.extParm = sub.options.extParm;
        out.push_back(std::move(n));
    }
}

WatchTable::Arming WatchTable::Rearm(Node& node) {
    Arming a;
    a.before = node.selfWd >= 0;
    const int oldSelf = node.selfWd;
    const int oldAnchor = node.anchorWd;
    int self = -1;
    int anchor = -1;
    std::string anchorName;
    std::string anchorDir = "(nothing)";
    bool isParent = false;
    const std::size_t n = node.components.size();
    // New watches are taken before the old ones are let go, so that a watch kept on the same
    // file or directory is never dropped in between (its queued events stay valid).
    for (int attempt = 0; attempt < kMaxResolveAttempts; ++attempt) {
        std::size_t level = 0;
        for (std::size_t k = n; k-- > 0;) {
            const std::string dir = JoinFirst(node.components, k);
            anchor = Acquire(dir, kAnchorMask, node.path);
            if (anchor < 0) continue;
            anchorDir = dir;
            anchorName = node.components[k];
            isParent = k + 1 == n;
            level = k;
            break;
        }
        // A directory on the way made before the anchor's watch was in place raised no event
        // we could see: look again from further down while one turns up.
        if (anchor < 0 || isParent || attempt + 1 == kMaxResolveAttempts) break;
        struct stat st;
        const std::string next = JoinFirst(node.components, level + 1);
        if (stat(next.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) break;
        Release(anchor, node.path);
        anchor = -1;
    }
    if (isParent || n == 0) self = Acquire(node.path, SelfMask(node), node.path);
    node.selfWd = self < 0 ? -1 : self;
    node.anchorWd = anchor < 0 ? -1 : anchor;
    node.anchorName = anchorName;
    node.anchorIsParent = isParent;
    Release(oldSelf, node.path);
    Release(oldAnchor, node.path);
    a.after = node.selfWd >= 0;
    a.replaced = a.before && a.after && oldSelf != node.selfWd;
    if (a.after) {
        TW_LOG(Logger(), PRIO_DEBUG, "File notify: watch on %s armed on the file (wd %d)",
               node.path, node.selfWd);
    } else {
        TW_LOG(Logger(), PRIO_DEBUG, "File notify: watch on %s waits for %s in %s", node.path,
               anchorName, anchorDir);
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

int WatchTable::Acquire(const std::string& path, uint32_t mask, const std::string& user) {
    // IN_MASK_ADD: several paths may share one directory (or file); each keeps its own bits.
    const int wd = inotify_add_watch(fd_, path.c_str(), mask | IN_MASK_ADD);
    if (wd < 0) {
        const int error = errno;
        if (error != ENOENT && error != ENOTDIR) {
            Framework::Counters::Instance().Add(kWatchFailedCounter);
            uint64_t suppressed = 0;
            if (gWatchFailedWarn.Allow(suppressed)) {
                TW_LOG(Logger(), PRIO_WARNING,
                       "File notify: cannot watch %s: %s (%lu more not logged)", path,
                       std::string(strerror(error)), static_cast<unsigned long>(suppressed));
            }
        }
        return -error;
    }
    users_[wd].insert(user);
    return wd;
}

void WatchTable::Release(int wd, const std::string& user) {
    if (wd < 0) return;
    auto it = users_.find(wd);
    if (it == users_.end()) return;
    auto one = it->second.find(user);
    if (one != it->second.end()) it->second.erase(one);
    if (!it->second.empty()) return;
    users_.erase(it);
    inotify_rm_watch(fd_, wd);
}

void WatchTable::DropKernelWatch(int wd, std::vector<WatchNotification>& out) {
    auto it = users_.find(wd);
    if (it == users_.end()) return;
    const std::set<std::string> paths(it->second.begin(), it->second.end());
    users_.erase(it);  // the kernel dropped it already
    for (const auto& path : paths) {
        auto node = nodes_.find(path);
        if (node == nodes_.end()) continue;
        const bool wasArmed = node->second.selfWd >= 0;
        if (node->second.selfWd == wd) node->second.selfWd = -1;
        if (node->second.anchorWd == wd) node->second.anchorWd = -1;
        const Arming a = Rearm(node->second);
        if (!wasArmed && a.after) Deliver(node->second, "", IN_CREATE, out);
    }
}

void WatchTable::ReportOverflow() {
    Framework::Counters::Instance().Add(kOverflowCounter);
    uint64_t suppressed = 0;
    if (!gOverflowWarn.Allow(suppressed)) return;
    TW_LOG(Logger(), PRIO_WARNING,
           "File notify: inotify queue overflowed, events were lost; watches re-synchronised "
           "(%lu overflows, %lu more not logged)",
           static_cast<unsigned long>(Framework::Counters::Instance().Value(kOverflowCounter)),
           static_cast<unsigned long>(suppressed));
}

}  // namespace Engine
