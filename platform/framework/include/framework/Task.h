#pragma once

#include <Poco/Task.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "framework/EventWaiter.h"
#include "framework/Message.h"
#include "framework/MessageConsumer.h"
#include "framework/TaskCondition.h"

namespace Framework {

class Policy;

/// A framework task: a named Poco::Task with its own thread (started by Module::RegisterTask),
/// an inbound lock-free message queue, an event waiter and the feature policy in force.
///
/// Lifecycle: constructed by a module, handed to Module::RegisterTask (which owns it, calls
/// Init, starts the thread running Run); Module::UnRegisterTask cancels it, joins the thread,
/// calls UnInit and releases it. Other threads reach it only through SendDirectMsg/EnqueueMsg.
class Task : public Poco::Task {
public:
    /// queueCapacity: how many messages may wait in the queue at once.
    Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
         unsigned int queueCapacity);

    /// Poco's entry point on the task thread: runs Run().
    void runTask() override;
    /// Blocks until the task thread has entered runTask. Poco marks a task running when its
    /// thread starts, overwriting a cancel that came earlier, so a task must not be cancelled
    /// before this returned.
    void WaitUntilRunning();

    /// Start and stop on the control thread; derived tasks call these last in their own
    /// Init/UnInit. The task's name is reachable by SendDirectMsg from just before Init until
    /// just after UnInit (Module::RegisterTask / UnRegisterTask).
    virtual int Init();
    virtual void UnInit();
    /// The task thread's loop; the default waits and drains the queue until cancelled.
    virtual int Run();
    /// Queues a message for this task (any thread); 1 when queued, 0 when the queue is full.
    virtual int EnqueueMsg(std::shared_ptr<Message>& msg);
    /// Called on the task thread before a message is handled; non-zero swallows the message.
    virtual int InterceptMsg(std::shared_ptr<Message>& msg);
    /// Receives messages without a typed receiver of their own (DataMessage). Default: 0.
    virtual int HandleMsg(const Message* msg);

    /// Sends a heap message to the task registered under `taskName`, taking ownership at once.
    /// Unknown task or full queue: the message is released, counted and a rate-limited warning
    /// is logged. Never blocks or throws; any thread. Returns 0 when queued, -1 otherwise.
    int SendDirectMsg(const std::string& taskName, Message* msg);
    /// Like SendDirectMsg, but a message that finds the queue full stays with the caller, in
    /// `msg`, to be offered again later: how a service holds back instead of dropping. An
    /// unknown task releases it, counted as SendDirectMsg does. 0 queued, 1 full (kept),
    /// -1 released.
    int TrySendDirectMsg(const std::string& taskName, std::shared_ptr<Message>& msg);
    /// Messages waiting in the queue of the task registered as `taskName` (a snapshot), or -1
    /// when there is none. Any thread.
    static long QueuedMessages(const std::string& taskName);
    /// True when some task's queue is long (TaskRegistry::kCongestedDepth): the pipeline is behind,
    /// and a service that reads the kernel should hold back rather than push more in. Any thread.
    static bool PipelineCongested();

    /// Takes up to maxCount queued messages and delivers each on this thread. An exception
    /// escaping a handler is caught, logged with task and message type, and counted.
    /// Returns how many messages were taken.
    int BulkConsumeMsg(int maxCount);

    EventWaiter& GetEventWaiter() { return waiter_; }
    const std::string& GetFeatureName() const { return feature_; }
    TaskCondition::TaskType GetTaskType() const { return type_; }
    size_t GetQueueCapacity() const { return consumer_.GetQueue().Capacity(); }
    /// Messages waiting in this task's queue (a snapshot).
    size_t QueuedCount() const { return consumer_.GetQueue().Count(); }

    /// The feature policy in force (null before the first one). Swapped atomically; a caller
    /// that took it keeps it alive until it drops the pointer.
    std::shared_ptr<Policy> GetFeaturePolicy() const;
    void SetFeaturePolicy(std::shared_ptr<Policy> policy);

protected:
    ~Task() override;

private:
    void CountUnknownTask(const Message& msg, const std::string& taskName);

    std::string feature_;
    TaskCondition::TaskType type_;
    MessageConsumer consumer_;
    EventWaiter waiter_;
    std::shared_ptr<Policy> policy_;  // accessed only through std::atomic_load/atomic_store
    std::mutex runningMutex_;         // guards running_
    std::condition_variable runningCv_;
    bool running_ = false;
};

}  // namespace Framework
