#include "container/ContainerModule.h"

#include "container/ContainerCollectTask.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

ContainerModule::ContainerModule()
    : Framework::SingleTaskModule(kModuleName, [] { return new ContainerCollectTask(); }) {}

Poco::Logger* ContainerModule::GetLoggerPtr() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, true);
}

}  // namespace Engine

extern "C" Framework::Module* CreateModule() {
    return new (std::nothrow) Engine::ContainerModule();
}
