#include "support/TaskHost.h"

#include <algorithm>

namespace TestSupport {

TaskHost::TaskHost(const std::string& name) : module_(new Framework::Module(name)) {}

TaskHost::~TaskHost() {
    Clear();
    module_->release();
}

bool TaskHost::Register(Framework::Task* task) {
    const std::string name = task->name();
    if (module_->RegisterTask(task, false) != 0) return false;
    names_.push_back(name);
    return true;
}

void TaskHost::Remove(const std::string& name) {
    const auto it = std::find(names_.begin(), names_.end(), name);
    if (it == names_.end()) return;
    names_.erase(it);
    module_->UnRegisterTask(name);
}

void TaskHost::Clear() {
    while (!names_.empty()) {
        module_->UnRegisterTask(names_.back());
        names_.pop_back();
    }
}

}  // namespace TestSupport
