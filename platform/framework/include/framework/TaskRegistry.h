#pragma once

#include <map>
#include <memory>
#include <shared_mutex>
#include <string>

namespace Framework {

class Message;
class Task;

/// Process-wide task name registry behind Task::SendDirectMsg. Thread-safe.
class TaskRegistry {
public:
    static TaskRegistry& Instance();

    /// false when the name is already taken by another task.
    bool Register(const std::string& name, Task* task);
    void Unregister(const std::string& name, Task* task);
    bool Has(const std::string& name) const;

    /// Enqueues into the named task while holding the registry lock, so that a task cannot be
    /// unregistered and destroyed under a sender. 0 queued, 1 unknown task, 2 queue full.
    int Deliver(const std::string& name, std::shared_ptr<Message>& msg) const;
    /// Messages waiting in the named task's queue, or -1 when there is no such task.
    long Queued(const std::string& name) const;
    /// Task name -> messages waiting in its queue, for every registered task.
    std::map<std::string, std::size_t> QueueDepths() const;
    /// Messages waiting in one queue beyond which the task counts as congested (or half its
    /// capacity, when that is less): what a newcomer may find ahead of it stays short.
    static constexpr std::size_t kCongestedDepth = 64;
    /// The name of a congested task, or empty when none is.
    std::string Congested() const;

private:
    mutable std::shared_mutex mutex_;  // guards tasks_
    std::map<std::string, Task*> tasks_;
};

}  // namespace Framework
