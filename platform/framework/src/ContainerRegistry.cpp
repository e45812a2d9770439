#include "framework/ContainerRegistry.h"

#include <algorithm>

#include "sdk/PathUtils.h"

namespace Framework {

ContainerRegistry& ContainerRegistry::Instance() {
    static ContainerRegistry* instance = new ContainerRegistry();  // used until process exit
    return *instance;
}

void ContainerRegistry::Started(const std::string& rootPath, const std::string& id, int pid) {
    const std::string root = SDK::PathUtils::StripTrailingSlashes(rootPath);
    if (root.size() < 2 || root.front() != '/') return;
    std::lock_guard<std::mutex> lock(mutex_);
    exited_.erase(std::remove(exited_.begin(), exited_.end(), root), exited_.end());
    Entry& entry = entries_[root];
    entry.rootPath = root;
    entry.id = id;
    entry.pid = pid < 0 ? 0 : pid;
}

void ContainerRegistry::Exited(const std::string& rootPath) {
    const std::string root = SDK::PathUtils::StripTrailingSlashes(rootPath);
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(root);
    if (it == entries_.end() || it->second.pid == 0) return;
    it->second.pid = 0;
    exited_.push_back(root);
    if (exited_.size() <= kMaxExited) return;
    entries_.erase(exited_.front());
    exited_.pop_front();
}

bool ContainerRegistry::Find(const std::string& path, Entry& entry) const {
    if (path.empty() || path.front() != '/') return false;
    std::lock_guard<std::mutex> lock(mutex_);
    if (entries_.empty()) return false;
    // Every prefix that ends at a component boundary, deepest first.
    for (std::size_t end = path.size(); end > 1; end = path.rfind('/', end - 1)) {
        auto it = entries_.find(path.substr(0, end));
        if (it != entries_.end()) {
            entry = it->second;
            return true;
        }
    }
    return false;
}

void ContainerRegistry::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
    exited_.clear();
}

}  // namespace Framework
