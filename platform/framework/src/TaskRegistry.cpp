#include "framework/TaskRegistry.h"

#include <algorithm>
#include <mutex>

#include "framework/Task.h"

namespace Framework {

TaskRegistry& TaskRegistry::Instance() {
    static TaskRegistry* instance = new TaskRegistry();  // outlives every task thread
    return *instance;
}

bool TaskRegistry::Register(const std::string& name, Task* task) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    auto it = tasks_.find(name);
    if (it != tasks_.end() && it->second != task) return false;
    tasks_[name] = task;
    return true;
}

void TaskRegistry::Unregister(const std::string& name, Task* task) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    auto it = tasks_.find(name);
    if (it != tasks_.end() && it->second == task) tasks_.erase(it);
}

bool TaskRegistry::Has(const std::string& name) const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return tasks_.count(name) != 0;
}

int TaskRegistry::Deliver(const std::string& name, std::shared_ptr<Message>& msg) const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    auto it = tasks_.find(name);
    if (it == tasks_.end()) return 1;
    return it->second->EnqueueMsg(msg) == 1 ? 0 : 2;
}

std::string TaskRegistry::Congested() const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    for (const auto& item : tasks_) {
        const std::size_t limit =
            std::min<std::size_t>(kCongestedDepth, item.second->GetQueueCapacity() / 2);
        if (item.second->QueuedCount() > limit) return item.first;
    }
    return std::string();
}

long TaskRegistry::Queued(const std::string& name) const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    auto it = tasks_.find(name);
    if (it == tasks_.end()) return -1;
    return static_cast<long>(it->second->QueuedCount());
}

std::map<std::string, std::size_t> TaskRegistry::QueueDepths() const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    std::map<std::string, std::size_t> depths;
    for (const auto& item : tasks_) depths[item.first] = item.second->QueuedCount();
    return depths;
}

}  // namespace Framework
