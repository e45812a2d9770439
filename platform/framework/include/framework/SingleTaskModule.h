#pragma once

#include <functional>
#include <string>

#include "framework/Module.h"

namespace Framework {

/// The shell of a service that is one task: Init builds the task and registers it (which starts
/// its thread), UnInit unregisters it (which stops it, handles what was still queued and
/// releases it). Init twice registers once; UnInit without Init does nothing.
class SingleTaskModule : public Module {
public:
    /// `makeTask` builds a new task (owned by the module from then on); null fails Init.
    SingleTaskModule(const std::string& name, std::function<Task*()> makeTask);

    int Init() override;
    void UnInit() override;
    /// The task's name while it runs, otherwise empty.
    const std::string& TaskName() const { return taskName_; }

private:
    std::function<Task*()> makeTask_;
    std::string taskName_;
};

}  // namespace Framework
