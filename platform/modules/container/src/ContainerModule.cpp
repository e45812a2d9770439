#include "container/ContainerModule.h"

#include <new>

#include "container/ContainerCollectTask.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

ContainerModule::ContainerModule() : Framework::Module(kModuleName) {}

ContainerModule::~ContainerModule() = default;

Poco::Logger* ContainerModule::GetLoggerPtr() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, true);
}

int ContainerModule::Init() {
    if (registered_) return 0;
    auto* task = new (std::nothrow) ContainerCollectTask();
    if (task == nullptr) return -1;
    if (RegisterTask(task, false) != 0) {
        TW_LOG(GetLoggerPtr(), PRIO_ERROR, "Docker monitor could not register task %s",
               std::string(ContainerCollectTask::kTaskName));
        return -1;
    }
    registered_ = true;
    return Framework::Module::Init();
}

void ContainerModule::UnInit() {
    if (registered_) UnRegisterTask(ContainerCollectTask::kTaskName);
    registered_ = false;
    Framework::Module::UnInit();
}

}  // namespace Engine

extern "C" Framework::Module* CreateModule() {
    return new (std::nothrow) Engine::ContainerModule();
}
