#pragma once

#include "framework/SingleTaskModule.h"

namespace Engine {

/// The file-notify service: owns "filenotify_task" from Init to UnInit.
class FileNotifyModule : public Framework::SingleTaskModule {
public:
    static constexpr const char* kModuleName = "filenotify_module";

    FileNotifyModule();
};

}  // namespace Engine
