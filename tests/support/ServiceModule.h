#pragma once

#include <string>

#include "framework/Module.h"

namespace TestSupport {

/// One module of the build, started the way the agent starts it (dlopen, CreateModule, Init)
/// and stopped (UnInit, release) by Stop or at the latest on destruction. The library stays
/// mapped: its threads and statics may outlive the module object.
class ServiceModule {
public:
    ServiceModule() = default;
    ~ServiceModule();
    ServiceModule(const ServiceModule&) = delete;
    ServiceModule& operator=(const ServiceModule&) = delete;

    /// Loads `file` (e.g. "libfilenotify_module.so") from the build's library folder and
    /// initialises it. False, with Error() saying why, when any step fails.
    bool Load(const std::string& file);
    /// Takes `module` (already created, e.g. linked in) and initialises it, as Load does.
    bool Start(Framework::Module* module);
    /// UnInit and release; nothing when not loaded.
    void Stop();
    /// The running module, or null.
    Framework::Module* Get() const { return module_; }
    const std::string& Error() const { return error_; }

private:
    Framework::Module* module_ = nullptr;
    std::string error_;
};

}  // namespace TestSupport
