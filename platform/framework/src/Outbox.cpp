#include "framework/Outbox.h"

#include "framework/Message.h"
#include "framework/Task.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Framework {

namespace {
constexpr uint64_t kDropLogIntervalMs = 5000;
}  // namespace

Outbox::Outbox(Task& sender, std::size_t limit, const std::string& counterPrefix, long highWater)
    : sender_(sender),
      limit_(limit == 0 ? 1 : limit),
      heldCounter_(counterPrefix + ".held"),
      droppedCounter_(counterPrefix + ".dropped", kDropLogIntervalMs),
      highWater_(highWater) {}

bool Outbox::Offer(const std::string& taskName, std::shared_ptr<Message>& msg) {
    if (highWater_ > 0 && Task::QueuedMessages(taskName) >= highWater_) return false;
    // Full keeps the message with us; queued or released (no such task, counted) ends it.
    return sender_.TrySendDirectMsg(taskName, msg) != 1;
}

bool Outbox::Send(const std::string& taskName, Message* msg) {
    if (msg == nullptr) return false;
    std::shared_ptr<Message> owned(msg);
    auto it = waiting_.find(taskName);
    if ((it == waiting_.end() || it->second.empty()) && Offer(taskName, owned)) return true;
    heldCounter_.Add();
    if (held_ >= limit_) {
        TW_DEGRADED(droppedCounter_, 1,
                    SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", true),
                    PRIO_WARNING, "Task %s holds %z messages for task %s already; %s dropped",
                    sender_.name(), held_, taskName, owned->TypeName());
        return false;
    }
    waiting_[taskName].push_back(std::move(owned));
    ++held_;
    return true;
}

std::size_t Outbox::Flush() {
    for (auto it = waiting_.begin(); it != waiting_.end();) {
        auto& queue = it->second;
        while (!queue.empty() && Offer(it->first, queue.front())) {
            queue.pop_front();
            --held_;
        }
        it = queue.empty() ? waiting_.erase(it) : std::next(it);
    }
    return held_;
}

}  // namespace Framework
