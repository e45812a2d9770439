#include "process_collect/ProcessCollectModule.h"

#include <new>

#include "process_collect/AuditTask.h"

namespace Engine {

ProcessCollectModule::ProcessCollectModule()
    : Framework::SingleTaskModule(kModuleName, [] { return new AuditTask(); }) {}

}  // namespace Engine

extern "C" Framework::Module* CreateModule() {
    return new (std::nothrow) Engine::ProcessCollectModule();
}
