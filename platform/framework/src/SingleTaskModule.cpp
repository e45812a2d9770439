#include "framework/SingleTaskModule.h"

#include <new>

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Framework {

SingleTaskModule::SingleTaskModule(const std::string& name, std::function<Task*()> makeTask)
    : Module(name), makeTask_(std::move(makeTask)) {}

int SingleTaskModule::Init() {
    if (!taskName_.empty()) return 0;
    Task* task = nullptr;
    try {
        task = makeTask_ ? makeTask_() : nullptr;
    } catch (const std::bad_alloc&) {
        task = nullptr;
    }
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger(name(), true);
    if (task == nullptr) {
        TW_LOG(logger, PRIO_ERROR, "Module %s could not build its task", std::string(name()));
        return -1;
    }
    const std::string taskName = task->name();
    // RegisterTask owns the task from here on, also when it fails.
    if (RegisterTask(task, false) != 0) {
        TW_LOG(logger, PRIO_ERROR, "Module %s could not register task %s", std::string(name()),
               taskName);
        return -1;
    }
    taskName_ = taskName;
    return Module::Init();
}

void SingleTaskModule::UnInit() {
    if (!taskName_.empty()) UnRegisterTask(taskName_);
    taskName_.clear();
    Module::UnInit();
}

}  // namespace Framework
