#include "DockerFileModule.h"

#include <Poco/Logger.h>

#include "DockerFilePolicy.h"
#include "DockerFileTask.h"
#include "framework/PolicyCallback.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace {
const char* const kModuleName = "dockerfile_module";
const char* const kPolicyKey = "10001";

// Process-wide on purpose: every part of the module logs without an object at hand. Racing
// first callers store the same pointer.
Poco::Logger* gModuleLogger = nullptr;

Poco::Logger* RootLogger() { return SDK::LoggerUtils::GetInstance()->GetRootLogger(); }
}  // namespace

extern "C" Framework::Module* CreateModule() { return new Engine::DockerFileModule(); }

namespace Engine {

DockerFileModule::DockerFileModule() : Framework::Module(kModuleName) {}

DockerFileModule::~DockerFileModule() = default;

int DockerFileModule::Init() {
    RegisterTask(new DockerFileTask(), false);
    TW_LOG(RootLogger(), PRIO_INFORMATION, "Docker file module init");
    RegisterPolicyCallback(kPolicyKey, new Framework::PolicyCallback<DockerFileModule>(
                                           this, &DockerFileModule::RefreshFeaturePolicy));
    Framework::Module::Init();
    return 0;
}

void DockerFileModule::UnInit() {
    TW_LOG(RootLogger(), PRIO_INFORMATION, "Docker file module exit");
    UnRegisterTaskletCallback(kPolicyKey);
    UnRegisterTask(DockerFileTask::kTaskName);
    Framework::Module::UnInit();
}

Framework::Policy* DockerFileModule::RefreshFeaturePolicy(const std::string& /*feature*/,
                                                          const std::string& document,
                                                          Framework::Policy*& current) {
    auto* policy = new DockerFilePolicy(DockerFileTask::kTaskName);
    policy->Parse(document);  // an unusable document still yields a (ruleless) policy
    TW_LOG(GetLoggerPtr(), PRIO_INFORMATION, "Docker file module refresh policy: %s", document);
    if (current != nullptr) current->outdated = true;
    return policy;
}

Poco::Logger* DockerFileModule::GetLoggerPtr() {
    if (gModuleLogger != nullptr) return gModuleLogger;
    gModuleLogger = SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, false);
    return gModuleLogger;
}

}  // namespace Engine
