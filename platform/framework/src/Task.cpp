#include "framework/Task.h"

#include <exception>
#include <vector>

#include "framework/Counters.h"
#include "framework/Policy.h"
#include "framework/RateLimiter.h"
#include "framework/TaskRegistry.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Framework {

namespace {
constexpr int kDefaultWaitMs = 100;
constexpr int kDefaultBatch = 128;
constexpr uint64_t kWarnIntervalMs = 1000;

Poco::Logger* FrameworkLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", true);
}

RateLimiter gUnknownTaskWarn(kWarnIntervalMs);
RateLimiter gQueueFullWarn(kWarnIntervalMs);
RateLimiter gHandlerWarn(kWarnIntervalMs);
}  // namespace

Task::Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
           unsigned int queueCapacity)
    : Poco::Task(name), feature_(feature), type_(type), consumer_(queueCapacity) {}

Task::~Task() = default;

void Task::runTask() {
    {
        std::lock_guard<std::mutex> lock(runningMutex_);
        running_ = true;
    }
    runningCv_.notify_all();
    Run();
}

void Task::WaitUntilRunning() {
    std::unique_lock<std::mutex> lock(runningMutex_);
    runningCv_.wait(lock, [this] { return running_; });
}

int Task::Init() { return 0; }

void Task::UnInit() {}

int Task::Run() {
    while (!isCancelled()) {
        if (waiter_.WaitAndHandleEvent(kDefaultWaitMs, kDefaultBatch) == -1) {
            BulkConsumeMsg(kDefaultBatch);
        }
    }
    return 0;
}

int Task::EnqueueMsg(std::shared_ptr<Message>& msg) {
    if (consumer_.GetQueue().Enqueue(msg) != 1) return 0;
    waiter_.Notify();
    return 1;
}

int Task::InterceptMsg(std::shared_ptr<Message>&) { return 0; }

int Task::HandleMsg(const Message*) { return 0; }

int Task::SendDirectMsg(const std::string& taskName, Message* msg) {
    if (msg == nullptr) return -1;
    std::shared_ptr<Message> owned;
    try {
        owned.reset(msg);
    } catch (...) {
        delete msg;  // shared_ptr could not allocate its control block
        return -1;
    }
    const int rc = TaskRegistry::Instance().Deliver(taskName, owned);
    if (rc == 0) return 0;
    if (rc == 1) {
        CountUnknownTask(*owned, taskName);
        return -1;
    }
    Counters::Instance().Add(CounterNames::kQueueFull);
    uint64_t suppressed = 0;
    if (gQueueFullWarn.Allow(suppressed)) {
        TW_LOG(FrameworkLogger(), PRIO_WARNING,
               "Message %s from task %s dropped: queue of task %s is full (%lu more not logged)",
               owned->TypeName(), name(), taskName, static_cast<unsigned long>(suppressed));
    }
    return -1;
}

int Task::TrySendDirectMsg(const std::string& taskName, std::shared_ptr<Message>& msg) {
    if (!msg) return -1;
    const int rc = TaskRegistry::Instance().Deliver(taskName, msg);
    if (rc == 0) {
        msg.reset();
        return 0;
    }
    if (rc == 2) return 1;
    CountUnknownTask(*msg, taskName);
    msg.reset();
    return -1;
}

void Task::CountUnknownTask(const Message& msg, const std::string& taskName) {
    Counters::Instance().Add(CounterNames::kUnknownTask);
    uint64_t suppressed = 0;
    if (gUnknownTaskWarn.Allow(suppressed)) {
        TW_LOG(FrameworkLogger(), PRIO_WARNING,
               "Message %s from task %s dropped: no task named %s (%lu more not logged)",
               msg.TypeName(), name(), taskName, static_cast<unsigned long>(suppressed));
    }
}

bool Task::PipelineCongested() { return !TaskRegistry::Instance().Congested().empty(); }

long Task::QueuedMessages(const std::string& taskName) {
    return TaskRegistry::Instance().Queued(taskName);
}

int Task::BulkConsumeMsg(int maxCount) {
    if (maxCount <= 0) return 0;
    std::vector<std::shared_ptr<Message>> batch;
    const int n = consumer_.GetQueue().DequeueBulk(batch, maxCount);
    for (auto& msg : batch) {
        try {
            if (InterceptMsg(msg) != 0) continue;
            msg->MessageHandle(static_cast<Task*>(this));
        } catch (const std::exception& e) {
            Counters::Instance().Add(CounterNames::kHandlerException);
            uint64_t suppressed = 0;
            if (gHandlerWarn.Allow(suppressed)) {
                TW_LOG(FrameworkLogger(), PRIO_ERROR,
                       "Task %s: handler of %s threw: %s (%lu more not logged)", name(),
                       msg->TypeName(), std::string(e.what()),
                       static_cast<unsigned long>(suppressed));
            }
        } catch (...) {
            Counters::Instance().Add(CounterNames::kHandlerException);
            uint64_t suppressed = 0;
            if (gHandlerWarn.Allow(suppressed)) {
                TW_LOG(
                    FrameworkLogger(), PRIO_ERROR,
                    "Task %s: handler of %s threw a non-standard exception (%lu more not logged)",
                    name(), msg->TypeName(), static_cast<unsigned long>(suppressed));
            }
        }
        msg.reset();  // release each message as soon as it was handled
    }
    // A full batch may have left more behind: make the next wait return at once.
    if (n == maxCount) waiter_.Notify();
    return n;
}

std::shared_ptr<Policy> Task::GetFeaturePolicy() const { return std::atomic_load(&policy_); }

void Task::SetFeaturePolicy(std::shared_ptr<Policy> policy) {
    std::atomic_store(&policy_, std::move(policy));
}

}  // namespace Framework
