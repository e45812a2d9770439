#pragma once

#include <string>
#include <vector>

#include "framework/PolicyDescription.h"

namespace Framework {
class Module;
}

namespace Agent {

/// Loads the agent's modules (lib*_module.so) from one directory and drives their lifecycle.
/// Service modules come first in a fixed order, feature modules after them (by name); UnInit
/// runs in reverse so that a feature module withdraws its requests while the services still
/// run. Control thread only.
class ModuleLoader {
public:
    struct Loaded {
        std::string file;        ///< path of the library
        void* handle = nullptr;  ///< dlopen handle (never closed: code may still run)
        Framework::Module* module = nullptr;
        bool initialised = false;
        DescribePolicyFunc describe = nullptr;  ///< the library's DescribePolicy, if it has one
    };

    ModuleLoader() = default;
    ~ModuleLoader();
    ModuleLoader(const ModuleLoader&) = delete;
    ModuleLoader& operator=(const ModuleLoader&) = delete;

    /// The lib*_module.so files of `dir` in load order.
    static std::vector<std::string> ListModuleFiles(const std::string& dir);
    /// Loads one library and creates its module; on failure `error` says why (the file opens,
    /// CreateModule resolves, it returns non-null).
    bool LoadOne(const std::string& file, std::string& error);
    /// Calls Init on every loaded module in load order.
    void InitAll();
    /// Calls UnInit on every initialised module in reverse order, then releases them.
    void UnInitAll();

    /// Hands a policy document to every module; returns how many took it.
    int DeliverPolicy(const std::string& key, const std::string& feature,
                      const std::string& document);

    /// Describes a document of policy `key` through the first module library that describes
    /// that key. `delivered` false: the module parses it afresh (nothing needs to be
    /// initialised); true: the policy an initialised module built from it at the last
    /// DeliverPolicy is described, without a second parse. False when no module describes it.
    bool DescribePolicy(const std::string& key, const std::string& document, bool delivered,
                        Framework::PolicyDescription& out);

    const std::vector<Loaded>& Modules() const { return modules_; }

private:
    std::vector<Loaded> modules_;
};

}  // namespace Agent
