#pragma once

#include "framework/SingleTaskModule.h"

namespace Poco {
class Logger;
}

namespace Engine {

/// The container-collection service module ("container_module"): owns the one task
/// "container_collect_task". Init/UnInit on the agent's control thread.
class ContainerModule : public Framework::SingleTaskModule {
public:
    static constexpr const char* kModuleName = "container_module";

    ContainerModule();

    /// The module's logger (a child of the agent's root logger).
    static Poco::Logger* GetLoggerPtr();
};

}  // namespace Engine
