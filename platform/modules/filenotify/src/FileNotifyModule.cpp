#include "filenotify/FileNotifyModule.h"

#include "filenotify/FileNotifyTask.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

FileNotifyModule::FileNotifyModule() : Framework::Module(kModuleName) {}

int FileNotifyModule::Init() {
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, true);
    if (RegisterTask(new FileNotifyTask(), false) != 0) {
        TW_LOG(logger, PRIO_ERROR, "File notify: task %s not registered",
               std::string(FileNotifyTask::kTaskName));
        return -1;
    }
    registered_ = true;
    return Framework::Module::Init();
}

void FileNotifyModule::UnInit() {
    if (registered_) UnRegisterTask(FileNotifyTask::kTaskName);
    registered_ = false;
    Framework::Module::UnInit();
}

}  // namespace Engine

extern "C" Framework::Module* CreateModule() { return new Engine::FileNotifyModule(); }
