#pragma once

#include "framework/Module.h"

namespace Engine {

/// The file-notify service: owns "filenotify_task" from Init to UnInit.
class FileNotifyModule : public Framework::Module {
public:
    static constexpr const char* kModuleName = "filenotify_module";

    FileNotifyModule();
    int Init() override;
    void UnInit() override;

private:
    bool registered_ = false;
};

}  // namespace Engine
