#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "process_collect/AuditEventMessage.h"

namespace Engine {

/// Holds write events until the file they name has stopped changing. The kernel reports a
/// write when the file is opened, before any byte is in it; a consumer that looked at once
/// would see an empty file. An event is released when the file's size and mtime stayed the
/// same for settleMs, when it was held for maxDelayMs, or when the file is gone. Repeated
/// writes of the same path under the same key are merged while held. At most maxHeld events are
/// held; beyond that the oldest is released early. Plain class, no fds; the clock and the file
/// status come from the caller so that tests drive them. One thread at a time.
class EventSettler {
public:
    struct FileState {
        bool exists = false;
        int64_t size = 0;
        int64_t mtimeNs = 0;
        bool operator==(const FileState& o) const {
            return exists == o.exists && size == o.size && mtimeNs == o.mtimeNs;
        }
        bool operator!=(const FileState& o) const { return !(*this == o); }
    };
    using StatFn = std::function<FileState(const std::string& path)>;
    using EventPtr = std::unique_ptr<AuditEventMessage>;

    EventSettler(uint64_t settleMs, uint64_t maxDelayMs, std::size_t maxHeld, StatFn stat);

    /// Holds `event` (whose first path names the written file); events released at once (the
    /// oldest when full) go to `out`.
    void Hold(EventPtr event, uint64_t nowMs, std::vector<EventPtr>& out);
    /// Releases every held event that has settled or waited long enough.
    void Poll(uint64_t nowMs, std::vector<EventPtr>& out);
    /// Releases everything (shutdown).
    void ReleaseAll(std::vector<EventPtr>& out);

    std::size_t Held() const { return held_.size(); }
    /// Events released early because maxHeld were held.
    uint64_t Overflows() const { return overflows_; }
    /// The stat of the file system, following links.
    static FileState StatPath(const std::string& path);

private:
    struct Entry {
        EventPtr event;
        FileState state;
        uint64_t firstMs = 0;
        uint64_t lastChangeMs = 0;
    };
    using Key = std::pair<std::string, std::string>;  // (rule key, path)

    uint64_t settleMs_;
    uint64_t maxDelayMs_;
    std::size_t maxHeld_;
    StatFn stat_;
    std::map<Key, Entry> held_;
    uint64_t overflows_ = 0;
};

}  // namespace Engine
