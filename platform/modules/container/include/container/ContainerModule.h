#pragma once

#include "framework/Module.h"

namespace Poco {
class Logger;
}

namespace Engine {

/// The container-collection service module ("container_module"): owns the one task
/// "container_collect_task". Init/UnInit on the agent's control thread.
class ContainerModule : public Framework::Module {
public:
    static constexpr const char* kModuleName = "container_module";

    ContainerModule();

    /// Creates and registers the task; 0 on success, -1 when it could not start.
    int Init() override;
    /// Unregisters the task (stops the event stream, joins its threads).
    void UnInit() override;

    /// The module's logger (a child of the agent's root logger).
    static Poco::Logger* GetLoggerPtr();

protected:
    ~ContainerModule() override;

private:
    bool registered_ = false;
};

}  // namespace Engine
