#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "framework/Task.h"
#include "framework/TaskCondition.h"
#include "support/Deadline.h"

namespace TestSupport {

/// A task that stands in for a service's client and keeps what it is sent. A test derives from
/// it and from the receiver interfaces it needs, and records one Item per message from the
/// handler (task thread); the test thread reads and waits on the records.
template <typename Item>
class RecordingTask : public Framework::Task {
public:
    using Match = std::function<bool(const Item&)>;

    explicit RecordingTask(const std::string& name, unsigned int queueCapacity = 1024)
        : Framework::Task(name, "test", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                          queueCapacity) {}

    /// Keeps `item` and wakes the waiters; called by the derived task's handlers.
    void Record(Item item) {
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(std::move(item));
        changed_.notify_all();
    }

    /// A copy of everything recorded so far, in the order it arrived.
    std::vector<Item> Items() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return items_;
    }

    std::size_t Count(const Match& match) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<std::size_t>(std::count_if(items_.begin(), items_.end(), match));
    }

    /// The first record that matches, into `out`; false when none yet.
    bool Find(const Match& match, Item& out) const {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = std::find_if(items_.begin(), items_.end(), match);
        if (it == items_.end()) return false;
        out = *it;
        return true;
    }

    /// Waits until `condition` holds over the records, woken by each new one; false when the
    /// timeout passed first.
    bool WaitFor(const std::function<bool(const std::vector<Item>&)>& condition,
                 std::chrono::milliseconds timeout = kDefaultWait) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return condition(items_); });
    }

private:
    mutable std::mutex mutex_;  // guards items_ (task thread writes, test thread reads)
    std::condition_variable changed_;
    std::vector<Item> items_;
};

}  // namespace TestSupport
