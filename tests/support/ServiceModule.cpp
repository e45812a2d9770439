#include "support/ServiceModule.h"

#include <dlfcn.h>

namespace TestSupport {

ServiceModule::~ServiceModule() { Stop(); }

bool ServiceModule::Load(const std::string& file) {
    Stop();
    const std::string path = std::string(TARNWICK_LIB_DIR) + "/" + file;
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* reason = ::dlerror();
        error_ = reason != nullptr ? reason : path + ": cannot be loaded";
        return false;
    }
    auto create = reinterpret_cast<CreateModuleFunc>(::dlsym(handle, "CreateModule"));
    Framework::Module* module = create != nullptr ? create() : nullptr;
    if (module == nullptr) {
        error_ = path + (create == nullptr ? ": no CreateModule" : ": CreateModule returned null");
        return false;
    }
    return Start(module);
}

bool ServiceModule::Start(Framework::Module* module) {
    Stop();
    if (module->Init() != 0) {
        // Half started: let it undo what it did, as the agent would.
        module->UnInit();
        module->release();
        error_ = std::string(module->name()) + ": Init failed";
        return false;
    }
    module_ = module;
    error_.clear();
    return true;
}

void ServiceModule::Stop() {
    if (module_ == nullptr) return;
    module_->UnInit();
    module_->release();
    module_ = nullptr;
}

}  // namespace TestSupport
