#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "process_collect/AuditEventMessage.h"

namespace Engine {

/// Holds write events until the writer is done with the file they name. The kernel reports a
/// write when the file is opened, before any byte is in it; a consumer that looked at once
/// would see an empty file. An event of a call that opened its file is released when the writer
/// closes it (Closed, from fanotify), or as a fallback when the file's state stayed the same for
/// settleMs, and at the latest after maxDelayMs. Any other write (rename, link, symlink,
/// truncate) is released at once, except that a rename or link of a file still held open takes
/// that hold over under its new name. A held file that is gone (renamed away, deleted) yields
/// nothing: its new name, if any, comes with its own event. Repeated writes of the same path
/// under the same key are merged while held; at most maxHeld are held, beyond that the oldest
/// goes early. Plain class without fds; the clock and the file status come from the caller so
/// that tests drive them. One thread at a time.
class EventSettler {
public:
    struct FileState {
        bool exists = false;
        int64_t size = 0;
        int64_t mtimeNs = 0;
        uint64_t dev = 0;
        uint64_t ino = 0;
        bool operator==(const FileState& o) const {
            return exists == o.exists && size == o.size && mtimeNs == o.mtimeNs && dev == o.dev &&
                   ino == o.ino;
        }
        bool operator!=(const FileState& o) const { return !(*this == o); }
    };
    using StatFn = std::function<FileState(const std::string& path)>;
    using EventPtr = std::unique_ptr<AuditEventMessage>;

    EventSettler(uint64_t settleMs, uint64_t maxDelayMs, std::size_t maxHeld, StatFn stat);

    /// Takes a write event (its first path names the file); what is released at once goes to
    /// `out`.
    void Hold(EventPtr event, uint64_t nowMs, std::vector<EventPtr>& out);
    /// The writer of the file `state` describes closed it: its held events go to `out`. The
    /// close is remembered for a while, since the kernel may report the open after the close.
    void Closed(const FileState& state, uint64_t nowMs, std::vector<EventPtr>& out);
    /// Releases every held event that has settled or waited long enough.
    void Poll(uint64_t nowMs, std::vector<EventPtr>& out);
    /// Releases everything (shutdown).
    void ReleaseAll(std::vector<EventPtr>& out);

    std::size_t Held() const { return held_.size(); }
    /// Events released early because maxHeld were held.
    uint64_t Overflows() const { return overflows_; }
    /// Held events dropped because their file was gone.
    uint64_t Vanished() const { return vanished_; }
    /// The status of the path itself (a link is not followed: paths come resolved).
    static FileState StatPath(const std::string& path);

private:
    struct Entry {
        EventPtr event;
        FileState state;
        uint64_t firstMs = 0;
        uint64_t lastChangeMs = 0;
    };
    using Key = std::pair<std::string, std::string>;  // (rule key, path)
    using FileId = std::pair<uint64_t, uint64_t>;     // (dev, ino)
    struct RecentClose {
        FileState state;
        uint64_t ms = 0;
    };

    void Insert(Key key, Entry entry, std::vector<EventPtr>& out);
    bool ClosedAlready(const FileState& state, uint64_t nowMs) const;
    bool TakeOverHold(EventPtr& event, const FileState& state, uint64_t nowMs);
    void ExpireCloses(uint64_t nowMs);

    uint64_t settleMs_;
    uint64_t maxDelayMs_;
    std::size_t maxHeld_;
    StatFn stat_;
    std::map<Key, Entry> held_;
    std::map<FileId, RecentClose> closes_;                // recent closes, bounded
    std::deque<std::pair<FileId, uint64_t>> closeOrder_;  // (file, ms) oldest first
    uint64_t overflows_ = 0;
    uint64_t vanished_ = 0;
};

}  // namespace Engine
