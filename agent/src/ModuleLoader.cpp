#include "agent/ModuleLoader.h"

#include <dirent.h>
#include <dlfcn.h>

#include <algorithm>
#include <exception>

#include "framework/Module.h"
#include "framework/Policy.h"

namespace Agent {

namespace {
// Services in the order they must start: the sink first, the container feed last, so that
// every service a feature module talks to already runs when the feed starts.
const char* const kServiceOrder[] = {
    "libdata_comm_module.so",
    "libfilenotify_module.so",
    "libprocess_collect_module.so",
    "libcontainer_module.so",
};

int Rank(const std::string& fileName) {
    const int services = static_cast<int>(sizeof(kServiceOrder) / sizeof(kServiceOrder[0]));
    for (int i = 0; i < services; ++i) {
        if (fileName == kServiceOrder[i]) return i;
    }
    return services;
}

bool IsModuleFileName(const std::string& name) {
    static const std::string kPrefix = "lib";
    static const std::string kSuffix = "_module.so";
    return name.size() > kPrefix.size() + kSuffix.size() && name.compare(0, 3, kPrefix) == 0 &&
           name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0;
}
}  // namespace

ModuleLoader::~ModuleLoader() { UnInitAll(); }

std::vector<std::string> ModuleLoader::ListModuleFiles(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return names;
    while (struct dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (IsModuleFileName(name)) names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        const int ra = Rank(a);
        const int rb = Rank(b);
        return ra != rb ? ra < rb : a < b;
    });
    std::vector<std::string> files;
    for (const auto& name : names) files.push_back(dir + "/" + name);
    return files;
}

bool ModuleLoader::LoadOne(const std::string& file, std::string& error) {
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = dlerror();
        error = std::string("cannot load: ") + (why ? why : "unknown error");
        return false;
    }
    dlerror();
    auto create = reinterpret_cast<CreateModuleFunc>(dlsym(handle, "CreateModule"));
    if (create == nullptr) {
        error = "no CreateModule entry point";
        return false;
    }
    Framework::Module* module = nullptr;
    try {
        module = create();
    } catch (const std::exception& e) {
        error = std::string("CreateModule failed: ") + e.what();
        return false;
    }
    if (module == nullptr) {
        error = "CreateModule returned no module";
        return false;
    }
    Loaded loaded;
    loaded.file = file;
    loaded.handle = handle;
    loaded.module = module;
    // Optional: only modules whose policies an operator can have described export it.
    loaded.describe = reinterpret_cast<DescribePolicyFunc>(dlsym(handle, "DescribePolicy"));
    modules_.push_back(loaded);
    return true;
}

void ModuleLoader::InitAll() {
    for (auto& loaded : modules_) {
        if (loaded.initialised) continue;
        loaded.module->Init();
        loaded.initialised = true;
    }
}

void ModuleLoader::UnInitAll() {
    for (auto it = modules_.rbegin(); it != modules_.rend(); ++it) {
        if (it->initialised) it->module->UnInit();
        it->initialised = false;
    }
    for (auto it = modules_.rbegin(); it != modules_.rend(); ++it) {
        if (it->module != nullptr) it->module->release();
        it->module = nullptr;
    }
    modules_.clear();
}

int ModuleLoader::DeliverPolicy(const std::string& key, const std::string& feature,
                                const std::string& document) {
    int taken = 0;
    for (auto& loaded : modules_) {
        if (!loaded.initialised) continue;
        Framework::Policy* current = nullptr;
        if (loaded.module->RefreshPolicy(key, feature, document, current) == 0) ++taken;
    }
    return taken;
}

bool ModuleLoader::DescribePolicy(const std::string& key, const std::string& document,
                                  bool delivered, Framework::PolicyDescription& out) {
    for (auto& loaded : modules_) {
        if (loaded.describe == nullptr) continue;
        const Framework::Policy* parsed = nullptr;
        if (delivered) {
            if (!loaded.initialised) continue;
            parsed = loaded.module->GetCurrentPolicy(key);
            if (parsed == nullptr) continue;
        }
        Framework::PolicyDescription description;
        if (loaded.describe(key.c_str(), document.data(), document.size(), parsed, &description) !=
            1) {
            continue;
        }
        out = description;
        return true;
    }
    return false;
}

}  // namespace Agent
