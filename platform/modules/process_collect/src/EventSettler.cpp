#include "process_collect/EventSettler.h"

#include <sys/stat.h>

namespace Engine {

EventSettler::EventSettler(uint64_t settleMs, uint64_t maxDelayMs, std::size_t maxHeld, StatFn stat)
    : settleMs_(settleMs),
      maxDelayMs_(maxDelayMs < settleMs ? settleMs : maxDelayMs),
      maxHeld_(maxHeld == 0 ? 1 : maxHeld),
      stat_(stat ? std::move(stat) : StatFn(&EventSettler::StatPath)) {}

EventSettler::FileState EventSettler::StatPath(const std::string& path) {
    FileState state;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return state;
    state.exists = true;
    state.size = static_cast<int64_t>(st.st_size);
    state.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    return state;
}

void EventSettler::Hold(EventPtr event, uint64_t nowMs, std::vector<EventPtr>& out) {
    if (!event || !event->syscall || event->syscall->paths.empty()) {
        if (event) out.push_back(std::move(event));
        return;
    }
    Key key(event->key, event->syscall->paths.front().name);
    auto it = held_.find(key);
    if (it != held_.end()) {
        // A later write of the same file: report the latest writer, keep the first deadline.
        Entry& entry = it->second;
        event->syscall->write = event->syscall->write || entry.event->syscall->write;
        event->syscall->attr = event->syscall->attr || entry.event->syscall->attr;
        entry.event = std::move(event);
        entry.state = stat_(key.second);
        entry.lastChangeMs = nowMs;
        return;
    }
    if (held_.size() >= maxHeld_) {
        auto oldest = held_.begin();
        for (auto i = held_.begin(); i != held_.end(); ++i) {
            if (i->second.firstMs < oldest->second.firstMs) oldest = i;
        }
        out.push_back(std::move(oldest->second.event));
        held_.erase(oldest);
        ++overflows_;
    }
    Entry entry;
    entry.state = stat_(key.second);
    entry.event = std::move(event);
    entry.firstMs = nowMs;
    entry.lastChangeMs = nowMs;
    held_.emplace(std::move(key), std::move(entry));
}

void EventSettler::Poll(uint64_t nowMs, std::vector<EventPtr>& out) {
    for (auto it = held_.begin(); it != held_.end();) {
        Entry& entry = it->second;
        const FileState now = stat_(it->first.second);
        if (now != entry.state) {
            entry.state = now;
            entry.lastChangeMs = nowMs;
        }
        const bool settled = nowMs - entry.lastChangeMs >= settleMs_;
        const bool overdue = nowMs - entry.firstMs >= maxDelayMs_;
        if (!now.exists || settled || overdue) {
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
