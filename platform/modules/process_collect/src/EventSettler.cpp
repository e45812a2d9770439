#include "process_collect/EventSettler.h"

#include <sys/stat.h>

namespace Engine {

namespace {
// How long a close is remembered for an open the kernel reports late, and how many at most.
constexpr uint64_t kCloseMemoryMs = 2000;
constexpr std::size_t kMaxRememberedCloses = 4096;
}  // namespace

EventSettler::EventSettler(uint64_t settleMs, uint64_t maxDelayMs, std::size_t maxHeld, StatFn stat)
    : settleMs_(settleMs),
      maxDelayMs_(maxDelayMs < settleMs ? settleMs : maxDelayMs),
      maxHeld_(maxHeld == 0 ? 1 : maxHeld),
      stat_(stat ? std::move(stat) : StatFn(&EventSettler::StatPath)) {}

EventSettler::FileState EventSettler::StatPath(const std::string& path) {
    FileState state;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return state;
    state.exists = true;
    state.size = static_cast<int64_t>(st.st_size);
    state.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    state.dev = static_cast<uint64_t>(st.st_dev);
    state.ino = static_cast<uint64_t>(st.st_ino);
    return state;
}

void EventSettler::Hold(EventPtr event, uint64_t nowMs, std::vector<EventPtr>& out) {
    if (!event || !event->syscall || event->syscall->paths.empty()) {
        if (event) out.push_back(std::move(event));
        return;
    }
    Key key(event->key, event->syscall->paths.front().name);
    const FileState state = stat_(key.second);
    if (!event->syscall->opened) {
        if (!TakeOverHold(event, state, nowMs)) out.push_back(std::move(event));
        return;
    }
    if (ClosedAlready(state, nowMs)) {
        out.push_back(std::move(event));
        return;
    }
    auto it = held_.find(key);
    if (it != held_.end()) {
        // A later write of the same file: report the latest writer, keep the first deadline.
        Entry& entry = it->second;
        event->syscall->write = event->syscall->write || entry.event->syscall->write;
        event->syscall->attr = event->syscall->attr || entry.event->syscall->attr;
        entry.event = std::move(event);
        entry.state = state;
        entry.lastChangeMs = nowMs;
        return;
    }
    Entry entry;
    entry.state = state;
    entry.event = std::move(event);
    entry.firstMs = nowMs;
    entry.lastChangeMs = nowMs;
    Insert(std::move(key), std::move(entry), out);
}

void EventSettler::Insert(Key key, Entry entry, std::vector<EventPtr>& out) {
    if (held_.size() >= maxHeld_) {
        auto oldest = held_.begin();
        for (auto i = held_.begin(); i != held_.end(); ++i) {
            if (i->second.firstMs < oldest->second.firstMs) oldest = i;
        }
        out.push_back(std::move(oldest->second.event));
        held_.erase(oldest);
        ++overflows_;
    }
    held_.emplace(std::move(key), std::move(entry));
}

bool EventSettler::ClosedAlready(const FileState& state, uint64_t nowMs) const {
    if (!state.exists) return false;
    auto it = closes_.find(FileId(state.dev, state.ino));
    if (it == closes_.end() || nowMs - it->second.ms >= kCloseMemoryMs) return false;
    // Unchanged since the close: nobody has written to it after that writer.
    return it->second.state.size == state.size && it->second.state.mtimeNs == state.mtimeNs;
}

bool EventSettler::TakeOverHold(EventPtr& event, const FileState& state, uint64_t nowMs) {
    if (!state.exists) return false;
    for (auto it = held_.begin(); it != held_.end(); ++it) {
        const FileState& held = it->second.state;
        if (held.dev != state.dev || held.ino != state.ino) continue;
        // Still open under its old name: wait for its writer under the name it has now.
        Entry entry = std::move(it->second);
        held_.erase(it);
        event->syscall->write = event->syscall->write || entry.event->syscall->write;
        event->syscall->attr = event->syscall->attr || entry.event->syscall->attr;
        event->syscall->opened = true;
        entry.event = std::move(event);
        entry.state = state;
        entry.lastChangeMs = nowMs;
        Key key(entry.event->key, entry.event->syscall->paths.front().name);
        std::vector<EventPtr> unused;
        Insert(std::move(key), std::move(entry), unused);
        return true;
    }
    return false;
}

void EventSettler::Closed(const FileState& state, uint64_t nowMs, std::vector<EventPtr>& out) {
    ExpireCloses(nowMs);
    const FileId id(state.dev, state.ino);
    auto known = closes_.find(id);
    if (known == closes_.end() && closes_.size() >= kMaxRememberedCloses) {
        closes_.erase(closeOrder_.front().first);
        closeOrder_.pop_front();
    }
    closes_[id] = RecentClose{state, nowMs};
    closeOrder_.emplace_back(id, nowMs);
    for (auto it = held_.begin(); it != held_.end();) {
        if (it->second.state.dev != state.dev || it->second.state.ino != state.ino) {
            ++it;
            continue;
        }
        out.push_back(std::move(it->second.event));
        it = held_.erase(it);
    }
}

void EventSettler::ExpireCloses(uint64_t nowMs) {
    while (!closeOrder_.empty() && nowMs - closeOrder_.front().second >= kCloseMemoryMs) {
        auto it = closes_.find(closeOrder_.front().first);
        // A later close of the same file renewed the entry; only the last one expires it.
        if (it != closes_.end() && it->second.ms == closeOrder_.front().second) closes_.erase(it);
        closeOrder_.pop_front();
    }
    // Renewals leave stale order entries behind: keep the order list bounded too.
    while (closeOrder_.size() > 2 * kMaxRememberedCloses) closeOrder_.pop_front();
}

void EventSettler::Poll(uint64_t nowMs, std::vector<EventPtr>& out) {
    ExpireCloses(nowMs);
    for (auto it = held_.begin(); it != held_.end();) {
        Entry& entry = it->second;
        const FileState now = stat_(it->first.second);
        if (!now.exists) {
            ++vanished_;
            it = held_.erase(it);
            continue;
        }
        if (now != entry.state) {
            entry.state = now;
            entry.lastChangeMs = nowMs;
        }
        const bool settled = nowMs - entry.lastChangeMs >= settleMs_;
        const bool overdue = nowMs - entry.firstMs >= maxDelayMs_;
        if (settled || overdue) {
            out.push_back(std::move(entry.event));
            it = held_.erase(it);
            continue;
        }
        ++it;
    }
}

void EventSettler::ReleaseAll(std::vector<EventPtr>& out) {
    for (auto& item : held_) out.push_back(std::move(item.second.event));
    held_.clear();
}

}  // namespace Engine
