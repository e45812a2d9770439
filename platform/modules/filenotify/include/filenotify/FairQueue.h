#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <utility>

namespace Engine {

/// Items waiting for a slow consumer, one FIFO per source, drained round-robin, so that one
/// source's storm cannot push another source's items to the back of a long line. Bounded per
/// source and in all: Push refuses an item when its source already holds perSourceLimit (the
/// caller counts that loss) and Full() tells the caller to stop taking items from upstream.
/// Plain class; one thread.
template <typename Source, typename Item>
class FairQueue {
public:
    FairQueue(std::size_t perSourceLimit, std::size_t totalLimit)
        : perSourceLimit_(perSourceLimit == 0 ? 1 : perSourceLimit),
          totalLimit_(totalLimit == 0 ? 1 : totalLimit) {}

    /// false when `source` already holds its share (the item is not taken).
    bool Push(const Source& source, Item item) {
        auto& queue = queues_[source];
        if (queue.size() >= perSourceLimit_) return false;
        queue.push_back(std::move(item));
        ++size_;
        return true;
    }

    /// Hands items to `take`, one source after the other, until `take` refuses one (it stays
    /// first in line) or nothing is left. Returns how many were taken.
    std::size_t Drain(const std::function<bool(Item&)>& take) {
        std::size_t taken = 0;
        while (size_ > 0) {
            auto it = queues_.upper_bound(cursor_);
            if (it == queues_.end()) it = queues_.begin();
            if (!take(it->second.front())) return taken;
            it->second.pop_front();
            --size_;
            ++taken;
            cursor_ = it->first;
            if (it->second.empty()) queues_.erase(it);
        }
        return taken;
    }

    /// Removes every waiting item for which `drop` is true; returns how many went.
    std::size_t EraseIf(const std::function<bool(const Source&, const Item&)>& drop) {
        std::size_t erased = 0;
        for (auto it = queues_.begin(); it != queues_.end();) {
            auto& queue = it->second;
            for (auto item = queue.begin(); item != queue.end();) {
                if (!drop(it->first, *item)) {
                    ++item;
                    continue;
                }
                item = queue.erase(item);
                ++erased;
            }
            it = queue.empty() ? queues_.erase(it) : std::next(it);
        }
        size_ -= erased;
        return erased;
    }

    std::size_t Size() const { return size_; }
    bool Full() const { return size_ >= totalLimit_; }
    bool Empty() const { return size_ == 0; }

private:
    std::size_t perSourceLimit_;
    std::size_t totalLimit_;
    std::map<Source, std::deque<Item>> queues_;
    std::size_t size_ = 0;
    Source cursor_{};  // the source served last
};

}  // namespace Engine
