#include "process_collect/ProcessCollectModule.h"

#include <new>

#include "process_collect/AuditTask.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

ProcessCollectModule::ProcessCollectModule() : Framework::Module(kModuleName) {}

ProcessCollectModule::~ProcessCollectModule() = default;

int ProcessCollectModule::Init() {
    if (running_) return 0;
    auto* task = new (std::nothrow) AuditTask();
    if (task == nullptr) return -1;
    // RegisterTask owns the task from here on, also when it fails.
    if (RegisterTask(task, false) != 0) {
        TW_LOG(SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, true), PRIO_ERROR,
               "Process collect module could not start %s", std::string(AuditTask::kTaskName));
        return -1;
    }
    running_ = true;
    return 0;
}

void ProcessCollectModule::UnInit() {
    if (!running_) return;
    UnRegisterTask(AuditTask::kTaskName);
    running_ = false;
}

}  // namespace Engine

extern "C" Framework::Module* CreateModule() {
    return new (std::nothrow) Engine::ProcessCollectModule();
}
