#include "filenotify/FileNotifyModule.h"

#include <new>

#include "filenotify/FileNotifyTask.h"

namespace Engine {

FileNotifyModule::FileNotifyModule()
    : Framework::SingleTaskModule(kModuleName, [] { return new FileNotifyTask(); }) {}

}  // namespace Engine

extern "C" Framework::Module* CreateModule() {
    return new (std::nothrow) Engine::FileNotifyModule();
}
