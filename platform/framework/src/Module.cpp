#include "framework/Module.h"

#include <exception>
#include <vector>

#include "FrameworkLog.h"
#include "framework/FeaturePolicy.h"
#include "framework/TaskPolicy.h"
#include "framework/TaskRegistry.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Framework {

namespace {
constexpr int kDrainBatch = 1024;

}  // namespace

Module::Module(const std::string& name) : name_(name) {}

Module::~Module() {
    std::map<std::string, RunningTask> left;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        left.swap(tasks_);
    }
    // A module destroyed without UnInit still stops its threads before its tasks go away.
    for (auto& entry : left) StopTask(entry.second);
}

int Module::Init() { return 0; }

void Module::UnInit() {}

int Module::RegisterTask(Task* task, bool detached) {
    if (task == nullptr) return -1;
    const std::string taskName = task->name();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (tasks_.count(taskName) != 0 || !TaskRegistry::Instance().Register(taskName, task)) {
            TW_LOG(FrameworkLogger(), PRIO_ERROR, "Module %s: task name %s is already taken", name_,
                   taskName);
            task->release();
            return -1;
        }
    }
    task->Init();
    RunningTask running;
    running.task = task;
    running.detached = detached;
    running.thread = std::thread([task] { task->run(); });
    task->WaitUntilRunning();  // a stop right after the start must not be lost
    std::lock_guard<std::mutex> lock(mutex_);
    tasks_[taskName] = std::move(running);
    return 0;
}

void Module::StopTask(RunningTask& running) {
    Task* task = running.task;
    task->cancel();
    task->GetEventWaiter().Notify();  // wake the loop now rather than at its wait timeout
    if (running.thread.joinable()) running.thread.join();
    // Messages that arrived before the stop (a feature module withdrawing its watches and
    // rules at shutdown) are still handled, here on the control thread now that the task's
    // own thread is gone, so that nothing sent to a stopping service is lost.
    while (task->BulkConsumeMsg(kDrainBatch) > 0) {
    }
    task->UnInit();
    TaskRegistry::Instance().Unregister(task->name(), task);
    task->release();
    running.task = nullptr;
}

int Module::UnRegisterTask(const std::string& taskName) {
    RunningTask running;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = tasks_.find(taskName);
        if (it == tasks_.end()) return -1;
        running = std::move(it->second);
        tasks_.erase(it);
    }
    StopTask(running);
    return 0;
}

int Module::RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback) {
    if (callback == nullptr) return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    callbacks_[key].reset(callback);
    return 0;
}

int Module::UnRegisterTaskletCallback(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    const bool had = callbacks_.erase(key) != 0;
    policies_.erase(key);
    return had ? 0 : -1;
}

Task* Module::FindTask(const std::string& taskName) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = tasks_.find(taskName);
    return it == tasks_.end() ? nullptr : it->second.task;
}

Policy* Module::GetCurrentPolicy(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = policies_.find(key);
    return it == policies_.end() ? nullptr : it->second.get();
}

int Module::RefreshPolicy(const std::string& key, const std::string& feature,
                          const std::string& document, Policy*& current) {
    // One delivery at a time, so that the newest document is the one kept; the hook itself runs
    // without the module's lock, so that it may call back into the module.
    std::lock_guard<std::mutex> delivery(refreshMutex_);
    std::shared_ptr<AbstractPolicyCallback> hook;
    std::shared_ptr<Policy> held;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto cb = callbacks_.find(key);
        if (cb != callbacks_.end()) hook = cb->second;
        auto it = policies_.find(key);
        if (it != policies_.end()) held = it->second;
    }
    if (!hook) {
        // Every module is offered every key; most have no hook for it, which is no fault.
        TW_LOG(FrameworkLogger(), PRIO_DEBUG, "Module %s: no policy hook for key %s", name_, key);
        return -1;
    }
    // Only the policy this module keeps for the key may be marked outdated: a stale pointer
    // from the caller must never be written through.
    current = held.get();
    std::shared_ptr<Policy> fresh;
    try {
        fresh.reset(hook->invoke(feature, document, current));
    } catch (const std::exception& e) {
        TW_LOG(FrameworkLogger(), PRIO_ERROR, "Module %s: policy hook for key %s failed: %s", name_,
               key, std::string(e.what()));
        return -1;
    }
    if (!fresh) return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    DispatchToTasks(fresh);
    policies_[key] = fresh;
    current = fresh.get();
    return 0;
}

// Hands the policy to the tasks it names; a policy naming none (an unparsable document) leaves
// every task with the policy it had. Called with mutex_ held.
void Module::DispatchToTasks(const std::shared_ptr<Policy>& fresh) {
    auto* feat = dynamic_cast<FeaturePolicy*>(fresh.get());
    if (feat == nullptr) return;
    for (const auto& child : feat->GetChildren()) {
        auto* taskPolicy = dynamic_cast<TaskPolicy*>(child.get());
        if (taskPolicy == nullptr) continue;
        auto task = tasks_.find(taskPolicy->GetTaskName());
        if (task == tasks_.end() || task->second.task == nullptr) continue;
        if (feat->Dispatch(taskPolicy) != 0) continue;
        task->second.task->SetFeaturePolicy(fresh);
    }
}

}  // namespace Framework
