#pragma once

#include <string>

#include "framework/Module.h"
#include "framework/Policy.h"

namespace Poco {
class Logger;
}

namespace Engine {

/// The container file-protection module: creates "dockerfile_task" and turns every policy
/// document of key "10001" into a fresh DockerFilePolicy for it.
class DockerFileModule : public Framework::Module {
public:
    /// Made by CreateModule; the framework owns and destroys it.
    DockerFileModule();
    ~DockerFileModule() override;

    /// Registers the task and the policy hook; always 0.
    int Init() override;
    /// Withdraws the policy hook, then stops and releases the task.
    void UnInit() override;

    /// Policy hook: parses `document` into a new policy (returned even when the document is
    /// unusable) and marks `current`, when there is one, outdated.
    Framework::Policy* RefreshFeaturePolicy(const std::string& feature, const std::string& document,
                                            Framework::Policy*& current);

    /// The "dockerfile_module" logger, cached once found; null while there is none.
    static Poco::Logger* GetLoggerPtr();
};

}  // namespace Engine
