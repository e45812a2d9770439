#include "framework/Task.h"

#include <chrono>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "FrameworkLog.h"
#include "framework/Counters.h"
#include "framework/DegradedCounter.h"
#include "framework/IdleBarrier.h"
#include "framework/Policy.h"
#include "framework/TaskRegistry.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace Framework {

namespace {

// One counter (and one warning limit) per receiving task: a flood towards one task must not
// hide that messages to another are lost too.
DegradedCounter& SendFailures(const char* kind, const std::string& taskName) {
    static std::mutex mutex;  // guards counters
    static auto* counters = new std::map<std::string, std::unique_ptr<DegradedCounter>>();
    const std::string name = std::string(kind) + "." + taskName;
    std::lock_guard<std::mutex> lock(mutex);
    auto& counter = (*counters)[name];
    if (!counter) counter = std::make_unique<DegradedCounter>(name);
    return *counter;
}

DegradedCounter& HandlerExceptions() {
    static auto* counter = new DegradedCounter(CounterNames::kHandlerException);
    return *counter;
}
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
    while (!isCancelled()) RunTurn();
    return 0;
}

void Task::RunTurn() {
    if (waiter_.WaitAndHandleEvent(NextWaitMs(), loop_.maxEvents) == -1) {
        if (loop_.gatherMs > 0) Gather();
        BulkConsumeMsg(loop_.batch);
    }
    if (isCancelled()) return;
    OnTurn(NowMs());
}

int Task::NextWaitMs() { return loop_.waitMs; }

void Task::Gather() {
    using SteadyClock = std::chrono::steady_clock;
    const auto until = lastBatchAt_ + std::chrono::milliseconds(loop_.gatherMs);
    const auto now = SteadyClock::now();
    if (now < until && QueuedCount() < static_cast<size_t>(loop_.batch)) {
        std::this_thread::sleep_for(until - now);
    }
    lastBatchAt_ = SteadyClock::now();
}

void Task::OnTurn(uint64_t) {}

void Task::OnBatchEnd() {}

namespace {
// Queues a barrier through `offer` (0 queued, 1 no such task, 2 full) and waits for the task
// to reach it. A full queue is being drained: the barrier is offered again until it fits.
bool WaitOnBarrier(const std::function<int(std::shared_ptr<Message>&)>& offer, int timeoutMs) {
    const uint64_t deadline = SDK::TimeUtils::GetMonotonicMs() + static_cast<uint64_t>(timeoutMs);
    auto* barrier = new IdleBarrier();
    auto state = barrier->GetState();
    std::shared_ptr<Message> msg(barrier);
    for (;;) {
        const int rc = offer(msg);
        if (rc == 0) break;
        if (rc == 1 || SDK::TimeUtils::GetMonotonicMs() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    msg.reset();
    const uint64_t now = SDK::TimeUtils::GetMonotonicMs();
    return state->WaitFor(now >= deadline ? 0 : static_cast<int>(deadline - now));
}
}  // namespace

bool Task::WaitIdle(int timeoutMs) {
    return WaitOnBarrier(
        [this](std::shared_ptr<Message>& msg) { return EnqueueMsg(msg) == 1 ? 0 : 2; }, timeoutMs);
}

bool Task::WaitIdle(const std::string& taskName, int timeoutMs) {
    return WaitOnBarrier(
        [&taskName](std::shared_ptr<Message>& msg) {
            return TaskRegistry::Instance().Deliver(taskName, msg);
        },
        timeoutMs);
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
    TW_DEGRADED(SendFailures(CounterNames::kQueueFull, taskName), 1, FrameworkLogger(),
                PRIO_WARNING, "Message %s from task %s dropped: queue of task %s is full",
                owned->TypeName(), name(), taskName);
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
    TW_DEGRADED(SendFailures(CounterNames::kUnknownTask, taskName), 1, FrameworkLogger(),
                PRIO_WARNING, "Message %s from task %s dropped: no task named %s", msg.TypeName(),
                name(), taskName);
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
            TW_DEGRADED(HandlerExceptions(), 1, FrameworkLogger(), PRIO_ERROR,
                        "Task %s: handler of %s threw: %s", name(), msg->TypeName(),
                        std::string(e.what()));
        } catch (...) {
            TW_DEGRADED(HandlerExceptions(), 1, FrameworkLogger(), PRIO_ERROR,
                        "Task %s: handler of %s threw a non-standard exception", name(),
                        msg->TypeName());
        }
        msg.reset();  // release each message as soon as it was handled
    }
    if (n > 0) OnBatchEnd();
    // A full batch may have left more behind: make the next wait return at once.
    if (n == maxCount) waiter_.Notify();
    return n;
}

std::shared_ptr<Policy> Task::GetFeaturePolicy() const { return std::atomic_load(&policy_); }

void Task::SetFeaturePolicy(std::shared_ptr<Policy> policy) {
    std::atomic_store(&policy_, std::move(policy));
}

}  // namespace Framework
