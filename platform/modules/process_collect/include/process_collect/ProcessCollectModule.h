#pragma once

#include "framework/SingleTaskModule.h"

namespace Engine {

/// The process-collection service module: owns "audit_task". Init registers and starts the
/// task, UnInit stops it (which deletes every audit rule it added). Control thread only.
class ProcessCollectModule : public Framework::SingleTaskModule {
public:
    static constexpr const char* kModuleName = "process_collect_module";

    ProcessCollectModule();
};

}  // namespace Engine
