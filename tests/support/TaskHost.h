#pragma once

#include <string>
#include <vector>

#include "framework/Module.h"
#include "framework/Task.h"

namespace TestSupport {

/// A module of the test's own that runs its stand-in tasks on the real framework. Every task
/// added is unregistered (its thread joined) when the host goes, newest first.
class TaskHost {
public:
    explicit TaskHost(const std::string& name);
    ~TaskHost();
    TaskHost(const TaskHost&) = delete;
    TaskHost& operator=(const TaskHost&) = delete;

    /// Registers `task`, which the module then owns, and starts it; the task, or null when the
    /// module refused it (it has then released it).
    template <typename T>
    T* Add(T* task) {
        return Register(task) ? task : nullptr;
    }
    /// Stops and releases the named task now.
    void Remove(const std::string& name);
    /// Stops every task added.
    void Clear();

private:
    bool Register(Framework::Task* task);

    Framework::Module* module_;
    std::vector<std::string> names_;  // registered tasks, oldest first
};

}  // namespace TestSupport
