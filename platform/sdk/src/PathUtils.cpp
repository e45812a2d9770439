#include "sdk/PathUtils.h"

#include <climits>
#include <cstdlib>

#include "sdk/ContainerRoot.h"
#include "sdk/RootConfinement.h"

namespace SDK {

std::string PathUtils::GetFileNameFromPath(const std::string& path) {
    const std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos) return path;
    return path.substr(slash + 1);
}

std::string PathUtils::GetExistedCanonicalizePath(const std::string& path) {
    if (path.empty() || path.size() >= PATH_MAX) return std::string();
    if (const std::string* root = RootConfinement::Current()) {
        const ContainerRoot container(*root);
        std::string inner;
        if (!container.IsOpen() || !container.InnerOf(path, inner)) return std::string();
        return container.Resolve(inner);
    }
    char resolved[PATH_MAX + 1] = {0};
    if (realpath(path.c_str(), resolved) == nullptr) return std::string();
    return std::string(resolved);
}

std::string PathUtils::StripTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace SDK
