#include "process_collect/AuditPathResolver.h"

#include <string>
#include <utility>
#include <vector>

namespace Engine {

bool AuditPathResolver::Resolve(const SDK::ContainerRoot& root, AuditLogSyscall& syscall) {
    std::vector<AuditLogPath> resolved;
    resolved.reserve(syscall.paths.size());
    for (auto& item : syscall.paths) {
        std::string inner;
        if (!root.InnerOf(item.name, inner)) continue;
        std::string host = root.Resolve(inner);
        if (host.empty()) continue;
        item.name = std::move(host);
        resolved.push_back(std::move(item));
    }
    syscall.paths = std::move(resolved);
    // Only the directories of the names left (the file itself is gone): nothing to look at.
    return !syscall.paths.empty() && syscall.paths.front().nametype != "PARENT";
}

}  // namespace Engine
