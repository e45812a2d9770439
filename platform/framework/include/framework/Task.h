#pragma once

#include <Poco/Task.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "framework/Clock.h"
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
    /// How the default loop waits: at most waitMs per turn, up to maxEvents ready descriptors
    /// handled and up to batch queued messages taken per turn.
    struct LoopSettings {
        int waitMs = 100;
        int batch = 128;
        int maxEvents = 128;
        /// When batches follow each other closer than this, messages gather in the queue until
        /// this long after the last batch (or a full batch waits): fewer wake-ups under a storm,
        /// at most this much later. 0: every message is taken as soon as it is signalled.
        int gatherMs = 0;
    };

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
    /// The task thread's loop. The default runs turns until cancelled: wait (NextWaitMs) for
    /// descriptors or messages, take a batch of messages when signalled, then OnTurn with the
    /// time. Services override the two hooks, not the loop.
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

    /// Blocks until this task has handled every message queued before the call (an
    /// IdleBarrier queued behind them is reached), at most timeoutMs. false on timeout, or when
    /// the queue stayed full. Any thread but the task's own.
    bool WaitIdle(int timeoutMs);
    /// WaitIdle on the task registered as `taskName`; false when there is none.
    static bool WaitIdle(const std::string& taskName, int timeoutMs);

    /// The clock the task's turns, retries and limits read (the system's by default). Set it
    /// before the task is registered; it must outlive the task.
    void SetClock(const Clock& clock) { clock_ = &clock; }
    const Clock& GetClock() const { return *clock_; }
    uint64_t NowMs() const { return clock_->NowMs(); }

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

    /// Set by a derived constructor when the default wait and batch do not fit the service.
    void SetLoopSettings(const LoopSettings& settings) { loop_ = settings; }
    const LoopSettings& GetLoopSettings() const { return loop_; }
    /// One turn of the default loop (also callable by a derived Run that adds steps around it).
    void RunTurn();
    /// How long the next wait may last; default LoopSettings::waitMs. Task thread.
    virtual int NextWaitMs();
    /// Periodic work after each wait (retries, timers, flushing held messages). Task thread.
    virtual void OnTurn(uint64_t nowMs);

public:
    /// Called on the task thread after each batch of messages was handled, and before an idle
    /// barrier is reached: a task that gathers work across a batch (one write for many
    /// messages) finishes it here, so that "idle" still means "all of it done".
    virtual void OnBatchEnd();

protected:
private:
    void CountUnknownTask(const Message& msg, const std::string& taskName);
    void Gather();

    std::string feature_;
    LoopSettings loop_;
    const Clock* clock_ = &Clock::System();
    TaskCondition::TaskType type_;
    MessageConsumer consumer_;
    EventWaiter waiter_;
    std::chrono::steady_clock::time_point lastBatchAt_{};  // task thread
    std::shared_ptr<Policy> policy_;  // accessed only through std::atomic_load/atomic_store
    std::mutex runningMutex_;         // guards running_
    std::condition_variable runningCv_;
    bool running_ = false;
};

}  // namespace Framework
