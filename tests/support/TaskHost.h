#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "framework/Module.h"
#include "framework/Task.h"

namespace TestSupport {

/// A module of the test's own that runs its stand-in tasks on the real framework. Every task
/// added is unregistered (its thread joined) when the host goes, newest first.
class TaskHost {
public:
    explicit TaskHost(const std::string& name) : module_(new Framework::Module(name)) {}
    ~TaskHost() {
        Clear();
        module_->release();
    }
    TaskHost(const TaskHost&) = delete;
    TaskHost& operator=(const TaskHost&) = delete;

    /// Registers `task`, which the module then owns, and starts it; the task, or null when the
    /// module refused it (it has then released it).
    template <typename T>
    T* Add(T* task) {
        const std::string name = task->name();
        if (module_->RegisterTask(task, false) != 0) return nullptr;
        names_.push_back(name);
        return task;
    }
    /// Stops and releases the named task now.
    void Remove(const std::string& name) {
        const auto it = std::find(names_.begin(), names_.end(), name);
        if (it == names_.end()) return;
        names_.erase(it);
        module_->UnRegisterTask(name);
    }
    /// Stops every task added.
    void Clear() {
        for (auto it = names_.rbegin(); it != names_.rend(); ++it) module_->UnRegisterTask(*it);
        names_.clear();
    }

private:
    Framework::Module* module_;
    std::vector<std::string> names_;  // registered tasks, oldest first
};

}  // namespace TestSupport
