#pragma once

#include "framework/Module.h"

namespace Engine {

class AuditTask;

/// The process-collection service module: owns "audit_task". Init registers and starts the
/// task, UnInit stops it (which deletes every audit rule it added). Control thread only.
class ProcessCollectModule : public Framework::Module {
public:
    static constexpr const char* kModuleName = "process_collect_module";

    ProcessCollectModule();

    int Init() override;
    void UnInit() override;

protected:
    ~ProcessCollectModule() override;

private:
    bool running_ = false;
};

}  // namespace Engine

/// The module's entry point for the agent's loader.
extern "C" Framework::Module* CreateModule();
